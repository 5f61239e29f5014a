// What the tests with network namespaces share: a namespace of their own, commands in it, what its
// kernel has as JSON, and a pair of devices to program.
//
// They need root. Namespaces bear the test's process number, hold nothing but what the test makes,
// and go with the object.
#pragma once

#include "tests/ProcessSupport.h"

#include <array>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>

namespace NetworkSupport {

using namespace ProcessSupport;

// What a command prints; it has to succeed unless that is said.
inline std::string outputOf( const std::string& command, bool mayFail = false ) {
   std::string out;
   FILE* const pipe = popen( ( command + " 2>&1" ).c_str(), "re" );
   std::array<char, 65536> buffer;
   for( size_t got; ( got = fread( buffer.data(), 1, buffer.size(), pipe ) ) > 0; )
      out.append( buffer.data(), got );
   const int status = pclose( pipe );
   EXPECT_TRUE( status == 0 || mayFail ) << command << ": " << out;
   return out;
}

class Namespace {
 public:
   explicit Namespace( const std::string& name )
      : name_( "l2rib-" + std::to_string( getpid() ) + "-" + name ) {
      outputOf( "ip netns add " + name_ );
      run( "ip link set lo up; sysctl -qw net.ipv6.conf.default.disable_ipv6=1 "
           "net.ipv6.conf.all.disable_ipv6=1" );
   }
   ~Namespace() { outputOf( "ip netns del " + name_ ); }
   Namespace( const Namespace& ) = delete;
   Namespace& operator=( const Namespace& ) = delete;

   const std::string& name() const { return name_; }
   std::string run( const std::string& commands, bool mayFail = false ) const {
      return outputOf( "ip netns exec " + name_ + " sh -ec '" + commands + "'", mayFail );
   }
   // A batch for bridge(8), in one process.
   void bridgeBatch( const TestSupport::TemporaryFolder& folder, const std::string& lines ) const {
      TestSupport::replace( folder.file( "batch" ), lines );
      run( "bridge -batch " + folder.file( "batch" ) );
   }
   Json json( const std::string& command ) const {
      const std::string out = run( command );
      return out.empty() ? Json::array() : Json::parse( out );
   }
   Words inside( Words words ) const {
      words.insert( words.begin(), { "/sbin/ip", "netns", "exec", name_ } );
      return words;
   }
   // A bridge with a VXLAN port and two others, whose far ends are in the namespace too.
   void makeDevices( const std::string& local = "192.0.2.1", const std::string& more = "" ) const {
      run( "ip link add br10 type bridge; ip link set br10 up; "
           "ip link add vx10 type vxlan id 10010 local " +
           local + " dstport 4789 nolearning " + more +
           "; ip link set vx10 master br10 up; bridge link set dev vx10 learning off; "
           "for n in 1 2; do ip link add p$n type veth peer name q$n; "
           "ip link set p$n master br10 up; ip link set q$n up; done" );
   }
   std::string index( const std::string& device ) const {
      return std::to_string( json( "ip -j link show " + device )[ 0 ][ "ifindex" ].get<int>() );
   }

