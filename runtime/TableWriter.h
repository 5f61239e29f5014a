// Writing a shared table: the one writer's operations, and recovery from a writer that died.
//
// Every store is a release store of a whole word, so they reach memory in program order: wherever
// the process is killed, the file holds the stores up to there and none behind. Each operation
// first notes in the header what it is about to do, with the old record of an update or the key of
// an insertion or deletion, and at last takes the note back; recover() finishes or undoes the one
// operation that such a note tells of. At most the record that was being written is as if it had
// not been: an update leaves the old record, an insertion none.
#pragma once

#include "runtime/Failure.h"
#include "runtime/TableView.h"

#include <vector>

namespace Vexil {

template<class Key, class Record>
class TableWriter : public TableView<Key, Record> {
   using View = TableView<Key, Record>;
   using typename View::KeyImage;
   using View::code_;
   using View::geometry_;
   using View::homeOf;
   using View::indexMask_;
   using View::keyWords;
   using View::recordWords;

 public:
   TableWriter() = default;
   // Recovers what the previous writer left.
   explicit TableWriter( const TableMapping& mapping ) : View( mapping ), base_( mapping.base() ) {
      VEXIL_ASSERT( mapping.writable() );
      if( View::journalHead() != 0 || View::highWater() != 0 || View::count() != 0 ||
          loadWord( &header().operation ) != 0 )
         recover(); // a new file is left untouched, so that it takes no memory yet
      if( View::superseded() )
         supersededIs( false ); // it still has the path: no other has taken its place
   }

   // Writes the record under its own key; false, with nothing changed, when the table is full.
   // Throws CorruptionDetected when the file is no longer there to write to.
   bool set( const Record& record ) {
      const Key& key = View::keyOf( record );
      const uint64_t hash = keyHash( key );
      View::requireHeader();
      const uint32_t at = indexPlaceOf( key, hash );
      if( const uint32_t word = loadWord( index() + at ); word != 0 )
         update( code_.slot( word ), record );
      else if( !insert( key, hash, record ) )
         return false;
      journal( key );
      finish();
      // Only what is in the file counts: what went into the zeros put in its place must not be
      // found, or the writer would take it for written.
      if( !View::hasHeader() )
         removeFromIndex( indexPlaceOf( key, hash ) );
      View::requireHeader();
      return true;
   }

   // Removes the record of key; false when there was none. Throws as set() does.
   bool erase( const Key& key ) {
      const uint32_t at = indexPlaceOf( key, keyHash( key ) );
      const uint32_t word = loadWord( index() + at );
      if( word == 0 ) {
         View::requireHeader();
         return false;
      }
      const uint32_t slot = code_.slot( word );
      begin( TableOperation::erase, slot, key );
      removeFromIndex( at );
      uint64_t* const words = slotWords( slot );
      storeWord( words, ( loadWord( words ) & ~SlotState::live ) + SlotState::oneWrite );
      storeWord( &header().count, loadWord( &header().count ) - 1 );
      freeSlots_.push_back( slot );
      journal( key );
      finish();
      View::requireHeader();
      return true;
   }

   // Tells readers to look whether another file has taken this one's place.
   void supersededIs( bool superseded ) { storeWord( &header().superseded, superseded ); }

 private:
   TableHeader& header() { return *reinterpret_cast<TableHeader*>( base_ ); }
   uint32_t* index() { return reinterpret_cast<uint32_t*>( base_ + geometry_.indexOffset ); }
   uint64_t* slotWords( uint32_t slot ) { return const_cast<uint64_t*>( View::slotWords( slot ) ); }

   // Stores a record or key word by word, the last word filled up with zeros.
   template<class Value>
   static void storeValue( uint64_t* to, const Value& value ) {
      const char* const bytes = reinterpret_cast<const char*>( &value );
      for( size_t offset = 0; offset < sizeof value; offset += 8 ) {
         uint64_t word = 0;
         std::memcpy( &word, bytes + offset, std::min<size_t>( 8, sizeof value - offset ) );
         storeWord( to + offset / 8, word );
      }
   }
   static void copyWords( const uint64_t* from, uint64_t* to ) {
      for( size_t i = 0; i < recordWords; ++i )
         storeWord( to + i, loadWord( from + i ) );
   }

   // Where the index names key, or else the free place at which it would stand. The only writer
   // sees its own stores whole, so it needs none of the readers' care.
   uint32_t indexPlaceOf( const Key& key, uint64_t hash ) {
      uint32_t at = homeOf( hash );
      for( uint32_t word; ( word = loadWord( index() + at ) ) != 0; at = ( at + 1 ) & indexMask_ )
         if( code_.matches( word, hash ) && code_.slot( word ) < geometry_.capacity &&
             keyInSlot( code_.slot( word ) ) == key )
            break;
      return at;
   }

   Key keyInSlot( uint32_t slot ) {
      KeyImage image;
      for( size_t i = 0; i < keyWords; ++i )
         image[ i ] = loadWord( slotWords( slot ) + 1 + i );
      Key key;
      std::memcpy( static_cast<void*>( &key ), image.data(), sizeof key );
      return key;
   }

   void begin( TableOperation operation, uint32_t slot, const Key& key ) {
      storeWord( &header().undoSlot, 0 );
      storeValue( header().image, key );
      note( operation, slot );
   }
   void note( TableOperation operation, uint32_t slot ) {
      storeWord( &header().operationSlot, slot );
      storeWord( &header().operation, static_cast<uint64_t>( operation ) );
   }
   void finish() {
      storeWord( &header().operation, static_cast<uint64_t>( TableOperation::none ) );
   }

