// The nexthops of this program in the kernel: one for each VTEP, and one group for each set of
// VTEPs that something leads to, shared by all that lead there. A group is needed for a single VTEP
// too: the kernel replaces a group by a group in place, and nothing else.
//
// Order of writes: VTEPs before the groups that have them, both before the entries that use them;
// on the way back a group goes when no entry uses it (deleting it would delete the entries), a VTEP
// when no group has it. Where all that lead to one set come to lead to another, the content of the
// group changes and the entries are not touched; where a VTEP is exchanged for a new one in all of
// its groups, that one nexthop changes and the groups are not touched either.
//
// What is there is what the kernel tells. Nexthops of this program that it does not remember are
// adopted, or removed when nothing uses them.
#pragma once

#include "bridge/Kernel.h"
#include "bridge/Retry.h"

#include <map>
#include <set>
#include <unordered_map>
#include <vector>

namespace Bridge {

class NexthopSet {
 public:
   using Vteps = std::vector<IpGenAddr>; // ascending, each once
   using Group = uint32_t;               // valid from groupIs() until as many release()
   static constexpr Group none = UINT32_MAX;

   // --- what is wanted
   // The group of that set, made if there is none; it has one more user.
   Group groupIs( const Vteps& vteps );
   void release( Group group );
   const Vteps& vteps( Group group ) const { return groups_[ group ].vteps; }
   size_t users( Group group ) const { return groups_[ group ].users; }
   bool known( const Vteps& vteps ) const { return bySet_.contains( vteps ); }
   // Gives groups another content, with all who use them. No group has it yet, and no two moves
   // have the same.
   struct Move {
      Group group;
      Vteps to;
   };
   void moveAll( const std::vector<Move>& moves );

   // The group's number in the kernel when it is there as wanted; else 0.
   uint32_t readyId( Group group ) const {
      return groups_[ group ].ready ? groups_[ group ].id : 0;
   }
   // Why it isn't, if the kernel has refused it or one of its VTEPs.
   std::string refusal( Group group ) const;

   // --- what is there
   void nexthopIs( const Nexthop& nexthop );
   void nexthopDel( uint32_t id );
   // Nexthops that are not told between these two are gone.
   void dumpBegins();
   void dumpEnded();
   // That many more (or fewer) entries in the kernel use the group of that number.
   void entriesUse( uint32_t id, int change );

   // --- the difference
   // What was written last has an unknown outcome: everything is compared again.
   void touchAll() { dirty_ = true; }
   // Writes what differs; what was refused once it is due again.
   void reconcile( Kernel& kernel, Vexil::Seconds now );
   // Removes what nobody wants and no entry uses. Only when all entries are known.
   void sweep( Kernel& kernel );
   // Numbers of groups that were deleted by somebody else since the last call. The kernel deletes
   // the entries that use a group with it, and does not tell.
   std::set<uint32_t> takeDeleted() { return std::exchange( deleted_, {} ); }
   // Groups that have become ready, or ceased to be, since the last call.
   std::set<Group> takeChanged() { return std::exchange( changed_, {} ); }
   // When something refused is due again, or never.
   Vexil::Seconds nextRetry() const;
   uint64_t repaired() const { return repaired_; }
   // Every group that is there as wanted: its number and its VTEPs. Changes with the version.
   uint64_t version() const { return version_; }
   std::map<uint32_t, Vteps> readyGroups() const;

 private:
   struct VtepState {
      uint32_t id = 0;
      size_t groups = 0; // that have it
      bool done = false; // was there as wanted
      Retry retry;
   };
   struct GroupState {
      Vteps vteps;
      uint32_t id = 0; // 0: this place is free
      size_t users = 0;
      bool ready = false;
      Retry retry;
   };

   uint32_t newId();
   void enter( Group group, const Vteps& vteps );
   void leave( Group group );
   Group newGroup( const Vteps& vteps, uint32_t id );
   void adopt();
   std::vector<uint32_t> memberIds( const Vteps& vteps ) const;
   bool isThere( const IpGenAddr& vtep, const VtepState& state ) const;
   bool isThere( const GroupState& group ) const;
   void writeVteps( Kernel& kernel, Vexil::Seconds now );
   void writeGroups( Kernel& kernel, Vexil::Seconds now );
   void noteReady();
   bool sweepGroups( Kernel& kernel );
   bool sweepVteps( Kernel& kernel );
   bool remove( Kernel& kernel, const std::vector<uint32_t>& ids );

   std::map<IpGenAddr, VtepState> vteps_;
   std::vector<GroupState> groups_;
   std::map<Vteps, Group> bySet_;
   std::set<uint32_t> own_;            // ids of the two above
   std::map<uint32_t, Nexthop> there_; // of anybody: an id is taken for all
   std::set<uint32_t> unseen_;         // during a dump
   std::unordered_map<uint32_t, int64_t> uses_;
   std::set<Group> changed_;
   std::set<uint32_t> deleted_;
   uint32_t lastId_ = 0;
   bool dirty_ = false;
   bool sweepDue_ = false;
   uint64_t repaired_ = 0;
   uint64_t version_ = 1;
};

} // namespace Bridge
