// evpn: a leaf of ours beside a leaf of FRR, behind the same route reflector, as other leaves
// announce many hosts, and as hosts move. What counts is when the kernels have it.
//
// bench/fabric makes the namespaces and starts what runs in them, and removes all of it. Needs
// root, and gobgpd and FRR (scripts/routing-daemons); left out without.
#include "L2Rib/EvpnStatus.h"
#include "L2Rib/NetTypes.h"
#include "bench/Harness.h"
#include "bench/Machine.h"
#include "bench/Report.h"

#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/if_packet.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>
#include <unordered_map>

namespace Bench {

namespace {

using namespace L2Rib;

// Leaves are named by the last byte of their VTEPs.
enum : uint8_t { here, ours, west, east, frr };
constexpr const char* leafNames[] = { "", "ours", "west", "east", "frr" };

// The fabric, as long as this lives.
class Fabric {
 public:
   explicit Fabric( const std::string& directory )
      : prefix( "l2ribbench-" + std::to_string( getpid() ) ) {
      const std::string ready = directory + "/fabric";
      script_ = popen(
         ( "L2RIB_FABRIC=" + prefix + " L2RIB_BIN=" PROGRAMS_PATH " exec " FABRIC_PATH " " + ready )
            .c_str(),
         "we" );
      waitUntil( 0.1, [ & ] { return std::filesystem::exists( ready ); } );
      std::ifstream( ready ) >> state;
      if( state.empty() )
         throw std::runtime_error( "evpn: the fabric did not come about" );
   }
   ~Fabric() { pclose( script_ ); }
   Fabric( const Fabric& ) = delete;
   Fabric& operator=( const Fabric& ) = delete;

   std::string spaceOf( uint8_t leaf ) const { return prefix + "-" + leafNames[ leaf ]; }

   const std::string prefix;
   std::string state; // directory of our leaf's tables

 private:
   FILE* script_;
};

// The calling thread in a network namespace, as long as this lives.
class Inside {
 public:
   explicit Inside( const std::string& space )
      : before_( open( "/proc/self/ns/net", O_RDONLY | O_CLOEXEC ) ) {
      const int there = open( ( "/run/netns/" + space ).c_str(), O_RDONLY | O_CLOEXEC );
      const bool entered = setns( there, CLONE_NEWNET ) == 0;
      close( there );
      if( !entered )
         throw std::runtime_error( space + ": no such network namespace" );
   }
   ~Inside() {
      setns( before_, CLONE_NEWNET );
      close( before_ );
   }
   Inside( const Inside& ) = delete;
   Inside& operator=( const Inside& ) = delete;

 private:
   int before_;
};

// A leaf's kernel: where it sends frames for each address, as it tells of changes.
class Kernel {
 public:
   explicit Kernel( const std::string& space ) {
      const Inside inside( space );
      tunnel_ = static_cast<int>( if_nametoindex( "vx10" ) );
      monitor_ = socket( AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE );
      const int room = 256 << 20; // nothing that is told may be lost
      setsockopt( monitor_, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room );
      sockaddr_nl groups{};
      groups.nl_family = AF_NETLINK;
      groups.nl_groups = RTMGRP_NEIGH | 1u << ( RTNLGRP_NEXTHOP - 1 );
      port_ = socket( AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0 );
      sockaddr_ll device{};
      device.sll_family = AF_PACKET;
      device.sll_ifindex = static_cast<int>( if_nametoindex( "q1" ) );
      if( bind( monitor_, reinterpret_cast<const sockaddr*>( &groups ), sizeof groups ) != 0 ||
          bind( port_, reinterpret_cast<const sockaddr*>( &device ), sizeof device ) != 0 )
         throw std::runtime_error( space + ": no socket" );
   }
   ~Kernel() {
      close( monitor_ );
      close( port_ );
   }
   Kernel( const Kernel& ) = delete;
   Kernel& operator=( const Kernel& ) = delete;

   int fd() const { return monitor_; }
   // The leaf that frames for the address leave for; here where they do not leave.
   uint8_t leadsTo( uint64_t address ) const {
      const auto found = entries_.find( address );
      return found == entries_.end() ? uint8_t( here ) : found->second.leadsTo;
   }
   // When that changed last, on the clock of nanoseconds().
   int64_t since( uint64_t address ) const { return entries_.at( address ).since; }
   // Addresses that lead to that leaf.
   size_t leading( uint8_t leaf ) const { return counts_[ leaf ]; }

