// Writing a shared table: the one writer's operations, and recovery from a writer that died.
//
// Every store is a release store of a whole word, so they reach memory in program order: wherever
// the process is killed, the file holds the stores up to there and none behind. Each operation
// first notes in the header what it is about to do, with the old record of an update or the key of
// an insertion or deletion, and at last takes the note back; recover() finishes or undoes the one
// operation that such a note tells of. At most the record that was being written is as if it had
// not been: an update leaves the old record, an insertion none.
#pragma once

#include "runtime/TableView.h"

#include <ctime>
#include <utility>
#include <vector>

namespace Vexil {

constexpr uint32_t allocationStep = 32u << 10; // bytes of a file for which memory is got at a time

// When something failed that is not tried again for a second.
class LastFailure {
 public:
   void note() { at_ = now(); }
   void forget() { at_ = never_; }
   bool isNoted() const { return at_ != never_; }
   bool isRecent() const { return isNoted() && now() - at_ < 1; }

 private:
   static constexpr int64_t never_ = -1;
   static int64_t now() {
      timespec time{};
      clock_gettime( CLOCK_MONOTONIC_COARSE, &time ); // no system call
      return time.tv_sec;
   }
   int64_t at_ = never_;
};

template<class Key, class Record>
class TableGrowth;

template<class Key, class Record>
class TableWriter : public TableView<Key, Record> {
   friend TableGrowth<Key, Record>;
   using View = TableView<Key, Record>;
   using typename View::KeyImage;
   using View::code_;
   using View::geometry_;
   using View::homeOf;
   using View::indexMask_;
   using View::journalMask_;
   using View::keyWords;
   using View::recordWords;

 public:
   TableWriter() = default;
   // Recovers what the previous writer left.
   explicit TableWriter( const TableMapping& mapping )
      : View( mapping ), mapping_( &mapping ), base_( mapping.base() ) {
      VEXIL_ASSERT( mapping.writable() );
      journalReady_ = firstJournalReady();
      if( View::journalHead() != 0 || View::highWater() != 0 || View::count() != 0 ||
          loadWord( &header().operation ) != 0 )
         recover(); // a new file is left untouched, so that it takes no memory yet
      if( View::superseded() )
         supersededIs( false ); // it still has the path: no other has taken its place
      slotsReady_ = mapping.inFile() ? View::highWater() : geometry_.capacity;
   }

   // Whether the next new record finds a slot, and memory for it.
   bool hasRoom() const {
      return !freeSlots_.empty() || loadWord( &View::header().highWater ) < slotsReady_;
   }
   // Gets memory for some more slots when there is no room. False when the table is full, or there
   // is none; then no further attempt is made for a second.
   bool makeRoom() { return hasRoom() || ( slotsReady_ < geometry_.capacity && readyMoreSlots() ); }

   // Writes the record under its own key, whose hash is given; false, with nothing changed, when
   // there is no room for a new one. Throws CorruptionDetected when the file is no longer there
   // to write to. slot is where a lookup has found the old record; noSlot when that is not known.
   bool set( const Record& record, uint64_t hash, uint32_t slot = noSlot ) {
      const Key& key = View::keyOf( record );
      View::requireHeader();
      if( isIn( slot, key ) )
         update( slot, record );
      else if( !enter( key, hash, record ) )
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
      const uint64_t hash = keyHash( key );
      const uint32_t at = indexPlaceOf( key, hash );
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
      if( slot < slotsCopied_ )
         larger_->dropSlot( words, slot, hash );
      journal( key );
      finish();
      View::requireHeader();
      return true;
   }

   // Lets another file take this one's name, and has its readers look for it. Throws TableError,
   // and then this one keeps it.
   void giveNameTo( TableMapping& newer ) {
      // First the mark, then the new file: killed in between, this writer leaves a mark too many,
      // which the next one takes back, and not readers who stay with the old file for ever.
      supersededIs( true );
      try {
         newer.publish();
      } catch( const TableError& ) {
         supersededIs( false );
         throw;
      }
   }

 private:
   TableHeader& header() { return *reinterpret_cast<TableHeader*>( base_ ); }
   uint32_t* index() { return const_cast<uint32_t*>( View::index() ); }
   uint64_t* slotWords( uint32_t slot ) { return const_cast<uint64_t*>( View::slotWords( slot ) ); }

