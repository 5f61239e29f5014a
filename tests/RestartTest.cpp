// Restart: what an earlier run left in the output is adopted, checked and reconciled.
#include "tests/EngineLab.h"
#include "tests/TestSupport.h"

#include <functional>

namespace L2Rib::Test {
namespace {

constexpr uint32_t a = 0x40, b = 0x100;

// Two inline hosts; a host behind a group of a label and a dest, one host behind that label too.
struct Restart : ::testing::Test {
   Lab lab;
   LabSource& source = lab.source( "one", a );

   Restart() {
      source.set( intfDest( 1, 11 ), intfDest( 2, 22 ), push( 1, 100, dest( 1 ) ),
                  group( 1, { label( 1 ), dest( 2 ) } ), inlineHost( mvp( 1 ), 1 ),
                  inlineHost( mvp( 2 ), 2 ), objectHost( mvp( 3 ), lb( 1 ) ),
                  objectHost( mvp( 4 ), label( 1 ) ) );
      lab.settle();
   }

   // Puts a row into the output, as the copy of an input object.
   void put( const auto& table, const auto& row, const ObjTuple& input ) {
      ASSERT_TRUE( table->set( { row, inputOf( input ) } ) );
   }
   static ObjTupleAndSource inputOf( const ObjTuple& input ) {
      return ObjTupleAndSource( input, Source( a ) );
   }

