// The keyed collection against a model: a sorted set of (hash, key), which is the order that it
// promises. Each step is compared with what the model says at that moment, so the order of a walk
// can't depend on how the collection came to be.
#include "runtime/HashMap.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>

namespace Vexil {
namespace {

using TestSupport::Random;

// Keys that crowd into five hashes, the lowest and the highest among them: long runs of equal
// hashes, and one that stands behind the last ideal slot.
struct CrowdedKey {
   uint32_t number = 0;
   uint64_t hash() const {
      constexpr uint64_t hashes[] = { 0, 1, 1ull << 63, ~0ull - 1, ~0ull };
      return hashes[ number % 5 ];
   }
   auto operator<=>( const CrowdedKey& ) const = default;
};

template<class Key>
class KeyedCollection : public testing::Test {
 public:
   using Place = std::pair<uint64_t, Key>; // hash and key: where an entry stands in a walk
   static Place placeOf( const Key& key ) { return { keyHash( key ), key }; }

   void insert( Key key ) {
      const auto [ value, absent ] = map.emplace( key, ++serial );
      ASSERT_EQ( absent, model.emplace( placeOf( key ), serial ).second );
      ASSERT_EQ( *value, model[ placeOf( key ) ] );
   }
   void erase( Key key ) {
      staying.erase( placeOf( key ) );
      ASSERT_EQ( map.erase( key ), model.erase( placeOf( key ) ) == 1 );
   }
   void change( unsigned percentOfInsertions ) {
      const Key key{ random.below( keys ) };
      random.percent( percentOfInsertions ) ? insert( key ) : erase( key );
   }
   void check() {
      ASSERT_EQ( map.size(), model.size() );
      auto expected = model.begin();
      for( auto at = map.begin(); at != map.end(); ++at, ++expected ) {
         ASSERT_EQ( placeOf( at->key ), expected->first );
         ASSERT_EQ( at->value, expected->second );
      }
      for( uint32_t number = 0; number < keys; ++number ) {
         const uint64_t* const value = map.find( Key{ number } );
         ASSERT_EQ( value != nullptr, model.contains( placeOf( Key{ number } ) ) );
         ASSERT_TRUE( !value || *value == model[ placeOf( Key{ number } ) ] );
      }
   }

