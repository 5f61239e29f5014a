// The keyed collection against a model: a sorted set of (hash, key), which is the order that the
// collection promises. Everything is compared with what the model says at that very step, so the
// order of a walk can't depend on how the collection came to be.
#include "runtime/HashMap.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

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

   Key randomKey() { return Key{ random.below( keys ) }; }
   void insert( const Key& key ) {
      const auto [ value, absent ] = map.emplace( key, ++serial );
      ASSERT_EQ( absent, !model.contains( placeOf( key ) ) );
      ASSERT_EQ( *value, absent ? serial : model[ placeOf( key ) ] );
      model.emplace( placeOf( key ), serial );
   }
   void erase( const Key& key ) {
      ASSERT_EQ( map.erase( key ), model.erase( placeOf( key ) ) == 1 );
   }
   void change( unsigned percentOfInsertions ) {
      const Key key = randomKey();
      random.percent( percentOfInsertions ) ? insert( key ) : erase( key );
   }
   // The whole collection, through every way of looking at it.
   void check() {
      ASSERT_EQ( map.size(), model.size() );
      auto expected = model.begin();
      typename HashMap<Key, uint64_t>::LookAhead ahead( map, map.begin() );
      for( auto at = map.begin(); at != map.end(); ++at, ++expected ) {
         ASSERT_EQ( placeOf( at->key ), expected->first );
         ASSERT_EQ( at->value, expected->second );
         ASSERT_EQ( *ahead.next(), at->key );
      }
      ASSERT_EQ( expected, model.end() );
      ASSERT_EQ( ahead.next(), nullptr );
      for( uint32_t number = 0; number < keys; ++number ) {
         const auto found = model.find( placeOf( Key{ number } ) );
         const uint64_t* const value = map.find( Key{ number } );
         ASSERT_EQ( value != nullptr, found != model.end() );
         ASSERT_EQ( value ? *value : 0, value ? found->second : 0 );
      }
   }

   // Crowded keys stand in runs that are searched one by one; others come in thousands, so that
   // an emptied collection gives back its room.
   static constexpr uint32_t keys = std::is_class_v<Key> ? 600 : 9000;
   Random random;
   uint64_t serial = 0;
   HashMap<Key, uint64_t> map;
   std::map<Place, uint64_t> model;
};

using KeyTypes = testing::Types<uint32_t, CrowdedKey>;
TYPED_TEST_SUITE( KeyedCollection, KeyTypes );

TYPED_TEST( KeyedCollection, MatchesTheModelWhileItGrowsAndEmpties ) {
   for( const unsigned insertions : { 95, 50, 5, 60, 0, 70, 0 } ) {
      for( uint32_t step = 0; step < this->keys; ++step )
         ASSERT_NO_FATAL_FAILURE( this->change( insertions ) );
      ASSERT_NO_FATAL_FAILURE( this->check() );
      while( insertions == 0 && !this->model.empty() )
         ASSERT_NO_FATAL_FAILURE( this->erase( this->model.begin()->first.second ) );
   }
   this->change( 100 ); // usable after all its room was given back
   this->check();
   HashMap<TypeParam, uint64_t> moved( std::move( this->map ) );
   EXPECT_EQ( moved.size(), 1u );
   this->map = std::move( moved );
   this->check();
}