   void expectSound() {
      EXPECT_EQ( running_, lab.engine->restartState() );
      EXPECT_EQ( lab.relationsOfRows(), lab.relationsOfUsers() );
      EXPECT_EQ( 0u, lab.engine->restartEntriesLeft() );
      EXPECT_TRUE( lab.engine->hostList().empty() ) << "nobody works off what was queued";
   }
};

// One entry a slice: every state ends on its time-out path.
TEST_F( Restart, EveryStateInSlicesOfOneEntry ) {
   lab.source( "two", b ).set( inlineHost( mvp( 9 ), 9 ) ); // queued, and worked off at the end
   source.set( inlineHost( mvp( 3 ), 3 ) );                 // the group goes once all is decided
   lab.engine = nullptr;
   lab.clock->tickIs( 0.001 );
   const TraceLines lines;
   lab.newEngine();
   lab.engine->reviewQuantumIs( 0 );
   lab.clock->nowIs( 5000 );
   std::map<PolicySmRestartState, int> slices;
   std::vector<PolicySmRestartState> order;
   while( lab.engine->restartState() != running_ ) {
      const PolicySmRestartState state = lab.engine->restartState();
      if( order.empty() || order.back() != state )
         order.push_back( state );
      ++slices[ state ];
      EXPECT_LT( slices[ state ], 10 );
      const uint64_t left = lab.engine->restartEntriesLeft();
      lab.turn();
      if( state < initialHostScan_ ) { // the scan may leave objects to delete
         EXPECT_EQ( left - 1, lab.engine->restartEntriesLeft() ) << state;
      }
      if( state == initialHostScan_ ) {
         EXPECT_EQ( 1u, lab.output.lb->count() ) << "deletes wait for the end of the scan";
      }
   }
   EXPECT_EQ( ( std::vector{ hostSourceCheck_, otSourceCheck_, otFloatCheck_, initialHostScan_,
                             zeroRefCleanup_ } ),
              order );
   for( const PolicySmRestartState state : order )
      EXPECT_EQ( state == zeroRefCleanup_ ? 1 : 4, slices[ state ] ) << state;
   lines.expect( { "PolicySm::handleInitialized()",
                   "handleInitialized adding (",
                   " to source check and initial sync list",
                   "handleInitialized max IDs found, label: 1 LB: 1 dest: 2",
                   "handleInitialized status said label: 1 LB: 1 dest: 2",
                   "restartState is hostSourceCheck",
                   "handleSourceCheck checking host (",
                   "handleSourceCheck ending host review run after 1 hosts",
                   "handleSourceCheck host check complete with 1 hosts this run",
                   "restartState is otSourceCheck",
                   "handleSourceCheck checking ",
                   "restoreMapping between ",
                   "handleSourceCheck ending OT source review run after 1 OTs",
                   "handleSourceCheck OT source check complete with 1 OTs this run",
                   "handleSourceCheck doing float check",
                   "handleSourceCheck ending review run after 1 OTs",
                   "handleSourceCheck OT check complete with 1 OTs this run",
                   "handleInitialSyncTimer running host initial sync",
                   "handleInitialSyncTimer checking host (",
                   "rmUser deferring delete of lb/1 until after initial sync complete",
                   "handleInitialSyncTimer ending review run after 1 hosts",
                   "handleInitialSyncTimer host check complete with 1 hosts",
                   "handleInitialSyncTimer running zero ref cleanup check",
                   "handleInitialSyncTimer checking OT lb/1 for zero ref cleanup",
                   "handleZeroRefCleanupCheck no users left for lb/1 handling deferred delete now",
                   "handleInitialSyncTimer ending review for zero ref after 1 OTs",
                   "handleInitialSyncTimer OT zero ref check complete with 1 hosts" } );
   lab.settle();
   EXPECT_EQ( 0u, lab.output.lb->count() );
   EXPECT_EQ( "value 9 from 0x100", lab.outcome( mvp( 9 ) ) );
   expectSound();
}

TEST_F( Restart, ContradictionsAreWipedAndBuiltAnew ) {
   const auto rowOf = [ this ]( const ObjTuple& input ) {
      return lab.engine->outputObjTuple( inputOf( input ) );
   };
   ObjTuple outDest, outDestBelow, outLabel, outLb;
   const auto groupWith = [ & ]( const ObjTuple& third ) {
      LoadBalance row = lab.output.lb->lb( outLb.lbId() ).lb();
      row.nextIs( EcmpIndex( 2 ), third );
      return row;
   };
   const struct {
      const char* what;
      const char* trace;
      std::function<void()> damage;
      bool sound = false; // the found rows themselves are
   } cases[] = {
      { "a host's object is missing", " does not exist!!!",
        [ & ] { lab.output.lb->lbDel( outLb.lbId() ); } },
      { "a label's next is missing", " does not exist!!!",
        [ & ] { lab.output.dest->destDel( outDestBelow.destId() ); } },
      { "a group's next is missing", " does not exist!!!",
        [ & ] { lab.output.dest->destDel( outDest.destId() ); } },
      { "a group without nexts", "handleSourceCheck no next pointers on LB!!",
        [ & ] { put( lab.output.lb, LoadBalance( outLb.lbId() ), lb( 1 ) ); } },
      { "an object without users", "handleSourceCheck  no users for dest/900",
        [ & ] { put( lab.output.dest, intfDest( 900, 9 ), dest( 9 ) ); } },
      { "two rows for one input object", " tables were inconsistent!",
        [ & ] {
           put( lab.output.dest, intfDest( 900, 9 ), dest( 2 ) );
           put( lab.output.lb, groupWith( dest( 900 ) ), lb( 1 ) );
        } },
      { "a loop, and a missing object", "delOtForInconsistency found loop at lb/",
        [ & ] {
           put( lab.output.lb, groupWith( outLb ), lb( 1 ) );
           lab.output.dest->destDel( outDest.destId() );
        } },
      { "a long chain of labels without users", "handleSourceCheck  no users for label/1000",
        [ & ] {
           for( uint64_t id = 1000; id < 1100; ++id )
              put( lab.output.label, push( id, 1, id < 1099 ? label( id + 1 ) : outLabel ),
                   label( id ) );
        } },
      { "a found host that can't be programmed any more",
        " failed to process host (02:00:00:00:00:01/10) during initial sync",
        [ & ] { source.set( objectHost( mvp( 1 ), dest( 77 ) ) ); }, true },
   };
   for( const auto& test : cases ) {
      SCOPED_TRACE( test.what );
      for( const bool slow : { false, true } ) {
         source.set( inlineHost( mvp( 1 ), 1 ) );
         lab.hammer();
         const auto highest = lab.output.status->maxDestId();
         lab.engine->reviewQuantumIs( 0.05 );
         outDest = rowOf( dest( 2 ) );
         outDestBelow = rowOf( dest( 1 ) );
         outLabel = rowOf( label( 1 ) );
         outLb = rowOf( lb( 1 ) );
         lab.engine = nullptr;
         test.damage();
         const TraceLines lines;
         lab.newEngine();
         lab.clock->tickIs( slow ? 0.001 : 0 );
         lab.engine->reviewQuantumIs( slow ? 0 : 0.05 );
         for( int turns = 0; turns < 50; ++turns )
            lab.turn();
         lab.engine->reviewQuantumIs( 0.05 );
         lab.settle();
         lines.expect( { test.trace } );
         lines.expect( { test.sound ? "during initial sync" : " tables were inconsistent!",
                         "handleTablesInconsistent()" } );
         EXPECT_EQ( !test.sound, lab.engine->detectedInconsistentTables() );
         EXPECT_EQ( "value 2 from 0x40", lab.outcome( mvp( 2 ) ) );
         EXPECT_EQ( 1u, lab.output.lb->count() );
         EXPECT_EQ( 1u, lab.output.label->count() );
         EXPECT_EQ( 2u, lab.output.dest->count() );
         EXPECT_LT( highest, lab.output.status->maxDestId() ) << "ids are not reused after a wipe";
         expectSound();
      }
   }
}

TEST( RestartIds, NumberingGoesOnAboveWhatWasFoundOrTold ) {
   for( const uint64_t told : { 0, 50 } ) {
      Lab lab;
      lab.engine = nullptr;
      lab.output.status->maxDestIdIs( DestId( told ) );
      LabSource& source = lab.source( "one", a );
      source.set( intfDest( 1, 1 ), objectHost( mvp( 1 ), dest( 1 ) ) );
      const ObjTupleAndSource input( dest( 1 ), Source( a ) ); // its copy, which a host uses
      ASSERT_TRUE( lab.output.dest->destIs( { intfDest( 41, 1 ), input } ) );
      ASSERT_TRUE(
         lab.output.host->hostIs( { mvp( 1 ), objectHost( mvp( 1 ), dest( 41 ) ), Source( a ) } ) );
      lab.newEngine();
      source.set( intfDest( 2, 2 ), objectHost( mvp( 2 ), dest( 2 ) ) );
      lab.settle();
      EXPECT_EQ( dest( told ? 51 : 42 ), lab.row( mvp( 2 ) ).next() );
   }
}

} // namespace
} // namespace L2Rib::Test
