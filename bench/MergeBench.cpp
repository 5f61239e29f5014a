// merge: what the engine makes of three sources that hold the same keys, phase by phase, beside
// BIRD with the same routes; and how long the event loop is held meanwhile.
#include "bench/Bird.h"
#include "bench/Harness.h"
#include "bench/MergeEngine.h"
#include "bench/Report.h"

#include <cstdio>
#include <filesystem>

namespace Bench {

namespace {

template<class Result, class Value>
double medianOf( const std::vector<Result>& runs, Value value ) {
   std::vector<double> values;
   for( const Result& run : runs )
      values.push_back( value( run ) );
   return median( values );
}

template<class Result, class Value>
double maximumOf( const std::vector<Result>& runs, Value value ) {
   double most = 0;
   for( const Result& run : runs )
      for( const auto& phase : run.phase )
         most = std::max( most, value( phase ) );
   return most;
}

class MergeReport {
 public:
   MergeReport( Report& report, const std::string& name, uint32_t keys,
                const std::vector<MergeResult>& ours, const std::vector<BirdResult>& birds )
      : report_( report ), name_( name ), keys_( keys ), ours_( ours ), birds_( birds ) {}

   void add() {
      for( size_t phase = 0; phase < phaseCount; ++phase )
         addPhase( phase );
      addMemory();
      addHolds();
   }

 private:
   void addPhase( size_t phase ) {
      const std::string name = name_ + "/" + phaseName[ phase ];
      report_.figure(
         name, "hosts per second",
         medianOf( ours_,
                   [ & ]( const MergeResult& run ) { return keys_ / run.phase[ phase ].seconds; } ),
         "1/s", Better::higher );
      rival( 2, [ & ]( const BirdResult& run ) { return keys_ / run.phase[ phase ].seconds; } );
      report_.figure( name, "processor time a host",
                      medianOf( ours_,
                                [ & ]( const MergeResult& run ) {
                                   return run.phase[ phase ].processor / keys_ * 1e9;
                                } ),
                      "ns" );
      rival(
         2, [ & ]( const BirdResult& run ) { return run.phase[ phase ].processor / keys_ * 1e9; } );
   }

   void addMemory() {
      report_.figure( name_, "memory a key",
                      medianOf( ours_,
                                [ & ]( const MergeResult& run ) {
                                   return ( run.outputBytes + run.engineBytes ) / keys_;
                                } ),
                      "B" );
      rival( 1, [ & ]( const BirdResult& run ) { return run.tableBytes / keys_; } );
      report_.figure( name_, "with inputs",
                      medianOf( ours_,
                                [ & ]( const MergeResult& run ) {
                                   return ( run.outputBytes + run.engineBytes + run.inputBytes ) /
                                          keys_;
                                } ),
                      "B" );
      rival( 1, [ & ]( const BirdResult& run ) { return run.allBytes / keys_; } );
      report_.figure( name_, "of mappings in huge pages",
                      medianOf( ours_,
                                []( const MergeResult& run ) {
                                   return run.mappedHugeBytes / run.mappedBytes * 100;
                                } ),
                      "%" );
   }

   void addHolds() {
      report_.figure(
         name_, "longest slice",
         maximumOf( ours_, []( const PhaseResult& phase ) { return phase.slice; } ) * 1e3, "ms" );
      report_.figure(
         name_, "longest replay",
         maximumOf( ours_, []( const PhaseResult& phase ) { return phase.replay; } ) * 1e3, "ms" );
      report_.figure( name_, "longest hold",
                      maximumOf( ours_,
                                 []( const PhaseResult& phase ) {
                                    return std::max( phase.slice, phase.replay );
                                 } ) *
                         1e3,
                      "ms" );
      if( birds_.empty() )
         report_.againstAbsent( "bird" );
      else
         report_.against(
            "bird",
            maximumOf( birds_, []( const BirdPhase& phase ) { return phase.silence; } ) * 1e3 );
   }

   template<class Value>
   void rival( double target, Value value ) {
      if( birds_.empty() )
         report_.againstAbsent( "bird" );
      else
         report_.against( "bird", medianOf( birds_, value ), target );
   }

   Report& report_;
   std::string name_;
   double keys_;
   const std::vector<MergeResult>& ours_;
   const std::vector<BirdResult>& birds_;
};

void mergeOfSize( const Settings& settings, uint32_t keys, int repetitions, Report& report ) {
   const std::string name = "merge/" + std::to_string( keys );
   if( !settings.wants( name ) )
      return;
   const std::string folder = settings.directory + "/merge";
   fillSources( folder, keys );
   std::vector<MergeResult> ours;
   std::vector<BirdResult> birds;
   for( int i = 0; i < repetitions; ++i ) {
      std::fprintf( stderr, "merge of %u keys, %d of %d\n", keys, i + 1, repetitions );
      ours.push_back( runEngine( folder, keys ) );
      if( birdInstalled() )
         birds.push_back( runBird( settings.directory + "/bird", keys ) );
   }
   std::filesystem::remove_all( folder );
   std::filesystem::remove_all( settings.directory + "/bird" );
   MergeReport( report, name, keys, ours, birds ).add();
}

} // namespace

void benchMerge( const Settings& settings, Report& report ) {
   mergeOfSize( settings, settings.size( 16'384 ), settings.repetitions( 9 ), report );
   mergeOfSize( settings, settings.size( 100'000 ), settings.repetitions( 5 ), report );
   mergeOfSize( settings, settings.size( 1'000'000 ), settings.repetitions( 3 ), report );
}

} // namespace Bench