   // What the kernel forwards for each address that begins with 02:00: "vx10 192.0.2.11
   // 192.0.2.12", "vx10 192.0.2.11 vni 5", "static p1", "p1"; without the bridge's entry "no bridge
   // entry: ...".
   std::map<std::string, std::string> forwarding() const {
      std::map<uint32_t, Json> nexthops;
      for( const Json& nexthop : json( "ip -j nexthop" ) )
         nexthops[ nexthop[ "id" ].get<uint32_t>() ] = nexthop;
      std::map<std::string, std::string> inBridge;
      std::map<std::string, std::string> onDevice;
      for( const Json& entry : json( "bridge -j fdb show" ) ) {
         const std::string mac = entry.value( "mac", "" );
         if( !mac.starts_with( "02:00:" ) )
            continue;
         const std::string state = entry.value( "state", "" );
         if( entry.contains( "master" ) && state != "permanent" )
            inBridge[ mac ] =
               ( state == "static" ? "static " : "" ) + entry[ "ifname" ].get<std::string>();
         else if( entry[ "ifname" ] == "vx10" )
            onDevice[ mac ] = leadsTo( entry, nexthops );
      }
      std::map<std::string, std::string> all = inBridge;
      for( const auto& [ mac, to ] : onDevice )
         all[ mac ] = all[ mac ].empty() ? "no bridge entry:" + to : all[ mac ] + to;
      return all;
   }
   // The VTEPs that vx10 floods to.
   std::multiset<std::string> flood() const {
      std::multiset<std::string> all;
      for( const Json& entry : json( "bridge -j fdb show dev vx10" ) )
         if( entry.value( "mac", "" ) == "00:00:00:00:00:00" )
            all.insert( entry.value( "dst", "nowhere" ) +
                        ( entry.contains( "vni" ) ? " vni " + entry[ "vni" ].dump() : "" ) );
      return all;
   }
   // Echo requests that have reached this machine.
   unsigned echoes() const {
      std::istringstream lines( run( "cat /proc/net/snmp" ) );
      std::vector<std::string> rows;
      for( std::string line; std::getline( lines, line ); )
         if( line.starts_with( "Icmp:" ) )
            rows.push_back( line );
      std::istringstream names( rows.at( 0 ) );
      std::istringstream values( rows.at( 1 ) );
      std::string name, value;
      while( names >> name && values >> value && name != "InEchos" )
         ;
      return static_cast<unsigned>( std::stoul( value ) );
   }
   // Nexthops of l2rib-bridge.
   size_t nexthops() const {
      size_t count = 0;
      for( const Json& nexthop : json( "ip -j nexthop" ) )
         count += nexthop.value( "protocol", "" ) == "76";
      return count;
   }

 private:
   static std::string leadsTo( const Json& entry, const std::map<uint32_t, Json>& nexthops ) {
      if( !entry.contains( "nhid" ) )
         return " " + entry.value( "dst", "nowhere" ) + // as it is while it changes
                ( entry.contains( "vni" ) ? " vni " + entry[ "vni" ].dump() : "" );
      std::set<std::string> vteps; // none while they change between the two lists
      if( const auto group = nexthops.find( entry[ "nhid" ] ); group != nexthops.end() )
         for( const Json& member : group->second.value( "group", Json::array() ) )
            if( const auto vtep = nexthops.find( member[ "id" ] ); vtep != nexthops.end() )
               vteps.insert( vtep->second.value( "gateway", "" ) );
      std::string text;
      for( const std::string& vtep : vteps )
         text += " " + vtep;
      return text;
   }

   std::string name_;
};

// Skips the test, with the reason, where there are no namespaces to be had.
#define REQUIRE_ROOT()                                                                             \
   if( geteuid() != 0 )                                                                            \
   GTEST_SKIP() << "network namespaces need root"

struct Frames {
   unsigned sent = 0;
   unsigned answered = 0;
};
inline Frames ended( ProcessSupport::Program& ping ) {
   ping.signal( SIGINT );
   ping.status();
   Frames frames;
   const std::string last = ping.out().substr( ping.out().find( "---" ) );
   EXPECT_EQ( std::sscanf( last.c_str(), "%*[^\n]\n%u packets transmitted, %u received",
                           &frames.sent, &frames.answered ),
              2 )
      << ping.out();
   return frames;
}

// Ends a ping that was to run without a loss: of all its frames, only the one under way may be
// without an answer.
inline void endWithoutLoss( ProcessSupport::Program& ping ) {
   const Frames frames = ended( ping );
   EXPECT_GT( frames.sent, 0u );
   EXPECT_LE( frames.sent - frames.answered, 1u ) << "none but the one under way: " << ping.out();
}

} // namespace NetworkSupport
