// bridge: the output of 100,000 hosts into the kernel, beside bridge(8) with a batch of the same
// entries; a restart with all of them in place; and 10,000 hosts that follow one change of a dest
// while frames go to all of them.
//
// In a network namespace of its own, which goes with the process. Needs root; left out without.
#include "L2Rib/BridgeStatus.h"
#include "L2Rib/FloodRecords.h"
#include "L2Rib/L2RibTarn.h"
#include "bench/Harness.h"
#include "bench/Machine.h"
#include "bench/Report.h"
#include "bridge/Program.h"

#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
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
          "ip link set vx10 master br10 up && bridge link set dev vx10 learning off && "
          "ip link add p1 type veth peer name q1 && ip link set p1 master br10 up && "
          "ip link set q1 up && ip link add under type veth peer name far && ip link set far up && "
          "ip addr add 192.0.2.1/24 dev under && ip link set under up && "
          "for vtep in 11 12 13 14 21; do ip neigh add 192.0.2.$vtep "
          "lladdr 02:99:00:00:00:$vtep dev under nud permanent; done" );
}

Vexil::EthAddr macOf( uint32_t number ) { return Vexil::EthAddr( 0x020000000000 + number ); }

// Frames to hosts, from a port of the bridge, and the VTEPs that they leave for on the wire.
class Frames {
 public:
   Frames() : port_( opened( "q1", 0 ) ), wire_( opened( "under", ETH_P_ALL ) ) {}
   ~Frames() {
      close( port_ );
      close( wire_ );
   }
   Frames( const Frames& ) = delete;
   Frames& operator=( const Frames& ) = delete;

   // Sends one; every number is a flow of its own.
   void send( uint32_t number ) const {
      std::array<uint8_t, 60> frame{ 0,    0, 0, 0,  0,  0, 0x02, 0x77, 0,  0,  0, 1,
                                     0x08, 0,                                         // Ethernet
                                     0x45, 0, 0, 46, 0,  0, 0,    0,    64, 17, 0, 0, // IPv4
                                     10,   0, 0, 1,  10, 1, 0,    0 };                // UDP behind
      std::memcpy( frame.data(), macOf( number ).bytes().data(), 6 );
      const uint16_t flow = htons( static_cast<uint16_t>( number ) );
      std::memcpy( &frame[ 32 ], &flow, sizeof flow ); // the destination's last two bytes
      std::memcpy( &frame[ 34 ], &flow, sizeof flow ); // the source port
      uint32_t sum = 0; // RFC 1071; a bridge that filters drops packets with a wrong one
      for( size_t at = 14; at < 34; at += 2 )
         sum += static_cast<uint32_t>( frame[ at ] << 8 | frame[ at + 1 ] );
      sum = ( sum & 0xffff ) + ( sum >> 16 );
      frame[ 24 ] = static_cast<uint8_t>( ~sum >> 8 );
      frame[ 25 ] = static_cast<uint8_t>( ~sum );
      if( ::send( port_, frame.data(), frame.size(), 0 ) != static_cast<ssize_t>( frame.size() ) )
         throw std::runtime_error( "a frame was not sent" );
   }
   // Calls each( VTEP's last byte ) for those that have left since.
   template<class Each>
   void left( Each each ) const {
      std::array<uint8_t, 256> frame{};
      while( recv( wire_, frame.data(), frame.size(), MSG_DONTWAIT ) > 42 )
         if( frame[ 12 ] == 0x08 && frame[ 13 ] == 0 && frame[ 23 ] == 17 ) // UDP over IPv4
            each( frame[ 33 ] );
   }

 private:
   static int opened( const char* device, uint16_t protocol ) {
      const int fd = socket( AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0 );
      sockaddr_ll address{};
      address.sll_family = AF_PACKET;
      address.sll_protocol = htons( protocol );
      address.sll_ifindex = static_cast<int>( if_nametoindex( device ) );
      if( bind( fd, reinterpret_cast<const sockaddr*>( &address ), sizeof address ) != 0 )
         throw std::runtime_error( std::string( "no packet socket on " ) + device );
      return fd;
   }

   int port_;
   int wire_;
};