   // Takes what the kernel has told.
   void look() {
      alignas( nlmsghdr ) std::array<char, 1 << 16> buffer;
      for( ssize_t got; ( got = recv( monitor_, buffer.data(), buffer.size(), 0 ) ) != 0; ) {
         if( got < 0 && errno == EAGAIN )
            return;
         if( got < 0 )
            throw std::runtime_error( "changes of a kernel were lost" );
         const int64_t now = nanoseconds();
         auto size = static_cast<unsigned>( got );
         for( const auto* message = reinterpret_cast<const nlmsghdr*>( buffer.data() );
              NLMSG_OK( message, size ); message = NLMSG_NEXT( message, size ) )
            take( *message, now );
      }
   }
   // A host of that address sends a frame into the leaf's port.
   void send( uint64_t address ) const {
      std::array<uint8_t, 60> frame{};
      std::memset( frame.data(), 0xff, 6 );
      std::memcpy( &frame[ 6 ], Vexil::EthAddr( address ).bytes().data(), 6 );
      frame[ 12 ] = 0x88; // a type for experiments (IEEE 802, 9.2.3)
      frame[ 13 ] = 0xb5;
      if( ::send( port_, frame.data(), frame.size(), 0 ) < 0 )
         throw std::runtime_error( "a frame was not sent" );
   }

 private:
   struct Entry {
      bool byTunnel = false; // the bridge's entry
      uint8_t vtep = here;   // the VXLAN device's
      uint8_t leadsTo = here;
      int64_t since = 0;
   };

   // Calls each( type, bytes, size ) for the attributes behind a header.
   template<class Header, class Each>
   static void attributesOf( const nlmsghdr& message, Each each ) {
      auto rest = static_cast<unsigned>( NLMSG_PAYLOAD( &message, sizeof( Header ) ) );
      const auto* const header = static_cast<const Header*>( NLMSG_DATA( &message ) );
      for( const auto* field = reinterpret_cast<const rtattr*>( header + 1 ); RTA_OK( field, rest );
           field = RTA_NEXT( field, rest ) )
         each( field->rta_type, static_cast<const uint8_t*>( RTA_DATA( field ) ),
               RTA_PAYLOAD( field ) );
   }
   static uint32_t numberIn( const uint8_t* bytes ) {
      uint32_t number = 0;
      std::memcpy( &number, bytes, sizeof number );
      return number;
   }

   // A nexthop of one VTEP, or a group: of those here all members lead to one.
   void takeNexthop( const nlmsghdr& message ) {
      uint32_t id = 0;
      uint8_t vtep = here;
      attributesOf<nhmsg>( message, [ & ]( uint16_t type, const uint8_t* bytes, size_t size ) {
         if( type == NHA_ID )
            id = numberIn( bytes );
         if( type == NHA_GATEWAY && size == 4 )
            vtep = bytes[ 3 ];
         if( type == NHA_GROUP && size >= sizeof( nexthop_grp ) )
            vtep = nexthops_[ numberIn( bytes ) ];
      } );
      nexthops_[ id ] = vtep;
   }

   void take( const nlmsghdr& message, int64_t now ) {
      if( message.nlmsg_type == RTM_NEWNEXTHOP )
         takeNexthop( message );
      if( message.nlmsg_type != RTM_NEWNEIGH && message.nlmsg_type != RTM_DELNEIGH )
         return;
      const auto* const entry = static_cast<const ndmsg*>( NLMSG_DATA( &message ) );
      if( entry->ndm_family != AF_BRIDGE )
         return;
      uint64_t address = 0;
      uint8_t vtep = here;
      bool ofBridge = false;
      attributesOf<ndmsg>( message, [ & ]( uint16_t type, const uint8_t* bytes, size_t size ) {
         for( size_t i = 0; type == NDA_LLADDR && i < 6; ++i )
            address = address << 8 | bytes[ i ];
         if( type == NDA_DST && size == 4 )
            vtep = bytes[ 3 ];
         if( type == NDA_NH_ID )
            vtep = nexthops_[ numberIn( bytes ) ];
         ofBridge = ofBridge || type == NDA_MASTER;
      } );
      const bool gone = message.nlmsg_type == RTM_DELNEIGH;
      Entry& known = entries_[ address ];
      if( ofBridge )
         known.byTunnel = !gone && entry->ndm_ifindex == tunnel_;
      else if( entry->ndm_ifindex == tunnel_ )
         known.vtep = gone ? uint8_t( here ) : vtep;
      const uint8_t leadsTo = known.byTunnel ? known.vtep : uint8_t( here );
      if( known.leadsTo == leadsTo )
         return;
      --counts_[ known.leadsTo ];
      ++counts_[ leadsTo ];
      known.leadsTo = leadsTo;
      known.since = now;
   }

