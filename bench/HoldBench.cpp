// hold: for how long one piece of the agent's work on all hosts, objects or configured hosts keeps
// the event loop from turning. What is done in one go is named so; everything else comes in slices
// of 50 ms.
#include "bench/EngineRig.h"
#include "bench/Harness.h"
#include "bench/Machine.h"
#include "bench/Report.h"
#include "bindings/ConfigBinding.h"

#include <filesystem>

namespace Bench {

namespace {

// Milliseconds.
struct HoldResult {
   double adoption, replay, restart, overrun, endOfHold, wipe, endOfObjects, configuration;
};

double milliseconds( int64_t since ) { return static_cast<double>( nanoseconds() - since ) * 1e-6; }

void fill( const std::string& directory, uint32_t hosts ) {
   runInProcess( "source", [ & ] {
      RigSource source( directory, hosts, 1024 );
      for( const uint32_t number : shuffled( hosts, 1 ) )
         source.hostIs( number );
   } );
   runInProcess( "engine", [ & ] { EngineRig( directory, hosts, 1024, true ).turnUntilIdle(); } );
}

void measure( const std::string& directory, uint32_t hosts, HoldResult& result ) {
   EngineRig rig( directory, hosts, 1024, false ); // the rows found are those of a source to come
   result.adoption = rig.construction() * 1e3;
   int64_t start = nanoseconds();
   rig.entry().initializedIs( true );
   result.replay = milliseconds( start );
   result.restart = rig.turnUntilIdle() * 1e3;
   rig.requireHosts( hosts );
   rig.engine().sourceSm( "one" )->handleOvertaken();
   result.overrun = rig.turnUntilIdle() * 1e3;
   rig.engine().sourceHoldTimeIs( 0 );
   rig.sourceDel();
   result.endOfHold =
      rig.turnUntil( [ & ] { return rig.engine().hostOutput()->count() == 0; } ) * 1e3;
}

void measureWipe( const std::string& directory, uint32_t hosts, HoldResult& result ) {
   fill( directory, hosts );
   EngineRig rig( directory, hosts, 1024, true );
   rig.turnUntilIdle();
   const int64_t start = nanoseconds();
   rig.engine().handleTablesInconsistent();
   result.wipe = milliseconds( start );
}

// The source of as many objects goes, half of them groups and half dests.
void measureEndOfObjects( const std::string& directory, uint32_t objects, HoldResult& result ) {
   runInProcess( "source", [ & ] {
      RigSource source( directory, objects / 2, objects / 2 );
      for( const uint32_t number : shuffled( objects / 2, 1 ) ) {
         source.destIs( 1 + number, 1 + number );
         source.lbIs( 1 + number, number, 0, objects / 2, 1 );
         source.hostIs( number, 1 + number );
      }
   } );
   EngineRig rig( directory, objects / 2, objects / 2, true );
   rig.turnUntilIdle();
   rig.requireHosts( objects / 2 );
   rig.engine().sourceHoldTimeIs( 0 );
   const int64_t start = nanoseconds();
   rig.sourceDel();
   const double first = milliseconds( start );
   result.endOfObjects = std::max( first, 1e3 * rig.turnUntil( [ & ] {
      return rig.engine().destOutput()->count() == 0 && rig.engine().usersMap().empty();
   } ) );
}

// An agent that runs meets a configuration of so many hosts.
void measureConfiguration( const std::string& directory, uint32_t hosts, HoldResult& result ) {
   using namespace Bridging;
   Vexil::ActivityManager loop;
   const auto manager = Vexil::makeEntity<Vexil::EntityManager>( loop, directory );
   const std::string folder = manager->fileOf( "bridging/config" );
   std::filesystem::create_directories( folder );
   const Vexil::Mounted mounted =
      mountConfig( *manager, "bridging/config", Vexil::MountMode::read );
   const auto* const config = dynamic_cast<const Config*>( mounted.entity.get() );
   loop.turn( 0 );
   runInProcess( "configuration", [ & ] {
      ConfiguredHostTable table( folder + "/made", ConfiguredHostTable::Mode::write, hosts );
      for( const uint32_t number : shuffled( hosts, 1 ) ) {
         ConfiguredHostRecord record;
         record.key = hostOf( number, 100 ).key();
         record.intf = 1 + number;
         if( !table.set( record ) )
            throw std::runtime_error( "hold: the configuration is full" );
      }
      std::filesystem::rename( folder + "/made", folder + "/" + ConfiguredHostTable::fileName );
   } );
   double longest = 0;
   while( !config->hostTable() ) {
      const int64_t start = nanoseconds();
      loop.turn();
      longest = std::max( longest, milliseconds( start ) );
   }
   result.configuration = longest;
}

} // namespace

void benchHold( const Settings& settings, Report& report ) {
   const uint32_t hosts = settings.size( 1'000'000 );
   const std::string name = "hold/" + std::to_string( hosts );
   if( !settings.wants( name ) )
      return;
   const std::string directory = settings.directory + "/hold";
   Shared<HoldResult> result;
   fill( directory, hosts );
   runInProcess( "engine", [ & ] { measure( directory, hosts, *result ); } );
   std::filesystem::remove_all( directory );
   runInProcess( "wipe", [ & ] { measureWipe( directory, hosts, *result ); } );
   std::filesystem::remove_all( directory );
   runInProcess( "objects", [ & ] { measureEndOfObjects( directory, hosts, *result ); } );
   std::filesystem::remove_all( directory );
   runInProcess( "agent", [ & ] { measureConfiguration( directory, hosts, *result ); } );
   std::filesystem::remove_all( directory );
   report.figure( name, "adoption, in one go", result->adoption, "ms" );
   report.figure( name, "replay of a source, in one go", result->replay, "ms" );
   report.figure( name, "wipe, in one go", result->wipe, "ms" );
   report.figure( name, "slices of a restart", result->restart, "ms" );
   report.figure( name, "slices after an overrun", result->overrun, "ms" );
   report.figure( name, "slices after a hold", result->endOfHold, "ms" );
   report.figure( name, "slices at the end of a source of objects", result->endOfObjects, "ms" );
   report.figure( name, "slices of a configuration that is read", result->configuration, "ms" );
}

} // namespace Bench
