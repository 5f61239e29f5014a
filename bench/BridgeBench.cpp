// bridge: the output of 100,000 hosts into the kernel, beside bridge(8) with a batch of the same
// entries; a restart with all of them in place; and 10,000 hosts that follow one change of a dest.
//
// In a network namespace of its own, which goes with the process. Needs root; left out without.
#include "L2Rib/BridgeStatus.h"
#include "L2Rib/FloodBindings.h"
#include "L2Rib/L2RibTarn.h"
#include "bench/Harness.h"
#include "bench/Machine.h"
#include "bench/Report.h"
#include "bridge/Program.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sched.h>
#include <unistd.h>

namespace Bench {

namespace {

using namespace L2Rib;

const Bridging::VlanId vlan( 10 );

void shell( const std::string& command ) {
   if( std::system( command.c_str() ) != 0 )
      throw std::runtime_error( "failed: " + command );
}

void makeNamespace() {
   if( unshare( CLONE_NEWNET ) != 0 )
      throw std::runtime_error( "no network namespace" );
   shell( "ip link set lo up; ip link add br10 type bridge && ip link set br10 up && "
          "ip link add vx10 type vxlan id 10010 local 192.0.2.1 dstport 4789 nolearning && "
          "ip link set vx10 master br10 up && bridge link set dev vx10 learning off" );
}

Vexil::EthAddr macOf( uint32_t number ) { return Vexil::EthAddr( 0x020000000000 + number ); }

// The output of an agent that does not run. Dest 1 and 2 in group 1; every host leads to it.
struct Output {
   template<class Table>
   static Vexil::Ptr<Table> made( const std::string& directory, const char* path, uint32_t size ) {
      return Vexil::makeEntity<Table>( directory + "/" + path, Table::Mode::write, size );
   }
   Output( const std::string& directory, uint32_t size )
      : hosts( made<HostOutput>( directory, Path::hostOutput, size ) ),
        dests( made<DestOutput>( directory, Path::destOutput, 64 ) ),
        groups( made<LoadBalanceOutput>( directory, Path::lbOutput, 64 ) ),
        labels( made<LabelOutput>( directory, Path::labelOutput, 64 ) ),
        flood( made<FloodMemberTable>( directory, Path::floodOutput, 64 ) ),
        floodSource( made<FloodSourceTable>( directory, Path::floodOutputSource, 1 ) ) {}

   void destIs( uint64_t id, const char* vtep ) {
      Dest dest{ DestId( id ) };
      dest.vxlanIs( { Vexil::IpGenAddr::parse( vtep ).value(), 10010 } );
      require( dests->destIs( DestAndSource( dest, { ObjTuple( dest.key() ), sourceBit6_ } ) ) );
      dests->ring();
   }
   void fill( uint32_t count ) {
      destIs( 1, "192.0.2.11" );
      destIs( 2, "192.0.2.12" );
      LoadBalance group{ LoadBalanceId( 1 ) };
      group.nextIs( EcmpIndex( 0 ), ObjTuple( DestId( 1 ) ) );
      group.nextIs( EcmpIndex( 1 ), ObjTuple( DestId( 2 ) ) );
      require(
         groups->lbIs( LoadBalanceAndSource( group, { ObjTuple( group.key() ), sourceBit6_ } ) ) );
      for( uint32_t number = 0; number < count; ++number ) {
         Host host( Bridging::MacVlanPair( macOf( number ), vlan ) );
         host.nextIs( ObjTuple( group.key() ) );
         require( hosts->hostIs( HostAndSource( host.key(), host, sourceBit6_ ) ) );
      }
      groups->ring();
      hosts->ring();
   }
   static void require( bool written ) {
      if( !written )
         throw std::runtime_error( "no room in the output" );
   }