   // Crowded keys are searched one by one; the others come in thousands, so that an emptied
   // collection gives back its room.
   static constexpr uint32_t keys = std::is_class_v<Key> ? 600 : 9000;
   Random random;
   uint64_t serial = 0;
   HashMap<Key, uint64_t> map;
   std::map<Place, uint64_t> model;
   std::map<Place, unsigned> staying; // visits of the entries that stay during a pass
};

using KeyTypes = testing::Types<uint32_t, CrowdedKey>;
TYPED_TEST_SUITE( KeyedCollection, KeyTypes );

TYPED_TEST( KeyedCollection, MatchesTheModelWhileItGrowsAndEmpties ) {
   for( const unsigned insertions : { 95, 50, 5, 60, 0, 70, 0 } ) {
      for( uint32_t step = 0; step < this->keys; ++step )
         ASSERT_NO_FATAL_FAILURE( this->change( insertions ) );
      this->map = this->map.copy();
      ASSERT_NO_FATAL_FAILURE( this->check() );
      while( insertions == 0 && !this->model.empty() )
         ASSERT_NO_FATAL_FAILURE( this->erase( this->model.begin()->first.second ) );
   }
   HashMap<TypeParam, uint64_t> other( std::move( this->map ) );
   this->map = std::move( other );
   this->map = this->map.copy();
   this->insert( TypeParam{ 1 } ); // usable after all its room was given back
   this->check();
}

// Passes in slices, with changes under the iterator and between the slices, those of the current
// entry and of the bookmark among them. Each step must lead to what the model has next; from which
// follows, and is counted too, that an entry which stays is met exactly once a pass.
TYPED_TEST( KeyedCollection, WalksInSlicesWhileItChanges ) {
   unsigned metAhead = 0, bookmarksGone = 0;
   for( int pass = 0; pass < 20; ++pass ) {
      while( this->model.size() < this->keys / 3 )
         ASSERT_NO_FATAL_FAILURE( this->change( 100 ) );
      this->staying.clear();
      for( const auto& [ place, value ] : this->model )
         this->staying[ place ] = 0;
      std::optional<TypeParam> bookmark;
      auto expected = this->model.begin();
      do {
         bookmarksGone += bookmark && !this->map.contains( *bookmark );
         auto at = bookmark ? this->map.from( *bookmark ) : this->map.begin();
         for( uint32_t left = 1 + this->random.below( this->keys / 20 );
              left > 0 && at != this->map.end(); --left, ++at ) {
            const TypeParam current = at->key;
            ASSERT_NE( expected, this->model.end() );
            ASSERT_EQ( this->placeOf( current ), expected->first );
            const auto known = this->staying.find( expected->first );
            known == this->staying.end() ? ++metAhead : ++known->second;
            if( pass == 19 || this->random.percent( 20 ) ) {
               ASSERT_NO_FATAL_FAILURE( this->erase( current ) );
            }
            for( uint32_t more = pass == 19 ? 0 : this->random.below( 3 ); more > 0; --more )
               ASSERT_NO_FATAL_FAILURE( this->change( 50 ) );
            if( this->random.percent( 5 ) )
               this->map = this->map.copy();
            expected = this->model.upper_bound( this->placeOf( current ) );
         }
         ASSERT_EQ( at == this->map.end(), expected == this->model.end() );
         bookmark.reset();
         if( at == this->map.end() )
            break;
         bookmark = at->key;
         if( this->random.percent( 30 ) ) {
            ASSERT_NO_FATAL_FAILURE( this->erase( *bookmark ) );
         }
         for( uint32_t more = pass == 19 ? 0 : this->random.below( 50 ); more > 0; --more )
            ASSERT_NO_FATAL_FAILURE( this->change( 50 ) );
         expected = this->model.lower_bound( this->placeOf( *bookmark ) );
      } while( bookmark );
      for( const auto& [ place, visits ] : this->staying )
         ASSERT_EQ( visits, 1u );
      ASSERT_NO_FATAL_FAILURE( this->check() );
   }
   EXPECT_TRUE( this->map.empty() ); // the last pass took every entry under its iterator
   EXPECT_GT( metAhead, 0u );
   EXPECT_GT( bookmarksGone, 0u );
}

// Values whose end changes the collection that held them, as the last reference to an entity may.
TEST( KeyedCollectionOfOwners, MayBeChangedByItsValuesAsTheyGo ) {
   struct Owned {
      std::function<void()> end;
      ~Owned() { end(); }
   };
   Random random;
   std::map<std::pair<uint64_t, CrowdedKey>, bool> model;
   bool settled = false; // the values do nothing any more
   HashMap<CrowdedKey, std::unique_ptr<Owned>> map;
   const auto randomKey = [ & ] { return CrowdedKey{ random.below( 400 ) }; };
   const auto erase = [ & ]( CrowdedKey key ) {
      model.erase( { key.hash(), key } );
      map.erase( key );
   };
   const std::function<void( CrowdedKey )> insert = [ & ]( CrowdedKey key ) {
      model[ { key.hash(), key } ] = true;
      std::unique_ptr<Owned> value( new Owned{ [ & ] {
         if( settled )
            return;
         erase( randomKey() ); // whose value may do the same in turn
         if( random.percent( 60 ) )
            insert( randomKey() );
      } } );
      map.emplace( key, std::move( value ) );
   };
   for( int step = 0; step < 4000; ++step ) {
      insert( randomKey() );
      insert( randomKey() );
      erase( randomKey() );
      if( step % 500 == 499 ) { // what the last owners enter as they go stands in the empty one
         model.clear();
         map.clear();
      }
      ASSERT_EQ( map.size(), model.size() );
      auto expected = model.begin();
      for( auto at = map.begin(); at != map.end(); ++at, ++expected )
         ASSERT_EQ( at->key, expected->first.second );
   }
   settled = true;
}

// A collection that is filled in the order in which another one is walked: in proportion to the
// number of keys, not to its square.
TEST( KeyedCollectionOrder, FillingInTheOrderOfAWalkIsCheap ) {
   static uint64_t looks = 0;
   struct CountedKey {
      uint32_t number = 0;
      uint64_t hash() const { return ++looks, mix64( number ); }
      auto operator<=>( const CountedKey& ) const = default;
   };
   constexpr uint32_t keys = 20'000;
   KeySet<CountedKey> list;
   for( uint32_t number = 0; number < keys; ++number )
      list.emplace( CountedKey{ number } );
   KeySet<CountedKey> set;
   looks = 0;
   for( auto at = list.begin(); at != list.end(); ++at ) {
      ASSERT_FALSE( set.contains( at->key ) );
      set.emplace( at->key );
      ASSERT_TRUE( set.contains( at->key ) );
   }
   EXPECT_EQ( keys, set.size() );
   EXPECT_LT( looks, 30u * keys );
}

} // namespace
} // namespace Vexil
