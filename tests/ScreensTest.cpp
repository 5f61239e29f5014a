// What people see: the tables of l2ribctl, word by word, with ages and times taken out.
#include "tests/ProcessSupport.h"

#include <map>
#include <regex>
#include <sstream>

namespace {

using namespace ProcessSupport;

// Ages, times of day and processes differ from run to run; spaces at line ends are none.
std::string withoutTimes( std::string text ) {
   for( const auto& [ pattern, word ] :
        { std::pair( R"(since (\d+-\d+-\d+ )?\d\d:\d\d:\d\d)", "since TIME" ),
          { R"(\d+\.\d ms)", "MS" },
          { R"(\b\d+(\.\d)?s\b)", "AGE" },
          { R"(PID \d+)", "PID" } } )
      text = std::regex_replace( text, std::regex( pattern ), word );
   return text;
}

TEST_F( ProcessTest, ScreensForPeople ) {
   startAgent();
   Program evpn = source( "evpn", "0x40" ), lab = source( "lab", "1" );
   const std::string vxlan2 = R"("vxlan":{"vtep":"10.0.0.2","vni":10010})";
   publish( evpn, objects + R"({"op":"dest","id":2,)" + vxlan2 + "}\n" + host( 1, 100, group ) +
                     host( 2, 100, R"("next":{"type":"dest","id":2},"seqNo":3)" ) +
                     host( 3, 100, R"("inline":{"vteps":["10.0.0.1","10.0.0.2"]})" ) +
                     host( 4, 100, R"("next":{"type":"dest","id":99})" ) + flood +
                     initialized( true ) );
   publish( lab, host( 2, 100, R"("inline":{"value":4000000000},"seqNo":2)" ) +
                    host( 5, 7, R"("inline":{"value":4000000000})" ) + initialized( true ) );
   const struct {
      const char* words;
      const char* text;
   } screens[] = {
      { "show hosts",
        R"(VLAN  MAC                SOURCE  VIA                                        PREF  SEQ  AGE
10    02:00:00:00:00:01  evpn    2 paths: 10.0.0.1, label 1000 > 10.0.0.1    100    0  AGE
10    02:00:00:00:00:02  evpn    vxlan 10.0.0.2 vni 10010                    100    3  AGE
10    02:00:00:00:00:03  evpn    vxlan 10.0.0.1, 10.0.0.2                    100    0  AGE
10    02:00:00:00:00:05  lab     interface 4000000000                          7    0  AGE
4 hosts. 1 more is parked: l2ribctl show failed
)" },
      { "show hosts --via 10.0.0.2 --mac 02-0-0-0-0-2 --vlan 9-10,20",
        R"(VLAN  MAC                SOURCE  VIA                       PREF  SEQ  AGE
10    02:00:00:00:00:02  evpn    vxlan 10.0.0.2 vni 10010   100    3  AGE
1 host of 4
)" },
      { "show hosts --count", R"(VLAN  HOSTS  evpn  lab
10        4     3    1
)" },
      { "show dests", R"(ID  VIA                       USED BY           FROM
 1  vxlan 10.0.0.1 vni 10010  group 1, label 1  evpn dest 1
 2  vxlan 10.0.0.2 vni 10010  1 host            evpn dest 2
)" },
      { "show groups 1", R"(ID  PATHS                                     USED BY  FROM
 1  dest 1 10.0.0.1, label 1000 > 10.0.0.1    1 host   evpn group 7
)" },
      { "show flood", "VLAN  ADDRESS    TO\n10    broadcast  10.0.0.9 vni 10010\n" },
      { "show sources", R"(SOURCE  VALUE  STATE  HOSTS  DESTS  GROUPS  LABELS  FLOOD
evpn    0x40   ready      4      2       1       1      1
lab     0x1    ready      2
static  0x10   ready
)" },
      { "show status", R"(agent    running since TIME (PID), restart took MS
output   4 hosts, 2 dests, 1 group, 1 label, 1 flood member; room for 16384 hosts before it grows
work     nothing queued; 1 host parked; longest hold of the loop MS
sources  3: 3 ready
)" },
      { "show failed",
        "host  02:00:00:00:00:04 VLAN 10  evpn  dest 99 of source evpn does not exist  since TIME, "
        "1 try\n" },
      { "explain 10 02:00:00:00:00:02", // in either order
        R"(02:00:00:00:00:02 in VLAN 10 goes to vxlan 10.0.0.2 vni 10010

  wins   evpn  pref 100  seq 3  vxlan 10.0.0.2 vni 10010  published AGE ago
  loses  lab   pref 100  seq 2  interface 4000000000      seq 2 is older than 3

  output  host -> dest 2 vxlan 10.0.0.2 vni 10010
)" },
   };
   for( const auto& [ words, text ] : screens ) {
      Words split;
      std::istringstream in( words );
      for( std::string word; in >> word; )
         split.push_back( word );
      const Result result = ctl( split );
      EXPECT_EQ( result.status, 0 ) << words << result.err;
      // The widths of columns follow the ages.
      const auto plain = []( const std::string& of ) {
         return std::regex_replace( of, std::regex( " {2,}" ), "  " );
      };
      EXPECT_EQ( plain( withoutTimes( result.out ) ), plain( text ) ) << words;
   }
   for( const auto& [ words, why ] : std::map<Words, std::string>{
           { { "show", "hosts", "--vlan", "99999" },
             "show hosts: --vlan 99999: expected 1 to 4094" },
           { { "show", "hosts", "--source", "" }, "--source \"\": expected a name" },
           { { "show", "hosts", "--mac", "02:zz" }, "--mac 02:zz: expected an address" },
           { { "watch", "--via", "nowhere0" }, "watch: --via nowhere0: expected an IP address" },
           { { "explain", "10", "20" }, "explain: 10 20: expected a MAC address" } } ) {
      const Result result = ctl( words );
      EXPECT_EQ( result.status, 2 ) << why;
      expectIn( result.err, why );
   }

   const Json graph = json( { "graph", "--mac", mac( 2 ) } );
   EXPECT_EQ( graph[ "hosts" ][ 0 ][ "next" ][ "id" ], 2 ) << graph;
   EXPECT_EQ( graph[ "objects" ][ 0 ][ "vxlan" ][ "vtep" ], "10.0.0.2" ) << graph;
   Program traced( folder, { L2RIBD_PATH, "--state-dir", folder.file( "other" ), "--trace",
                             "L2RibPolicySn=1" } );
   EXPECT_EQ( traced.status(), 1 );
   expectIn( traced.err(), "no handle L2RibPolicySn; expected L2RibAgent, L2RibPolicySm" );

   Program moves = start( L2RIBCTL_PATH, { "show", "moves", "--for", "1" } );
   for( unsigned round = 0; !moves.ended(); ++round )
      publish( lab,
               host( 7, 7, R"("inline":{"value":400000000)" + std::to_string( round % 2 ) + "}" ) );
   EXPECT_EQ( moves.status(), 0 ) << moves.err();
   expectIn( moves.out(), "10    02:00:00:00:00:07" );
   expectIn( moves.out(), "1 host moved in 1.0s" );
   publish( lab, hostDel( 7 ) );

   Program watch = start( L2RIBCTL_PATH, { "watch", "hosts", "--no-dump", "--mac", mac( 2 ) } );
   watch.expectOut( "up to date" );
   publish( lab, host( 2, 200, R"("inline":{"value":4000000000},"seqNo":2)" ) );
   watch.expectOut( "evpn -> lab   vxlan 10.0.0.2 vni 10010 -> interface 4000000000   seq 3 -> 2" );
   publish( lab, host( 6, 7, inlineDest ) + hostDel( 2 ) );
   watch.expectOut( "move    10  02:00:00:00:00:02  lab -> evpn" );
   stopAgent();
   watch.expectOut( "agent stopped" );
   EXPECT_EQ( watch.count( "\n" ), 4u ) << watch.out();
   lab.closeInput();
   EXPECT_EQ( lab.status(), 0 );
}

} // namespace
