// The keyed collection: one hash container for every collection and every work list.
//
// Open addressing that keeps its entries in hash order. An entry's ideal slot is given by the high
// bits of its hash; colliding entries stand one behind the other, sorted by hash and then by key.
// So the whole array is sorted, and three things follow that no ordinary hash table gives at once:
//
//  - "resume the walk at key K" is the first entry at or after K's place, even when K itself has
//    left: a walk in slices neither skips nor repeats an entry that stayed. An entry inserted ahead
//    of the bookmark is met in the same pass, one behind it in the next.
//  - The order of a walk depends on the keys alone, never on the history of the collection.
//  - Growing the array keeps the order: the entries are copied from front to back.
//
// Lookup, insertion and deletion take constant time on average. An iterator survives any change of
// the collection, deletion of its own entry included: it finds its place again by its key. A
// reference to a value does not: it is valid until the next insertion or deletion.
//
// The order is that of the index of a shared table, so whoever walks a work list meets the tables'
// index words, and the entries of all other collections, one beside the other. A collection that
// is filled in the order of such a walk has all its entries in the front of its array, which would
// be one long run. Two things keep that cheap: a search begins behind the entry that was inserted
// last if that one precedes the key; and an array with a long run is made larger although it is
// not full, up to sparsest ideal slots an entry. So it has its final size when a small part of the
// keys is there; what is not touched of it takes no memory.
#pragma once

#include "runtime/Hash.h"
#include "runtime/LargeAllocator.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace Vexil {

// The value of a keyed set: takes no room in an entry.
struct Present {};

template<class Key, class Value>
class HashMap {
 public:
   struct Entry {
      Key key;
      [[no_unique_address]] Value value;
   };

   class Iterator {
    public:
      using value_type = Entry;
      using difference_type = std::ptrdiff_t;

      const Entry& operator*() const { return map_->slots_[ at_ ]; }
      const Entry* operator->() const { return &map_->slots_[ at_ ]; }
      Iterator& operator++() {
         settleOn( next() );
         return *this;
      }
      void operator++( int ) { ++*this; }
      bool operator==( std::default_sentinel_t ) const { return at_ == map_->slotCount_; }

    private:
      friend class HashMap;
      Iterator( const HashMap* map, size_t at ) : map_( map ) { settleOn( at ); }
      size_t next() const {
         if( map_->version_ == version_ )
            return map_->occupiedFrom( at_ + 1 );
         if( map_->version_ == version_ + 1 && map_->erasedAt_ == at_ ) // our own entry
            return map_->occupiedFrom( at_ );
         return map_->after( key_ );
      }
      void settleOn( size_t at ) {
         at_ = map_->metAt_ = at;
         version_ = map_->version_;
         if( at_ != map_->slotCount_ )
            key_ = map_->slots_[ at_ ].key;
      }

      const HashMap* map_;
      size_t at_ = 0;
      uint64_t version_ = 0;
      Key key_{};
   };

   HashMap() = default;
   HashMap( HashMap&& other ) noexcept { swap( other ); }
   HashMap& operator=( HashMap&& other ) noexcept {
      HashMap taken( std::move( other ) );
      swap( taken );
      version_ = std::max( version_, taken.version_ ) + 1;
      erasedAt_ = nowhere;
      return *this;
   }
   ~HashMap() { release(); }

   // The same entries in the same slots.
   HashMap copy() const {
      HashMap copied;
      copied.slots_ = slotCount_ ? Array().allocate( slotCount_ ) : nullptr;
      for( size_t at = occupiedFrom( 0 ); at != slotCount_; at = occupiedFrom( at + 1 ) )
         ::new( &copied.slots_[ at ] ) Entry( slots_[ at ] );
      copied.used_ = used_;
      copied.size_ = size_;
      copied.homeCount_ = homeCount_;
      copied.slotCount_ = slotCount_;
      copied.shift_ = shift_;
      return copied;
   }

