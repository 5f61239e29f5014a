// Reading a shared table: lookups, walks in memory order, and the journal of changes.
//
// A reader works on a read-only mapping, takes no lock and makes no system call, and nothing that
// it does reaches the writer. It may meet the writer in the middle of an operation, or find that
// the writer died there. Why it reads nothing torn all the same:
//
//  - A slot begins with a state word: a version, and the bits "live" and "being written". A reader
//    takes the state, copies the record word by word, and takes the state again: when both are the
//    same, no write came between (a sequence lock). Record words are stored with release and loaded
//    with acquire order, so that a reader who sees a word of a later write also sees the state that
//    the writer stored before it.
//  - While a record is being replaced, its old content stands in the header's undo area. A reader
//    who finds "being written" takes the record from there. So it never waits, neither for a writer
//    that is slow nor for one that is dead.
//  - An index word that a deletion moves is stored at its new place before its old place is
//    overwritten, and a counter tells the move: a lookup that finds nothing and sees that the
//    counter stood still has not missed a moving word; otherwise it looks again.
//
// All loops are bounded: after maxAttempts a reader gives up with CorruptionDetected.
#pragma once

#include "runtime/Failure.h"
#include "runtime/Hash.h"
#include "runtime/TableFile.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <type_traits>

namespace Vexil {

static_assert( std::endian::native == std::endian::little, "the tables are little-endian" );

// Words of a mapped table. The compiler's atomics rather than std::atomic_ref, which g++ 12 does
// not give for const words, as those of a read-only mapping are.
#ifdef VEXIL_TEST_HOOKS
void beforeLoad();  // a test's own: another may take its turn here
void beforeStore(); // or the process end
#else
inline void beforeLoad() {}
inline void beforeStore() {}
#endif
inline uint64_t loadWord( const uint64_t* word ) {
   beforeLoad();
   return __atomic_load_n( word, __ATOMIC_ACQUIRE );
}
inline uint32_t loadWord( const uint32_t* word ) {
   beforeLoad();
   return __atomic_load_n( word, __ATOMIC_ACQUIRE );
}
inline void storeWord( uint64_t* word, uint64_t value ) {
   beforeStore();
   __atomic_store_n( word, value, __ATOMIC_RELEASE );
}
inline void storeWord( uint32_t* word, uint32_t value ) {
   beforeStore();
   __atomic_store_n( word, value, __ATOMIC_RELEASE );
}

// Before a loop over the words of a record, whose number is known. Only what optimizes knows it.
#if defined( __OPTIMIZE__ ) && !defined( __clang__ )
#define VEXIL_UNROLLED _Pragma( "GCC unroll 32" )
#else
#define VEXIL_UNROLLED
#endif

// The bits of a slot's state word; the rest counts the writes.
namespace SlotState {
constexpr uint64_t writing = 1;
constexpr uint64_t live = 2;
constexpr uint64_t oneWrite = 4;
constexpr bool whole( uint64_t state ) { return ( state & ( writing | live ) ) == live; }
} // namespace SlotState

// The words of the index: in the low bits, as many as the capacity needs, the slot's number plus
// one; in the rest a part of the key's hash, which spares most looks at the wrong slot. 0 is free.
class IndexCode {
 public:
   IndexCode() = default;
   explicit IndexCode( uint32_t capacity ) // of at most 31 bits
      : slotBits_( static_cast<unsigned>( std::bit_width( capacity ) ) ),
        slotMask_( ( 1u << slotBits_ ) - 1 ) {}
   uint32_t word( uint64_t hash, uint32_t slot ) const { return tag( hash ) | ( slot + 1 ); }
   uint32_t slot( uint32_t word ) const { return ( word & slotMask_ ) - 1; }
   bool matches( uint32_t word, uint64_t hash ) const {
      return ( word & ~slotMask_ ) == tag( hash );
   }

