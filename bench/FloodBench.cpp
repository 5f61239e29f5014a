// flood: the flood sets of three sources merged into one output: how many members a second, and how
// long the event loop is held meanwhile.
//
// Each source has 64 members in every VLAN and shares half of them with the source before it. The
// engine is in a process of its own, mounts directory and output as the daemon does, and meets the
// sources' entries as files; their tables were filled by another process. The phases:
//
//    first    a source becomes initialized: its table is read, its members enter the output
//    second   another one, and half of its members are there already
//    third    the last one
//    leave    it is no longer initialized: what it alone has goes
//    return   it is initialized again
#include "L2Rib/FloodRecords.h"
#include "bench/Harness.h"
#include "bench/Hosts.h"
#include "bench/Machine.h"
#include "bench/Report.h"
#include "bindings/Bindings.h"
#include "engine/L2RibPolicySm.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace Bench {

namespace {

using namespace L2Rib;
using Vexil::makeEntity;
using Vexil::Ptr;

constexpr uint32_t sourceCount = 3;
constexpr uint32_t perVlan = 64; // members of one source

struct Phase {
   const char* name;
   uint32_t source;
   bool initialized;
   uint32_t members; // in each VLAN of the output afterwards
};
constexpr std::array<Phase, 5> phases{ { { "first", 0, true, 64 },
                                         { "second", 1, true, 96 },
                                         { "third", 2, true, 128 },
                                         { "leave", 2, false, 96 },
                                         { "return", 2, true, 128 } } };

struct FloodResult {
   struct {
      double seconds; // from the change of the entry to the last output write
      double hold;    // the longest turn of the event loop meanwhile, in seconds
   } phase[ phases.size() ];
};

std::string nameOf( uint32_t source ) { return "source" + std::to_string( source ); }

FloodMember memberOf( uint32_t vlan, uint32_t number ) {
   Dest dest( Util::destIdNotInTarn() );
   const std::array<uint8_t, 16> vtep{ 10, 0, 0, static_cast<uint8_t>( number ) };
   dest.vxlanIs( { Vexil::IpGenAddr( Vexil::IpGenAddr::familyIpv4, vtep ), 10000 + vlan } );
   return { FloodSetTriple( Bridging::VlanId( vlan ), Vexil::EthAddr( 0xffffffffffff ), dest ),
            floodSetTypeVxlan_ };
}

SourceEntryRecord entryOf( uint32_t source, bool initialized ) {
   SourceEntryRecord record;
   record.name = SourceName::of( nameOf( source ) ).value();
   record.source = static_cast<Source>( 0x100u << source );
   record.initialized = initialized;
   record.floodPath = TablePath::of( "bridging/l2Rib/input/" + nameOf( source ) ).value();
   record.hostPath = TablePath::of( record.floodPath.str() + "Hosts" ).value();
   return record;
}

// Each in an order of its own.
void fillTables( const std::string& stateDirectory, uint32_t vlans ) {
   for( uint32_t source = 0; source < sourceCount; ++source ) {
      // No source is ready without hosts, be they none.
      HostInput( stateDirectory + "/" + entryOf( source, false ).hostPath.str(),
                 HostInput::Mode::write, 64 );
      FloodMemberTable table( stateDirectory + "/" + entryOf( source, false ).floodPath.str(),
                              FloodMemberTable::Mode::write, vlans * perVlan );
      for( const uint32_t number : shuffled( vlans * perVlan, 1 + source ) )
         if( !table.set(
                memberOf( 1 + number / perVlan, number % perVlan + source * perVlan / 2 ) ) )
            throw std::runtime_error( "flood: a source's table is full" );
   }
}

class FloodRig {
 public:
   FloodRig( const std::string& stateDirectory, uint32_t vlans )
      : vlans_( vlans ), em_( makeEntity<Vexil::EntityManager>( loop_, stateDirectory ) ) {
      for( uint32_t source = 0; source < sourceCount; ++source )
         entry_[ source ] = makeEntity<SourceEntryTable>(
            em_->fileOf( Path::inputDir ) + "/" + nameOf( source ), 1u, entryOf( source, false ) );
      em_->mount( Path::inputDir, "Vexil::Directory", Vexil::MountMode::readDirectory );
      em_->mount( Path::floodOutput, "L2Rib::FloodSetOutput", Vexil::MountMode::write );
      PolicySm::Tables output;
      output.host = makeEntity<HostOutput>( 64u );
      output.lb = makeEntity<LoadBalanceOutput>( 64u );
      output.label = makeEntity<LabelOutput>( 64u );
      output.dest = makeEntity<DestOutput>( 64u );
      output.flood = flood_ =
         dynamic_cast<FloodSetOutput*>( em_->entity( Path::floodOutput ).get() );
      flood_->memberTable()->capacityMaxIs( 1u << 24 ); // as the daemon has it
      output.status = makeEntity<PolicySmStatus>();
      engine_ = makeEntity<PolicySm>(
         em_, dynamic_cast<Vexil::Directory*>( em_->entity( Path::inputDir ).get() ),
         makeEntity<AgentSourceDir>(), output );
      while( engine_->restartState() != running_ )
         loop_.turn( 0 );
      loop_.turn( 0 ); // the timers' first firing
   }

