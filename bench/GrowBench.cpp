// grow: a host output that is filled until it doubles, with a reader that follows it, and then is
// attached by its next writer. What counts is for how long each holds an event loop.
#include "bench/Harness.h"
#include "bench/Hosts.h"
#include "bench/Machine.h"
#include "bench/Report.h"

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace Bench {

namespace {

using L2Rib::HostOutput;

// Milliseconds.
struct GrowResult {
   double hold; // the longest set() on the way from three quarters of the capacity to the doubling
   double atOnce;  // the same table, brought to double the capacity in one go
   double attach;  // by the next writer, which recovers it
   double perSet;  // nanoseconds, of a set while the table is being copied
   double overrun; // times that the reader had to start over
   std::atomic<bool> following, done;
};

// Follows the table until it is told to stop.
void follow( const std::string& file, GrowResult& result ) {
   HostOutput reader( file, HostOutput::Mode::read );
   const Vexil::SystemClock clock;
   result.following = true;
   while( !result.done )
      reader.poll( clock, clock.now() );
   result.overrun = static_cast<double>( reader.overruns() );
}

void measure( const std::string& file, uint32_t capacity, GrowResult& result ) {
   const auto milliseconds = []( int64_t from ) {
      return static_cast<double>( nanoseconds() - from ) * 1e-6;
   };
   {
      HostOutput table( file, HostOutput::Mode::write, capacity );
      table.capacityMaxIs( 2 * capacity );
      const Child reader( "reader", [ & ] { follow( file, result ); } );
      while( !result.following ) {
      }
      double longest = 0, copying = 0;
      uint32_t copied = 0;
      for( const uint32_t number : shuffled( 2 * capacity, 1 ) ) {
         if( table.capacity() != capacity )
            break;
         const int64_t start = nanoseconds();
         if( !table.set( rowOf( number, 100 ) ) )
            throw std::runtime_error( "grow: no room" );
         table.ring();
         if( table.count() < capacity - capacity / 4 )
            continue;
         longest = std::max( longest, milliseconds( start ) );
         copying += milliseconds( start );
         ++copied;
      }
      result.hold = longest;
      result.perSet = ( copying - longest ) * 1e6 / copied;
      result.done = true;
   }
   int64_t start = nanoseconds();
   HostOutput next( file, HostOutput::Mode::write, 1 );
   result.attach = milliseconds( start );
   start = nanoseconds();
   next.capacityIs( 4 * capacity );
   result.atOnce = milliseconds( start );
}

} // namespace

void benchGrow( const Settings& settings, Report& report ) {
   const uint32_t capacity = settings.size( 1 << 20 );
   const std::string name = "grow/" + std::to_string( capacity );
   if( !settings.wants( name ) )
      return;
   std::fprintf( stderr, "%s\n", name.c_str() );
   const std::string file = settings.directory + "/grow";
   Shared<GrowResult> result;
   runInProcess( "writer", [ & ] { measure( file, capacity, *result ); } );
   std::filesystem::remove( file );
   report.figure( name, "longest hold of a doubling", result->hold, "ms" );
   report.figure( name, "the same in one go", result->atOnce, "ms" );
   report.figure( name, "set, from three quarters on", result->perSet, "ns" );
   report.figure( name, "reader starts over", result->overrun, "times" );
   report.figure( name, "attach by the next writer", result->attach, "ms" );
}

} // namespace Bench