   size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   Iterator begin() const { return Iterator( this, occupiedFrom( 0 ) ); }
   std::default_sentinel_t end() const { return {}; }
   // The first entry at or after the place of key, which need not be present.
   Iterator from( const Key& key ) const { return Iterator( this, placeOf( key ) ); }

   bool contains( const Key& key ) const { return find( key ) != nullptr; }
   // The value of key, or null when absent.
   Value* find( const Key& key ) const {
      const size_t at = positionOf( key );
      return at == slotCount_ ? nullptr : &slots_[ at ].value;
   }

   // Makes room for that many entries in all.
   void reserve( size_t count ) {
      if( count * 4 > homeCount_ * 3 )
         rebuild( std::max( smallest, std::bit_ceil( count * 4 / 3 + 1 ) ) );
   }
   // Brings the place of key, or of the key with that hash, nearer to the processor.
   void prefetch( const Key& key ) const { prefetchHash( keyHash( key ) ); }
   void prefetchHash( uint64_t hash ) const {
      if( homeCount_ != 0 )
         __builtin_prefetch( &slots_[ homeOf( hash ) ] );
   }

   // Enters key if it is absent, with a value built from arguments; says whether it was absent.
   template<class... Arguments>
   std::pair<Value*, bool> emplace( const Key& key, Arguments&&... arguments ) {
      if( homeCount_ == 0 )
         grow();
      const uint64_t hash = keyHash( key );
      size_t at = placeInRun( key, hash );
      if( occupied( at ) && slots_[ at ].key == key )
         return { &slots_[ at ].value, false };
      while( ( size_ + 1 ) * 4 > homeCount_ * 3 ||
             ( at - homeOf( hash ) > longRun && homeCount_ < size_ * sparsest ) ) {
         grow();
         at = placeInRun( key, hash );
      }
      if( !openPlace( at ) ) { // the last run reached the end of the array
         rebuild( homeCount_ );
         at = placeInRun( key, hash );
         openPlace( at );
      }
      ::new( &slots_[ at ] ) Entry{ key, Value( std::forward<Arguments>( arguments )... ) };
      mark( at );
      ++size_;
      ++version_;
      erasedAt_ = nowhere;
      insertedAt_ = at;
      insertedHash_ = hash;
      return { &slots_[ at ].value, true };
   }

   // Removes key; says whether it was there. Its value is destroyed last, when the collection is
   // whole again, so that the value's destructor may use the collection.
   bool erase( const Key& key ) {
      if( size_ == 0 )
         return false;
      // A walk that deletes as it goes deletes the entry that it met last.
      size_t at = metAt_ < slotCount_ && occupied( metAt_ ) && slots_[ metAt_ ].key == key
                     ? metAt_
                     : positionOf( key );
      if( at == slotCount_ )
         return false;
      erasedAt_ = at;
      insertedAt_ = 0;
      [[maybe_unused]] const Entry removed = std::move( slots_[ at ] );
      for( ; occupied( at + 1 ) && homeOf( keyHash( slots_[ at + 1 ].key ) ) <= at; ++at )
         slots_[ at ] = std::move( slots_[ at + 1 ] );
      std::destroy_at( &slots_[ at ] );
      unmark( at );
      closedAt_ = at;
      --size_;
      ++version_;
      if( size_ == 0 && slotCount_ > keptWhenEmpty )
         release(); // a work list that held a million keys once does not hold their room for ever
      return true;
   }

   void clear() {
      HashMap taken;
      swap( taken );
      version_ = taken.version_ + 1;
   }

   // A position that goes ahead of a walk, from the same entry on; null at the end. It meets each
   // entry once while at most one is deleted between two steps; else it may miss some.
   class LookAhead {
    public:
      LookAhead( const HashMap& map, const Iterator& from )
         : map_( map ), at_( from.at_ ), version_( map.version_ ) {}
      const Key* next() {
         if( version_ != map_.version_ ) {
            version_ = map_.version_;
            if( map_.erasedAt_ < at_ && at_ <= map_.closedAt_ )
               --at_; // the next entry has moved up by one
         }
         at_ = at_ < map_.slotCount_ ? map_.occupiedFrom( at_ ) : map_.slotCount_;
         return at_ < map_.slotCount_ ? &map_.slots_[ at_++ ].key : nullptr;
      }

