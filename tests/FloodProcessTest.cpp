// Flood sets and the static source as their users meet them: published by processes of their own or
// configured by a command, merged by the agent, seen by others.
#include "tests/ProcessSupport.h"

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace {

using namespace ProcessSupport;
using TestSupport::Random;

const std::string allHosts = "ff:ff:ff:ff:ff:ff";

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

// "VLAN/address DEST" of each member.
using Members = std::set<std::string>;
std::string memberStr( unsigned vlan, const std::string& address, const std::string& dest ) {
   return std::to_string( vlan ) + "/" + address + " " + Json::parse( dest ).dump();
}
Members membersOf( const Json& flood ) {
   Members all;
   for( const Json& vlan : flood[ "vlans" ] ) {
      EXPECT_FALSE( vlan[ "sets" ].empty() ) << flood;
      for( const Json& set : vlan[ "sets" ] ) {
         EXPECT_FALSE( set[ "dests" ].empty() ) << flood;
         for( const Json& dest : set[ "dests" ] )
            all.insert( memberStr( vlan[ "vlan" ], set[ "mac" ], dest.dump() ) );
      }
   }
   return all;
}

class FloodProcessTest : public ProcessTest {
 protected:
   Json shown( Words filters = {} ) {
      filters.insert( filters.begin(), { "show", "flood" } );
      return json( filters );
   }
   void stopAgent() {
      agent->signal( SIGTERM );
      EXPECT_EQ( agent->status(), 0 ) << agent->err();
   }
};

TEST_F( FloodProcessTest, SetsOfTwoSourcesAreMerged ) {
   EXPECT_EQ( ctl( { "show", "flood" } ).status, 1 ); // no agent ever ran
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
   EXPECT_EQ(
      membersOf( shown( { "--vlan", "10" } ) ),
      ( Members{ memberStr( 10, allHosts, vtep( 2 ) ), memberStr( 10, allHosts, vtep( 3 ) ) } ) );
   publish( mlag, initialized( false ) );
   EXPECT_EQ( membersOf( shown() ), Members{ memberStr( 20, other, R"({"intf":{"id":7}})" ) } );
   stopAgent();
   EXPECT_EQ( shown()[ "source" ], "0x50" );
   EXPECT_EQ( shown()[ "vlans" ].size(), 1u );
   EXPECT_NE( ctl( { "show", "flood" } ).err.find( "agent stopped since" ), std::string::npos );
}

// What came and went between two looks of watch is not told, but what it has told must come to what
// there is. It starts while no agent runs.
TEST_F( FloodProcessTest, RandomSetsAgreeWithTheModel ) {
   startAgent();
   settle();
   stopAgent();
   Program watch = start( L2RIBCTL_PATH, { "watch", "flood", "--json" } );
   watch.expectOut( "inSync" );
   startAgent( { "--flood-review-quantum", "0.0001" } );
   std::map<std::string, Members> model;
   std::map<std::string, bool> ready;
   std::map<std::string, Program> sources;
   for( const auto& [ name, value ] : std::map<std::string, std::string>{
           { "evpn", "0x40" }, { "mlag", "0x8" }, { "sdn", "1" } } )
      sources.try_emplace(
         name, folder,
         Words{ L2RIBCTL_PATH, "--state-dir", state, "source", "run", name, "--value", value } );
   Random random;
   for( int round = 0; round < 15 && !HasFailure(); ++round ) {
      for( auto& [ name, program ] : sources ) {
         std::string operations;
         for( uint32_t left = random.below( 60 ); left > 0; --left ) {
            const unsigned vlan = 1 + random.below( 3 );
            const std::string address = random.percent( 50 ) ? allHosts : mac( 1 );
            const std::string dest = vtep( 1 + random.below( 6 ) );
            const std::string member = memberStr( vlan, address, dest );
            if( random.percent( 3 ) ) {
               operations += "{\"op\":\"clear\"}\n";
               model[ name ].clear();
            } else if( random.percent( 4 ) ) {
               ready[ name ] = random.percent( 70 );
               operations += initialized( ready[ name ] );
            } else if( random.percent( 55 ) ) {
               operations += flood( vlan, address, dest, "any" );
               model[ name ].insert( member );
            } else if( model[ name ].erase( member ) ) {
               operations += floodDel( vlan, address, dest );
            }
         }
         program.write( operations + syncOp );
      }
      if( random.percent( 25 ) ) {
         agent->signal( SIGKILL );
         agent->status();
         startAgent( { "--flood-review-quantum", "0.0001" } );
      }
      for( auto& [ name, program ] : sources )
         program.expectOut( "synced", static_cast<size_t>( round + 1 ) );
      settle();
      Members expected;
      for( const auto& [ name, members ] : model )
         if( ready[ name ] )
            expected.insert( members.begin(), members.end() );
      EXPECT_EQ( membersOf( shown() ), expected ) << "round " << round;
   }
   Members expected = membersOf( shown() );
   Members told;
   const auto fold = [ & ] {
      std::map<std::string, Json> sets;
      std::istringstream lines( watch.out() );
      for( std::string line; std::getline( lines, line ) && !lines.eof(); ) {
         const Json event = Json::parse( line );
         if( event[ "event" ] == "set" )
            sets[ event[ "key" ].dump() ] = event[ "value" ];
         else if( event[ "event" ] == "del" )
            sets.erase( event[ "key" ].dump() );
      }
      told.clear();
      for( const auto& [ key, set ] : sets )
         for( const Json& dest : set[ "dests" ] )
            told.insert( memberStr( set[ "vlan" ], set[ "mac" ], dest.dump() ) );
      return told == expected;
   };
   waitFor( fold, patience );
   EXPECT_EQ( told, expected ) << watch.out();
   watch.signal( SIGINT );
   EXPECT_EQ( watch.status(), 0 );
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
      EXPECT_EQ( membersOf( shown() ), ( Members{ memberStr( 10, allHosts, vtep( 1 ) ),
                                                  memberStr( 10, allHosts, vtep( other ) ) } ) );
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
   EXPECT_TRUE( waitFor(
      [ this ] {
         return json( { "show", "hosts" } ).empty() && membersOf( shown() ).empty();
      },
      patience ) );
   settle();
   EXPECT_TRUE( shown()[ "vlans" ].empty() );
}

// --- static hosts

TEST_F( FloodProcessTest, StrongerSourceTakesAStaticHostOverAndGivesItBack ) {
   startAgent();
   EXPECT_EQ( ctl( { "config", "set", "10", mac( 1 ), "--interface", "12" } ).status, 0 );
   settle();
   EXPECT_EQ( winner( 1 ), "static" );
   Program evpn = source( "evpn", "0x40" );
   publish( evpn, host( 1, 100, R"("inline":{"value":9})" ) + initialized( true ) );
   EXPECT_EQ( winner( 1 ), "evpn" );
   const Json why = json( { "explain", mac( 1 ), "10" } );
   ASSERT_EQ( why[ "candidates" ].size(), 2u );
   for( const Json& candidate : why[ "candidates" ] )
      if( candidate[ "sourceName" ] == "static" ) {
         EXPECT_EQ( candidate[ "beats" ], Json::parse( R"({"sourceName":"evpn","rule":"pref"})" ) );
      }
   publish( evpn, R"({"op":"hostDel","mac":")" + mac( 1 ) + R"(","vlan":10})" + "\n" );
   const Json row = json( { "show", "hosts" } )[ 0 ];
   EXPECT_EQ( row[ "sourceName" ], "static" );
   EXPECT_EQ( row[ "source" ], "0x10" );
   EXPECT_EQ( row[ "inline" ], Json::parse( R"({"value":12})" ) );
   EXPECT_EQ( json( { "explain", mac( 1 ), "10" } )[ "winner" ], "static" );

   // A host that leads through a label into a tunnel, and one that loses its label again.
   EXPECT_EQ(
      ctl( { "config", "tunnel", "5", "--source", "10.0.0.1", "--destination", "10.0.0.2" } )
         .status,
      0 );
   for( const unsigned number : { 2, 3 } )
      ctl( { "config", "set", "10", mac( number ), "--label", "1000", "--tunnel", "5" } );
   settle();
   EXPECT_EQ( json( { "explain", mac( 2 ), "10" } )[ "path" ].size(), 2u ); // label and dest
   EXPECT_EQ( json( { "show", "labels", "--source", "static" } ).size(), 2u );
   ctl( { "config", "set", "10", mac( 3 ), "--interface", "3" } );
   settle();
   EXPECT_EQ( json( { "show", "labels" } ).size(), 1u );
   EXPECT_EQ( ctl( { "check" } ).status, 0 );
   ctl( { "config", "delete-vlan", "10" } );
   settle();
   EXPECT_TRUE( json( { "show", "hosts" } ).empty() );
   EXPECT_TRUE( json( { "show", "dests" } ).empty() );
}

TEST_F( FloodProcessTest, SettleWaitsForTheConfiguration ) {
   startAgent();
   for( unsigned number = 1; number <= 40; ++number ) {
      if( number == 20 ) { // what changes while no agent runs counts too
         agent->signal( SIGKILL );
         agent->status();
      }
      ctl( { "config", "set", "10", mac( number ), "--interface", std::to_string( number ) } );
      if( number == 20 )
         startAgent();
      settle();
      ASSERT_EQ( winner( number ), "static" ) << number;
   }
   std::string document; // more than the tables had room for: the files are replaced
   for( unsigned number = 1; number <= 3000; ++number )
      document += ( number > 1 ? "," : "" ) + std::string( R"({"vlan":20,"mac":")" ) +
                  mac( number ) + R"(","interface":7})";
   ASSERT_EQ( ctl( { "config", "apply", "-" }, R"({"hosts":[)" + document + "]}" ).status, 0 );
   settle();
   EXPECT_EQ( json( { "show", "status" } )[ "hosts" ], 3000 );
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
                              "running":true,"hosts":1,"reason":null})" ) );
   EXPECT_NE( ctl( { "source", "delete", "static" } ).err.find( "inside the agent" ),
              std::string::npos );
   // Another agent on the same tables is refused, and takes nothing from the one that runs.
   const Json before = row( "source", "list" );
   Program second( folder, { L2RIBD_PATH, "--state-dir", state } );
   EXPECT_EQ( second.status(), 1 );
   EXPECT_NE( second.err().find( " runs here" ), std::string::npos ) << second.err();
   EXPECT_EQ( row( "source", "list" ), before );
   agent->signal( SIGKILL );
   agent->status();
   EXPECT_EQ( row( "source", "list" )[ "running" ], false );
   EXPECT_EQ( json( { "explain", mac( 1 ), "10" } )[ "winner" ], "static" );
}

} // namespace
