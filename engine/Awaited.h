// What parked entries wait for, since when, and whether it has come.
//
// An entry (a host, an object, a flood member) that can't be programmed now is parked with what
// stands in its way: an obstacle. It stays known here, retries included, until it is programmed or
// nobody wants it any more. To try all parked entries again in every pass would cost a pass as much
// as they are many, while nothing changed for any of them. So they are tried again when the hammer
// timer has ticked, or when something came that one of them waits for: an object that it lacks, a
// change of an object that is parked itself, or room in a table that was full.
//
// Room is what a table has beyond what was free when its entries were tried last: an entry that
// needs five rows and found three does not come back for the three that it gave back itself.
//
// Hosts and objects are tried in the review, flood members in the work on their backlog: each has
// retries of its own. Times are those of the engine's clock. Every operation takes constant time on
// the average, but passEnded(), which looks at each output table.
#pragma once

#include "L2Rib/Parked.h"
#include "runtime/Clock.h"
#include "runtime/HashMap.h"

#include <array>
#include <deque>

namespace L2Rib {

// Why an entry can't be programmed.
struct Obstacle {
   ParkedReason reason = parkedNone_;
   OutputTable table = outputTableNone_; // that has no room
   uint32_t limit = 0;                   // its capacity; the greatest depth
   ObjTupleAndSource blocker;            // the object that is absent, closes a loop, lies too deep

   friend bool operator==( const Obstacle&, const Obstacle& ) = default;
};

// The obstacle of an entry for which an output table of that capacity has no room.
inline Obstacle noRoom( OutputTable table, Vexil::Room room, uint32_t capacity ) {
   return { room == Vexil::Room::full ? parkedTableFull_ : parkedNoMemory_, table, capacity, {} };
}

class Awaited {
 public:
   enum Work { review, floodBacklog }; // where entries are tried
   // The rows that each output table has free.
   using FreeRows = std::array<uint64_t, outputTables>;

   // The key with the hash of what it names: the order of the work lists, so that whoever walks
   // one of these meets the entries one beside the other.
   struct Key : ParkedKey {
      Key() = default;
      Key( const ParkedKey& key ) : ParkedKey( key ) {}
      uint64_t hash() const {
         return kind == parkedHost_     ? mvp.hash()
                : kind == parkedObject_ ? otas.hash()
                                        : ParkedKey::hash();
      }
   };
   struct Entry {
      Obstacle obstacle;
      Source source;
      Vexil::Seconds since;
      uint64_t number; // its place in the queue of ages
      uint64_t round;  // the retry rounds before it was parked
   };

   // The entry was tried and can't be programmed, once more or for the first time.
   void parked( const ParkedKey& key, Source source, const Obstacle& obstacle, Vexil::Seconds now );
   // It has been programmed, or nobody wants it any more.
   void mended( const ParkedKey& key ) {
      if( !entries_.empty() )
         drop( key );
   }

   // The hammer timer has ticked.
   void hammerTicked() {
      if( !entries_.empty() )
         due_ = { true, true };
   }
   // A source's object came, changed or went.
   void objectChanged( const ObjTupleAndSource& otas ) {
      if( !entries_.empty() &&
          ( blockers_.contains( otas ) || entries_.contains( keyOf( otas ) ) ) )
         due_[ review ] = true;
   }
   // Whether the parked entries are to be tried in the pass that begins. Reset by it.
   bool retryDue( Work work, const FreeRows& free );
   // The pass is over; retried says whether the parked entries were tried in it. Logs when a table
   // begins and when it ends to be short of room. Whether another pass is due at once.
   bool passEnded( Work work, bool retried, const FreeRows& free );

   bool empty() const { return entries_.empty(); }
   // Whether entries wait for room in a table of objects.
   bool isShortOfObjectRows() const {
      return short_[ outputTableLoadBalance_ ].waiting + short_[ outputTableLabel_ ].waiting +
                short_[ outputTableDest_ ].waiting !=
             0;
   }
   const Vexil::HashMap<Key, Entry>& entries() const { return entries_; }
   // How often all parked entries have been tried again.
   uint64_t rounds( Work work ) const { return rounds_[ work ]; }
   uint64_t count( ParkedReason reason ) const { return byReason_[ reason ]; }
   // Since when the entry that has failed the longest has been failing; never, when none fails.
   Vexil::Seconds oldest() const { return ages_.empty() ? Vexil::never : ages_.front().since; }

   // Entries that were parked or mended, or have met another obstacle, since they were last told
   // of: calls each( key, entry ) for at most so many of them, with null for one that is mended.
   template<class Each>
   void tell( size_t most, Each each ) {
      for( auto at = untold_.begin(); at != untold_.end() && most > 0; ++at, --most ) {
         const Key key = at->key;
         each( key, static_cast<const Entry*>( entries_.find( key ) ) );
         untold_.erase( key );
      }
   }
   size_t untold() const { return untold_.size(); }

   static ParkedKey keyOf( const Bridging::MacVlanPair& mvp ) { return { parkedHost_, mvp, {} }; }
   static ParkedKey keyOf( const ObjTupleAndSource& otas ) { return { parkedObject_, {}, otas }; }
   static ParkedKey keyOf( const FloodSetTriple& member );

 private:
   // An output table that entries wait for.
   struct Short {
      uint64_t waiting = 0;
      uint64_t freeWhenTried = 0;
      uint32_t capacity = 0;
      bool noMemory = false;
      bool fresh = false; // entries have begun to wait in this pass
      bool told = false;  // in the log
   };
   struct Age {
      Key key;
      uint64_t number;
      Vexil::Seconds since;
   };

   static Work workOn( const ParkedKey& key ) {
      return key.kind == parkedFloodMember_ ? floodBacklog : review;
   }
   static Work workOn( OutputTable table ) {
      return table == outputTableFlood_ ? floodBacklog : review;
   }
   bool roomCame( Work work, const FreeRows& free ) const;
   void drop( const ParkedKey& key );
   void count( const Obstacle& obstacle, bool more );
   bool stands( const Age& age ) const;
   void clearAges();
   void tellOfRoom( OutputTable table );

   Vexil::HashMap<Key, Entry> entries_;
   Vexil::HashMap<ObjTupleAndSource, uint64_t> blockers_; // and how many wait for each
   std::array<uint64_t, parkedReasons> byReason_{};
   std::array<Short, outputTables> short_{};
   std::array<bool, 2> due_{};
   std::array<uint64_t, 2> rounds_{};
   // In the order of time. An entry that is mended leaves its place, which is skipped when it has
   // come to the front; such places are cleared away when they are the greater part.
   std::deque<Age> ages_;
   uint64_t nextNumber_ = 0;
   Vexil::KeySet<Key> untold_;
};

} // namespace L2Rib
