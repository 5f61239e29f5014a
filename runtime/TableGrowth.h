// Moving a table to a larger one, at once or a few slots at a time while the writer goes on. Part
// of TableWriter.h.
//
// Slots are copied as they are, each to the same place, so that a walk by slot numbers goes on in
// the larger table; and so is the journal, so that its readers go on where they are. What the
// writer does to a slot that has been copied it does to the copy as well. Nobody else knows the
// larger table until it takes the name of the present one.
#pragma once

#include "runtime/TableWriter.h"

#include <memory>
#include <string>

namespace Vexil {

template<class Key, class Record>
class TableGrowth {
   using Writer = TableWriter<Key, Record>;

 public:
   // From the present table, which outlives this, to a new one beside it. Throws TableError.
   TableGrowth( const TableSpec& spec, Writer& present, uint32_t capacity )
      : mapping_( TableMapping::unpublished( present.mapping_->path(), spec, capacity ) ),
        larger_( *mapping_ ), present_( present ) {
      VEXIL_ASSERT( capacity >= present.highWater() );
      present_.larger_ = &larger_;
   }
   ~TableGrowth() {
      present_.larger_ = nullptr;
      present_.slotsCopied_ = 0;
   }
   TableGrowth( const TableGrowth& ) = delete;
   TableGrowth& operator=( const TableGrowth& ) = delete;

   // Copies so many slots more, or all that are left. Throws TableError when there is no memory.
   void copyOn( uint32_t slots ) {
      uint32_t& copied = present_.slotsCopied_;
      for( const uint32_t end = static_cast<uint32_t>(
              std::min<uint64_t>( uint64_t( copied ) + slots, present_.highWater() ) );
           copied < end; )
         copied += copyBatch( copied, end );
   }
   bool isComplete() const { return present_.slotsCopied_ == present_.highWater(); }

   // Gives the complete copy the name of the present table, whose readers are told, and makes it
   // the present one. Throws TableError, and then the present one stays.
   void takeOver( std::unique_ptr<TableMapping>& mapping ) {
      require( present_.hasHeader() && larger_.takeRest( present_ ) );
      mapping_->header().predecessor = mapping->tableId();
      present_.giveNameTo( *mapping_ );
      larger_.freeSlots_ = std::move( present_.freeSlots_ );
      std::swap( mapping, mapping_ );
      present_ = std::move( larger_ );
      mapping_->ringBell();
   }

 private:
   uint32_t copyBatch( uint32_t first, uint32_t end ) {
      std::array<uint64_t, 16> hashes;
      const uint32_t size = std::min<uint32_t>( hashes.size(), end - first );
      for( uint32_t i = 0; i < size; ++i ) {
         require( first + i < larger_.slotsReady_ || larger_.readyMoreSlots() );
         hashes[ i ] = keyHash( present_.keyInSlot( first + i ) );
         larger_.prefetchIndex( hashes[ i ] );
      }
      for( uint32_t i = 0; i < size; ++i ) {
         const uint64_t* const words = present_.slotWords( first + i );
         larger_.takeSlot( words, first + i );
         if( SlotState::whole( loadWord( words ) ) )
            larger_.enterIntoIndex( hashes[ i ], first + i );
      }
      return size;
   }
   void require( bool memory ) const {
      if( !memory )
         throw TableError( TableError::system,
                           present_.mapping_->path() + ": there is no memory to make it larger" );
   }

   std::unique_ptr<TableMapping> mapping_;
   Writer larger_;
   Writer& present_;
};

// Takes over what stands in a slot of another table.
template<class Key, class Record>
void TableWriter<Key, Record>::takeSlot( const uint64_t* words, uint32_t slot ) {
   uint64_t* const to = slotWords( slot );
   copyWords( words + 1, to + 1 );
   storeWord( to, loadWord( words ) );
}

// The same for a record with a key of that hash that is no longer there.
template<class Key, class Record>
void TableWriter<Key, Record>::dropSlot( const uint64_t* words, uint32_t slot, uint64_t hash ) {
   uint32_t at = homeOf( hash );
   while( loadWord( index() + at ) != code_.word( hash, slot ) )
      at = ( at + 1 ) & indexMask_;
   removeFromIndex( at );
   takeSlot( words, slot );
}

// All of the smaller table but its slots. False when there is no memory for the journal.
template<class Key, class Record>
bool TableWriter<Key, Record>::takeRest( const TableWriter& smaller ) {
   const uint64_t head = smaller.journalHead();
   const uint64_t first = head - std::min<uint64_t>( head, smaller.geometry_.journalSize );
   const uint64_t used = std::min<uint64_t>( head, geometry_.journalSize );
   if( !mapping_->allocate( geometry_.journalOffset, used * geometry_.journalStride ) )
      return false;
   journalReady_ = used;
   if( first > 0 ) // an entry that was never written must not bear the number 0
      storeWord( const_cast<uint64_t*>( View::journalEntry( 0 ) ), ~uint64_t( 0 ) );
   for( uint64_t number = first; number < head; ++number ) {
      const uint64_t* const from = smaller.journalEntry( number );
      auto* const to = const_cast<uint64_t*>( View::journalEntry( number ) );
      for( size_t word = 0; word <= keyWords; ++word )
         storeWord( to + word, loadWord( from + word ) );
   }
   storeWord( &header().journalHead, head );
   storeWord( &header().highWater, smaller.highWater() );
   storeWord( &header().count, smaller.count() );
   return true;
}

} // namespace Vexil