// Sends to all hosts in turn. Returns the seconds from the change until the first frame after which
// none of a whole round has gone to the old VTEP; not one may be lost.
template<class Change>
double untilAllLeave( uint8_t vtep, uint32_t hosts, Change change ) {
   const Frames frames;
   uint64_t sent = 0;
   uint64_t seen = 0;
   uint64_t toOld = 0;
   uint64_t since = 0; // frames after the last one to the old VTEP
   int64_t first = 0;  // when the first of them was seen
   const auto look = [ & ]( uint8_t to ) {
      ++seen;
      toOld += to == vtep;
      since = to == vtep ? 0 : since + 1;
      if( since == 1 )
         first = nanoseconds();
   };
   for( ; sent < hosts; ++sent, frames.left( look ) )
      frames.send( static_cast<uint32_t>( sent ) );
   if( toOld == 0 )
      throw std::runtime_error( "no frame has gone to the old VTEP" );
   const int64_t start = nanoseconds();
   change();
   for( since = 0; since <= hosts; ++sent, frames.left( look ) )
      frames.send( static_cast<uint32_t>( sent % hosts ) );
   waitUntil( 0.001, [ & ] {
      frames.left( look );
      return seen == sent;
   } );
   return static_cast<double>( first - start ) * 1e-9;
}