 private:
   uint32_t tag( uint64_t hash ) const { return static_cast<uint32_t>( hash ) << slotBits_; }
   unsigned slotBits_ = 0;
   uint32_t slotMask_ = 0;
};

constexpr uint32_t noSlot = ~uint32_t( 0 ); // above every capacity

// Room for a record that a lookup fills: it takes no time to make.
template<class Record>
union Unfilled {
   Unfilled() {}
   Record record;
};

template<class Key, class Record>
class TableView {
   static_assert( std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Record> );
   static_assert( sizeof( Record ) <= maxRecordSize );

 public:
   static constexpr size_t recordWords = ( sizeof( Record ) + 7 ) / 8;
   static constexpr size_t keyWords = ( sizeof( Key ) + 7 ) / 8;
   static constexpr size_t slotStride = slotStrideOf( sizeof( Record ) );
   static constexpr size_t journalStride = journalStrideOf( sizeof( Key ) );
   static constexpr unsigned maxAttempts = 1u << 20;
   using KeyImage = std::array<uint64_t, keyWords>;

   TableView() = default;
   explicit TableView( const TableMapping& mapping )
      : geometry_( mapping.geometry() ), path_( &mapping.path() ), base_( mapping.base() ),
        index_( reinterpret_cast<const uint32_t*>( base_ + geometry_.indexOffset ) ),
        slots_( base_ + geometry_.slotOffset ), journal_( base_ + geometry_.journalOffset ),
        code_( geometry_.capacity ), indexMask_( geometry_.indexSize - 1 ),
        indexShift_( 64 - static_cast<unsigned>( std::countr_zero( geometry_.indexSize ) ) ),
        journalMask_( geometry_.journalSize - 1 ) {
      VEXIL_ASSERT( geometry_.slotStride == slotStride &&
                    geometry_.journalStride == journalStride );
   }

   uint32_t capacity() const { return geometry_.capacity; }
   uint32_t count() const { return bounded( loadWord( &header().count ) ); }
   // The slots that a walk has to look at.
   uint32_t highWater() const { return bounded( loadWord( &header().highWater ) ); }
   uint64_t journalHead() const { return loadWord( &header().journalHead ); }
   bool superseded() const { return loadWord( &header().superseded ) != 0; }

   // Copies the record of key; false when it is absent.
   bool get( const Key& key, Record& out ) const { return get( key, keyHash( key ), out ); }
   // For a caller that looks one key up in several tables: hash is keyHash( key ).
   bool get( const Key& key, uint64_t hash, Record& out ) const {
      return find( hash, [ & ]( uint32_t slot ) {
         return readSlot( slot, out ) && isKey( key, hash, slot, keyOf( out ) );
      } );
   }
   // The same for one that knows besides in which slot prefetchRecord() saw it; noSlot if it
   // doesn't. The record may have gone elsewhere since.
   bool get( const Key& key, uint64_t hash, uint32_t slot, Record& out ) const {
      if( slot < geometry_.capacity && readStanding( slotWords( slot ), out ) &&
          keyOf( out ) == key ) [[likely]]
         return true;
      return getByIndex( key, hash, out );
   }
   bool contains( const Key& key ) const {
      const uint64_t hash = keyHash( key );
      Key found;
      return find( hash, [ & ]( uint32_t slot ) {
         return readKey( slot, found ) && isKey( key, hash, slot, found );
      } );
   }

   // Looks for the key with that hash: isIt( slot ) says of the slots that may hold it whether one
   // does. Inlined by command: a call here would be a third of a lookup's time.
   template<class IsIt>
   [[gnu::always_inline]] bool find( uint64_t hash, IsIt isIt ) const {
      for( unsigned attempt = 0; attempt < maxAttempts; ++attempt ) {
         const uint64_t moves = loadWord( &header().indexMoves );
         uint32_t at = homeOf( hash );
         uint32_t probed = 0;
         for( ; probed <= indexMask_; ++probed, at = ( at + 1 ) & indexMask_ ) {
            const uint32_t word = loadWord( index() + at );
            if( word == 0 )
               break;
            if( code_.matches( word, hash ) && isIt( code_.slot( word ) ) )
               return true;
         }
         if( probed > indexMask_ )
            corrupt( "the index has no end" );
         if( loadWord( &header().indexMoves ) == moves ) {
            requireHeader();
            return false;
         }
      }
      corrupt( "the index never stands still" );
   }