    private:
      const HashMap& map_;
      size_t at_;
      uint64_t version_;
   };

 private:
   using Array = LargeAllocator<Entry>;
   static constexpr size_t smallest = 4;          // ideal slots of the first array
   static constexpr size_t overflow = 48;         // room behind the last ideal slot, for its run;
                                                  // in a small array as many slots as there are
   static constexpr size_t keptWhenEmpty = 65536; // slots that an emptied collection keeps: a work
                                                  // list is filled and emptied again and again
   static constexpr size_t longRun = 32; // in a random order not one entry in a thousand million
                                         // is so far from its ideal slot
   static constexpr size_t sparsest = 64;
   static constexpr size_t nowhere = ~size_t( 0 );

   size_t homeOf( uint64_t hash ) const { return hash >> shift_; }
   bool occupied( size_t at ) const { return ( used_[ at / 64 ] >> ( at % 64 ) ) & 1; }
   void mark( size_t at ) { used_[ at / 64 ] |= uint64_t( 1 ) << ( at % 64 ); }
   void unmark( size_t at ) { used_[ at / 64 ] &= ~( uint64_t( 1 ) << ( at % 64 ) ); }

   // The first occupied slot at or after at, or slotCount_.
   size_t occupiedFrom( size_t at ) const {
      if( at >= slotCount_ )
         return slotCount_;
      size_t word = at / 64;
      uint64_t bits = used_[ word ] & ( ~uint64_t( 0 ) << ( at % 64 ) );
      while( bits == 0 ) {
         if( ++word * 64 >= slotCount_ )
            return slotCount_;
         bits = used_[ word ];
      }
      return word * 64 + std::countr_zero( bits );
   }

   static bool precedes( const Key& a, uint64_t hashOfA, const Key& b, uint64_t hashOfB ) {
      return hashOfA != hashOfB ? hashOfA < hashOfB : a < b;
   }

   // Where the search for key begins: at its ideal slot, or, when the entry inserted last stands
   // further on and does not come after key, at that entry: it is in the same run.
   size_t searchFrom( const Key& key, uint64_t hash ) const {
      const size_t home = homeOf( hash );
      return home < insertedAt_ && !precedes( key, hash, slots_[ insertedAt_ ].key, insertedHash_ )
                ? insertedAt_
                : home;
   }

   size_t positionOf( const Key& key ) const {
      if( size_ == 0 )
         return slotCount_;
      const uint64_t hash = keyHash( key );
      for( size_t at = searchFrom( key, hash ); occupied( at ); ++at ) {
         if( slots_[ at ].key == key )
            return at;
         // Whether the key's place is passed: asked now and then, for to compare keys costs less
         // than to hash one.
         if( at % 8 == 7 && keyHash( slots_[ at ].key ) > hash )
            break;
      }
      return slotCount_;
   }

   // The first occupied slot whose entry does not precede key, or slotCount_.
   size_t placeOf( const Key& key ) const {
      if( size_ == 0 )
         return slotCount_;
      const uint64_t hash = keyHash( key );
      size_t at = occupiedFrom( homeOf( hash ) );
      while( at != slotCount_ &&
             precedes( slots_[ at ].key, keyHash( slots_[ at ].key ), key, hash ) )
         at = occupiedFrom( at + 1 );
      return at;
   }

   size_t after( const Key& key ) const {
      const size_t at = placeOf( key );
      return at != slotCount_ && slots_[ at ].key == key ? occupiedFrom( at + 1 ) : at;
   }

   // Where key stands, or belongs, in the run of entries that begins at its ideal slot.
   size_t placeInRun( const Key& key, uint64_t hash ) const {
      size_t at = searchFrom( key, hash );
      while( occupied( at ) && !( slots_[ at ].key == key ) &&
             precedes( slots_[ at ].key, keyHash( slots_[ at ].key ), key, hash ) )
         ++at;
      return at;
   }