   Vexil::Ptr<HostOutput> hosts;
   Vexil::Ptr<DestOutput> dests;
   Vexil::Ptr<LoadBalanceOutput> groups;
   Vexil::Ptr<LabelOutput> labels;
   Vexil::Ptr<FloodMemberTable> flood;
   Vexil::Ptr<FloodSourceTable> floodSource;
};

void runBridge( const std::string& directory ) {
   Vexil::ActivityManager loop;
   Bridge::ProgramOptions options;
   options.stateDirectory = directory;
   options.bridges = { { 10, "br10" } };
   const Bridge::Program program( loop, options );
   loop.run();
}

template<class Table, class Key>
auto recordOf( const std::string& directory, const char* path, const Key& key ) {
   return Table( directory + "/" + path, Table::Mode::read ).get( key );
}
uint64_t programmed( const std::string& directory ) {
   return recordOf<BridgeTable>( directory, Path::bridges, vlan ).programmed.value();
}
BridgeProgramRecord program( const std::string& directory ) {
   return recordOf<BridgeProgramTable>( directory, Path::bridgeProgram, SingleKey() );
}
// Whether the run of that process is in sync; before it has written anything there is no table.
bool inSync( const std::string& directory, pid_t id ) {
   try {
      const BridgeProgramRecord record = program( directory );
      return record.processId == static_cast<uint32_t>( id ) && record.inSync != 0;
   } catch( const Vexil::TableError& ) {
      return false;
   }
}

struct Times {
   double filling; // seconds
   double restart;
   double restartWrites;
   double move;
   double moveWrites;
};

double secondsSince( int64_t start ) { return static_cast<double>( nanoseconds() - start ) * 1e-9; }

Times runOnce( const std::string& directory, uint32_t hosts ) {
   constexpr double gap = 0.001;
   Shared<Times> times;
   runInProcess( "bridge bench", [ & ] {
      makeNamespace();
      Output output( directory, hosts );
      {
         const Child child( "l2rib-bridge", [ & ] { runBridge( directory ); } );
         waitUntil( gap, [ & ] { return inSync( directory, child.id() ); } );
         const int64_t start = nanoseconds();
         output.fill( hosts );
         waitUntil( gap, [ & ] { return programmed( directory ) == hosts; } );
         times->filling = secondsSince( start );
         kill( child.id(), SIGKILL );
      }
      const int64_t start = nanoseconds();
      const Child child( "l2rib-bridge", [ & ] { runBridge( directory ); } );
      waitUntil( gap, [ & ] { return inSync( directory, child.id() ); } );
      times->restart = secondsSince( start );
      times->restartWrites = static_cast<double>( program( directory ).writes.value() );
      const int64_t moving = nanoseconds();
      output.destIs( 1, "192.0.2.21" );
      waitUntil( gap, [ & ] { // one nexthop, once for all
         const auto group = recordOf<BridgeHostTable>( directory, Path::bridgeHosts,
                                                       Bridging::MacVlanPair( macOf( 0 ), vlan ) );
         const auto vteps = recordOf<BridgeGroupTable>( directory, Path::bridgeGroups, group.id );
         return vteps.vteps[ 1 ] == Vexil::IpGenAddr::parse( "192.0.2.21" );
      } );
      times->move = secondsSince( moving );
      waitUntil( 0.1,
                 [ & ] { return program( directory ).writes.value() > times->restartWrites; } );
      times->moveWrites =
         static_cast<double>( program( directory ).writes.value() ) - times->restartWrites;
   } );
   return *times;
}

double runBatch( const std::string& directory, uint32_t hosts ) {
   const std::string batch = directory + "/batch";
   std::ofstream lines( batch );
   for( uint32_t number = 0; number < hosts; ++number )
      lines << "fdb replace " << macOf( number ).str() << " dev vx10 self nhid 10 extern_learn\n"
            << "fdb replace " << macOf( number ).str() << " dev vx10 master extern_learn\n";
   lines.close();
   Shared<double> seconds;
   runInProcess( "bridge batch", [ & ] {
      makeNamespace();
      shell( "ip nexthop add id 1 via 192.0.2.11 fdb && ip nexthop add id 2 via 192.0.2.12 fdb && "
             "ip nexthop add id 10 group 1/2 fdb" );
      const int64_t start = nanoseconds();
      shell( "bridge -batch " + batch );
      *seconds = secondsSince( start );
   } );
   return *seconds;
}

} // namespace

void benchBridge( const Settings& settings, Report& report ) {
   const uint32_t hosts = settings.size( 100'000 );
   const std::string name = "bridge/" + std::to_string( hosts );
   if( !settings.wants( name ) )
      return;
   if( geteuid() != 0 ) {
      std::fprintf( stderr, "%s: left out, network namespaces need root\n", name.c_str() );
      return;
   }
   std::vector<double> filling, restart, batch, move, moveWrites;
   for( int i = 0; i < settings.repetitions( 3 ); ++i ) {
      std::fprintf( stderr, "%s, %d\n", name.c_str(), i + 1 );
      const std::string directory = settings.directory + "/bridge" + std::to_string( i );
      shell( "mkdir " + directory );
      batch.push_back( runBatch( directory, hosts ) * 1e3 );
      const Times times = runOnce( directory, hosts );
      if( times.restartWrites != 0 )
         throw std::runtime_error( "bridge: a restart has written to the kernel" );
      filling.push_back( times.filling * 1e3 );
      restart.push_back( times.restart * 1e3 );
      move.push_back( times.move * 1e3 );
      moveWrites.push_back( times.moveWrites );
      shell( "rm -r " + directory );
   }
   report.figure( name, "output to kernel", median( filling ), "ms" )
      .against( "bridge -batch", median( batch ), 3 );
   report.figure( name, "restart in place", median( restart ), "ms" )
      .against( "bridge -batch", median( batch ), 10 );
   report.figure( name, "all hosts to another VTEP", median( move ), "ms" );
   report.figure( name, "of it, kernel writes", median( moveWrites ), "" );
}

} // namespace Bench