   // Stores a record or key word by word, the last word filled up with zeros.
   template<class Value>
   static void storeValue( uint64_t* to, const Value& value ) {
      constexpr size_t whole = sizeof( Value ) / 8;
      constexpr size_t rest = sizeof( Value ) % 8;
      const char* const bytes = reinterpret_cast<const char*>( &value );
      uint64_t word = 0;
      VEXIL_UNROLLED
      for( size_t i = 0; i < whole; ++i ) {
         std::memcpy( &word, bytes + 8 * i, 8 );
         storeWord( to + i, word );
      }
      if constexpr( rest != 0 ) {
         word = 0;
         std::memcpy( &word, bytes + 8 * whole, rest );
         storeWord( to + whole, word );
      }
   }
   static void copyWords( const uint64_t* from, uint64_t* to ) {
      VEXIL_UNROLLED
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
   void supersededIs( bool superseded ) { storeWord( &header().superseded, superseded ); }
   void finish() {
      storeWord( &header().operation, static_cast<uint64_t>( TableOperation::none ) );
   }

   bool isIn( uint32_t slot, const Key& key ) {
      return slot < geometry_.capacity &&
             ( loadWord( slotWords( slot ) ) & SlotState::live ) != 0 && keyInSlot( slot ) == key;
   }

   // Updates or inserts the record, whichever the index says.
   bool enter( const Key& key, uint64_t hash, const Record& record ) {
      const uint32_t at = indexPlaceOf( key, hash );
      if( const uint32_t word = loadWord( index() + at ); word != 0 )
         update( code_.slot( word ), record );
      else if( !makeRoom() )
         return false;
      else
         insert( key, hash, record );
      return true;
   }

   void update( uint32_t slot, const Record& record ) {
      uint64_t* const words = slotWords( slot );
      copyWords( words + 1, header().image );
      storeWord( &header().undoSlot, slot + uint64_t( 1 ) );
      note( TableOperation::update, slot );
      rewrite( words, record );
      if( slot < slotsCopied_ )
         larger_->takeSlot( words, slot );
   }

   void insert( const Key& key, uint64_t hash, const Record& record ) {
      const bool reuse = !freeSlots_.empty();
      const uint32_t slot =
         reuse ? freeSlots_.back() : static_cast<uint32_t>( loadWord( &header().highWater ) );
      begin( TableOperation::insert, slot, key );
      rewrite( slotWords( slot ), record );
      if( reuse )
         freeSlots_.pop_back();
      else
         storeWord( &header().highWater, slot + uint64_t( 1 ) );
      enterIntoIndex( hash, slot ); // from the start: a file that is cut short now reads as zeros
      storeWord( &header().count, loadWord( &header().count ) + 1 );
      if( slot < slotsCopied_ ) {
         larger_->takeSlot( slotWords( slot ), slot );
         larger_->enterIntoIndex( hash, slot );
      }
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

   // How many entries of the ring have memory when the table is attached: those that were ever
   // written, and, once it has come round, all.
   uint64_t firstJournalReady() const {
      const uint64_t head = View::journalHead();
      if( !mapping_->inFile() ||
          ( head >= geometry_.journalSize &&
            mapping_->allocate( geometry_.journalOffset,
                                geometry_.fileSize - geometry_.journalOffset ) ) )
         return geometry_.journalSize;
      return head & journalMask_;
   }
   bool journalHasRoom( uint64_t entry ) {
      if( entry < journalReady_ )
         return true;
      const uint64_t upTo = std::min<uint64_t>( geometry_.journalSize,
                                                entry + allocationStep / geometry_.journalStride );
      if( !allocated( geometry_.journalOffset + entry * geometry_.journalStride,
                      ( upTo - entry ) * geometry_.journalStride ) )
         return false;
      journalReady_ = upTo;
      return true;
   }
   bool readyMoreSlots() {
      const uint64_t upTo = std::min<uint64_t>(
         geometry_.capacity, slotsReady_ + std::max( 1u, allocationStep / geometry_.slotStride ) );
      if( !allocated( geometry_.slotOffset + uint64_t( slotsReady_ ) * geometry_.slotStride,
                      ( upTo - slotsReady_ ) * geometry_.slotStride ) )
         return false;
      slotsReady_ = static_cast<uint32_t>( upTo );
      return true;
   }
   bool allocated( uint64_t offset, uint64_t size ) {
      if( shortage_.isRecent() )
         return false;
      const bool done = mapping_->allocate( offset, size );
      if( !done )
         shortage_.note();
      return done;
   }

   void journal( const Key& key ) {
      const uint64_t head = View::journalHead();
      if( !journalHasRoom( head & journalMask_ ) ) {
         // What can't be told by the journal is told by overtaking its readers: for them it has
         // come round, to the same entry.
         storeWord( &header().journalHead, head + geometry_.journalSize );
         return;
      }
      auto* const entry = const_cast<uint64_t*>( View::journalEntry( head ) );
      storeWord( entry, head );
      storeValue( entry + 1, key );
      storeWord( &header().journalHead, head + 1 );
   }

   // TableRecovery.h
   void recover();
   void undoTornSlot();
   bool isSound();
   bool isNamed( uint32_t slot, uint64_t hash );
   uint64_t indexWords();
   void repair();
   std::vector<bool> pruneIndex();
   bool isFoundAt( uint32_t at, uint32_t slot );
   bool enterIfNew( uint32_t slot );

   // TableGrowth.h
   void takeSlot( const uint64_t* words, uint32_t slot );
   void dropSlot( const uint64_t* words, uint32_t slot, uint64_t hash );
   bool takeRest( const TableWriter& smaller );

   const TableMapping* mapping_ = nullptr;
   uint8_t* base_ = nullptr;
   std::vector<uint32_t> freeSlots_; // below highWater; the last one is used next
   uint32_t slotsReady_ = 0;         // slots below it have memory
   uint64_t journalReady_ = 0;       // entries of the ring below it have memory
   LastFailure shortage_;
   // A larger table to which this one is about to be moved, and the slots, from 0 on, that it has
   // already: they are kept the same.
   TableWriter* larger_ = nullptr;
   uint32_t slotsCopied_ = 0;
};

} // namespace Vexil

#include "runtime/TableGrowth.h"   // the rest of it
#include "runtime/TableRecovery.h" // the rest of it
