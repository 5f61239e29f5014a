// get: looking up random keys of the host output in another process than the writer's, and copying
// the whole record out; beside hash maps in the reader's own memory, and beside LMDB.
#include "bench/Harness.h"
#include "bench/Hosts.h"
#include "bench/Lmdb.h"
#include "bench/Machine.h"
#include "bench/Report.h"

#include <absl/container/flat_hash_map.h>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <unordered_map>

namespace Bench {

namespace {

using L2Rib::HostAndSource;
using L2Rib::HostOutput;

constexpr uint32_t pref = 100;
constexpr size_t getsPerTransaction = 100;

struct KeyHash {
   size_t operator()( const Key& key ) const { return key.hash(); }
};

// Who is measured, in the order of Samples.
enum Contender { ours, unorderedMap, flatMap, lmdb, lmdbLong, oursInBatches, contenders };

// Medians of nanoseconds a get, with the rivals' memory as they have it by themselves, and again
// when it was made into huge pages like the table's.
struct GetResult {
   double plain[ contenders ];
   double huge[ contenders ];
   Mapped table;
};

class Reader {
 public:
   Reader( const Settings& settings, const std::string& folder, uint32_t count )
      : table_( folder + "/table", HostOutput::Mode::read ), lmdb_( folder + "/lmdb", MDB_RDONLY ),
        rounds_( settings.repetitions( 11 ) ) {
      unordered_.reserve( count );
      flat_.reserve( count );
      for( const uint32_t number : shuffled( count, 1 ) ) {
         unordered_.emplace( keyOf( number ), rowOf( number, pref ) );
         flat_.emplace( keyOf( number ), rowOf( number, pref ) );
      }
      std::mt19937 random( 2 );
      keys_.resize( std::max<size_t>( settings.size( 400'000 ), 4 * getsPerTransaction ) );
      for( Key& key : keys_ )
         key = keyOf( static_cast<uint32_t>( random() % count ) );
   }

   // All contenders in turns, each round beginning with another one.
   void measure( double ( &medians )[ contenders ] ) {
      const std::function<double()> measured[ contenders ] = {
         [ & ] {
            return timed(
               [ & ]( const Key& key, HostAndSource& row ) { return table_.get( key, row ); } );
         },
         [ & ] {
            return timed( [ & ]( const Key& key, HostAndSource& row ) {
               return copyFrom( unordered_, key, row );
            } );
         },
         [ & ] {
            return timed( [ & ]( const Key& key, HostAndSource& row ) {
               return copyFrom( flat_, key, row );
            } );
         },
         [ & ] { return timedLmdb( getsPerTransaction ); },
         [ & ] { return timedLmdb( keys_.size() ); },
         [ & ] { return timedBatches(); },
      };
      std::vector<double> samples[ contenders ];
      for( int round = 0; round < rounds_; ++round )
         for( int i = 0; i < contenders; ++i ) {
            const int contender = ( round + i ) % contenders;
            samples[ contender ].push_back( measured[ contender ]() );
         }
      for( int i = 0; i < contenders; ++i )
         medians[ i ] = median( samples[ i ] );
   }

 private:
   template<class Map>
   static bool copyFrom( const Map& map, const Key& key, HostAndSource& row ) {
      const auto found = map.find( key );
      if( found == map.end() )
         return false;
      row = found->second;
      return true;
   }

   // Nanoseconds a get of one pass over all keys.
   template<class Get>
   double timed( Get get ) const {
      size_t found = 0;
      const int64_t start = nanoseconds();
      for( const Key& key : keys_ ) {
         HostAndSource row;
         found += get( key, row );
         keep( row );
      }
      const int64_t end = nanoseconds();
      if( found != keys_.size() )
         throw std::runtime_error( "get: a key is missing" );
      return static_cast<double>( end - start ) / static_cast<double>( keys_.size() );
   }

   // The same, in batches of 64 keys.
   double timedBatches() const {
      constexpr size_t batch = 64;
      size_t found = 0;
      const int64_t start = nanoseconds();
      for( size_t at = 0; at < keys_.size(); at += batch )
         table_.getEach( std::span( keys_ ).subspan( at, std::min( batch, keys_.size() - at ) ),
                         [ & ]( const Key&, const HostAndSource& row ) {
                            ++found;
                            keep( row );
                         } );
      const int64_t end = nanoseconds();
      if( found != keys_.size() )
         throw std::runtime_error( "get: a key is missing" );
      return static_cast<double>( end - start ) / static_cast<double>( keys_.size() );
   }

   double timedLmdb( size_t perTransaction ) {
      size_t left = 0;
      return timed( [ & ]( const Key& key, HostAndSource& row ) {
         if( left == 0 ) {
            lmdb_.readAnew();
            left = perTransaction;
         }
         --left;
         return lmdb_.get( key, row );
      } );
   }

   HostOutput table_;
   Lmdb lmdb_;
   int rounds_;
   std::unordered_map<Key, HostAndSource, KeyHash> unordered_;
   absl::flat_hash_map<Key, HostAndSource, KeyHash> flat_;
   std::vector<Key> keys_;
};

void write( const std::string& folder, uint32_t count, std::atomic<bool>& ready ) {
   HostOutput table( folder + "/table", HostOutput::Mode::write, count );
   Lmdb store( folder + "/lmdb", MDB_NOSYNC );
   store.begin();
   for( const uint32_t number : shuffled( count, 3 ) ) {
      if( !table.set( rowOf( number, pref ) ) )
         throw std::runtime_error( "get: the table is full" );
      store.put( keyOf( number ), rowOf( number, pref ) );
   }
   store.commit();
   ready = true;
   while( true )
      pause( 3600 ); // the writer stays, idle
}

void addFigures( const std::string& name, const GetResult& result, Report& report ) {
   report.figure( name, "get", result.plain[ ours ], "ns" )
      .against( "unordered_map", result.plain[ unorderedMap ], 1 )
      .against( "flat_hash_map", result.plain[ flatMap ] )
      .against( "lmdb", result.plain[ lmdb ], 10 )
      .against( "lmdb, one transaction", result.plain[ lmdbLong ], 10 );
   report.figure( name, "get in batches", result.plain[ oursInBatches ], "ns" )
      .against( "flat_hash_map", result.plain[ flatMap ], 1 )
      .against( "lmdb", result.plain[ lmdb ], 10 );
   report.figure( name, "get, rivals huge too", result.huge[ ours ], "ns" )
      .against( "unordered_map", result.huge[ unorderedMap ] )
      .against( "flat_hash_map", result.huge[ flatMap ] )
      .against( "lmdb", result.huge[ lmdb ] )
      .against( "lmdb, one transaction", result.huge[ lmdbLong ] );
   report.figure( name, "table in huge pages",
                  100 * static_cast<double>( result.table.huge ) /
                     static_cast<double>( result.table.resident ),
                  "%" );
}

void getOfSize( const Settings& settings, uint32_t count, Report& report ) {
   const std::string name = "get/" + std::to_string( count );
   if( !settings.wants( name ) )
      return;
   std::fprintf( stderr, "%s\n", name.c_str() );
   const std::string folder = settings.directory + "/get";
   std::filesystem::create_directories( folder );
   Shared<std::atomic<bool>> ready;
   Shared<GetResult> result;
   {
      const Child writer( "writer", [ & ] { write( folder, count, *ready ); } );
      waitUntil( 0.01, [ & ] { return ready->load(); } );
      runInProcess( "reader", [ & ] {
         pinTo( 1 );
         Reader reader( settings, folder, count );
         reader.measure( result->plain );
         result->table = mappedUnder( folder + "/table" );
         makeMemoryHuge();
         reader.measure( result->huge );
      } );
   }
   std::filesystem::remove_all( folder );
   addFigures( name, *result, report );
}

} // namespace

void benchGet( const Settings& settings, Report& report ) {
   for( const uint32_t full : { 16'384u, 262'144u, 1'000'000u } )
      getOfSize( settings, settings.size( full ), report );
}

} // namespace Bench