   // Makes a slot free, moving the rest of its run by one; false when the run would leave the
   // array. The caller builds an entry there and marks it.
   bool openPlace( size_t at ) {
      size_t end = at;
      while( occupied( end ) )
         ++end;
      if( end >= slotCount_ - 1 ) // the last slot stays free: it ends every run
         return false;
      for( size_t to = end; to > at; --to ) {
         ::new( &slots_[ to ] ) Entry( std::move( slots_[ to - 1 ] ) );
         std::destroy_at( &slots_[ to - 1 ] );
      }
      unmark( at );
      if( end != at )
         mark( end );
      return true;
   }

   void grow() { rebuild( homeCount_ == 0 ? smallest : homeCount_ * 2 ); }

   // Moves all entries, in their order, into an array of that many ideal slots. Room for the runs
   // is measured first: however unlucky the hashes, the array only grows by what they need.
   void rebuild( size_t homes ) {
      HashMap larger;
      larger.homeCount_ = homes;
      larger.shift_ = 64 - std::countr_zero( homes );
      size_t end = 0; // behind all entries placed so far
      for( size_t at = occupiedFrom( 0 ); at != slotCount_; at = occupiedFrom( at + 1 ) )
         end = std::max( end, larger.homeOf( keyHash( slots_[ at ].key ) ) ) + 1;
      larger.slotCount_ = std::max( end, homes ) + std::min( homes, overflow );
      larger.slots_ = Array().allocate( larger.slotCount_ );
      larger.used_.assign( larger.slotCount_ / 64 + 1, 0 );
      end = 0;
      for( size_t at = occupiedFrom( 0 ); at != slotCount_; at = occupiedFrom( at + 1 ) ) {
         const size_t to = std::max( end, larger.homeOf( keyHash( slots_[ at ].key ) ) );
         ::new( &larger.slots_[ to ] ) Entry( std::move( slots_[ at ] ) );
         larger.mark( to );
         ++larger.size_;
         end = to + 1;
      }
      larger.version_ = version_ + 1;
      swap( larger );
   }

   void release() {
      for( size_t at = occupiedFrom( 0 ); at != slotCount_; at = occupiedFrom( at + 1 ) )
         std::destroy_at( &slots_[ at ] );
      if( slots_ )
         Array().deallocate( slots_, slotCount_ );
      slots_ = nullptr;
      used_ = {};
      size_ = slotCount_ = homeCount_ = 0;
   }

   void swap( HashMap& other ) {
      std::swap( slots_, other.slots_ );
      std::swap( used_, other.used_ );
      std::swap( size_, other.size_ );
      std::swap( homeCount_, other.homeCount_ );
      std::swap( slotCount_, other.slotCount_ );
      std::swap( shift_, other.shift_ );
      std::swap( version_, other.version_ );
      std::swap( erasedAt_, other.erasedAt_ );
      std::swap( closedAt_, other.closedAt_ );
      std::swap( insertedAt_, other.insertedAt_ );
      std::swap( insertedHash_, other.insertedHash_ );
   }

   Entry* slots_ = nullptr;
   std::vector<uint64_t> used_; // one bit a slot
   size_t size_ = 0;
   size_t homeCount_ = 0; // ideal slots, a power of two
   size_t slotCount_ = 0; // ideal slots and the overflow behind them
   unsigned shift_ = 0;
   uint64_t version_ = 0;      // counts changes, so that an iterator notices them
   size_t erasedAt_ = nowhere; // where the last change took an entry out, when it did,
   size_t closedAt_ = 0;       // and how far the entries behind it moved up
   size_t insertedAt_ = 0;     // the entry inserted last, and its hash; 0 when it may have moved
   uint64_t insertedHash_ = 0;
   mutable size_t metAt_ = 0; // where an iterator came last: a hint
};

template<class Key>
using KeySet = HashMap<Key, Present>;

} // namespace Vexil