   void update( uint32_t slot, const Record& record ) {
      uint64_t* const words = slotWords( slot );
      copyWords( words + 1, header().image );
      storeWord( &header().undoSlot, slot + uint64_t( 1 ) );
      note( TableOperation::update, slot );
      rewrite( words, record );
   }

   bool insert( const Key& key, uint64_t hash, const Record& record ) {
      const bool reuse = !freeSlots_.empty();
      const uint32_t slot =
         reuse ? freeSlots_.back() : static_cast<uint32_t>( loadWord( &header().highWater ) );
      if( slot >= geometry_.capacity )
         return false;
      begin( TableOperation::insert, slot, key );
      rewrite( slotWords( slot ), record );
      if( reuse )
         freeSlots_.pop_back();
      else
         storeWord( &header().highWater, slot + uint64_t( 1 ) );
      enterIntoIndex( hash, slot );
      storeWord( &header().count, loadWord( &header().count ) + 1 );
      return true;
   }

   // The slot's part of the sequence lock: marks it, writes the record, and publishes it as live.
   static void rewrite( uint64_t* words, const Record& record ) {
      const uint64_t version = loadWord( words ) & ~( SlotState::writing | SlotState::live );
      storeWord( words, version | SlotState::writing );
      storeValue( words + 1, record );
      storeWord( words, ( version + SlotState::oneWrite ) | SlotState::live );
   }

   void enterIntoIndex( uint64_t hash, uint32_t slot ) {
      uint32_t at = homeOf( hash );
      while( loadWord( index() + at ) != 0 )
         at = ( at + 1 ) & indexMask_;
      storeWord( index() + at, code_.word( hash, slot ) );
   }

   // Deletion from linear probing without tombstones (Knuth, volume 3, section 6.4, algorithm R):
   // each following word that may stand in the hole moves there, and leaves the hole behind.
   void removeFromIndex( uint32_t hole ) {
      uint32_t at = ( hole + 1 ) & indexMask_;
      for( uint32_t word; ( word = loadWord( index() + at ) ) != 0; at = ( at + 1 ) & indexMask_ ) {
         const uint32_t home = homeOfWord( word, at );
         if( ( ( at - home ) & indexMask_ ) < ( ( at - hole ) & indexMask_ ) )
            continue; // its ideal place lies behind the hole
         storeWord( index() + hole, word );
         storeWord( &header().indexMoves, loadWord( &header().indexMoves ) + 1 );
         hole = at;
      }
      storeWord( index() + hole, 0 );
   }

   // The ideal place of the key that an index word names; a word that names nothing may stay.
   uint32_t homeOfWord( uint32_t word, uint32_t at ) {
      const uint32_t slot = code_.slot( word );
      return slot < geometry_.capacity ? homeOf( keyHash( keyInSlot( slot ) ) ) : at;
   }

   void journal( const Key& key ) {
      const uint64_t head = View::journalHead();
      auto* const entry = const_cast<uint64_t*>( View::journalEntry( head ) );
      storeWord( entry, head );
      storeValue( entry + 1, key );
      storeWord( &header().journalHead, head + 1 );
   }

   // Brings the table back to a state between two operations. Readers may be at work meanwhile: no
   // record that is whole is ever missing from the index, not even for a moment.
   void recover() {
      undoTornSlot();
      const std::vector<bool> named = pruneIndex();
      uint64_t live = 0;
      uint32_t used = geometry_.capacity;
      for( const uint32_t noted = View::highWater(); used > noted && !named[ used - 1 ]; )
         --used; // not below a slot that the index names, should the number be damaged
      storeWord( &header().highWater, used );
      for( uint32_t slot = used; slot-- > 0; ) { // downwards, so that low slots are reused first
         uint64_t* const words = slotWords( slot );
         const uint64_t state = loadWord( words );
         if( SlotState::whole( state ) && ( named[ slot ] || enterIfNew( slot ) ) ) {
            ++live;
            continue;
         }
         if( state & ( SlotState::writing | SlotState::live ) )
            storeWord( words, ( state & ~( SlotState::writing | SlotState::live ) ) +
                                 SlotState::oneWrite );
         freeSlots_.push_back( slot );
      }
      storeWord( &header().count, live );
      // The change may have been made but not told.
      if( loadWord( &header().operation ) != static_cast<uint64_t>( TableOperation::none ) ) {
         Key key;
         std::memcpy( static_cast<void*>( &key ), header().image, sizeof key );
         journal( key );
         finish();
      }
   }

   void undoTornSlot() {
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

   // Removes every index word that names no live record, or that a lookup of its key would not
   // find (the second of two that a deletion left behind, one under a wrong hash); says which slots
   // remain named.
   std::vector<bool> pruneIndex() {
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

   bool isFoundAt( uint32_t at, uint32_t slot ) {
      const Key key = keyInSlot( slot );
      return indexPlaceOf( key, keyHash( key ) ) == at;
   }

   // Enters a live slot that the index does not name, unless its key stands in another slot.
   bool enterIfNew( uint32_t slot ) {
      const Key key = keyInSlot( slot );
      const uint64_t hash = keyHash( key );
      if( loadWord( index() + indexPlaceOf( key, hash ) ) != 0 )
         return false;
      enterIntoIndex( hash, slot );
      return true;
   }

   uint8_t* base_ = nullptr;
   std::vector<uint32_t> freeSlots_; // below highWater; the last one is used next
};

} // namespace Vexil
