// restart: how long an engine takes from the start of its process to normal work on the output that
// an earlier one left, beside filling the same tables from empty; and how long its event loop is
// held meanwhile.
#include "bench/EngineRig.h"
#include "bench/Harness.h"
#include "bench/Machine.h"
#include "bench/Report.h"

#include <cstdio>
#include <filesystem>

namespace Bench {

namespace {

constexpr uint32_t groups = 200;
constexpr uint32_t dests = 800;

struct RunResult {
   double seconds;  // from the start of the process until all of the output is there and `running`
   double adoption; // of them, the construction of the engine: no event loop turns yet
   double slice;    // the longest turn of the event loop
   double writes;   // to the output
};

// Every second host is inline, the others lead to one of the groups of four dests.
void fillSource( const std::string& directory, uint32_t hosts ) {
   runInProcess( "source", [ & ] {
      RigSource source( directory, hosts, 1024 );
      for( uint32_t id = 1; id <= dests; ++id )
         source.destIs( id, id );
      for( uint32_t id = 1; id <= groups; ++id )
         source.lbIs( id, id * 4, 1, dests, 4 );
      for( const uint32_t number : shuffled( hosts, 1 ) )
         number % 2 ? source.hostIs( number ) : source.hostIs( number, 1 + number / 2 % groups );
   } );
}

RunResult runOnce( const std::string& directory, uint32_t hosts, bool adopts ) {
   Shared<RunResult> result;
   const int64_t start = nanoseconds();
   runInProcess( "engine", [ & ] {
      const int64_t constructing = nanoseconds();
      EngineRig rig( directory, hosts, 1024, true );
      result->adoption = static_cast<double>( nanoseconds() - constructing ) * 1e-9;
      const uint64_t writes = rig.outputWrites();
      result->slice = adopts ? rig.turnUntilRunning() : rig.turnUntilIdle();
      result->seconds = static_cast<double>( nanoseconds() - start ) * 1e-9;
      result->slice = std::max( result->slice, rig.turnUntilIdle() );
      result->writes = static_cast<double>( rig.outputWrites() - writes );
      rig.requireHosts( hosts );
   } );
   if( adopts && result->writes != 0 )
      throw std::runtime_error( "restart: the output was written to" );
   return *result;
}

void restartOfSize( const Settings& settings, uint32_t hosts, int repetitions, Report& report ) {
   const std::string name = "restart/" + std::to_string( hosts );
   if( !settings.wants( name ) )
      return;
   const std::string directory = settings.directory + "/restart";
   fillSource( directory, hosts );
   std::vector<double> filling, adopting, construction, slices;
   for( int i = 0; i < repetitions; ++i ) {
      std::fprintf( stderr, "%s, %d of %d\n", name.c_str(), i + 1, repetitions );
      for( const char* output : { L2Rib::Path::hostOutput, L2Rib::Path::lbOutput,
                                  L2Rib::Path::labelOutput, L2Rib::Path::destOutput } )
         std::filesystem::remove( directory + "/" + output );
      filling.push_back( runOnce( directory, hosts, false ).seconds * 1e3 );
      const RunResult adopted = runOnce( directory, hosts, true );
      adopting.push_back( adopted.seconds * 1e3 );
      construction.push_back( adopted.adoption * 1e3 );
      slices.push_back( adopted.slice * 1e3 );
   }
   std::filesystem::remove_all( directory );
   report.figure( name, "start to running", median( adopting ), "ms" )
      .against( "filling", median( filling ), 1.7 );
   report.figure( name, "of it, construction", median( construction ), "ms" );
   report.figure( name, "longest slice", quantile( slices, 1 ), "ms" );
}

} // namespace

void benchRestart( const Settings& settings, Report& report ) {
   restartOfSize( settings, settings.size( 16'384 ), settings.repetitions( 9 ), report );
   restartOfSize( settings, settings.size( 1'000'000 ), settings.repetitions( 3 ), report );
}

} // namespace Bench