   void run( const Phase& phase, double& seconds, double& hold ) {
      const SourceEntryRecord entry = entryOf( phase.source, phase.initialized );
      const int64_t start = nanoseconds();
      if( !entry_[ phase.source ]->set( entry ) )
         throw std::runtime_error( "flood: an entry is full" );
      entry_[ phase.source ]->ring();
      do {
         const int64_t turnStart = nanoseconds();
         loop_.turn();
         hold = std::max( hold, static_cast<double>( nanoseconds() - turnStart ) * 1e-9 );
      } while( !engine_->floodSetBacklog().empty() ||
               ( ( flood_->source() & entry.source ) != 0 ) != phase.initialized );
      seconds = static_cast<double>( nanoseconds() - start ) * 1e-9;
      verify( phase );
   }

 private:
   // As the readers of the output see it.
   void verify( const Phase& phase ) const {
      const FloodMemberTable seen( em_->fileOf( Path::floodOutput ), FloodMemberTable::Mode::read );
      if( seen.count() != vlans_ * phase.members )
         throw std::runtime_error( "flood: " + std::to_string( seen.count() ) + " members after " +
                                   phase.name );
   }

   uint32_t vlans_;
   Vexil::ActivityManager loop_;
   Ptr<Vexil::EntityManager> em_;
   Ptr<SourceEntryTable> entry_[ sourceCount ];
   Ptr<FloodSetOutput> flood_;
   Ptr<PolicySm> engine_;
};

} // namespace

void benchFlood( const Settings& settings, Report& report ) {
   const uint32_t vlans = settings.size( 4000 );
   const std::string name = "flood/" + std::to_string( vlans );
   if( !settings.wants( name ) )
      return;
   registerEntityTypes();
   const std::string folder = settings.directory + "/flood";
   std::vector<double> seconds[ phases.size() ];
   double hold = 0;
   const int repetitions = settings.repetitions( 5 );
   for( int i = 0; i < repetitions; ++i ) {
      std::fprintf( stderr, "flood sets of %u VLANs, %d of %d\n", vlans, i + 1, repetitions );
      runInProcess( "sources", [ & ] { fillTables( folder, vlans ); } );
      Shared<FloodResult> result;
      runInProcess( "engine", [ & ] {
         FloodRig rig( folder, vlans );
         for( size_t at = 0; at < phases.size(); ++at )
            rig.run( phases[ at ], result->phase[ at ].seconds, result->phase[ at ].hold );
      } );
      std::filesystem::remove_all( folder );
      for( size_t at = 0; at < phases.size(); ++at ) {
         seconds[ at ].push_back( result->phase[ at ].seconds );
         hold = std::max( hold, result->phase[ at ].hold );
      }
   }
   for( size_t at = 0; at < phases.size(); ++at )
      report.figure( name + "/" + phases[ at ].name, "members per second",
                     vlans * perVlan / median( seconds[ at ] ), "1/s", Better::higher );
   report.figure( name, "longest hold", hold * 1e3, "ms" );
}

} // namespace Bench
