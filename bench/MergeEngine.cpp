#include "bench/MergeEngine.h"

#include "bench/Harness.h"
#include "bench/Hosts.h"
#include "bench/Machine.h"
#include "engine/L2RibPolicySm.h"
#include "runtime/StateDb.h"

#include <filesystem>
#include <stdexcept>
#include <unistd.h>

namespace Bench {

namespace {

using Vexil::makeEntity;
using Vexil::Ptr;

constexpr int sourceCount = 3;
constexpr std::array<L2Rib::Source, sourceCount> sourceOf{ L2Rib::sourceBit30_, L2Rib::sourceBit8_,
                                                           L2Rib::sourceBit6_ };
struct Step {
   int source; // whose `initialized` changes
   bool initialized;
   int winner; // whose rows fill the output afterwards
};
constexpr std::array<Step, phaseCount> steps{
   { { 0, true, 0 }, { 1, true, 1 }, { 2, true, 2 }, { 2, false, 1 }, { 2, true, 2 } } };

std::string hostPath( int source ) { return "bridging/l2Rib/input/s" + std::to_string( source ); }

class MergeRig {
 public:
   MergeRig( const std::string& stateDirectory, uint32_t keys )
      : keys_( keys ), em_( makeEntity<Vexil::EntityManager>( loop_, stateDirectory ) ),
        sourceDir_( makeEntity<Vexil::Directory>() ) {
      using namespace L2Rib;
      const auto write = HostOutput::Mode::write;
      PolicySm::Tables output;
      output.host = em_->mountTable<HostOutput>( Path::hostOutput, write, keys );
      output.lb =
         em_->mountTable<LoadBalanceOutput>( Path::lbOutput, LoadBalanceOutput::Mode::write, 64 );
      output.label =
         em_->mountTable<LabelOutput>( Path::labelOutput, LabelOutput::Mode::write, 64 );
      output.dest = em_->mountTable<DestOutput>( Path::destOutput, DestOutput::Mode::write, 64 );
      output.flood = makeEntity<FloodSetOutput>();
      output.status = makeEntity<PolicySmStatus>();
      for( int i = 0; i < sourceCount; ++i )
         enterSource( i );
      engine_ = makeEntity<PolicySm>( em_, sourceDir_, makeEntity<AgentSourceDir>(), output );
      while( engine_->restartState() != L2Rib::running_ )
         loop_.turn( 0 );
   }

   // How many slices a pass takes depends on the machine; one always takes the same instructions.
   void reviewInOneSlice() { engine_->reviewQuantumIs( 3600 ); }

   [[gnu::noinline]] PhaseResult run( const Step& step ) {
      const uint64_t writesBefore = engine_->hostOutput()->journalHead();
      PhaseResult result{};
      const double processorBefore = processorSeconds();
      const int64_t start = nanoseconds();
      entry_[ step.source ]->initializedIs( step.initialized );
      const int64_t replayed = nanoseconds();
      notePrivateMemory(); // the work list is at its longest now
      const int64_t looking = nanoseconds() - replayed;
      while( !settled() ) {
         const int64_t turnStart = nanoseconds();
         loop_.turn();
         result.slice =
            std::max( result.slice, static_cast<double>( nanoseconds() - turnStart ) * 1e-9 );
      }
      const int64_t end = nanoseconds();
      result.processor = processorSeconds() - processorBefore;
      result.seconds = static_cast<double>( end - start - looking ) * 1e-9;
      result.replay = static_cast<double>( replayed - start ) * 1e-9;
      verify( step, engine_->hostOutput()->journalHead() - writesBefore );
      return result;
   }

   // The last source of the phases gives so many of its hosts another preference. The work list has
   // the room of an earlier burst, as it has in an agent that is at work for a while.
   [[gnu::noinline]] void change( const std::string& stateDirectory, uint32_t changes ) {
      engine_->expectHosts( changes );
      const int source = steps.back().winner;
      const uint32_t pref = 1000, last = changes - 1;
      runInProcess( "source", [ & ] {
         L2Rib::HostInput table( stateDirectory + "/" + hostPath( source ),
                                 L2Rib::HostInput::Mode::write, keys_ );
         for( const uint32_t number : shuffled( changes, 9 ) )
            if( !table.hostIs( hostOf( number, pref ) ) )
               throw std::runtime_error( "merge: a source's table is full" );
         table.ring();
      } );
      while( !settled() || engine_->hostOutput()->get( keyOf( last ) ).host().pref() != pref )
         loop_.turn();
   }

