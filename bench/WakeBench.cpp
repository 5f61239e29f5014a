// wake: how long after a change a reader in another process is called, when both were idle: one
// record set and the bell rung, to the reactor's call in the reader's event loop; beside an eventfd
// written, to the handler's call in the same kind of event loop.
#include "bench/Harness.h"
#include "bench/Hosts.h"
#include "bench/Machine.h"
#include "bench/Report.h"
#include "runtime/FileWatcher.h"

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <sys/eventfd.h>
#include <unistd.h>

namespace Bench {

namespace {

using L2Rib::HostOutput;

constexpr uint32_t hosts = 1024;
constexpr double idleGap = 100e-6; // seconds
constexpr int writersProcessor = 0;
constexpr int readersProcessor = 1;

struct Inbox {
   std::atomic<bool> ready;
   std::atomic<int64_t> calledAt; // nanoseconds; 0 until the reader was called
};

class TableReader : public Vexil::Reactor<HostOutput> {
 public:
   TableReader( Vexil::Ptr<const HostOutput> table, Inbox& inbox )
      : Reactor( std::move( table ) ), inbox_( inbox ) {}
   void handleEntry( const Key& ) override { inbox_.calledAt = nanoseconds(); }

 private:
   Inbox& inbox_;
};

void readTable( const std::string& file, Inbox& inbox ) {
   pinTo( readersProcessor );
   Vexil::ActivityManager loop;
   Vexil::FileWatcher watcher( loop );
   const auto table = Vexil::makeEntity<HostOutput>( file, HostOutput::Mode::read );
   const TableReader reader( table, inbox );
   watcher.follow( table );
   loop.turn( 0 );
   inbox.ready = true;
   loop.run();
}

void readEventFd( int fd, Inbox& inbox ) {
   pinTo( readersProcessor );
   Vexil::ActivityManager loop;
   loop.watch( fd, [ & ] {
      inbox.calledAt = nanoseconds();
      eventfd_t count;
      eventfd_read( fd, &count );
   } );
   loop.turn( 0 );
   inbox.ready = true;
   loop.run();
}

// Microseconds from before change() to the reader's call, all idle before and after.
template<class Change>
double timed( Inbox& inbox, Change change ) {
   pause( idleGap );
   inbox.calledAt = 0;
   const int64_t start = nanoseconds();
   change();
   waitUntil( idleGap, [ & ] { return inbox.calledAt != 0; } );
   return static_cast<double>( inbox.calledAt - start ) * 1e-3;
}

struct Quantiles {
   double median;
   double tenth; // nine of ten lie below
};
struct WakeResult {
   Quantiles table;
   Quantiles event;
};

WakeResult measure( const std::string& file, int fd, int rounds, Inbox& ofTable, Inbox& ofEvent ) {
   pinTo( writersProcessor );
   HostOutput table( file, HostOutput::Mode::write, hosts );
   const Child tableReader( "table reader", [ & ] { readTable( file, ofTable ); } );
   const Child eventReader( "event reader", [ & ] { readEventFd( fd, ofEvent ); } );
   waitUntil( 0.01, [ & ] { return ofTable.ready && ofEvent.ready; } );
   std::vector<double> samples[ 2 ];
   for( uint32_t round = 0; round < static_cast<uint32_t>( rounds ); ++round ) {
      samples[ 0 ].push_back( timed( ofTable, [ & ] {
         if( !table.set( rowOf( round % hosts, round ) ) )
            throw std::runtime_error( "wake: the table is full" );
         table.ring();
      } ) );
      samples[ 1 ].push_back( timed( ofEvent, [ & ] { eventfd_write( fd, 1 ); } ) );
   }
   return { { median( samples[ 0 ] ), quantile( samples[ 0 ], 0.9 ) },
            { median( samples[ 1 ] ), quantile( samples[ 1 ], 0.9 ) } };
}

} // namespace

void benchWake( const Settings& settings, Report& report ) {
   if( !settings.wants( "wake" ) )
      return;
   std::fprintf( stderr, "wake\n" );
   const std::string folder = settings.directory + "/wake";
   std::filesystem::create_directories( folder );
   const int fd = eventfd( 0, EFD_NONBLOCK | EFD_CLOEXEC );
   Shared<Inbox> ofTable;
   Shared<Inbox> ofEvent;
   Shared<WakeResult> result;
   runInProcess( "writer", [ & ] {
      *result = measure( folder + "/table", fd, settings.repetitions( 5000 ), *ofTable, *ofEvent );
   } );
   close( fd );
   std::filesystem::remove_all( folder );
   constexpr double target = 1 / 1.3; // at most 1.3 times as long
   report.figure( "wake", "median", result->table.median, "us" )
      .against( "eventfd", result->event.median, target );
   report.figure( "wake", "90th percentile", result->table.tenth, "us" )
      .against( "eventfd", result->event.tenth, target );
}

} // namespace Bench
