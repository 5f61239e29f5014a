// Restarts of the agent as its users meet them: killed or stopped in order, with readers that
// follow the output all the while.
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/RestartState.h"
#include "L2Rib/Status.h"
#include "tests/ProcessSupport.h"

#include <fstream>

namespace {

using namespace ProcessSupport;

using RestartProcessTest = ProcessTest;

TEST_F( RestartProcessTest, ReadersSeeOnlyRealChanges ) {
   EXPECT_EQ( ctl( { "config", "set", "10", mac( 21 ), "--interface", "7" } ).status, 0 );
   EXPECT_EQ(
      ctl( { "config", "tunnel", "1", "--source", "10.0.0.1", "--destination", "10.0.0.2" } )
         .status,
      0 );
   for( const unsigned number : { 25, 23, 22, 24 } )
      EXPECT_EQ( ctl( { "config", "set", "10", mac( number ), "--label", std::to_string( number ),
                        "--tunnel", "1" } )
                    .status,
                 0 );
   startAgent();
   settle();
   EXPECT_EQ( ctl( { "config", "delete", "10", mac( 23 ) } ).status, 0 ); // leaves a gap of ids
   settle();
   Program mlag = source( "mlag", "0x8", { "--host-only" } );
   publish( mlag, host( 1, 50, inlineDest ) + initialized( true ) );
   keep( "evpn", "0x40",
         objects + host( 1, 100, group ) + host( 2, 100, inlineDest ) + flood +
            initialized( true ) );
   settle();
   Program watch =
      start( L2RIBCTL_PATH, { "watch", "hosts", "dests", "groups", "labels", "flood", "--json" } );
   watch.expectOut( "inSync" );
   const size_t present = watch.count( "\n" );
   const auto shown = [ this ] {
      Json all;
      for( const char* what : { "hosts", "dests", "groups", "labels", "flood" } )
         all[ what ] = json( { "show", what } );
      return all;
   };
   const Json before = shown();
   EXPECT_EQ( before[ "flood" ][ "source" ], "0x58" );

   for( const int signal : { SIGKILL, SIGTERM, SIGKILL } ) {
      stopAgent( signal );
      EXPECT_EQ( shown(), before ) << "the output stays while no agent runs";
      startAgent();
      settle();
      EXPECT_EQ( shown(), before );
   }
   // A source changes while no agent runs.
   stopAgent( SIGKILL );
   mlag.write( host( 1, 200, inlineDest ) + syncOp );
   mlag.expectOut( "synced", 2 );
   startAgent();
   settle();
   EXPECT_EQ( winner( 1 ), "mlag" );
   watch.expectOut( R"("event":"del")", 3 ); // the group, its label and the dest
   // And once more under the new agent: nothing else has been told in between.
   publish( mlag, host( 3, 50, inlineDest ) );
   watch.expectOut( mac( 3 ) );
   EXPECT_EQ( watch.count( "\n" ), present + 4 + 1 ) << watch.out();
   EXPECT_EQ( ctl( { "check" } ).status, 0 );
   watch.signal( SIGINT );
   EXPECT_EQ( watch.status(), 0 );
}

// A file of operations for a source: that many hosts on two groups, and one of them initialized.
std::string manyHosts( const std::string& file, unsigned count, unsigned lb ) {
   std::ofstream out( file );
   out << objects << R"({"op":"lb","id":8,"nexts":[{"type":"dest","id":1}]})" << '\n';
   for( unsigned number = 1; number <= count; ++number )
      out << host( number, 100, R"("next":{"type":"lb","id":)" + std::to_string( lb ) + "}" );
   out << initialized( true );
   return file;
}

// The last run's figures stand in the table of the agent's status until this run has written its
// own: of 250 restarts settle once believed them in 26.
TEST_F( RestartProcessTest, SettleBelievesNoOtherRun ) {
   constexpr unsigned count = 50000;
   const std::string operations = manyHosts( folder.file( "operations" ), count, 7 );
   ASSERT_EQ(
      source( "evpn", "0x40", { "--keep", "--host-capacity", "65536" }, operations ).status(), 0 );
   startAgent( { "--output-capacity", "65536" } );
   settle();
   const L2Rib::AgentStatusTable table( state + "/" + L2Rib::Path::agentStatus,
                                        L2Rib::AgentStatusTable::Mode::read );
   uint32_t lastRun = table.get( L2Rib::SingleKey() ).processId;
   for( int round = 0; round < 12 && !HasFailure(); ++round ) {
      stopAgent( round % 2 ? SIGTERM : SIGKILL );
      Program settling = start( L2RIBCTL_PATH, { "settle", "--timeout", "60" } );
      startAgent( { "--output-capacity", "65536" } );
      EXPECT_EQ( settling.status(), 0 ) << settling.err();
      const L2Rib::AgentStatusRecord status = table.get( L2Rib::SingleKey() );
      EXPECT_EQ( status.restartState, L2Rib::running_ ) << "round " << round;
      EXPECT_EQ( status.hostList.value(), 0u );
      EXPECT_NE( std::exchange( lastRun, status.processId ), status.processId );
   }
}

// All hosts leave one group for another while no agent runs. An agent that is told to end when it
// has brought over some of them leaves no group behind without users: the next one would have to
// wipe the output.
TEST_F( RestartProcessTest, ToldToEndInMidRestartItEndsTheRestartFirst ) {
   constexpr unsigned count = 20000;
   const auto publishOn = [ & ]( unsigned lb ) {
      const std::string operations = manyHosts( folder.file( "operations" ), count, lb );
      ASSERT_EQ(
         source( "evpn", "0x40", { "--keep", "--host-capacity", "65536" }, operations ).status(),
         0 );
   };
   const Words slow = { "--output-capacity", "65536", "--review-quantum", "0.0001" };
   publishOn( 7 );
   startAgent( slow );
   settle();
   stopAgent( SIGTERM );
   publishOn( 8 );
   startAgent( slow );
   const L2Rib::AgentStatusTable status( state + "/" + L2Rib::Path::agentStatus,
                                         L2Rib::AgentStatusTable::Mode::read );
   const auto restartState = [ & ] { return status.get( L2Rib::SingleKey() ).restartState; };
   ASSERT_TRUE( waitFor( [ & ] { return restartState() == L2Rib::initialHostScan_; } ) );
   stopAgent( SIGTERM );
   EXPECT_EQ( restartState(), L2Rib::running_ );
   const auto writes = [ this ] {
      return L2Rib::HostOutput( state + "/" + L2Rib::Path::hostOutput,
                                L2Rib::HostOutput::Mode::read )
         .journalHead();
   };
   const uint64_t before = writes();
   startAgent( slow );
   settle();
   EXPECT_EQ( writes(), before ) << agent->err();
   EXPECT_EQ( json( { "show", "groups" } ).size(), 1u );
   EXPECT_EQ( ctl( { "check" } ).status, 0 );
}

} // namespace
