// Bringing a table that another writer left back to a state between two operations. Part of
// TableWriter.h.
//
// A writer that ended in order, or was killed between two operations, leaves a table that is sound:
// that is found out in one pass over the slots, in memory order. For the rest the index is gone
// through and put right. Readers may be at work meanwhile: no record that is whole is ever missing
// from the index, not even for a moment.
#pragma once

#include "runtime/TableWriter.h"

namespace Vexil {

template<class Key, class Record>
void TableWriter<Key, Record>::recover() {
   undoTornSlot();
   if( !isSound() )
      repair();
   // The change may have been made but not told.
   if( loadWord( &header().operation ) != static_cast<uint64_t>( TableOperation::none ) ) {
      Key key;
      std::memcpy( static_cast<void*>( &key ), header().image, sizeof key );
      journal( key );
      finish();
   }
}

template<class Key, class Record>
void TableWriter<Key, Record>::undoTornSlot() {
   const auto operation = static_cast<TableOperation>( loadWord( &header().operation ) );
   const uint64_t slot = loadWord( &header().operationSlot );
   if( operation == TableOperation::none || slot >= geometry_.capacity )
      return;
   uint64_t* const words = slotWords( static_cast<uint32_t>( slot ) );
   const uint64_t state = loadWord( words );
   if( operation == TableOperation::insert &&
       slot == loadWord( &header().highWater ) ) // written, but not yet in use
      storeWord( &header().highWater, slot + 1 );
   if( !( state & SlotState::writing ) )
      return;
   if( operation == TableOperation::update ) {
      copyWords( header().image, words + 1 );
      storeWord( words,
                 ( ( state & ~SlotState::writing ) + SlotState::oneWrite ) | SlotState::live );
   } else {
      storeWord( words, ( state & ~SlotState::writing ) + SlotState::oneWrite );
   }
}

// Whether every record is found by a lookup of its key, each free slot is marked so, the index has
// a word for each record and no other, and the counts agree. Notes the free slots meanwhile.
template<class Key, class Record>
bool TableWriter<Key, Record>::isSound() {
   constexpr uint32_t batch = 32; // slots whose index words are fetched from memory meanwhile
   struct Live {
      uint64_t hash;
      uint32_t slot;
   };
   std::array<Live, batch> coming;
   uint32_t size = 0;
   uint64_t live = 0;
   const auto inIndex = [ & ] {
      return std::all_of( coming.begin(), coming.begin() + std::exchange( size, 0 ),
                          [ this ]( const Live& one ) { return isNamed( one.slot, one.hash ); } );
   };
   freeSlots_.clear();
   const uint64_t noted = loadWord( &header().highWater );
   if( noted > geometry_.capacity )
      return false;
   for( uint32_t slot = static_cast<uint32_t>( noted ); slot-- > 0; ) { // low slots are used first
      const uint64_t state = loadWord( slotWords( slot ) );
      if( state & SlotState::writing )
         return false;
      if( !( state & SlotState::live ) ) {
         freeSlots_.push_back( slot );
         continue;
      }
      ++live;
      coming[ size ] = { keyHash( keyInSlot( slot ) ), slot };
      View::prefetchIndex( coming[ size ].hash );
      if( ++size == batch && !inIndex() )
         return false;
   }
   return inIndex() && live == View::count() && indexWords() == live;
}

// Whether a lookup of the key in the slot, which has that hash, comes to that slot.
template<class Key, class Record>
bool TableWriter<Key, Record>::isNamed( uint32_t slot, uint64_t hash ) {
   const uint32_t own = code_.word( hash, slot );
   uint32_t at = homeOf( hash );
   for( uint32_t probed = 0; probed <= indexMask_; ++probed, at = ( at + 1 ) & indexMask_ ) {
      const uint32_t word = loadWord( index() + at );
      if( word == own )
         return true;
      if( word == 0 || ( code_.matches( word, hash ) &&
                         ( code_.slot( word ) >= geometry_.capacity ||
                           keyInSlot( code_.slot( word ) ) == keyInSlot( slot ) ) ) )
         return false; // absent, or hidden by another
   }
   return false;
}

template<class Key, class Record>
uint64_t TableWriter<Key, Record>::indexWords() {
   uint64_t words = 0;
   for( uint32_t at = 0; at <= indexMask_; ++at )
      words += loadWord( index() + at ) != 0;
   return words;
}

template<class Key, class Record>
void TableWriter<Key, Record>::repair() {
   freeSlots_.clear();
   const std::vector<bool> named = pruneIndex();
   uint64_t live = 0;
   uint32_t used = geometry_.capacity;
   for( const uint32_t noted = View::highWater(); used > noted && !named[ used - 1 ]; )
      --used; // not below a slot that the index names, should the number be damaged
   storeWord( &header().highWater, used );
   for( uint32_t slot = used; slot-- > 0; ) {
      uint64_t* const words = slotWords( slot );
      const uint64_t state = loadWord( words );
      if( SlotState::whole( state ) && ( named[ slot ] || enterIfNew( slot ) ) ) {
         ++live;
         continue;
      }
      if( state & ( SlotState::writing | SlotState::live ) )
         storeWord( words,
                    ( state & ~( SlotState::writing | SlotState::live ) ) + SlotState::oneWrite );
      freeSlots_.push_back( slot );
   }
   storeWord( &header().count, live );
}

// Removes every index word that names no live record, or that a lookup of its key would not find
// (the second of two that a deletion left behind, one under a wrong hash); says which slots remain
// named.
template<class Key, class Record>
std::vector<bool> TableWriter<Key, Record>::pruneIndex() {
   std::vector<bool> named( geometry_.capacity, false );
   // From a free word on: what a removal moves then always comes from ahead of the walk.
   uint32_t start = 0;
   while( start <= indexMask_ && loadWord( index() + start ) != 0 )
      ++start;
   if( start > indexMask_ ) { // damaged: an index is never full
      for( uint32_t at = 0; at <= indexMask_; ++at )
         storeWord( index() + at, 0 );
      return named;
   }
   for( uint32_t step = 1; step <= indexMask_; ) {
      const uint32_t at = ( start + step ) & indexMask_;
      const uint32_t word = loadWord( index() + at );
      if( word == 0 ) {
         ++step;
         continue;
      }
      const uint32_t slot = code_.slot( word );
      if( slot < geometry_.capacity && SlotState::whole( loadWord( slotWords( slot ) ) ) &&
          isFoundAt( at, slot ) ) {
         named[ slot ] = true;
         ++step;
      } else {
         removeFromIndex( at ); // another word may have moved here: look again
      }
   }
   return named;
}

template<class Key, class Record>
bool TableWriter<Key, Record>::isFoundAt( uint32_t at, uint32_t slot ) {
   const Key key = keyInSlot( slot );
   return indexPlaceOf( key, keyHash( key ) ) == at;
}

// Enters a live slot that the index does not name, unless its key stands in another slot.
template<class Key, class Record>
bool TableWriter<Key, Record>::enterIfNew( uint32_t slot ) {
   const Key key = keyInSlot( slot );
   const uint64_t hash = keyHash( key );
   if( loadWord( index() + indexPlaceOf( key, hash ) ) != 0 )
      return false;
   enterIntoIndex( hash, slot );
   return true;
}

} // namespace Vexil
