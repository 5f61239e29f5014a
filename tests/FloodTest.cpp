// The merged flood sets: against a model, and across the tables that carry them.
#include "L2Rib/Bindings.h"
#include "L2Rib/FloodBindings.h"
#include "L2Rib/SourceFloodBinding.h"
#include "tests/EngineLab.h"
#include "tests/TestSupport.h"

#include <filesystem>
#include <functional>

namespace L2Rib::Test {
namespace {

constexpr uint32_t a = 0x40, b = 0x100;

TEST( FloodMerge, QuantumZeroHandlesOneMemberARun ) {
   Lab lab;
   lab.engine->floodReviewQuantumIs( 0 );
   lab.clock->tickIs( 0.0001 );
   LabSource& source = lab.source( "one", a );
   lab.settle();
   for( uint64_t interface = 0; interface < 10; ++interface )
      source.flood( 10, 1, { interface } );
   for( size_t run = 1; run <= 10; ++run ) {
      lab.turn();
      EXPECT_EQ( run, members( *lab.output.flood ).size() );
      EXPECT_EQ( run < 10, lab.engine->floodSetBookmarkValid() );
   }
}

// However many members one VLAN has, the walk over them is in slices.
TEST( FloodMerge, EndOfAHoldIsInSlices ) {
   Lab lab;
   LabSource& source = lab.source( "one", a );
   for( uint64_t interface = 0; interface < 2000; ++interface )
      source.flood( 10, 1 + interface / 1000, { interface } );
   lab.settle();
   lab.inputDir->entryDel( "one" );
   lab.clock->nowIs( lab.clock->now() + 31 );
   lab.engine->reviewQuantumIs( 0 );
   lab.clock->tickIs( 0.0001 );
   size_t before = 0;
   while( lab.engine->withdrawalChecksLeft() != 0 || before == 0 ) {
      lab.turn();
      EXPECT_LE( lab.engine->floodSetBacklog().size(), before + 64 );
      before = std::max<size_t>( lab.engine->floodSetBacklog().size(), 1 );
   }
   lab.settle();
   EXPECT_TRUE( lab.output.flood->vlanFloodSet().empty() );
}

TEST( FloodMerge, MembersWithoutRoomAreParkedUntilThereIsSome ) {
   struct Few : FloodSetOutput::MemberRoom {
      explicit Few( const FloodSetOutput& output ) : output_( output ) {}
      Vexil::Room makeRoom() override {
         return freeMembers() != 0 ? Vexil::Room::yes : Vexil::Room::full;
      }
      uint64_t freeMembers() const override { return capacity() - members( output_ ).size(); }
      uint32_t capacity() const override { return 3; }
      const FloodSetOutput& output_;
   };
   Lab lab;
   Few few( *lab.output.flood );
   lab.output.flood->memberRoomIs( &few );
   LabSource& source = lab.source( "one", a );
   for( uint64_t interface = 1; interface <= 5; ++interface )
      source.flood( 10, interface, { interface } );
   lab.hammer();
   EXPECT_EQ( 3u, members( *lab.output.flood ).size() );
   EXPECT_EQ( 2u, lab.engine->failedFloodSet().size() );
   EXPECT_EQ( 2u, lab.engine->awaited().count( parkedTableFull_ ) );
   // One that is in leaves, and one that waits does: nothing waits any more but what has no room.
   const FloodSetTriple waits = lab.engine->failedFloodSet().begin()->value;
   source.entry->vlanFloodSet( Bridging::VlanId( 10 ) )->floodSetDel( waits.mac() );
   for( uint64_t interface = 1; interface <= 5; ++interface )
      if( lab.output.flood->vlanFloodSet( Bridging::VlanId( 10 ) )
             ->floodSet( Vexil::EthAddr( interface ) ) ) {
         source.entry->vlanFloodSet( Bridging::VlanId( 10 ) )
            ->floodSetDel( Vexil::EthAddr( interface ) );
         break;
      }
   lab.settle();
   EXPECT_EQ( members( *source.entry ), members( *lab.output.flood ) );
   EXPECT_TRUE( lab.engine->awaited().empty() );
}

// --- across process borders --------------------------------------------------------------------

FloodMember record( uint32_t vlan, uint64_t mac, uint64_t interface,
                    FloodSetType type = floodSetTypeAny_ ) {
   return {
      FloodSetTriple( Bridging::VlanId( vlan ), Vexil::EthAddr( mac ), floodDest( interface ) ),
      type };
}

TEST( FloodBinding, SourceTableFillsTheEntry ) {
   const auto table = makeEntity<FloodMemberTable>( 64u );
   const auto entry = makeEntity<SourceDirEntry>( "one" );
   ASSERT_TRUE( table->set( record( 10, 1, 1 ) ) );
   const auto clock = makeEntity<Vexil::ManualClock>();
   SourceFloodBinding binding( clock, table, entry );
   EXPECT_TRUE( members( *entry ).empty() ) << "nothing of it before it is read";
   EXPECT_TRUE( binding.readOn( *clock, Vexil::never ) );
   ASSERT_TRUE( table->set( record( 10, 2, 1 ) ) );
   ASSERT_TRUE( table->set( record( 20, 1, 1 ) ) );
   EXPECT_EQ( 3u, members( *entry ).size() );
   ASSERT_TRUE( table->set( record( 10, 2, 1, floodSetTypeIntf_ ) ) );
   EXPECT_EQ( floodSetTypeIntf_, entry->vlanFloodSet( Bridging::VlanId( 10 ) )
                                    ->floodSet( Vexil::EthAddr( uint64_t( 2 ) ) )
                                    ->floodSetType() );
   ASSERT_TRUE( table->set( record( 30, 1, 1, FloodSetType( 77 ) ) ) );
   FloodMember keyed = record( 30, 1, 2 );
   keyed.triple = FloodSetTriple( Bridging::VlanId( 30 ), Vexil::EthAddr(), intfDest( 5, 1 ) );
   ASSERT_TRUE( table->set( keyed ) );
   EXPECT_EQ( 3u, members( *entry ).size() ) << "corrupt records are left out";
   EXPECT_EQ( 2u, table->corruptions() );
   ASSERT_TRUE( table->set( record( 20, 1, 1, FloodSetType( 77 ) ) ) );
   EXPECT_EQ( 2u, members( *entry ).size() ) << "and leave nothing of what they replace";
   table->eraseAll();
   EXPECT_TRUE( members( *entry ).empty() );
}

// In slices of a few members: nothing is in the entry before all is, and the members that went
// while the journal ran ahead of its reader go without a hold either.
TEST( FloodBinding, ReadsInSlices ) {
   constexpr uint32_t count = 4000;
   TestSupport::TemporaryFolder folder;
   FloodMemberTable writer( folder.file( "flood" ), FloodMemberTable::Mode::write, count );
   const auto nth = []( uint32_t number ) {
      return record( 1 + number % 3, 1 + number % 5, number );
   };
   for( uint32_t number = 0; number < count; ++number )
      ASSERT_TRUE( writer.set( nth( number ) ) );
   const auto table =
      makeEntity<FloodMemberTable>( folder.file( "flood" ), FloodMemberTable::Mode::read );
   const auto clock = makeEntity<Vexil::ManualClock>();
   clock->tickIs( 0.001 ); // each look at it
   const auto entry = makeEntity<SourceDirEntry>( "one" );
   SourceFloodBinding binding( clock, table, entry );
   int slices = 1;
   for( ; !binding.readOn( *clock, clock->now() + 0.002 ); ++slices ) {
      ASSERT_TRUE( entry->vlanFloodSet().empty() ) << "after slice " << slices;
      ASSERT_TRUE( writer.erase( nth( slices ).triple ) ) << "what goes meanwhile is not missed";
   }
   EXPECT_GT( slices, 3 );
   EXPECT_LT( slices, 100 );
   table->poll( *clock, Vexil::never );
   EXPECT_EQ( count - slices + 1, members( *entry ).size() );

   for( uint32_t number = slices; number < count; ++number ) // more than its journal holds
      if( number % 8 != 0 )
         writer.erase( nth( number ).triple );
   table->poll( *clock, Vexil::never );
   EXPECT_TRUE( entry->floodBehind() );
   for( slices = 0; entry->floodBehind(); ++slices ) {
      ASSERT_LT( slices, 10000 );
      clock->fireDue();
   }
   EXPECT_GT( slices, 3 );
   EXPECT_EQ( writer.count(), members( *entry ).size() );
}

TEST( AgentSourceDir, StartsEmptyInEveryRun ) {
   [[maybe_unused]] static const bool registered = ( registerEntityTypes(), true );
   TestSupport::TemporaryFolder folder;
   const std::string directory = folder.file( "state" );
   const std::string file = directory + "/" + Path::agentInputDir + "/static";
   Vexil::ActivityManager loop;
   const auto mount = [ & ]( Vexil::EntityManager& manager ) {
      manager.mount( Path::agentInputDir, "L2Rib::AgentSourceDir", Vexil::MountMode::write );
      return Ptr<AgentSourceDir>(
         dynamic_cast<AgentSourceDir*>( manager.entity( Path::agentInputDir ).get() ) );
   };
   for( int run = 0; run < 2; ++run ) {
      const auto manager = makeEntity<Vexil::EntityManager>( loop, directory );
      const auto sources = mount( *manager );
      EXPECT_TRUE( sources->source().empty() );
      EXPECT_FALSE( std::filesystem::exists( file ) ) << "of the run before";
      const auto entry = sources->sourceIs( "static" );
      entry->sourceIs( sourceStatic_ );
      entry->hostTableTarnPathIs( "a/path" );
      EXPECT_FALSE( std::filesystem::exists( file ) ) << "before anybody can use it";
      for( const bool initialized : { true, false, true } ) {
         entry->initializedIs( initialized );
         const SourceEntryTable seen( file, SourceEntryTable::Mode::read );
         const SourceEntryRecord record = seen.get( SourceName::of( "static" ).value() );
         EXPECT_EQ( sourceStatic_, record.source );
         EXPECT_EQ( "a/path", record.hostPath.str() );
         EXPECT_EQ( initialized, record.initialized != 0 );
      }
      const auto second = makeEntity<Vexil::EntityManager>( loop, directory );
      EXPECT_THROW( mount( *second ), Vexil::TableError );
      EXPECT_TRUE( std::filesystem::exists( file ) );
   }
}

TEST( FloodBinding, OutputOutlivesItsWriterAndGrows ) {
   TestSupport::TemporaryFolder folder;
   const std::string directory = folder.file( "state" );
   const auto mounted = [ & ]( Vexil::ActivityManager& loop, const auto& use ) {
      const auto manager = makeEntity<Vexil::EntityManager>( loop, directory );
      const auto mount = mountFloodOutput( *manager, "flood", Vexil::MountMode::write );
      use( *dynamic_cast<FloodSetOutput*>( mount.entity.get() ) );
      manager->ringBells();
   };
   std::set<std::string> written;
   Vexil::ActivityManager loop;
   mounted( loop, [ & ]( FloodSetOutput& output ) {
      output.sourceIs( a | b );
      for( uint64_t interface = 0; interface < 5000; ++interface ) {
         const auto set = output.vlanFloodSetIs( Bridging::VlanId( 1 + interface % 7 ) )
                             ->floodSetIs( Vexil::EthAddr( interface % 3 ) );
         set->floodSetTypeIs( floodSetTypeVxlan_ );
         set->destSetIs( floodDest( interface ), true );
      }
      output.vlanFloodSetDel( Bridging::VlanId( 3 ) );
      output.vlanFloodSetIs( Bridging::VlanId( 4 ) )
         ->floodSetDel( Vexil::EthAddr( uint64_t( 1 ) ) );
      written = members( output );
   } );
   const auto file = [ & ] {
      return FloodMemberTable( directory + "/flood", FloodMemberTable::Mode::read ).tableId();
   };
   const uint64_t grown = file();
   mounted( loop, [ & ]( FloodSetOutput& output ) {
      EXPECT_EQ( written, members( output ) );
      EXPECT_EQ( a | b, output.source() );
      EXPECT_EQ( grown, file() ) << "nothing has changed, and readers must go over to a new file";
      output.vlanFloodSet( Bridging::VlanId( 1 ) )->clear();
      output.vlanFloodSetDel( Bridging::VlanId( 1 ) );
      written = members( output );
   } );
   mounted( loop, [ & ]( FloodSetOutput& output ) { EXPECT_EQ( written, members( output ) ); } );
}

} // namespace
} // namespace L2Rib::Test