   // Brings the index word of the key with that hash, or its record, nearer to the processor. The
   // latter returns the slot in which the record is if it is there at all; noSlot when the index
   // has none for such a hash nearby.
   void prefetchIndex( uint64_t hash ) const { __builtin_prefetch( index() + homeOf( hash ) ); }
   uint32_t prefetchRecord( uint64_t hash ) const {
      const uint32_t* const words = index(); // copies: no load of a word changes them
      const uint32_t mask = indexMask_;
      const IndexCode code = code_;
      uint32_t at = homeOf( hash );
      for( unsigned probed = 0; probed < 8; ++probed, at = ( at + 1 ) & mask ) {
         const uint32_t word = loadWord( words + at );
         if( word == 0 )
            return noSlot;
         const uint32_t slot = code.slot( word );
         if( code.matches( word, hash ) && slot < geometry_.capacity ) {
            VEXIL_UNROLLED
            for( size_t offset = 0; offset < 8 + sizeof( Record ) && offset < 256; offset += 64 )
               __builtin_prefetch( slotAt( slot ) + offset );
            return slot;
         }
      }
      return noSlot;
   }

   // Copies the record in a slot; false when there is none. A walk over all keys, in memory order,
   // is this for every slot below highWater(); it meets each key that stays.
   bool readSlot( uint32_t slot, Record& out ) const {
      if( slot >= geometry_.capacity )
         corrupt( "a slot number is out of range" );
      const uint64_t* const words = slotWords( slot );
      for( unsigned attempt = 0; attempt < maxAttempts; ++attempt ) {
         const uint64_t state = loadWord( words );
         bool whole = ( state & SlotState::live ) != 0;
         if( state & SlotState::writing ) [[unlikely]] {
            whole =
               loadWord( &header().undoSlot ) == slot + uint64_t( 1 ); // else there is no old one
            copyRecord( header().image, out );
         } else if( whole ) {
            copyRecord( words + 1, out );
         }
         if( loadWord( words ) == state ) [[likely]]
            return whole;
      }
      corrupt( "a record never stands still" );
   }

   // The same for the key alone.
   bool readKey( uint32_t slot, Key& out ) const {
      if( slot >= geometry_.capacity )
         corrupt( "a slot number is out of range" );
      const uint64_t* const words = slotWords( slot );
      const uint64_t state = loadWord( words );
      if( ( state & SlotState::live ) && !( state & SlotState::writing ) ) [[likely]] {
         KeyImage image;
         for( size_t i = 0; i < keyWords; ++i )
            image[ i ] = loadWord( words + 1 + i );
         if( loadWord( words ) == state ) [[likely]] {
            std::memcpy( static_cast<void*>( &out ), image.data(), sizeof out );
            return true;
         }
      }
      Record record; // being written just now: the long way
      if( !readSlot( slot, record ) )
         return false;
      out = keyOf( record );
      return true;
   }

   // Calls each( key ) for the keys in some slots, first to end - 1. Each is looked up in the index
   // as well: one that does not lead to its slot is not that slot's key.
   template<class Each>
   void forEachKeyIn( uint32_t first, uint32_t end, Each each ) const {
      std::array<Key, 16> keys; // some at a time, so that their places in the index come together
      std::array<uint32_t, 16> slots;
      while( first < end ) {
         size_t size = 0;
         for( ; first < end && size < keys.size(); ++first )
            if( readKey( first, keys[ size ] ) ) {
               prefetchIndex( keyHash( keys[ size ] ) );
               slots[ size++ ] = first;
            }
         for( size_t i = 0; i < size; ++i )
            if( isNamed( keys[ i ], slots[ i ] ) )
               each( keys[ i ] );
      }
   }