   double mostPrivateMemory() {
      notePrivateMemory();
      return static_cast<double>( mostPrivate_ );
   }

 private:
   void enterSource( int number ) {
      const std::string name = "source" + std::to_string( number );
      const auto entry = makeEntity<L2Rib::SourceDirEntry>( name );
      entry->sourceIs( sourceOf[ static_cast<size_t>( number ) ] );
      entry->hostTableTarnPathIs( hostPath( number ) );
      entry->hostTableLenIs( keys_ );
      sourceDir_->entryIs( name, entry );
      entry_[ number ] = entry;
   }
   bool settled() const {
      return engine_->hostList().empty() && engine_->withdrawalChecksLeft() == 0;
   }
   void notePrivateMemory() { mostPrivate_ = std::max( mostPrivate_, privateMemory( getpid() ) ); }

   // Every row is the winner's, there are as many as keys, and each was written exactly once.
   void verify( const Step& step, uint64_t writes ) const {
      uint32_t rows = 0;
      engine_->hostOutput()->forEach( [ & ]( const L2Rib::HostAndSource& row ) {
         rows += row.source() == sourceOf[ static_cast<size_t>( step.winner ) ];
      } );
      if( rows != keys_ || writes != keys_ )
         throw std::runtime_error( "merge: " + std::to_string( rows ) + " right rows and " +
                                   std::to_string( writes ) + " writes for " +
                                   std::to_string( keys_ ) + " keys" );
   }

   uint32_t keys_;
   Vexil::ActivityManager loop_;
   Ptr<Vexil::EntityManager> em_;
   Ptr<Vexil::Directory> sourceDir_;
   Ptr<L2Rib::SourceDirEntry> entry_[ sourceCount ];
   Ptr<L2Rib::PolicySm> engine_;
   uint64_t mostPrivate_ = 0;
};

} // namespace

void fillSources( const std::string& stateDirectory, uint32_t keys ) {
   runInProcess( "sources", [ & ] {
      for( int i = 0; i < sourceCount; ++i ) {
         L2Rib::HostInput table( stateDirectory + "/" + hostPath( i ),
                                 L2Rib::HostInput::Mode::write, keys );
         for( const uint32_t number : shuffled( keys, static_cast<uint32_t>( 1 + i ) ) )
            if( !table.hostIs( hostOf( number, static_cast<uint32_t>( 100 + 10 * i ) ) ) )
               throw std::runtime_error( "merge: a source's table is full" );
      }
   } );
}

void runPhasesAndChanges( const std::string& stateDirectory, uint32_t keys, uint32_t changes ) {
   MergeRig rig( stateDirectory, keys );
   rig.reviewInOneSlice();
   for( const Step& step : steps )
      rig.run( step );
   rig.change( stateDirectory, changes );
}

MergeResult runEngine( const std::string& stateDirectory, uint32_t keys ) {
   const std::string output = stateDirectory + "/" + L2Rib::Path::hostOutput;
   std::filesystem::remove( output );
   Shared<MergeResult> result;
   runInProcess( "engine", [ & ] {
      const auto atStart = static_cast<double>( privateMemory( getpid() ) );
      MergeRig rig( stateDirectory, keys );
      for( size_t phase = 0; phase < phaseCount; ++phase )
         result->phase[ phase ] = rig.run( steps[ phase ] );
      result->engineBytes = rig.mostPrivateMemory() - atStart;
      const Mapped mapped = mappedUnder( stateDirectory );
      result->mappedBytes = static_cast<double>( mapped.resident );
      result->mappedHugeBytes = static_cast<double>( mapped.huge );
   } );
   result->outputBytes = static_cast<double>( residentOf( output ) );
   for( int i = 0; i < sourceCount; ++i )
      result->inputBytes +=
         static_cast<double>( residentOf( stateDirectory + "/" + hostPath( i ) ) );
   return *result;
}

} // namespace Bench
