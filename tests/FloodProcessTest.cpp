// Flood sets and the static source as their users meet them: published by processes of their own or
// configured by a command, merged by the agent, seen by others.
#include "tests/ProcessSupport.h"

#include <filesystem>
#include <map>
#include <set>
#include <sstream>

namespace {

using namespace ProcessSupport;

std::string vtep( unsigned number ) {
   return R"({"vxlan":{"vtep":"10.0.0.)" + std::to_string( number ) + R"(","vni":10010}})";
}
std::string setOf( unsigned vlan, const std::string& address ) {
   return R"("vlan":)" + std::to_string( vlan ) + R"(,"mac":")" + address + R"(")";
}
std::string flood( unsigned vlan, const std::string& address, const std::string& dest,
                   const std::string& type = "vxlan" ) {
   return R"({"op":"flood",)" + setOf( vlan, address ) + R"(,"type":")" + type + R"(","dest":)" +
          dest + "}\n";
}
std::string floodDel( unsigned vlan, const std::string& address, const std::string& dest ) {
   return R"({"op":"floodDel",)" + setOf( vlan, address ) + R"(,"dest":)" + dest + "}\n";
}

class FloodProcessTest : public ProcessTest {
 protected:
   Json shown( Words filters = {} ) {
      filters.insert( filters.begin(), { "show", "flood" } );
      return json( filters );
   }
};

TEST_F( FloodProcessTest, SetsOfTwoSourcesAreMerged ) {
   EXPECT_EQ( ctl( { "show", "flood" } ).status, 1 ); // no agent ever ran
   startAgent();
   settle();
   stopAgent();
   Program watch = start( L2RIBCTL_PATH, { "watch", "flood", "--json" } ); // without an agent
   watch.expectOut( "inSync" );
   startAgent();
   Program evpn = source( "evpn", "0x40" );
   Program mlag = source( "mlag", "0x8" );
   const std::string other = "01:00:5e:00:00:01";
   publish( evpn, flood( 10, allHosts, vtep( 1 ) ) + flood( 10, allHosts, vtep( 2 ) ) +
                     flood( 20, other, R"({"intf":{"id":7}})", "intf" ) + initialized( true ) );
   publish( mlag, flood( 10, allHosts, vtep( 2 ) ) + flood( 10, allHosts, vtep( 3 ) ) );
   const Json ofEvpn = Json::parse( R"({"source":"0x50","vlans":[
      {"vlan":10,"sets":[{"mac":")" +
                                    allHosts + R"(","type":"vxlan","dests":[)" + vtep( 1 ) + "," +
                                    vtep( 2 ) + R"(]}]},
      {"vlan":20,"sets":[{"mac":")" +
                                    other + R"(","type":"intf","dests":[{"intf":{"id":7}}]}]}]})" );
   EXPECT_EQ( shown(), ofEvpn ) << "mlag is not initialized yet";
   publish( mlag, initialized( true ) );
   Json merged = ofEvpn;
   merged[ "source" ] = "0x58";
   merged[ "vlans" ][ 0 ][ "sets" ][ 0 ][ "dests" ].push_back( Json::parse( vtep( 3 ) ) );
   EXPECT_EQ( shown(), merged );
   EXPECT_EQ( shown( { "--vlan", "20" } )[ "vlans" ], Json::array( { merged[ "vlans" ][ 1 ] } ) );
   EXPECT_EQ( shown( { "--mac", allHosts } )[ "vlans" ],
              Json::array( { merged[ "vlans" ][ 0 ] } ) );
   EXPECT_TRUE( shown( { "--vlan", "20", "--mac", allHosts } )[ "vlans" ].empty() );
   EXPECT_EQ( ctl( { "show", "flood", "--mac", "x" } ).status, 2 );

   publish( evpn, floodDel( 10, allHosts, vtep( 2 ) ) + floodDel( 10, allHosts, vtep( 1 ) ) );
   merged[ "vlans" ][ 0 ][ "sets" ][ 0 ][ "dests" ].erase( 0 );
   EXPECT_EQ( shown( { "--vlan", "10" } )[ "vlans" ], Json::array( { merged[ "vlans" ][ 0 ] } ) );
   publish( mlag, initialized( false ) );
   EXPECT_EQ( shown()[ "vlans" ], Json::array( { merged[ "vlans" ][ 1 ] } ) );
   // What came and went between two looks is not told, but what is told comes to what there is.
   watch.expectOut( R"("event":"del")" );
   std::map<Json, Json> told;
   std::istringstream lines( watch.out() );
   for( std::string line; std::getline( lines, line ); ) {
      const Json event = Json::parse( line ); // set, del, and once inSync, which has no key
      if( event[ "event" ] == "set" )
         told[ event[ "key" ] ] = event[ "value" ];
      else
         told.erase( event.value( "key", Json() ) );
   }
   ASSERT_EQ( told.size(), 1u ) << watch.out();
   EXPECT_EQ( told.begin()->second[ "dests" ], Json::parse( R"([{"intf":{"id":7}}])" ) );
}

TEST_F( FloodProcessTest, HostsAndMembersOfAVanishedSourceAreHeld ) {
   startAgent( { "--source-hold", "1000" } );
   const auto kept = [ this ]( unsigned other ) { // a host and a member, and another of each
      keep( "evpn", "0x40",
            host( 1, 100, inlineDest ) + host( other, 100, inlineDest ) +
               flood( 10, allHosts, vtep( 1 ) ) + flood( 10, allHosts, vtep( other ) ) +
               initialized( true ) );
      settle();
   };
   const auto vanish = [ this ] { EXPECT_EQ( ctl( { "source", "delete", "evpn" } ).status, 0 ); };
   const auto expectThere = [ this ]( unsigned other ) {
      EXPECT_EQ( json( { "show", "hosts", "--source", "0x40" } ).size(), 2u );
      EXPECT_EQ( json( { "show", "hosts", "--mac", mac( other ) } ).size(), 1u );
      EXPECT_EQ( shown()[ "vlans" ][ 0 ][ "sets" ][ 0 ][ "dests" ],
                 Json::array( { Json::parse( vtep( 1 ) ), Json::parse( vtep( other ) ) } ) );
   };
   kept( 2 );
   vanish();
   settle();
   expectThere( 2 );
   EXPECT_EQ( shown()[ "source" ], "0x10" ) << "only that of static";
   // The whole folder of entries goes, and a source makes it anew: it no longer has the second
   // ones.
   std::filesystem::remove_all( state + "/bridging/l2Rib/inputDir" );
   kept( 3 );
   expectThere( 3 );
   stopAgent();
   startAgent( { "--source-hold", "0.1" } );
   settle();
   expectThere( 3 );
   vanish();
   EXPECT_TRUE( waitFor( [ this ] {
      return json( { "show", "hosts" } ).empty() && shown()[ "vlans" ].empty();
   } ) );
}

// --- static hosts

TEST_F( FloodProcessTest, SettleWaitsForTheConfiguration ) {
   startAgent();
   for( unsigned number = 1; number <= 40; ++number ) {
      if( number == 20 ) // what changes while no agent runs counts too
         stopAgent( SIGKILL );
      ctl( { "config", "set", "10", mac( number ), "--interface", std::to_string( number ) } );
      if( number == 20 )
         startAgent();
      settle();
      ASSERT_EQ( winner( number ), "static" ) << number;
   }
}

TEST_F( FloodProcessTest, StaticSourceIsSeenLikeAnyOther ) {
   startAgent();
   ctl( { "config", "set", "10", mac( 1 ), "--interface", "12" } );
   settle();
   const auto row = [ this ]( const char* command, const char* list ) {
      const Json rows = json( { command, list } );
      EXPECT_EQ( rows.size(), 1u ) << rows;
      return rows.empty() ? Json() : rows[ 0 ];
   };
   EXPECT_EQ( row( "source", "list" ),
              Json::parse( R"({"name":"static","source":"0x10","initialized":true,"running":true,
                              "hosts":1,"dests":0,"groups":0,"labels":0,"flood":0})" ) );
   EXPECT_EQ( row( "show", "sources" ),
              Json::parse( R"({"name":"static","source":"0x10","initialized":true,"ready":true,
                              "running":true,"hosts":1,"dests":0,"groups":0,"labels":0,"flood":0,
                              "reason":null})" ) );
   expectIn( ctl( { "source", "delete", "static" } ).err, "inside the agent" );
   // A stronger source takes its host over, and gives it back.
   Program evpn = source( "evpn", "0x40" );
   publish( evpn, host( 1, 100, R"("inline":{"value":9})" ) + initialized( true ) );
   EXPECT_EQ( winner( 1 ), "evpn" );
   publish( evpn, hostDel( 1 ) );
   EXPECT_EQ( row( "show", "hosts" )[ "inline" ], Json::parse( R"({"value":12})" ) );
   EXPECT_EQ( evpn.status(), 0 );
   stopAgent( SIGKILL );
   EXPECT_EQ( row( "source", "list" )[ "running" ], false );
   EXPECT_EQ( json( { "explain", mac( 1 ), "10" } )[ "winner" ], "static" );
}

} // namespace
