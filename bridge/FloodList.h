// Where a VXLAN device sends what it floods: the members of the broadcast flood set of its VLAN,
// held against the device's entries of the address of all zeros.
//
// The kernel marks the list as a whole, not its members, as learned elsewhere. On a device where
// somebody has put a member there by hand, no member can be told from ours; then only those that
// this run has added are removed again.
#pragma once

#include "bridge/Paths.h"

#include <map>
#include <set>

namespace Bridge {

class FloodList {
 public:
   // --- what is wanted
   void memberIs( const L2Rib::FloodSetTriple& member );
   void memberDel( const L2Rib::FloodSetTriple& member );
   void placeIs( const Place& place );

   // --- what is there
   void entryIs( const FdbEntry& entry );
   void entryDel( const FdbEntry& entry );
   // Entries that are not told between these two are gone.
   void dumpBegins() { unseen_ = there_; }
   void dumpEnded();

   // --- the difference
   void reconcile( Kernel& kernel, Vexil::Seconds now, bool mayRemove );
   Vexil::Seconds nextRetry() const;

   size_t wanted() const { return members_.size(); }
   size_t programmed() const;
   // The members that are not programmed, with the reason.
   std::map<L2Rib::FloodSetTriple, std::string> refused() const;
   uint64_t repaired() const { return repaired_; }
   // Changes with every change of the three above.
   uint64_t version() const { return version_; }

 private:
   struct Member {
      std::set<Remote> remotes; // one; none for what needs nothing, or is refused
      std::string reason;
   };
   Member judged( const L2Rib::FloodSetTriple& triple ) const;
   Remote remoteOf( const FdbEntry& entry ) const;
   void changed();
   void carryOut( Kernel& kernel, Vexil::Seconds now, const std::vector<Write>& writes );

   Place place_;
   std::map<L2Rib::FloodSetTriple, Member> members_;
   std::map<Remote, bool> there_; // whether it bears the mark of ours
   std::map<Remote, bool> unseen_;
   std::set<Remote> added_; // by this run
   std::map<Remote, Retry> retries_;
   bool dirty_ = false;
   uint64_t repaired_ = 0;
   uint64_t version_ = 0;
};

} // namespace Bridge
