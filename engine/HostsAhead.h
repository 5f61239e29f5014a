// Where the tables have the hosts to which a walk over a work list comes next.
//
// A host is looked up in the table of each source and in the output. Each lookup goes to a word of
// the table's index and from there to a record anywhere in memory. The index words come in the
// order of the walk, which is the index's own; the records don't. So some entries before its turn
// the slots of a host are taken from the indexes and its records are brought nearer to the
// processor. When its turn comes the slots are still known, and no index is looked at again.
//
// They are hints: a record may have moved meanwhile, so the lookup compares the key in the slot.
#pragma once

#include "L2Rib/Host.h"
#include "runtime/TableView.h"

#include <array>
#include <cstdint>

namespace L2Rib {

class HostsAhead {
 public:
   struct Places {
      Bridging::MacVlanPair mvp;
      uint64_t hash = 0;
      uint32_t output = Vexil::noSlot;
      // By the source's number in the walk over the sources.
      uint32_t source( size_t number ) const {
         return number < mostSources ? source_[ number ] : Vexil::noSlot;
      }
      void sourceIs( size_t number, uint32_t slot ) {
         if( number < mostSources )
            source_[ number ] = slot;
      }

    private:
      static constexpr size_t mostSources = 12; // more than there are known source values
      std::array<uint32_t, mostSources> source_ = none();
      static constexpr std::array<uint32_t, mostSources> none() {
         std::array<uint32_t, mostSources> slots;
         slots.fill( Vexil::noSlot );
         return slots;
      }
   };

   // A walk begins.
   void clear() { first_ = last_; }

   // The walk will come to mvp: its places are to be entered in what is returned.
   Places& comingIs( const Bridging::MacVlanPair& mvp ) {
      if( last_ - first_ == most )
         ++first_;
      Places& places = coming_[ last_++ % most ];
      places.mvp = mvp;
      places.hash = mvp.hash();
      return places;
   }
   // The walk has come to mvp. Valid until the next call.
   const Places& placesOf( const Bridging::MacVlanPair& mvp ) {
      for( uint64_t at = first_; at != last_; ++at )
         if( coming_[ at % most ].mvp == mvp ) {
            first_ = at + 1; // those before it have left the list
            return coming_[ at % most ];
         }
      unknown_.mvp = mvp;
      unknown_.hash = mvp.hash();
      return unknown_;
   }

 private:
   static constexpr uint64_t most = 16; // a power of two
   std::array<Places, most> coming_;
   uint64_t first_ = 0, last_ = 0; // of those that are coming
   Places unknown_;
};

} // namespace L2Rib
