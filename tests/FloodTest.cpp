// The merged flood sets: against a model, and across the tables that carry them.
#include "bindings/Bindings.h"
#include "bindings/FloodBinding.h"
#include "bindings/SourceFloodBinding.h"
#include "tests/EngineLab.h"
#include "tests/TestSupport.h"

#include <filesystem>
#include <functional>

namespace L2Rib::Test {
namespace {

constexpr uint32_t a = 0x40, b = 0x100;

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

// --- across process borders --------------------------------------------------------------------

// In slices of a few members: nothing is in the entry before all is, and the members that went
// while the journal ran ahead of its reader go without a hold either.
TEST( FloodBinding, ReadsInSlices ) {
   constexpr uint32_t count = 4000;
   TestSupport::TemporaryFolder folder;
   FloodMemberTable writer( folder.file( "flood" ), FloodMemberTable::Mode::write, count );
   const auto nth = []( uint32_t number ) {
      return floodMember( 1 + number % 3, 1 + number % 5, number );
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
   // A record that is corrupt leaves nothing of what it replaces.
   FloodMember corrupt = nth( count - 1 );
   corrupt.floodSetType = FloodSetType( 77 );
   ASSERT_TRUE( writer.set( corrupt ) );
   table->poll( *clock, Vexil::never );
   EXPECT_EQ( count - slices, members( *entry ).size() );
   EXPECT_EQ( 1u, table->corruptions() );
   ASSERT_TRUE( writer.set( nth( count - 1 ) ) );

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
