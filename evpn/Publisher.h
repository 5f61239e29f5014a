// Writes what the routes come to into a source's tables: hosts, dests, groups, flood members.
//
// Ids are made from what they stand for: a dest's from VTEP and VNI, a group's from segment and
// VLAN. So the next run of the program uses the same ids without remembering any, and what it
// publishes again is what stands there. A dest goes with the last host or group that leads to it.
#pragma once

#include "client/SourcePublisher.h"
#include "evpn/RouteTable.h"

namespace Evpn {

// The kinds of hosts that this source publishes (entryType of its hosts).
constexpr L2Rib::EntryType entryTypeLearned{ 1 };
constexpr L2Rib::EntryType entryTypeSticky{ 2 };

class Publisher : public RouteListener {
 public:
   Publisher( L2Rib::Client::SourcePublisher& source, uint32_t pref )
      : source_( source ), pref_( pref ) {}

   bool hostIs( const MacVlanPair& host, const HostGoal& goal, const HostGoal* before ) override;
   void hostDel( const MacVlanPair& host, const HostGoal& before ) override;
   bool groupIs( const GroupKey& group, const std::vector<Hop>& hops,
                 const std::vector<Hop>& before ) override;
   void groupDel( const GroupKey& group, const std::vector<Hop>& before ) override;
   bool memberIs( uint16_t vlan, const Hop& hop ) override;
   void memberDel( uint16_t vlan, const Hop& hop ) override;

   // Why the last thing was refused; empty when nothing was so far.
   const std::string& refusal() const { return refusal_; }

 private:
   // Ids of one kind: the wanted one, or the next that nobody has.
   template<class Key>
   struct Ids {
      std::map<Key, uint64_t> ids;
      std::set<uint64_t> taken;
      uint64_t of( const Key& key );
      void release( const Key& key );
   };

   bool accepted( const L2Rib::Client::Rejection& rejection );
   bool use( const Hop& hop );
   void release( const Hop& hop );
   L2Rib::DestId destOf( const Hop& hop ) { return L2Rib::DestId( destIds_.of( hop ) ); }

   L2Rib::Client::SourcePublisher& source_;
   uint32_t pref_;
   Ids<Hop> destIds_;
   Ids<GroupKey> groupIds_;
   Vexil::HashMap<Hop, size_t> uses_; // hosts and groups that lead there
   std::string refusal_;
};

} // namespace Evpn