   // Calls each( key ) for every key, nearly in the order of their hashes, which is that of the
   // keyed collections. For the table's own writer, between its operations.
   template<class Each>
   void forEachKeyByHash( Each each ) const {
      constexpr uint32_t distance = 16; // places ahead: the slots are anywhere in memory
      Key key;
      for( uint32_t at = 0; at <= indexMask_; ++at ) {
         if( const uint32_t next = loadWord( index() + ( ( at + distance ) & indexMask_ ) );
             next != 0 && code_.slot( next ) < geometry_.capacity )
            __builtin_prefetch( slotAt( code_.slot( next ) ) );
         if( const uint32_t word = loadWord( index() + at );
             word != 0 && readKey( code_.slot( word ), key ) )
            each( key );
      }
   }

   // What a reader of the journal finds.
   enum class Journal {
      drained,  // it has seen every change
      more,     // there are more than it asked for
      overtaken // changes are lost to it: it must look at all keys, then go on from the head
   };
   // Calls each( key ) for up to most changed keys from cursor on, and moves cursor behind them.
   // Each key that changed is named at least once after its change.
   template<class Each>
   Journal readJournal( uint64_t& cursor, size_t most, Each each ) const {
      constexpr size_t batchSize = 32; // keys are taken out in batches, each checked as a whole
      std::array<KeyImage, batchSize> batch;
      while( true ) {
         const uint64_t head = journalHead();
         if( cursor == head )
            return Journal::drained;
         if( most == 0 )
            return Journal::more;
         if( head < cursor || head - cursor >= geometry_.journalSize ) {
            requireHeader();
            return Journal::overtaken;
         }
         const size_t size = std::min( { batchSize, most, static_cast<size_t>( head - cursor ) } );
         bool numbered = true;
         for( size_t i = 0; i < size; ++i ) {
            const uint64_t* const entry = journalEntry( cursor + i );
            numbered = numbered && loadWord( entry ) == cursor + i;
            for( size_t word = 0; word < keyWords; ++word )
               batch[ i ][ word ] = loadWord( entry + 1 + word );
         }
         // The entry that the writer fills next is the one that is journalSize behind the head.
         if( journalHead() - cursor >= geometry_.journalSize || !numbered ) {
            requireHeader();
            return Journal::overtaken;
         }
         cursor += size;
         most -= size;
         for( size_t i = 0; i < size; ++i ) {
            Key key;
            std::memcpy( static_cast<void*>( &key ), batch[ i ].data(), sizeof key );
            each( key );
         }
      }
   }

   // Tells an empty table, or a journal that starts over, from a file that is no longer there.
   void requireHeader() const {
      if( !hasHeader() )
         corrupt( "the file was cut short or overwritten" );
   }

   bool hasHeader() const { return loadWord( &header().magic ) == TableHeader::expectedMagic; }

   [[noreturn]] void corrupt( const char* what ) const {
      throw CorruptionDetected( ( path_->empty() ? "a table in memory" : *path_ ) + ": " + what );
   }

   // The key is the first member of its record.
   static const Key& keyOf( const Record& record ) {
      return *reinterpret_cast<const Key*>( &record );
   }

 protected:
   const TableHeader& header() const { return *reinterpret_cast<const TableHeader*>( base_ ); }
   const uint32_t* index() const { return index_; }
   const uint8_t* slotAt( uint32_t slot ) const { return slots_ + slot * slotStride; }
   const uint64_t* slotWords( uint32_t slot ) const {
      return reinterpret_cast<const uint64_t*>( slotAt( slot ) );
   }
   const uint64_t* journalEntry( uint64_t number ) const {
      return reinterpret_cast<const uint64_t*>( journal_ +
                                                ( number & journalMask_ ) * journalStride );
   }
   // The ideal place of a key: the high bits of its hash, so that the index is in hash order.
   uint32_t homeOf( uint64_t hash ) const { return static_cast<uint32_t>( hash >> indexShift_ ); }

