// An engine on a real state directory, with its event loop, for the workloads that look at objects
// and restarts: sources in tables that were filled before, and output tables in files.
#pragma once

#include "bench/Harness.h"
#include "bench/Hosts.h"
#include "engine/L2RibPolicySm.h"
#include "runtime/StateDb.h"

#include <stdexcept>
#include <string>

namespace Bench {

constexpr L2Rib::Source rigSource = L2Rib::sourceBit6_;

// Where the tables of the rig's one source are.
inline std::string inputPath( const char* table ) {
   return std::string( "bridging/l2Rib/input/one/" ) + table;
}

class EngineRig {
 public:
   // The source is there from the start; it contributes when it is initialized. The engine adopts
   // whatever output the directory holds.
   EngineRig( const std::string& stateDirectory, uint32_t hosts, uint32_t objects,
              bool initialized )
      : em_( Vexil::makeEntity<Vexil::EntityManager>( loop_, stateDirectory ) ),
        sourceDir_( Vexil::makeEntity<Vexil::Directory>() ),
        entry_( Vexil::makeEntity<L2Rib::SourceDirEntry>( "one" ) ) {
      using namespace L2Rib;
      const auto write = HostOutput::Mode::write;
      PolicySm::Tables output;
      output.host = em_->mountTable<HostOutput>( Path::hostOutput, write, hosts );
      output.lb = em_->mountTable<LoadBalanceOutput>( Path::lbOutput,
                                                      LoadBalanceOutput::Mode::write, objects );
      output.label =
         em_->mountTable<LabelOutput>( Path::labelOutput, LabelOutput::Mode::write, objects );
      output.dest =
         em_->mountTable<DestOutput>( Path::destOutput, DestOutput::Mode::write, objects );
      output.flood = Vexil::makeEntity<FloodSetOutput>();
      output.status = Vexil::makeEntity<PolicySmStatus>();
      entry_->sourceIs( rigSource );
      entry_->hostTableTarnPathIs( inputPath( "host" ) );
      entry_->lbTableTarnPathIs( inputPath( "lb" ) );
      entry_->labelTableTarnPathIs( inputPath( "label" ) );
      entry_->destTableTarnPathIs( inputPath( "dest" ) );
      entry_->initializedIs( initialized );
      sourceDir_->entryIs( "one", entry_ );
      const int64_t start = nanoseconds();
      engine_ = Vexil::makeEntity<PolicySm>( em_, sourceDir_, Vexil::makeEntity<AgentSourceDir>(),
                                             output );
      construction_ = static_cast<double>( nanoseconds() - start ) * 1e-9;
   }
   // How long it took to make the engine, which adopts the output that it finds; in seconds.
   double construction() const { return construction_; }
   void sourceDel() { sourceDir_->entryDel( "one" ); }

   L2Rib::PolicySm& engine() { return *engine_; }
   L2Rib::SourceDirEntry& entry() { return *entry_; }

   // Turns the loop until done(); returns the longest turn, in seconds.
   template<class Done>
   double turnUntil( Done done ) {
      double longest = 0;
      while( !done() ) {
         const int64_t start = nanoseconds();
         loop_.turn();
         longest = std::max( longest, static_cast<double>( nanoseconds() - start ) * 1e-9 );
      }
      return longest;
   }
   double turnUntilRunning() {
      return turnUntil( [ this ] { return engine_->restartState() == L2Rib::running_; } );
   }
   double turnUntilIdle() {
      return turnUntil( [ this ] {
         return engine_->restartState() == L2Rib::running_ && engine_->hostList().empty() &&
                engine_->otasList().empty() && engine_->withdrawalChecksLeft() == 0;
      } );
   }
   uint64_t outputWrites() const {
      return engine_->hostOutput()->journalHead() + engine_->lbOutput()->journalHead() +
             engine_->labelOutput()->journalHead() + engine_->destOutput()->journalHead();
   }
   void requireHosts( uint32_t count ) const {
      if( engine_->hostOutput()->count() != count )
         throw std::runtime_error( "the output has " +
                                   std::to_string( engine_->hostOutput()->count() ) +
                                   " hosts instead of " + std::to_string( count ) );
   }

 private:
   Vexil::ActivityManager loop_;
   Vexil::Ptr<Vexil::EntityManager> em_;
   Vexil::Ptr<Vexil::Directory> sourceDir_;
   Vexil::Ptr<L2Rib::SourceDirEntry> entry_;
   Vexil::Ptr<L2Rib::PolicySm> engine_;
   double construction_ = 0;
};

// The rig's source, on the writing side.
class RigSource {
 public:
   RigSource( const std::string& stateDirectory, uint32_t hosts, uint32_t objects )
      : host_( file( stateDirectory, "host" ), L2Rib::HostInput::Mode::write, hosts ),
        lb_( file( stateDirectory, "lb" ), L2Rib::LoadBalanceTable::Mode::write, objects ),
        label_( file( stateDirectory, "label" ), L2Rib::LabelTable::Mode::write, objects ),
        dest_( file( stateDirectory, "dest" ), L2Rib::DestTable::Mode::write, objects ) {}

   void destIs( uint64_t id, uint64_t interface ) {
      L2Rib::Dest dest{ L2Rib::DestId( id ) };
      dest.intfIs( { interface } );
      require( dest_.destIs( dest ) );
      dest_.ring();
   }
   // A group of `size` dests: first, first + step, ...
   void lbIs( uint64_t id, uint64_t first, uint64_t step, uint64_t modulus, uint32_t size ) {
      L2Rib::LoadBalance lb{ L2Rib::LoadBalanceId( id ) };
      for( uint32_t at = 0; at < size; ++at )
         lb.nextIs( L2Rib::EcmpIndex( at ),
                    L2Rib::ObjTuple( L2Rib::DestId( 1 + ( first + at * step ) % modulus ) ) );
      require( lb_.lbIs( lb ) );
   }
   void hostIs( uint32_t number ) { require( host_.hostIs( hostOf( number, 100 ) ) ); }
   void hostIs( uint32_t number, uint64_t group ) {
      L2Rib::Host host = hostOf( number, 100 );
      host.ciDestIs( L2Rib::CiDest() );
      host.nextIs( L2Rib::ObjTuple( L2Rib::LoadBalanceId( group ) ) );
      require( host_.hostIs( host ) );
   }

 private:
   static std::string file( const std::string& stateDirectory, const char* table ) {
      return stateDirectory + "/" + inputPath( table );
   }
   static void require( bool done ) {
      if( !done )
         throw std::runtime_error( "a source's table is full" );
   }

   L2Rib::HostInput host_;
   L2Rib::LoadBalanceTable lb_;
   L2Rib::LabelTable label_;
   L2Rib::DestTable dest_;
};

} // namespace Bench
