// The merged flood sets: against a model, and across the tables that carry them.
#include "L2Rib/Bindings.h"
#include "L2Rib/FloodBindings.h"
#include "L2Rib/SourceFloodBinding.h"
#include "tests/EngineLab.h"
#include "tests/TestSupport.h"

#include <algorithm>
#include <filesystem>
#include <functional>

namespace L2Rib::Test {
namespace {

constexpr uint32_t a = 0x40, b = 0x100, c = 0x80000000;

Dest member( uint64_t interface ) {
   Dest made = intfDest( 0, interface );
   made.keyIs( Util::destIdNotInTarn() );
   return made;
}

void add( const Ptr<SourceDirEntry>& entry, uint32_t vlan, uint64_t mac, const Dest& dest,
          FloodSetType type = floodSetTypeAny_ ) {
   const auto set =
      entry->vlanFloodSetIs( Bridging::VlanId( vlan ) )->floodSetIs( Vexil::EthAddr( mac ) );
   set->floodSetTypeIs( type );
   set->destSetIs( dest, true );
}

// "VLAN/MAC:interface" of each member.
template<class Owner>
std::set<std::string> members( const Owner& owner ) {
   std::set<std::string> all;
   for( const auto& sets : owner.vlanFloodSet() ) {
      EXPECT_FALSE( sets.value->floodSet().empty() ) << "an empty VLAN " << sets.key;
      for( const auto& set : sets.value->floodSet() ) {
         EXPECT_FALSE( set.value->destSet().empty() ) << "an empty set " << sets.key;
         for( const auto& found : set.value->destSet() )
            all.insert( sets.key.str() + "/" + set.key.str() + ":" + found.key.str() );
      }
   }
   return all;
}

TEST( FloodMerge, OutputIsTheUnionOfTheReadySources ) {
   for( uint64_t stream = 0; stream < 6 && !HasFailure(); ++stream ) {
      TestSupport::Random random( stream );
      Lab lab;
      lab.clock->tickIs( 0.0001 );
      for( const auto& [ name, value ] :
           std::map<std::string, uint32_t>{ { "red", a }, { "green", b }, { "blue", c } } )
         lab.source( name, value );
      for( int round = 0; round < 120; ++round ) {
         // Now a slice for every member, now all in one.
         lab.engine->floodReviewQuantumIs( random.percent( 70 ) ? 0 : 10 );
         for( uint32_t changes = random.below( 30 ); changes > 0; --changes ) {
            auto at = lab.sources.begin();
            std::advance( at, random.below( 3 ) );
            const auto entry = at->second.entry;
            const uint32_t vlan = 1 + random.below( 4 );
            const Bridging::VlanId vlanId( vlan );
            const uint64_t mac = 1 + random.below( 3 );
            const Dest dest = member( random.below( 6 ) );
            const auto sets = entry->vlanFloodSet( vlanId );
            const auto set = sets ? sets->floodSet( Vexil::EthAddr( mac ) ) : nullptr;
            switch( random.below( 12 ) ) {
            case 0:
               entry->vlanFloodSetDel( vlanId ); // a whole VLAN at once
               break;
            case 1:
               if( sets )
                  sets->floodSetDel( Vexil::EthAddr( mac ) ); // a whole address at once
               break;
            case 2:
            case 3:
            case 4:
               if( set )
                  set->destSetDel( dest );
               break;
            case 5:
               if( random.percent( 30 ) )
                  entry->initializedIs( !entry->initialized() );
               break;
            default:
               add( entry, vlan, mac, dest );
            }
            if( random.percent( 40 ) )
               lab.turn();
         }
         lab.settle();
         std::set<std::string> expected;
         unsigned mask = 0;
         for( const auto& [ name, source ] : lab.sources ) {
            if( !source.entry->initialized() )
               continue;
            mask |= source.entry->source();
            for( const auto& sets : source.entry->vlanFloodSet() )
               for( const auto& set : sets.value->floodSet() )
                  for( const auto& found : set.value->destSet() )
                     expected.insert( sets.key.str() + "/" + set.key.str() + ":" +
                                      found.key.str() );
         }
         EXPECT_EQ( expected, members( *lab.output.flood ) ) << "round " << round;
         EXPECT_EQ( mask, lab.output.flood->source() );
      }
   }
}

TEST( FloodMerge, QuantumZeroHandlesOneMemberARun ) {
   Lab lab;
   lab.engine->floodReviewQuantumIs( 0 );
   lab.clock->tickIs( 0.0001 );
   LabSource& source = lab.source( "one", a );
   lab.settle();
   for( uint64_t interface = 0; interface < 10; ++interface )
      add( source.entry, 10, 1, member( interface ) );
   for( size_t run = 1; run <= 10; ++run ) {
      lab.turn();
      EXPECT_EQ( run, members( *lab.output.flood ).size() );
      EXPECT_EQ( run < 10, lab.engine->floodSetBookmarkValid() );
   }
}

// Hosts and members of a vanished source are kept and let go together, whatever other sources do.
TEST( FloodMerge, MembersOfAVanishedSourceGoAfterTheHold ) {
   Lab lab;
   add( lab.source( "one", a ).entry, 10, 1, member( 1 ) );
   add( lab.source( "two", b ).entry, 10, 1, member( 2 ) );
   add( lab.source( "three", c ).entry, 10, 1, member( 3 ) );
   lab.settle();
   EXPECT_EQ( 3u, members( *lab.output.flood ).size() );
   lab.inputDir->entryDel( "three" );
   lab.pass( 10 );
   lab.inputDir->entryDel( "one" );
   lab.pass( 19 );
   EXPECT_EQ( 3u, members( *lab.output.flood ).size() );
   EXPECT_EQ( b, lab.output.flood->source() );
   lab.pass( 2 ); // the end of another source's hold,
   EXPECT_EQ( 2u, members( *lab.output.flood ).size() );
   lab.engine->sourceSm( "two" )->handleOvertaken(); // a journal that was read too late,
   lab.settle();
   lab.inputDir->entryDel( "two" ); // and one that is back without its member
   lab.source( "two", b );
   lab.settle();
   EXPECT_EQ( std::set<std::string>{ "10/00:00:00:00:00:01:{ flood dest intf 1 }" },
              members( *lab.output.flood ) );
   lab.pass( 10 );
   EXPECT_TRUE( lab.output.flood->vlanFloodSet().empty() );
}

// However many members one VLAN has, the walk over them is in slices.
TEST( FloodMerge, EndOfAHoldIsInSlices ) {
   Lab lab;
   LabSource& source = lab.source( "one", a );
   for( uint64_t interface = 0; interface < 2000; ++interface )
      add( source.entry, 10, 1 + interface / 1000, member( interface ) );
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
      add( source.entry, 10, interface, member( interface ) );
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

TEST( FloodMerge, TracesWhatItDoes ) {
   std::vector<std::string> lines;
   Lab lab;
   lab.engine->floodReviewQuantumIs( 0 );
   lab.clock->tickIs( 0.0001 );
   const auto entry = lab.source( "one", a ).entry;
   add( entry, 10, 1, member( 1 ) );
   add( entry, 10, 1, member( 2 ) );
   Vexil::traceSettingIs( "L2RibPolicySm=0" );
   Vexil::logSinkIs( [ & ]( std::string_view line ) { lines.emplace_back( line ); } );
   lab.settle();
   entry->vlanFloodSetDel( Bridging::VlanId( 10 ) );
   lab.settle();
   // An empty VLAN that something else left goes with the next removal, whatever that is of.
   lab.output.flood->vlanFloodSetIs( Bridging::VlanId( 20 ) );
   lab.engine->handleFloodSetDest( Bridging::VlanId( 20 ), Vexil::EthAddr(), member( 3 ) );
   lab.engine->setFloodSetOutputType();
   Vexil::logSinkIs( nullptr );
   Vexil::traceHandle( "L2RibPolicySm" ).levelsIs( 0 );
   EXPECT_TRUE( lab.output.flood->vlanFloodSet().empty() );
   const std::string judge = "void L2Rib::PolicySm::handleFloodSetDest(const Bridging::VlanId&, "
                             "const Vexil::EthAddr&, const L2Rib::Dest&)";
   const std::string work = "void L2Rib::PolicySm::processFloodSetBacklog()";
   for( const auto& [ times, text ] : std::vector<std::pair<long, std::string>>{
           { 2, work + " floodSet length: 2" },
           { 2, work + " processed 1 from backlog" },
           { 4, judge + " vlan: 10 mac: 00:00:00:00:00:01 dest: { flood dest intf " },
           { 2, judge + " deleting { flood dest intf " },
           { 1, judge + " deleting output FloodSet for 10/00:00:00:00:00:01" },
           { 1, judge + " deleting output VlanFloodSet for 10" },
           { 1, judge + " deleting output VlanFloodSet for 20" },
           { 1, "setFloodSetOutputType adding one (0x40) to type." },
           { 1, "setFloodSetOutputType new source is 40, old is 40" } } )
      EXPECT_EQ( times, std::count_if( lines.begin(), lines.end(),
                                       [ & ]( const std::string& line ) {
                                          return line.find( text ) != line.npos;
                                       } ) )
         << text;
}

TEST( FloodMergeDeath, BrokenMembersStopTheProcess ) {
   const auto publish = []( const Dest& dest, FloodSetType type ) {
      Lab lab;
      add( lab.source( "one", a ).entry, 10, 1, dest, type );
      lab.settle();
   };
   EXPECT_DEATH( publish( intfDest( 1, 1 ), floodSetTypeAny_ ),
                 "dest.key\\(\\) == Util::destIdNotInTarn\\(\\)" );
   EXPECT_DEATH( publish( member( 1 ), floodSetTypeInvalid_ ),
                 "ifs->floodSetType\\(\\) != floodSetTypeInvalid_" );
}

// --- across process borders --------------------------------------------------------------------

FloodMember record( uint32_t vlan, uint64_t mac, uint64_t interface,
                    FloodSetType type = floodSetTypeAny_ ) {
   return { FloodSetTriple( Bridging::VlanId( vlan ), Vexil::EthAddr( mac ), member( interface ) ),
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
         set->destSetIs( member( interface ), true );
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