   int monitor_ = -1;
   int port_ = -1;
   int tunnel_ = 0;
   std::unordered_map<uint64_t, Entry> entries_;
   std::unordered_map<uint32_t, uint8_t> nexthops_; // the VTEP
   std::array<size_t, 256> counts_{};
};

class Leaves {
 public:
   explicit Leaves( const Fabric& fabric )
      : fabric_( fabric ), kernels_{ Kernel( fabric.spaceOf( ours ) ),
                                     Kernel( fabric.spaceOf( west ) ),
                                     Kernel( fabric.spaceOf( east ) ),
                                     Kernel( fabric.spaceOf( frr ) ) },
        program_( fabric.state + "/" + Path::evpnProgram, EvpnProgramTable::Mode::read ) {}

   Kernel& at( uint8_t leaf ) { return kernels_[ leaf - 1u ]; }
   // Takes what the kernels tell until that is done.
   template<class Done>
   void watch( const char* what, double patience, Done done ) {
      const int64_t end = nanoseconds() + static_cast<int64_t>( patience * 1e9 );
      while( true ) {
         std::array<pollfd, 4> ready;
         for( size_t i = 0; i < ready.size(); ++i )
            ready[ i ] = { kernels_[ i ].fd(), POLLIN, 0 };
         poll( ready.data(), ready.size(), 50 );
         for( Kernel& kernel : kernels_ )
            kernel.look();
         if( done() )
            return;
         if( nanoseconds() > end )
            throw std::runtime_error( std::string( "evpn: in vain: " ) + what );
      }
   }
   // The host appears at that leaf. Returns when the leaves of all others know.
   int64_t show( uint64_t address, uint8_t leaf ) {
      const int64_t start = nanoseconds();
      at( leaf ).send( address );
      watch( "a host that moves", 20, [ & ] {
         for( const uint8_t other : { ours, west, east, frr } )
            if( at( other ).leadsTo( address ) != ( other == leaf ? uint8_t( here ) : leaf ) )
               return false;
         return true;
      } );
      return start;
   }
   // bridge(8) of that leaf, with a command a line; returns at once.
   FILE* batch( uint8_t leaf, const std::string& file ) const {
      return popen(
         ( "exec ip netns exec " + fabric_.spaceOf( leaf ) + " bridge -batch " + file ).c_str(),
         "re" );
   }
   uint64_t taken() const { // routes of type 2, by our program's account
      return program_.get( SingleKey() ).taken[ 2 ].value();
   }