// A pass in slices, with changes in between. Each slice must be what the model has at and behind
// the bookmark; from which follows, and is counted as well, that an entry which stays is met
// exactly once a pass.
TYPED_TEST( KeyedCollection, WalksInSlicesFromABookmark ) {
   for( uint32_t i = 0; i < this->keys / 2; ++i )
      ASSERT_NO_FATAL_FAILURE( this->change( 100 ) );
   unsigned metAhead = 0, bookmarksGone = 0;
   for( int pass = 0; pass < 15; ++pass ) {
      std::map<typename TestFixture::Place, unsigned> visits; // of the entries that stay
      for( const auto& [ place, value ] : this->model )
         visits[ place ] = 0;
      std::optional<TypeParam> bookmark;
      do {
         auto at = bookmark ? this->map.from( *bookmark ) : this->map.begin();
         auto expected = bookmark ? this->model.lower_bound( this->placeOf( *bookmark ) )
                                  : this->model.begin();
         bookmarksGone += bookmark && !this->map.contains( *bookmark );
         for( uint32_t left = 1 + this->random.below( this->keys / 20 );
              left > 0 && at != this->map.end(); --left, ++at, ++expected ) {
            ASSERT_NE( expected, this->model.end() );
            ASSERT_EQ( this->placeOf( at->key ), expected->first );
            const auto known = visits.find( expected->first );
            known == visits.end() ? ++metAhead : ++known->second;
         }
         if( at == this->map.end() ) {
            ASSERT_EQ( expected, this->model.end() );
            bookmark.reset();
         } else {
            bookmark = at->key;
            if( this->random.percent( 40 ) ) { // the bookmark itself leaves
               visits.erase( this->placeOf( *bookmark ) );
               ASSERT_NO_FATAL_FAILURE( this->erase( *bookmark ) );
            }
         }
         for( uint32_t changes = this->random.below( this->keys / 20 ); changes > 0; --changes ) {
            const TypeParam key = this->randomKey();
            visits.erase( this->placeOf( key ) );
            ASSERT_NO_FATAL_FAILURE( this->random.percent( 52 ) ? this->insert( key )
                                                                : this->erase( key ) );
         }
      } while( bookmark );
      for( const auto& [ place, count ] : visits )
         ASSERT_EQ( count, 1u );
   }
   EXPECT_GT( metAhead, 0u );
   EXPECT_GT( bookmarksGone, 0u );
}

TYPED_TEST( KeyedCollection, ChangesUnderAnIterator ) {
   for( int pass = 0; pass < 10; ++pass ) {
      while( this->model.size() < this->keys / 3 )
         ASSERT_NO_FATAL_FAILURE( this->change( 100 ) );
      auto expected = this->model.begin();
      for( auto at = this->map.begin(); at != this->map.end(); ++at ) {
         const TypeParam current = at->key;
         ASSERT_NE( expected, this->model.end() );
         ASSERT_EQ( this->placeOf( current ), expected->first );
         if( pass == 9 || this->random.percent( 30 ) ) {
            ASSERT_NO_FATAL_FAILURE( this->erase( current ) );
         }
         for( uint32_t changes = pass == 9 ? 0 : this->random.below( 3 ); changes > 0; --changes )
            ASSERT_NO_FATAL_FAILURE( this->change( 45 ) );
         expected = this->model.upper_bound( this->placeOf( current ) );
      }
      ASSERT_EQ( expected, this->model.end() );
      ASSERT_NO_FATAL_FAILURE( this->check() );
   }
   EXPECT_TRUE( this->map.empty() ); // the last pass took every entry under its iterator
}

// A value whose end changes the collection that held it, as the last reference to an entity may.
struct Owned {
   explicit Owned( std::function<void()> end ) : end_( std::move( end ) ) {}
   ~Owned() { end_(); }
   std::function<void()> end_;
};

TEST( KeyedCollectionOfOwners, ValuesThatChangeItAsTheyGo ) {
   Random random;
   std::map<std::pair<uint64_t, CrowdedKey>, bool> model;
   bool settled = false; // the values do nothing any more
   HashMap<CrowdedKey, std::unique_ptr<Owned>> map;
   const std::function<void( CrowdedKey )> insert = [ & ]( CrowdedKey key ) {
      model[ { key.hash(), key } ] = true;
      map.emplace( key, std::make_unique<Owned>( [ & ] {
         if( settled )
            return;
         const CrowdedKey next{ random.below( 400 ) }, other{ random.below( 400 ) };
         model.erase( { next.hash(), next } );
         map.erase( next ); // whose value may do the same in turn
         if( random.percent( 60 ) )
            insert( other );
      } ) );
   };
   const auto check = [ & ] {
      ASSERT_EQ( map.size(), model.size() );
      auto expected = model.begin();
      for( auto at = map.begin(); at != map.end(); ++at, ++expected )
         ASSERT_EQ( at->key, expected->first.second );
   };
   for( int step = 0; step < 4000; ++step ) {
      insert( CrowdedKey{ random.below( 400 ) } );
      insert( CrowdedKey{ random.below( 400 ) } );
      const CrowdedKey key{ random.below( 400 ) };
      model.erase( { key.hash(), key } );
      map.erase( key );
      if( step % 500 == 499 ) { // what the last owners enter as they go stands in the empty one
         model.clear();
         map.clear();
      }
      ASSERT_NO_FATAL_FAILURE( check() );
   }
   settled = true;
}

} // namespace
} // namespace Vexil