   // Copies a record that nobody is writing; false when it is being written or there is none.
   [[gnu::always_inline]] static bool readStanding( const uint64_t* words, Record& out ) {
      const uint64_t state = loadWord( words );
      if( !SlotState::whole( state ) ) [[unlikely]]
         return false;
      copyRecord( words + 1, out );
      return loadWord( words ) == state;
   }
   [[gnu::noinline]] bool getByIndex( const Key& key, uint64_t hash, Record& out ) const {
      return get( key, hash, out );
   }

   // Word by word from the table straight to where the record is wanted: a copy in between costs
   // more than the table's own cache misses.
   [[gnu::always_inline]] static void copyRecord( const uint64_t* from, Record& to ) {
      constexpr size_t whole = sizeof( Record ) / 8;
      constexpr size_t rest = sizeof( Record ) % 8;
      char* const bytes = reinterpret_cast<char*>( &to );
      VEXIL_UNROLLED
      for( size_t i = 0; i < whole; ++i ) {
         const uint64_t word = loadWord( from + i );
         std::memcpy( bytes + 8 * i, &word, 8 );
      }
      if constexpr( rest != 0 ) {
         const uint64_t word = loadWord( from + whole );
         std::memcpy( bytes + 8 * whole, &word, rest );
      }
   }

   TableGeometry geometry_;
   const std::string* path_ = nullptr;
   const uint8_t* base_ = nullptr;
   const uint32_t* index_ = nullptr;
   const uint8_t* slots_ = nullptr;
   const uint8_t* journal_ = nullptr;
   IndexCode code_;
   uint32_t indexMask_ = 0;
   unsigned indexShift_ = 0;
   uint64_t journalMask_ = 0;

 private:
   // Whether the index leads from a key with that hash to the slot.
   bool leadsTo( uint64_t hash, uint32_t slot ) const {
      uint32_t at = homeOf( hash );
      for( uint32_t probed = 0; probed <= indexMask_; ++probed, at = ( at + 1 ) & indexMask_ ) {
         const uint32_t word = loadWord( index() + at );
         if( word == code_.word( hash, slot ) )
            return true;
         if( word == 0 )
            break;
      }
      return false;
   }
   // Whether a look was taken while the writer did nothing, and so holds all of the table.
   template<class Look>
   bool standsStill( Look look ) const {
      const uint64_t head = journalHead();
      return isIdle() && look() && isIdle() && journalHead() == head;
   }
   bool isIdle() const {
      return loadWord( &header().operation ) == static_cast<uint64_t>( TableOperation::none );
   }
   static constexpr const char* otherKey = "a slot has another key than the index says";

   // Whether found, met in a slot to which the index leads from key, is that key. Another one may
   // have the same part of the hash in its index word; one with another part has no business there.
   bool isKey( const Key& key, uint64_t hash, uint32_t slot, const Key& found ) const {
      if( found == key ) [[likely]]
         return true;
      if( !code_.matches( code_.word( hash, slot ), keyHash( found ) ) )
         requireTag( hash, slot );
      return false;
   }
   [[gnu::noinline]] void requireTag( uint64_t hash, uint32_t slot ) const {
      if( standsStill( [ & ] {
             Key now;
             return leadsTo( hash, slot ) && readKey( slot, now ) &&
                    !code_.matches( code_.word( hash, slot ), keyHash( now ) );
          } ) )
         corrupt( otherKey );
   }
   // Whether the slot still has the key that was met there.
   bool isNamed( const Key& key, uint32_t slot ) const {
      const uint64_t hash = keyHash( key );
      return leadsTo( hash, slot ) || isStillThere( key, hash, slot );
   }
   [[gnu::noinline]] bool isStillThere( const Key& key, uint64_t hash, uint32_t slot ) const {
      Key now;
      const auto isThere = [ & ] { return readKey( slot, now ) && now == key; };
      if( standsStill( [ & ] { return isThere() && !leadsTo( hash, slot ); } ) )
         corrupt( otherKey );
      return isThere();
   }

   uint32_t bounded( uint64_t number ) const {
      return static_cast<uint32_t>( std::min<uint64_t>( number, geometry_.capacity ) );
   }
};

} // namespace Vexil
