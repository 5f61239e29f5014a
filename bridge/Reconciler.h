// One VLAN and its bridge: what the output wants of the kernel, what the kernel has, and the
// difference, written.
//
// The kernel's state is known from dumps, from notifications and from the answers to what was
// written. It is not kept anywhere else: whatever a killed program knew, the next one finds by
// comparing the same two sides. A notification may be older than what was written meanwhile, and a
// dump misses entries while others go; so whatever would contradict an entry of ours is looked up
// before it is believed.
//
// Nothing is written before both sides are complete: begin with a dump, once the output is in sync.
#pragma once

#include "bridge/FloodList.h"
#include "bridge/Paths.h"
#include "bridge/Plan.h"
#include "runtime/HashMap.h"

#include <optional>
#include <set>

namespace Bridge {

using Bridging::MacVlanPair;

// Until when an address that was learned here is left alone although the output leads elsewhere:
// the agent has to read of it first.
struct Hold {
   uint64_t position = 0; // up to which the agent has to have read the source's hosts
   Vexil::Seconds until = 0;
};

// Who is told what happens to hosts.
class HostListener {
 public:
   virtual ~HostListener() = default;
   // The bridge has learned the host on that port, or has it there by somebody's configuration. A
   // hold is returned when the host has come here from elsewhere.
   virtual std::optional<Hold> learned( const MacVlanPair& host, uint32_t port, bool fixed ) = 0;
   virtual void forgotten( const MacVlanPair& host ) = 0;

   virtual void programmed( const MacVlanPair& host, const Goal& goal ) = 0;
   virtual void refused( const MacVlanPair& host, const std::string& reason, unsigned tries ) = 0;
   // Neither of the two any more.
   virtual void released( const MacVlanPair& host ) = 0;
};

class Reconciler {
 public:
   Reconciler( Bridging::VlanId vlan, NexthopSet& nexthops, OutputObjects objects,
               HostListener& listener );

   Bridging::VlanId vlan() const { return vlan_; }
   Paths& paths() { return paths_; }
   FloodList& flood() { return flood_; }
   const Place& place() const { return place_; }

   // --- what is wanted
   // Null: nothing. own: it is what this program has published itself.
   void hostIs( EthAddr mac, const L2Rib::HostAndSource* row, bool own );
   // After paths().update(): the hosts on paths that have changed are looked at again.
   void followPaths();

   // --- what is there
   // Whether the entries have to be dumped: there are other devices now.
   bool placeIs( const Place& place );
   enum class Origin { notification, dump, lookup };
   void entryIs( const FdbEntry& entry, Origin origin );
   void entryDel( const FdbEntry& entry );
   void dumpBegins();
   void dumpEnded();
   // An earlier run has left this, with the same devices. Until the next dump has ended it is
   // believed where nothing has to be written; what has to be is looked up first. So changes of the
   // output need not wait for the dump.
   void presume( EthAddr mac, const There& there );
   // Makes room for that many hosts.
   void expect( size_t hosts );
   // Looks up some of what is in doubt; false when there is nothing left.
   bool verify( Kernel& kernel );
   // Tells the listener again if the bridge has learned the address.
   void relearn( EthAddr mac );
   // Entries that use the groups of these numbers are looked up.
   void groupsDeleted( const std::set<uint32_t>& groups );
   // What was written last has an unknown outcome: everything is compared again.
   void touchAll();

   // --- the difference
   // Writes what differs until the deadline; false when there is nothing left. Without mayRemove
   // what is not wanted any more stays for now.
   bool reconcile( Kernel& kernel, const Vexil::Clock& clock, Vexil::Seconds deadline,
                   bool mayRemove );
   // Ends the holds of what the agent has read meanwhile.
   void releaseHeld( uint64_t position, Vexil::Seconds now );
   bool holds() const { return !held_.empty(); }
   // What was refused and is due now is tried again by the next reconcile().
   void retryDue( Vexil::Seconds now );
   // When something that was refused is due, or never.
   Vexil::Seconds nextRetry() const;
   // Whether there is something to verify(), or to remove once that is allowed.
   bool doubts() const { return !suspects_.empty(); }
   bool defers() const { return !deferred_.empty(); }

   struct Counts {
      uint64_t wanted = 0; // all that has to be programmed
      uint64_t programmed = 0;
      uint64_t refused = 0;
      uint64_t learned = 0;
      uint64_t repaired = 0; // entries written again that had gone or changed
   };
   const Counts& counts() const { return counts_; }
   bool programmed( EthAddr mac ) const {
      const Row* const row = rows_.find( mac );
      return row && row->state == State::programmed;
   }

 private:
   enum class State : uint8_t {
      idle, // nothing is to be programmed
      pending,
      programmed,
      refused,
   };
   struct Row {
      There there;
      Paths::Index path = Paths::none;
      uint32_t entrySeen = 0; // the dump in which it was last told
      uint32_t remoteSeen = 0;
      State state = State::idle;
      bool repair = false; // was programmed, and has gone since
      bool learned = false;
   };
   struct Batch {
      struct Item {
         EthAddr mac;
         size_t end; // of its writes
      };
      std::vector<Write> writes;
      std::vector<Item> items;
   };
   // Paths beside those of Paths.
   static constexpr Paths::Index localPath = Paths::none - 1;

   MacVlanPair key( EthAddr mac ) const { return { mac, vlan_ }; }
   bool onPath( const Row& row ) const { return row.path < localPath; }
   void releasePath( Row& row );
   void touch( EthAddr mac );
   void thereIs( EthAddr mac, Row& row, const There& there );
   void found( EthAddr mac, Row& row, const There& there ); // the same, to be compared
   void noteLearned( EthAddr mac, Row& row );
   bool contradicts( const Row& row, const There& there, Origin origin ) const;
   void forgetThere();
   void dropIfEmpty( EthAddr mac );
   void stateIs( EthAddr mac, Row& row, State state );
   std::optional<Goal> goalOf( const Row& row, std::string& refusal ) const;
   void planRow( EthAddr mac, Batch& batch, bool mayRemove, Vexil::Seconds now );
   void planGoal( EthAddr mac, Row& row, Batch& batch, bool mayRemove );
   void refuse( EthAddr mac, Row& row, const std::string& reason );
   void carryOut( Kernel& kernel, const Batch& batch, Vexil::Seconds now );
   void done( EthAddr mac, Row& row );

   Bridging::VlanId vlan_;
   NexthopSet& nexthops_;
   HostListener& listener_;
   Paths paths_;
   FloodList flood_;
   Place place_;
   Vexil::HashMap<EthAddr, Row> rows_;
   Vexil::KeySet<EthAddr> dirty_;
   Vexil::KeySet<EthAddr> deferred_; // removals that wait until they are allowed
   Vexil::KeySet<EthAddr> suspects_;
   Vexil::HashMap<EthAddr, Hold> held_;
   Vexil::HashMap<EthAddr, Retry> retries_;
   uint32_t dump_ = 1; // the number of the last one; 0 in a row: never seen
   bool dumping_ = false;
   bool presumed_ = false;
   Counts counts_;
};

} // namespace Bridge
