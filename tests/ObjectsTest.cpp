// Objects in the output: copied members first, counted by their users, gone with the last one.
#include "tests/EngineLab.h"
#include "tests/TestSupport.h"

#include <functional>
#include <optional>

namespace L2Rib::Test {
namespace {

constexpr uint32_t a = 0x40, b = 0x100, c = 0x80000000;

struct Objects : ::testing::Test {
   Lab lab;
   LabSource& source = lab.source( "one", a );
   // Between any two steps of a story.
   void check( const std::string& expected, size_t objects ) {
      lab.settle();
      EXPECT_EQ( expected, lab.resolved( mvp( 1 ) ) );
      EXPECT_EQ( objects, lab.objectCount() );
      EXPECT_EQ( lab.relationsOfRows(), lab.relationsOfUsers() );
   }
};

TEST_F( Objects, FailedChangeLeavesTheGroupAsItWas ) {
   source.set( intfDest( 1, 1 ), intfDest( 2, 2 ), group( 1, { dest( 1 ) } ),
               objectHost( mvp( 1 ), lb( 1 ) ) );
   lab.settle();
   source.set( group( 1, { dest( 2 ), dest( 3 ) } ) );
   check( "group ( intf 1 )", 2 );
   source.set( group( 4, { dest( 4 ), dest( 3 ) } ) ); // the same for a new one with many hosts
   source.set( intfDest( 4, 4 ) );
   for( uint64_t mac = 2; mac <= 50; ++mac )
      source.set( objectHost( mvp( mac ), lb( 4 ) ) );
   const uint64_t writes = lab.writes;
   lab.hammer();
   EXPECT_EQ( writes + 2 + 4, lab.writes ) << "a member comes and goes once, of the first group "
                                              "only when the hammer ticks";
   check( "group ( intf 1 )", 2 );
   EXPECT_TRUE( lab.engine->failedOtas( ObjTupleAndSource( lb( 1 ), Source( a ) ) ) );
   source.set( intfDest( 3, 3 ) );
   lab.hammer();
   check( "group ( intf 2 intf 3 )", 5 );
   EXPECT_EQ( 50u, lab.output.host->count() );
}

// A loop that leads through the copy of an object that the source has deleted.
TEST_F( Objects, LoopThroughADeletedObjectFails ) {
   source.set( group( 1, { dest( 1 ), lb( 2 ) } ), group( 2, { label( 1 ) } ),
               push( 1, 1, dest( 1 ) ), intfDest( 1, 1 ), objectHost( mvp( 1 ), lb( 1 ) ) );
   lab.settle();
   source.lb->lbDel( LoadBalanceId( 2 ) );
   lab.settle();
   source.set( push( 1, 1, lb( 1 ) ) );
   lab.hammer();
   check( "group ( intf 1 group ( push 1 ( intf 1 ) ) )", 4 );
}

TEST_F( Objects, EndlessChainsFailUntilTheyAreMended ) {
   Lab deep;
   const auto table = makeEntity<LabelTable>( 100000u );
   deep.manager->entityIs( "deep", table );
   LabSource& chain = deep.source( "chain", b, false );
   chain.entry->labelTableTarnPathIs( "deep" );
   chain.label = table;
   for( uint64_t id = 1; id < 100000; ++id )
      chain.set( push( id, 1, label( id + 1 ) ) );
   chain.set( push( 100000, 1, dest( 1 ) ), intfDest( 1, 1 ), objectHost( mvp( 1 ), label( 1 ) ),
              objectHost( mvp( 2 ), label( 99970 ) ) );
   chain.entry->initializedIs( true );
   deep.hammer();
   EXPECT_EQ( "none", deep.outcome( mvp( 1 ) ) );
   EXPECT_EQ( 32u, deep.objectCount() ) << "a chain of 31 labels and a dest is none too long";
   chain.set( push( 2, 1, dest( 1 ) ) );
   deep.hammer();
   EXPECT_EQ( "push 1 ( push 1 ( intf 1 ) )", deep.resolved( mvp( 1 ) ) );
}

// Every group points 16 times to the next one: 16^20 ways lead from top to bottom. The source goes
// on changing another row meanwhile.
TEST_F( Objects, SharedMembersAreLookedAtOnce ) {
   for( uint64_t id = 1; id < 20; ++id )
      source.set( group( id, std::vector<ObjTuple>( 16, lb( id + 1 ) ) ) );
   source.set( group( 20, { dest( 1 ) } ), intfDest( 1, 1 ), objectHost( mvp( 1 ), lb( 1 ) ) );
   lab.atWrite = [ & ] { source.set( intfDest( 2, lab.writes ) ); };
   lab.settle();
   EXPECT_EQ( 21u, lab.objectCount() );
   source.set( group( 20, { dest( 1 ), dest( 1 ) } ) );
   lab.settle();
   source.host->hostDel( mvp( 1 ) );
   lab.settle();
   EXPECT_EQ( 0u, lab.objectCount() );
}

// The bound of the depth holds on every way, though each change is small enough by itself: through
// copies of objects that the source has deleted, and from below.
TEST_F( Objects, BoundOfTheDepthHoldsOnEveryWay ) {
   const auto chain = [ & ]( uint64_t first, uint64_t last, const ObjTuple& end ) {
      for( uint64_t id = first; id < last; ++id )
         source.set( push( id, 1, label( id + 1 ) ) );
      source.set( push( last, 1, end ) );
   };
   const auto depth = [ & ]( uint64_t mac ) {
      const std::string text = lab.resolved( mvp( mac ) );
      return 1 + std::count( text.begin(), text.end(), '(' );
   };
   source.set( intfDest( 1, 1 ) );
   chain( 1, 40, dest( 1 ) );
   chain( 41, 80, dest( 1 ) );
   source.set( objectHost( mvp( 1 ), label( 1 ) ), objectHost( mvp( 2 ), label( 41 ) ) );
   lab.settle();
   EXPECT_EQ( 41, depth( 1 ) );
   source.set( push( 40, 1, label( 41 ) ) ); // from below
   lab.hammer();
   EXPECT_EQ( 41, depth( 1 ) );
   source.set( push( 40, 1, label( 62 ) ) );
   lab.hammer();
   EXPECT_EQ( 60, depth( 1 ) );
   for( uint64_t id = 1; id <= 40; ++id )
      source.label->labelDel( LabelId( id ) );
   source.set( push( 90, 1, label( 1 ) ) ); // onto what the source has deleted
   chain( 92, 99, label( 1 ) );
   source.set( objectHost( mvp( 3 ), label( 90 ) ), objectHost( mvp( 4 ), label( 92 ) ) );
   lab.hammer();
   EXPECT_EQ( 61, depth( 3 ) );
   EXPECT_EQ( "none", lab.resolved( mvp( 4 ) ) );
   EXPECT_EQ( 1u, lab.engine->failedHost().size() );
   EXPECT_EQ( lab.relationsOfRows(), lab.relationsOfUsers() );
}

TEST_F( Objects, CorruptRecordsReadAsAbsent ) {
   LoadBalance tooMany = group( 1, { dest( 1 ) } );
   tooMany.nextsIs( 17 );
   source.set( tooMany, push( 1, 1, ObjTuple( ObjId( 1 ), TableType( 9 ) ) ), intfDest( 1, 1 ),
               objectHost( mvp( 1 ), lb( 1 ) ), objectHost( mvp( 2 ), label( 1 ) ),
               objectHost( mvp( 3 ), ObjTuple( ObjId( 1 ), TableType( 9 ) ) ),
               objectHost( mvp( 4 ), ObjTuple( ObjId( 1 ), tableTypeInvalid_ ) ),
               objectHost( mvp( 5 ), ObjTuple( ObjId( 0 ), tableTypeDest_ ) ),
               inlineHost( Util::mvpInvalid(), 1 ) );
   lab.hammer();
   check( "none", 0 );
   EXPECT_EQ( 0u, lab.output.host->count() );
   EXPECT_GT( source.lb->corruptions(), 0u );
   EXPECT_GT( source.label->corruptions(), 0u );
   EXPECT_GT( source.host->corruptions(), 0u );
}

// Each output table in turn has room for what the first host needs, one of them for one row more.
TEST( ObjectsFull, NothingDanglesWhenAnOutputTableIsFull ) {
   const struct {
      const char* what;
      Room room;
      uint64_t parked; // the host, and the group that has no room as a whole
   } cases[] = { { "hosts", { .host = 1 }, 1 },
                 { "groups", { .lb = 1 }, 2 },
                 { "labels", { .label = 1 }, 2 },
                 { "dests", { .dest = 2 }, 2 },
                 { "one of two dests", { .dest = 3 }, 2 } };
   for( const auto& test : cases ) {
      SCOPED_TRACE( test.what );
      Lab lab( test.room );
      LabSource& source = lab.source( "one", a );
      for( uint64_t id = 1; id <= 2; ++id ) {
         source.set( intfDest( id, id ), intfDest( 10 + id, 10 + id ), push( id, 1, dest( id ) ),
                     group( id, { label( id ), dest( id ), dest( 10 + id ) } ) );
      }
      source.set( objectHost( mvp( 1 ), lb( 1 ) ) );
      lab.settle();
      source.set( objectHost( mvp( 2 ), lb( 2 ) ) );
      lab.hammer();
      const uint64_t writes = lab.writes;
      for( int tick = 0; tick < 3; ++tick )
         lab.hammer();
      EXPECT_EQ( writes, lab.writes ) << "what has no room as a whole is left alone";
      EXPECT_TRUE( lab.engine->failedHost( mvp( 2 ) ) );
      EXPECT_EQ( test.parked, lab.engine->awaited().count( parkedTableFull_ ) );
      EXPECT_EQ( "none", lab.outcome( mvp( 2 ) ) );
      EXPECT_EQ( lab.relationsOfRows(), lab.relationsOfUsers() );
      EXPECT_EQ( 4u, lab.objectCount() ) << "only what the first host uses";
      source.host->hostDel( mvp( 1 ) ); // room comes: nobody waits for the hammer
      lab.settle();
      EXPECT_EQ( "group ( push 1 ( intf 2 ) intf 2 intf 12 )", lab.resolved( mvp( 2 ) ) );
      EXPECT_EQ( test.room.dest == 3 ? 5 : 4, lab.output.status->maxDestId().value() )
         << "ids that lead to nothing";
      EXPECT_TRUE( lab.engine->awaited().empty() );
      EXPECT_EQ( lab.relationsOfRows(), lab.relationsOfUsers() );
   }
}

TEST( ObjTupleManager, GivesEachIdOnceUpToItsBound ) {
   ObjTupleManager manager( tableTypeDest_, 5, 7 );
   const auto otas = []( uint64_t id ) { return ObjTupleAndSource( dest( id ), Source( a ) ); };
   for( const uint64_t id : { 5, 5, 6 } ) // an object that is mapped keeps its id
      EXPECT_EQ( dest( id ), manager.newOutputOt( otas( id - 4 ) ) );
   manager.delOutputOt( dest( 6 ) );
   EXPECT_EQ( Util::objTupleInvalid(), manager.inputToOutput( otas( 2 ) ) );
   EXPECT_EQ( dest( 7 ), manager.newOutputOt( otas( 2 ) ) );
   EXPECT_EQ( Util::objTupleInvalid(), manager.newOutputOt( otas( 3 ) ) );
   EXPECT_EQ( otas( 2 ), manager.outputToInput( dest( 7 ) ) );
   EXPECT_EQ( 2u, manager.size() );
}

} // namespace
} // namespace L2Rib::Test
