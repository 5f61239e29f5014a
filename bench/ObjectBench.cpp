// objects: what forwarding objects cost. Hosts that share one group of 16 dests beside the same
// hosts with inline destinations; a change of one of the dests; many groups that come and go.
#include "bench/EngineRig.h"
#include "bench/Harness.h"
#include "bench/Machine.h"
#include "bench/Report.h"

#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace Bench {

namespace {

constexpr uint32_t groupSize = 16;

struct Shape {
   uint32_t hosts;
   bool shared; // all hosts lead to one group; else they are inline
};
struct SharedResult {
   double seconds;      // from the source's initialization to the last write
   double engineMemory; // bytes of private memory that stay in use
   double destWrites;   // of all output tables, after one dest has changed
};

SharedResult runShared( const std::string& directory, const Shape& shape ) {
   Shared<SharedResult> result;
   runInProcess( "engine", [ & ] {
      RigSource source( directory, shape.hosts, 64 );
      for( uint32_t id = 1; id <= groupSize; ++id )
         source.destIs( id, id );
      source.lbIs( 1, 0, 1, groupSize, groupSize );
      for( const uint32_t number : shuffled( shape.hosts, 1 ) )
         shape.shared ? source.hostIs( number, 1 ) : source.hostIs( number );
      EngineRig rig( directory, shape.hosts, 64, false );
      rig.turnUntilRunning();
      const auto before = static_cast<double>( privateMemory( getpid() ) );
      const int64_t start = nanoseconds();
      rig.entry().initializedIs( true );
      rig.turnUntilIdle();
      result->seconds = static_cast<double>( nanoseconds() - start ) * 1e-9;
      rig.requireHosts( shape.hosts );
      result->engineMemory = static_cast<double>( privateMemory( getpid() ) ) - before;

      if( !shape.shared )
         return; // nobody uses the dests
      const uint64_t writes = rig.outputWrites();
      source.destIs( 1, 999 );
      rig.turnUntil( [ & ] { return rig.outputWrites() != writes; } );
      rig.turnUntilIdle();
      result->destWrites = static_cast<double>( rig.outputWrites() - writes );
   } );
   std::filesystem::remove_all( directory );
   return *result;
}

void sharedGroup( const Settings& settings, uint32_t hosts, int repetitions, Report& report ) {
   const std::string name = "objects/shared/" + std::to_string( hosts );
   if( !settings.wants( name ) )
      return;
   std::vector<double> sharedTimes, inlineTimes, relation;
   double writes = 0;
   for( int i = 0; i < repetitions; ++i ) {
      std::fprintf( stderr, "%s, %d of %d\n", name.c_str(), i + 1, repetitions );
      const SharedResult plain = runShared( settings.directory + "/objects", { hosts, false } );
      const SharedResult shared = runShared( settings.directory + "/objects", { hosts, true } );
      sharedTimes.push_back( shared.seconds / hosts * 1e9 );
      inlineTimes.push_back( plain.seconds / hosts * 1e9 );
      relation.push_back( ( shared.engineMemory - plain.engineMemory ) / hosts );
      writes = std::max( writes, shared.destWrites );
   }
   report.figure( name, "time a host", median( sharedTimes ), "ns" )
      .against( "inline", median( inlineTimes ), 1 / 1.5 );
   report.figure( name, "memory a host relation", median( relation ), "B" );
   report.figure( name, "output writes for one changed dest", writes, "writes" );
}

struct GroupsResult {
   double createSeconds;
   double withdrawSeconds;
   double objects;
};

void manyGroups( const Settings& settings, Report& report ) {
   const uint32_t groups = settings.size( 10'000 );
   const std::string name = "objects/groups/" + std::to_string( groups );
   if( !settings.wants( name ) )
      return;
   const uint32_t dests = std::max( 2 * groupSize, groups / 10 );
   std::vector<double> created, withdrawn;
   for( int i = 0; i < settings.repetitions( 5 ); ++i ) {
      const std::string directory = settings.directory + "/objects";
      Shared<GroupsResult> result;
      runInProcess( "engine", [ & ] {
         RigSource source( directory, groups, groups );
         for( uint32_t id = 1; id <= dests; ++id )
            source.destIs( id, id );
         for( uint32_t id = 1; id <= groups; ++id ) {
            source.lbIs( id, id, 1, dests, groupSize );
            source.hostIs( id, id );
         }
         EngineRig rig( directory, groups, groups, false );
         rig.turnUntilRunning();
         int64_t start = nanoseconds();
         rig.entry().initializedIs( true );
         rig.turnUntilIdle();
         result->createSeconds = static_cast<double>( nanoseconds() - start ) * 1e-9;
         rig.requireHosts( groups );
         result->objects = rig.engine().lbOutput()->count() + rig.engine().destOutput()->count();
         start = nanoseconds();
         rig.entry().initializedIs( false );
         rig.turnUntilIdle();
         result->withdrawSeconds = static_cast<double>( nanoseconds() - start ) * 1e-9;
         rig.requireHosts( 0 );
      } );
      std::filesystem::remove_all( directory );
      created.push_back( result->objects / result->createSeconds );
      withdrawn.push_back( result->objects / result->withdrawSeconds );
   }
   report.figure( name, "objects created per second", median( created ), "1/s", Better::higher );
   report.figure( name, "objects withdrawn per second", median( withdrawn ), "1/s",
                  Better::higher );
}

} // namespace

void benchObjects( const Settings& settings, Report& report ) {
   sharedGroup( settings, settings.size( 16'384 ), settings.repetitions( 9 ), report );
   sharedGroup( settings, settings.size( 100'000 ), settings.repetitions( 9 ), report );
   sharedGroup( settings, settings.size( 1'000'000 ), settings.repetitions( 9 ), report );
   manyGroups( settings, report );
}

} // namespace Bench