// The output of an agent that does not run. Dests 1 and 2 are group 1, to which the hosts that will
// move lead; 3 and 4 are group 2, of all others.
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
   void groupIs( uint64_t id, uint64_t first, uint64_t second ) {
      LoadBalance group{ LoadBalanceId( id ) };
      group.nextIs( EcmpIndex( 0 ), ObjTuple( DestId( first ) ) );
      group.nextIs( EcmpIndex( 1 ), ObjTuple( DestId( second ) ) );
      require(
         groups->lbIs( LoadBalanceAndSource( group, { ObjTuple( group.key() ), sourceBit6_ } ) ) );
   }
   void fill( uint32_t count, uint32_t moving ) {
      destIs( 1, "192.0.2.11" );
      destIs( 2, "192.0.2.12" );
      destIs( 3, "192.0.2.13" );
      destIs( 4, "192.0.2.14" );
      groupIs( 1, 1, 2 );
      groupIs( 2, 3, 4 );
      for( uint32_t number = 0; number < count; ++number ) {
         Host host( Bridging::MacVlanPair( macOf( number ), vlan ) );
         host.nextIs( ObjTuple( LoadBalanceId( number < moving ? 1 : 2 ) ) );
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

// What the kernel has, by the account of bridge(8): entries of the hosts and of nothing else.
uint64_t entriesInKernel() {
   FILE* const pipe = popen( "bridge fdb show br br10 | grep -c '^02:00:'", "re" );
   unsigned long count = 0;
   if( std::fscanf( pipe, "%lu", &count ) != 1 )
      count = 0;
   pclose( pipe );
   return count;
}

struct Times {
   double filling;     // seconds
   double fillingWork; // of a processor
   double restart;
   double restartWork;
   double compared;
   double move;
   double moveWrites;
};

double secondsSince( int64_t start ) { return static_cast<double>( nanoseconds() - start ) * 1e-9; }

// The first run: fills the kernel, and is killed.
void fillOnce( const std::string& directory, uint32_t hosts, uint32_t moving, Output& output,
               Times& times ) {
   constexpr double gap = 0.005;
   const Child child( "l2rib-bridge", [ & ] { runBridge( directory ); } );
   waitUntil( gap, [ & ] { return inSync( directory, child.id() ); } );
   const double before = processorSeconds( child.id() );
   const int64_t start = nanoseconds();
   output.fill( hosts, moving );
   waitUntil( gap, [ & ] { return programmed( directory ) == hosts; } );
   times.filling = secondsSince( start );
   times.fillingWork = processorSeconds( child.id() ) - before;
   if( entriesInKernel() != 2 * hosts )
      throw std::runtime_error( "bridge: the kernel has not all entries" );
   kill( child.id(), SIGKILL );
}

Times runOnce( const std::string& directory, uint32_t hosts ) {
   constexpr double gap = 0.002; // each look takes some of the processor
   const uint32_t moving = hosts / 10;
   Shared<Times> times;
   runInProcess( "bridge bench", [ & ] {
      makeNamespace();
      Output output( directory, hosts );
      fillOnce( directory, hosts, moving, output, *times );
      const int64_t start = nanoseconds();
      const Child child( "l2rib-bridge", [ & ] { runBridge( directory ); } );
      waitUntil( gap, [ & ] { return inSync( directory, child.id() ); } );
      times->restart = secondsSince( start );
      times->restartWork = processorSeconds( child.id() );
      waitUntil( 0.1, [ & ] { return program( directory ).inSync == 2; } );
      times->compared = secondsSince( start );
      if( program( directory ).writes.value() != 0 )
         throw std::runtime_error( "bridge: a restart has written to the kernel" );
      times->move = untilAllLeave( 11, moving, [ & ] { output.destIs( 1, "192.0.2.21" ); } );
      waitUntil( 0.1, [ & ] { return program( directory ).writes.value() > 0; } );
      times->moveWrites = static_cast<double>( program( directory ).writes.value() );
   } );
   return *times;
}

struct Batch {
   double time; // seconds
   double work; // of a processor
};

double childrenSeconds() {
   rusage used{};
   getrusage( RUSAGE_CHILDREN, &used );
   const auto seconds = []( const timeval& time ) {
      return static_cast<double>( time.tv_sec ) + static_cast<double>( time.tv_usec ) * 1e-6;
   };
   return seconds( used.ru_utime ) + seconds( used.ru_stime );
}

Batch runBatch( const std::string& directory, uint32_t hosts ) {
   const std::string batch = directory + "/batch";
   std::ofstream lines( batch );
   for( uint32_t number = 0; number < hosts; ++number )
      lines << "fdb replace " << macOf( number ).str() << " dev vx10 self nhid 10 extern_learn\n"
            << "fdb replace " << macOf( number ).str() << " dev vx10 master extern_learn\n";
   lines.close();
   Shared<Batch> result;
   runInProcess( "bridge batch", [ & ] {
      makeNamespace();
      shell( "ip nexthop add id 1 via 192.0.2.11 fdb && ip nexthop add id 2 via 192.0.2.12 fdb && "
             "ip nexthop add id 10 group 1/2 fdb" );
      const double before = childrenSeconds();
      const int64_t start = nanoseconds();
      shell( "bridge -batch " + batch );
      result->time = secondsSince( start );
      result->work = childrenSeconds() - before;
   } );
   return *result;
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
   std::vector<double> filling, fillingWork, restart, restartWork, compared, batch, batchWork, move,
      moveWrites;
   for( int i = 0; i < settings.repetitions( 3 ); ++i ) {
      std::fprintf( stderr, "%s, %d\n", name.c_str(), i + 1 );
      const std::string directory = settings.directory + "/bridge" + std::to_string( i );
      shell( "mkdir " + directory );
      const Batch rival = runBatch( directory, hosts );
      batch.push_back( rival.time * 1e3 );
      batchWork.push_back( rival.work * 1e3 );
      const Times times = runOnce( directory, hosts );
      filling.push_back( times.filling * 1e3 );
      fillingWork.push_back( times.fillingWork * 1e3 );
      restart.push_back( times.restart * 1e3 );
      restartWork.push_back( times.restartWork * 1e3 );
      compared.push_back( times.compared * 1e3 );
      move.push_back( times.move * 1e3 );
      moveWrites.push_back( times.moveWrites );
      shell( "rm -r " + directory );
   }
   report.figure( name, "output to kernel", median( filling ), "ms" )
      .against( "bridge -batch", median( batch ), 3 );
   report.figure( name, "of it, processor time", median( fillingWork ), "ms" )
      .against( "bridge -batch", median( batchWork ), 3 );
   report.figure( name, "restart in place", median( restart ), "ms" )
      .against( "bridge -batch", median( batch ), 10 )
      .against( "output to kernel", median( filling ) );
   report.figure( name, "of the restart, processor time", median( restartWork ), "ms" )
      .against( "bridge -batch", median( batchWork ), 10 );
   report.figure( name, "restart, compared with the kernel", median( compared ), "ms" );
   const std::string moved = "bridge/" + std::to_string( hosts / 10 );
   report.figure( moved, "until all frames go the new way", median( move ), "ms" );
   report.figure( moved, "kernel writes of the move", median( moveWrites ), "" );
}

} // namespace Bench
