// The whole system as its users run it: agent, sources and readers in processes of their own, on a
// private state directory.
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/Parked.h"
#include "tests/ProcessSupport.h"

#include <algorithm>
#include <filesystem>

namespace {

using namespace ProcessSupport;
using TestSupport::Random;

TEST_F( ProcessTest, BetterHostWinsAndTheOtherTakesOver ) {
   startAgent();
   Program evpn = source( "evpn", "0x40" );
   Program mlag = source( "mlag", "0x8", { "--host-only" } );
   publish( evpn, objects + host( 1, 100, group ) + initialized( true ) );
   publish( mlag, host( 1, 200, inlineDest ) + initialized( true ) );
   EXPECT_EQ( winner( 1 ), "mlag" );
   Json why = json( { "explain", mac( 1 ), "10" } );
   EXPECT_EQ( why[ "winner" ], "mlag" );
   EXPECT_EQ( why[ "path" ], Json::parse( R"([{"inline":{"value":12}}])" ) );
   for( const Json& candidate : why[ "candidates" ] )
      EXPECT_EQ( candidate[ "beats" ],
                 candidate[ "sourceName" ] == "mlag"
                    ? Json()
                    : Json( { { "sourceName", "mlag" }, { "rule", "pref" } } ) );

   publish( mlag, hostDel( 1 ) );
   EXPECT_EQ( winner( 1 ), "evpn" );
   publish( mlag, host( 1, 200, inlineDest ) );
   EXPECT_EQ( winner( 1 ), "mlag" );
   publish( mlag, initialized( false ) );
   EXPECT_EQ( winner( 1 ), "evpn" );

   why = json( { "explain", mac( 1 ), "10" } );
   EXPECT_EQ( why[ "candidates" ].size(), 2u );
   EXPECT_EQ( why[ "path" ].size(), 3u ); // group, dest and label
   EXPECT_EQ( why[ "path" ][ 0 ][ "id" ], json( { "show", "groups" } )[ 0 ][ "id" ] );
   EXPECT_EQ( ctl( { "check" } ).status, 0 );
   expectIn( ctl( { "graph" } ).out, "-> \"lb/" );
   EXPECT_EQ( json( { "explain", mac( 9 ), "10" }, 1 )[ "winner" ], Json() );
   evpn.signal( SIGTERM );
   EXPECT_EQ( evpn.status(), 0 );
   EXPECT_EQ( json( { "source", "list" } ).size(), 2u ); // mlag, and static inside the agent
}

TEST_F( ProcessTest, RestartedSourceIsNotNoticed ) {
   startAgent();
   const std::string content = objects + host( 1, 100, group ) + host( 2, 100, inlineDest );
   keep( "evpn", "0x40", content + initialized( true ) );
   settle();
   Program watch = start( L2RIBCTL_PATH, { "watch", "--json" } );
   watch.expectOut( "inSync" );
   const size_t before = watch.count( "\n" );
   const Json entry = json( { "source", "list" } );

   keep( "evpn", "0x40", "{\"op\":\"begin\"}\n" + content + "{\"op\":\"end\"}\n" );
   EXPECT_EQ( json( { "source", "list" } ), entry );
   keep( "evpn", "0x40", host( 3, 100, inlineDest ) );
   watch.expectOut( mac( 3 ) );
   EXPECT_EQ( watch.count( "\n" ), before + 1 ) << watch.out();

   // With another capacity and then another value it is a new source with the old content.
   Program larger = source( "evpn", "0x40", { "--keep", "--host-capacity", "70000" } );
   publish( larger, host( 4, 100, inlineDest ) );
   watch.expectOut( mac( 4 ) );
   EXPECT_EQ( watch.count( "\n" ), before + 2 ) << watch.out();
   larger.signal( SIGKILL );
   EXPECT_EQ( larger.status(), -SIGKILL );
   keep( "evpn", "0x100",
         "{\"op\":\"begin\"}\n" + host( 1, 7, inlineDest ) + "{\"op\":\"end\"}\n" +
            initialized( true ) );
   settle();
   const Json rows = json( { "show", "hosts", "--source", "evpn" } );
   ASSERT_EQ( rows.size(), 1u );
   EXPECT_EQ( rows[ 0 ][ "source" ], "0x100" );
   EXPECT_EQ( rows[ 0 ][ "pref" ], 7 );
   watch.signal( SIGINT );
   EXPECT_EQ( watch.status(), 0 );
}

TEST_F( ProcessTest, SourcesThatDieNeverStopTheAgent ) {
   startAgent( { "--source-hold", "0.01", "--review-quantum", "0.001" } );
   std::string storm = objects + initialized( true );
   Random random;
   for( unsigned i = 0; i < 20000; ++i ) {
      const unsigned number = 1 + random.below( 500 );
      storm += random.percent( 20 )
                  ? hostDel( number )
                  : host( number, random.below( 9 ), random.percent( 50 ) ? group : inlineDest );
      if( random.percent( 1 ) )
         storm += random.percent( 50 ) ? "{\"op\":\"clear\"}\n" + objects
                                       : initialized( random.percent( 80 ) );
   }
   const std::string file = folder.file( "storm" );
   TestSupport::replace( file, storm );
   for( int round = 0; round < 25; ++round ) {
      const Words more = random.percent( 30 ) ? Words{ "--host-capacity", "600" } : Words{};
      Program dying = source( "evpn", random.percent( 70 ) ? "0x40" : "0x8", more, file );
      waitFor( [ & ] { return dying.ended(); }, random.below( 200 ) * 1e-3 );
      dying.signal( SIGKILL );
      dying.status();
      if( random.percent( 30 ) )
         ctl( { "source", "delete", "evpn" } );
      ASSERT_FALSE( agent->ended() ) << agent->err();
   }
   keep( "evpn", "0x40",
         "{\"op\":\"begin\"}\n" + objects + host( 1, 1, group ) + "{\"op\":\"end\"}\n" +
            initialized( true ) );
   EXPECT_TRUE( waitFor( // what the value 0x8 left goes when its hold is over
      [ & ] {
         settle();
         return json( { "show", "hosts" } ).size() == 1 || HasFailure();
      } ) );
   EXPECT_EQ( winner( 1 ), "evpn" );
   const Result check = ctl( { "check" } );
   EXPECT_EQ( check.status, 0 ) << check.out;
   stopAgent();
}

// Each value is always that of one source only, but an agent that was held up sees it all at once.
TEST_F( ProcessTest, SourcesMayExchangeTheirValues ) {
   startAgent();
   const auto content = []( unsigned number ) {
      return host( number, 100, inlineDest ) + initialized( true );
   };
   keep( "evpn", "0x40", content( 1 ) );
   keep( "mlag", "0x8", content( 2 ) );
   settle();
   agent->signal( SIGSTOP );
   EXPECT_EQ( ctl( { "source", "delete", "mlag" } ).status, 0 );
   keep( "evpn", "0x8", initialized( true ) );
   keep( "mlag", "0x40", content( 2 ) );
   agent->signal( SIGCONT );
   settle();
   EXPECT_EQ( winner( 1 ), "evpn" );
   EXPECT_EQ( winner( 2 ), "mlag" );
   EXPECT_EQ( ctl( { "check" } ).status, 0 );
}

TEST_F( ProcessTest, EverythingCanBeSeenWhileTheAgentIsStopped ) {
   EXPECT_EQ( ctl( { "show", "hosts" } ).status, 1 ); // no agent ever ran
   startAgent();
   keep( "evpn", "0x40", objects + host( 1, 100, group ) + initialized( true ) );
   settle();
   EXPECT_EQ( json( { "show", "status" } )[ "agent" ], "running" );
   const struct {
      const char* kind;
      const char* option;
      const char* value;
      int status;
   } filters[] = {
      { "hosts", "--mac", "zz", 2 },         { "config", "--mac", "zz", 2 },
      { "hosts", "--source", "0xzz", 2 },    { "dests", "--source", "0x100000000", 2 },
      { "labels", "--source", "nobody", 1 }, { "sources", "--source", "nobody", 1 },
      { "sources", "--source", "0x", 2 },    { "sources", "--source", "evpn", 0 },
      { "hosts", "--source", "evpn", 0 },
   };
   for( const auto& [ kind, option, value, expected ] : filters )
      EXPECT_EQ( ctl( { "show", kind, option, value } ).status, expected ) << kind << value;
   for( const char* const evpn : { "evpn", "0x40", "0x040" } ) {
      const Json rows = json( { "show", "sources", "--source", evpn } );
      ASSERT_EQ( rows.size(), 1u ) << evpn;
      EXPECT_EQ( rows[ 0 ][ "name" ], "evpn" );
      EXPECT_TRUE( rows[ 0 ][ "ready" ] );
   }
   stopAgent();
   for( const char* table : { "hosts", "sources" } )
      expectIn( ctl( { "show", table } ).err, "agent stopped since" );
   EXPECT_EQ( json( { "show", "hosts" } ).size(), 1u );
   EXPECT_FALSE( json( { "show", "sources" } )[ 0 ][ "ready" ] );
   const Json status = json( { "show", "status" } );
   EXPECT_EQ( status[ "agent" ], "stopped" );
   EXPECT_EQ( status[ "restartState" ], "running" );
   EXPECT_EQ( status[ "groups" ], 1 );
   EXPECT_EQ( ctl( { "settle", "--timeout", "0" } ).status, 1 );
}

// More changes than the journal holds, while the agent does not look: it learns of all of them, of
// the deletions too.
TEST_F( ProcessTest, AgentThatWasOvertakenMissesNothing ) {
   startAgent();
   Program evpn = source( "evpn", "0x40", { "--host-capacity", "64" } );
   std::string content = initialized( true );
   for( unsigned number = 1; number <= 30; ++number )
      content += host( number, 100, inlineDest );
   publish( evpn, content );
   EXPECT_EQ( json( { "show", "hosts" } ).size(), 30u );
   agent->signal( SIGSTOP );
   std::string changes = hostDel( 1 );
   for( unsigned i = 0; i < 3000; ++i )
      changes += host( 2 + i % 20, 101 + i, inlineDest );
   evpn.write( changes + host( 40, 100, inlineDest ) + syncOp );
   evpn.expectOut( "synced", 2 );
   agent->signal( SIGCONT );
   settle();
   EXPECT_EQ( json( { "show", "hosts" } ).size(), 30u );
   EXPECT_EQ( winner( 1 ), "none" );
   EXPECT_EQ( winner( 40 ), "evpn" );
   EXPECT_EQ( json( { "show", "hosts", "--mac", mac( 21 ) } )[ 0 ][ "pref" ], 101 + 2999 );
   const std::string metrics = ctl( { "metrics" } ).out;
   EXPECT_EQ( metrics.find( "l2rib_journal_overruns_total 0\n" ), metrics.npos ) << metrics;
}

TEST_F( ProcessTest, ExampleDaemonFindsItsHostsInTheOutput ) {
   startAgent();
   settle();
   Program example( folder, { EXAMPLE_PATH, state } );
   EXPECT_EQ( example.status(), 0 ) << example.err();
   EXPECT_EQ( example.count( "host: " ), 3u ) << example.out();
}

// What can't be programmed is named wherever one looks: first as the agent has it, then with every
// reason, as an agent that has ended left it.
TEST_F( ProcessTest, WhatIsParkedIsNamed ) {
   startAgent();
   Program evpn = source( "evpn", "0x40" );
   std::string hosts;
   for( unsigned number = 1; number <= 12; ++number )
      hosts += host( number, 100, R"("next":{"type":"dest","id":99})" );
   publish( evpn, initialized( true ) + hosts );
   const Result settled = ctl( { "settle" } );
   const std::string reason = "dest 99 of source evpn does not exist";
   EXPECT_EQ( settled.status, 0 );
   expectIn( settled.err, "host " + mac( 10 ) + " VLAN 10 of evpn: " + reason );
   EXPECT_EQ( settled.err.find( mac( 11 ) ), std::string::npos );
   expectIn( settled.err, "and 2 more" );
   const Json failed = json( { "show", "failed", "hosts" } );
   ASSERT_EQ( failed.size(), 12u );
   Json first = failed[ 0 ];
   EXPECT_GT( first[ "since" ], 1e9 );
   EXPECT_GE( first[ "tries" ], 1 );
   first.erase( "since" );
   first.erase( "tries" );
   EXPECT_EQ( first, Json( { { "kind", "host" },
                             { "mac", mac( 1 ) },
                             { "vlan", 10 },
                             { "source", "0x40" },
                             { "sourceName", "evpn" },
                             { "reason", reason } } ) );
   EXPECT_EQ( json( { "explain", mac( 1 ), "10" } )[ "parked" ][ "reason" ], reason );
   expectIn( ctl( { "explain", mac( 1 ), "10" } ).out, "parked  " + reason );
   expectIn( ctl( { "metrics" } ).out, "l2rib_parked{reason=\"objectAbsent\"} 12\n" );
   EXPECT_EQ( ctl( { "check" } ).status, 0 );
   publish( evpn, R"({"op":"dest","id":99,"intf":{"id":3}})"
                  "\n" );
   EXPECT_TRUE( json( { "show", "failed" } ).empty() );
   EXPECT_EQ( ctl( { "show", "failed" } ).out, "nothing is parked\n" );

   stopAgent();
   using namespace L2Rib;
   {
      ParkedTable table( state + "/" + Path::parked, ParkedTable::Mode::write, 64 );
      const ObjTupleAndSource other( ObjTuple( LoadBalanceId( 7 ) ), Source( 0x400 ) );
      const auto add = [ & ]( ParkedKind kind, uint64_t number, ParkedReason why, uint32_t limit ) {
         ParkedRecord row;
         row.key = {
            kind, { Vexil::EthAddr( 0x020000000000 + number ), Bridging::VlanId( 20 ) }, {} };
         if( kind == parkedObject_ )
            row.key = { kind, {}, { ObjTuple( LabelId( number ) ), Source( 0x40 ) } };
         row.source = kind == parkedFloodMember_ ? sourceNone_ : Source( 0x40 );
         row.reason = why;
         row.table = kind == parkedFloodMember_ ? outputTableFlood_ : outputTableHost_;
         row.limit = limit;
         row.blocker = other;
         row.since = 1e9;
         ASSERT_TRUE( table.set( row ) );
      };
      add( parkedHost_, 1, parkedTableFull_, 16384 );
      add( parkedHost_, 2, parkedTableFull_, 16384 );
      add( parkedHost_, 3, parkedNoMemory_, 0 );
      add( parkedHost_, 4, parkedObjectAbsent_, 0 );
      add( parkedObject_, 5, parkedLoop_, 0 );
      add( parkedObject_, 6, parkedTooDeep_, 64 );
      add( parkedFloodMember_, 7, parkedTableFull_, 4096 );
   }
   const std::string shown = ctl( { "show", "failed" } ).out;
   for( const char* line :
        { "2 hosts, host output full (16384), since 2001-09-09 ",
          "  no memory for the host output  ", "  group 7 of source 0x400 does not exist  ",
          "label 5  ", "  groups form a loop  ", "  deeper than 64  ",
          "  flood output full (4096)  " } )
      expectIn( shown, line );
   EXPECT_EQ( std::count( shown.begin(), shown.end(), '\n' ), 6 ) << shown;
   EXPECT_EQ( json( { "show", "failed" } ).size(), 7u );
   EXPECT_EQ( json( { "show", "failed", "objects" } ).size(), 2u );
   const Result check = ctl( { "check" } );
   EXPECT_EQ( check.status, 1 );
   expectIn( check.out, "want of room: 2 hosts, host output full (16384)\n" );
   expectIn( check.out, "parked: object label 5 of evpn: groups form a loop\n" );
}

} // namespace