 private:
   const Fabric& fabric_;
   std::array<Kernel, 4> kernels_;
   EvpnProgramTable program_;
};

using Samples = std::vector<double>; // milliseconds

// A move between two leaves of FRR, one between one of them and ours, in turns.
struct Moves {
   Samples seenHere;  // of the first kind, by the kernel of our leaf
   Samples seenThere; // and by that of the FRR leaf
   Samples toOurs;    // of the second kind, by that of the FRR leaf
   Samples fromOurs;
};

Moves move( Leaves& leaves, uint32_t count ) {
   constexpr uint64_t among = 0x020000000001;
   constexpr uint64_t withOurs = 0x020000000002;
   constexpr double gap = 0.02; // all that the last move caused is over
   Moves moves;
   const auto once = [ & ]( uint64_t address, uint8_t leaf, uint8_t witness, Samples& samples ) {
      pause( gap );
      const int64_t start = leaves.show( address, leaf );
      const auto took = [ & ]( uint8_t by ) {
         return static_cast<double>( leaves.at( by ).since( address ) - start ) * 1e-6;
      };
      samples.push_back( took( witness ) );
      return took( frr );
   };
   leaves.show( among, west );
   leaves.show( withOurs, west );
   for( uint32_t i = 0; i < count; ++i ) {
      const bool away = i % 2 == 0;
      moves.seenThere.push_back( once( among, away ? east : west, ours, moves.seenHere ) );
      once( withOurs, away ? ours : west, frr, away ? moves.toOurs : moves.fromOurs );
   }
   return moves;
}

// Seconds from the first of the commands.
struct Fill {
   double taken = 0; // by l2rib-evpn
   double here = 0;  // in the kernel of our leaf
   double there = 0; // in that of the FRR leaf
};

Fill change( Leaves& leaves, const std::string& file, size_t wanted, uint64_t wantedTaken ) {
   Fill fill;
   const int64_t start = nanoseconds();
   FILE* const batch = leaves.batch( west, file );
   const auto note = [ & ]( double& time, bool done ) {
      if( done && time == 0 )
         time = static_cast<double>( nanoseconds() - start ) * 1e-9;
   };
   leaves.watch( "many hosts", 300, [ & ] {
      note( fill.here, leaves.at( ours ).leading( west ) == wanted );
      note( fill.there, leaves.at( frr ).leading( west ) == wanted );
      note( fill.taken, leaves.taken() == wantedTaken );
      return fill.here > 0 && fill.there > 0 && fill.taken > 0;
   } );
   if( pclose( batch ) != 0 )
      throw std::runtime_error( "evpn: bridge -batch failed" );
   return fill;
}

void reportMoves( const std::string& name, const Moves& moves, Report& report ) {
   for( const auto& [ share, word ] : { std::pair( 0.5, "median" ), std::pair( 0.99, "99th" ) } ) {
      const double between = quantile( moves.seenThere, share );
      const auto figure = [ & ]( const char* what, const Samples& samples, double wanted ) {
         report.figure( name, std::string( what ) + ", " + word, quantile( samples, share ), "ms" )
            .against( "FRR", between, wanted );
      };
      figure( "move elsewhere", moves.seenHere, 1 );
      figure( "move to our leaf", moves.toOurs, 1 );
      figure( "move from our leaf", moves.fromOurs, 0 ); // the FRR leaf is what announces
   }
}

void reportFill( const std::string& name, const std::string& what, const Fill& fill,
                 Report& report ) {
   report.figure( name, what, fill.here * 1e3, "ms" ).against( "FRR", fill.there * 1e3, 1 );
   report.figure( name, what + ", told by gobgpd", fill.taken * 1e3, "ms" );
}

} // namespace

void benchEvpn( const Settings& settings, Report& report ) {
   const uint32_t hosts = settings.size( 5'000 ); // of 20,000 gobgpd 3.10 takes minutes
   const uint32_t moves = settings.size( 200 );
   const std::string filled = "evpn/" + std::to_string( hosts );
   const std::string moved = "evpn/moves";
   if( !settings.wants( filled ) && !settings.wants( moved ) )
      return;
   if( geteuid() != 0 || !std::filesystem::exists( DAEMONS_COMPLETE ) ||
       !std::filesystem::exists( PROGRAMS_PATH "/l2rib-evpn" ) ) {
      std::fprintf( stderr, "evpn: left out, it needs root, l2rib-evpn, gobgpd and FRR\n" );
      return;
   }
   std::fprintf( stderr, "evpn\n" );
   const Fabric fabric( settings.directory );
   Leaves leaves( fabric );
   if( settings.wants( moved ) )
      reportMoves( moved, move( leaves, moves ), report );
   if( !settings.wants( filled ) )
      return;
   const std::string adding = settings.directory + "/adding";
   const std::string deleting = settings.directory + "/deleting";
   for( const auto& [ file, command ] :
        { std::pair( adding, "add" ), std::pair( deleting, "del" ) } ) {
      std::ofstream lines( file );
      for( uint32_t number = 0; number < hosts; ++number )
         lines << "fdb " << command << ' ' << Vexil::EthAddr( 0x020000010000 + number ).str()
               << " dev p1 master" << ( command[ 0 ] == 'a' ? " dynamic\n" : "\n" );
   }
   const size_t before = leaves.at( frr ).leading( west );
   const uint64_t takenBefore = leaves.taken();
   reportFill( filled, "announced", change( leaves, adding, before + hosts, takenBefore + hosts ),
               report );
   reportFill( filled, "withdrawn", change( leaves, deleting, before, takenBefore ), report );
}

} // namespace Bench
