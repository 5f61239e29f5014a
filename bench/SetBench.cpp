// set: writing host output rows, journal entry included, a bell rung after each 100; beside LMDB
// with 100 puts a transaction. Once into an empty store, and then over random keys of the full one.
#include "bench/Harness.h"
#include "bench/Hosts.h"
#include "bench/Lmdb.h"
#include "bench/Machine.h"
#include "bench/Report.h"

#include <cstdio>
#include <filesystem>
#include <functional>

namespace Bench {

namespace {

using L2Rib::HostOutput;

constexpr size_t batch = 100; // sets to a bell, puts to a transaction

enum Contender { ours, lmdb, lmdbNoSync, contenders };

struct SetResult {
   double fill[ contenders ]; // medians of nanoseconds a set
   double update[ contenders ];
};

// The three stores, empty at first.
class Stores {
 public:
   Stores( const std::string& folder, uint32_t count )
      : table_( folder + "/table", HostOutput::Mode::write, count ), lmdb_( folder + "/lmdb", 0 ),
        lmdbNoSync_( folder + "/lmdb-nosync", MDB_NOSYNC ) {}

   // Writes a row for each number; returns nanoseconds a row.
   double write( int contender, const std::vector<uint32_t>& numbers, uint32_t pref ) {
      const int64_t start = nanoseconds();
      for( size_t at = 0; at < numbers.size(); at += batch ) {
         const std::span<const uint32_t> part( &numbers[ at ],
                                               std::min( batch, numbers.size() - at ) );
         if( contender == ours )
            writeTable( part, pref );
         else
            writeLmdb( contender == lmdb ? lmdb_ : lmdbNoSync_, part, pref );
      }
      return static_cast<double>( nanoseconds() - start ) / static_cast<double>( numbers.size() );
   }

 private:
   void writeTable( std::span<const uint32_t> numbers, uint32_t pref ) {
      for( const uint32_t number : numbers )
         if( !table_.set( rowOf( number, pref ) ) )
            throw std::runtime_error( "set: the table is full" );
      table_.ring();
   }
   static void writeLmdb( Lmdb& store, std::span<const uint32_t> numbers, uint32_t pref ) {
      store.begin();
      for( const uint32_t number : numbers )
         store.put( keyOf( number ), rowOf( number, pref ) );
      store.commit();
   }

   HostOutput table_;
   Lmdb lmdb_;
   Lmdb lmdbNoSync_;
};

// Runs measured( contender ) for all contenders in turns; the medians of what it returns.
void inTurns( int rounds, double ( &medians )[ contenders ],
              const std::function<double( int round, int contender )>& measured ) {
   std::vector<double> samples[ contenders ];
   for( int round = 0; round < rounds; ++round )
      for( int i = 0; i < contenders; ++i ) {
         const int contender = ( round + i ) % contenders;
         samples[ contender ].push_back( measured( round, contender ) );
      }
   for( int i = 0; i < contenders; ++i )
      medians[ i ] = median( samples[ i ] );
}

SetResult measure( const Settings& settings, const std::string& folder, uint32_t count ) {
   SetResult result{};
   std::unique_ptr<Stores> stores;
   int filled = -1;
   inTurns( settings.repetitions( count > 500'000 ? 3 : 5 ), result.fill,
            [ & ]( int round, int contender ) {
               if( round != filled ) { // empty ones
                  stores.reset();
                  std::filesystem::remove_all( folder );
                  stores = std::make_unique<Stores>( folder, count );
                  filled = round;
               }
               return stores->write( contender, shuffled( count, 1 ), 100 );
            } );
   std::mt19937 random( 2 );
   std::vector<uint32_t> numbers( settings.size( 50'000 ) );
   inTurns( settings.repetitions( 11 ), result.update, [ & ]( int round, int contender ) {
      random.seed( static_cast<uint32_t>( round ) ); // the same for all of a round
      for( uint32_t& number : numbers )
         number = static_cast<uint32_t>( random() % count );
      return stores->write( contender, numbers, 101 + static_cast<uint32_t>( round ) );
   } );
   return result;
}

void setOfSize( const Settings& settings, uint32_t count, Report& report ) {
   const std::string name = "set/" + std::to_string( count );
   if( !settings.wants( name ) )
      return;
   std::fprintf( stderr, "%s\n", name.c_str() );
   const std::string folder = settings.directory + "/set";
   Shared<SetResult> result;
   runInProcess( "writer", [ & ] { *result = measure( settings, folder, count ); } );
   std::filesystem::remove_all( folder );
   report.figure( name, "set, existing key", result->update[ ours ], "ns" )
      .against( "lmdb", result->update[ lmdb ], 8 )
      .against( "lmdb, no sync", result->update[ lmdbNoSync ], 8 );
   report.figure( name, "set, filling", result->fill[ ours ], "ns" )
      .against( "lmdb", result->fill[ lmdb ], 8 )
      .against( "lmdb, no sync", result->fill[ lmdbNoSync ], 8 );
}

} // namespace

void benchSet( const Settings& settings, Report& report ) {
   for( const uint32_t full : { 16'384u, 262'144u, 1'000'000u } )
      setOfSize( settings, settings.size( full ), report );
}

} // namespace Bench
