// The sources: which state machines exist, and what becomes of a source that vanishes.
//
// A source that vanishes leaves its hosts and flood members in the output. They are examined when
// it is back and has replayed its tables, or when its hold is over (VanishedSources): then all of
// the output is queued for review (OutputSweep), and the review withdraws what no source has any
// more.
#include "engine/L2RibPolicySm.h"
#include "engine/PolicyTrace.h"
#include "engine/SourceReactors.h"

#include <sstream>

namespace L2Rib {

Vexil::Ptr<PolicySourceSm> PolicySm::sourceSm( const std::string& name ) const {
   const Ptr<PolicySourceSm>* found = sourceSm_.find( name );
   return found ? *found : nullptr;
}

Vexil::Ptr<PolicySourceSm> PolicySm::sourceSmByEnum( Source source ) const {
   const Ptr<PolicySourceSm>* found = sourceSmByEnum_.find( source );
   return found ? *found : nullptr;
}

void PolicySm::sourceSmByEnumIs( Source source, Ptr<PolicySourceSm> sm ) {
   sourceSmByEnum_.emplace( source, std::move( sm ) );
}

void PolicySm::sourceDirIs( Ptr<const Vexil::Directory> sourceDir ) {
   sourceDir_ = std::move( sourceDir );
   sourceDirReactor_ = std::make_unique<SourceDirReactor>( sourceDir_, *this );
}

void PolicySm::agentSourceDirIs( Ptr<const AgentSourceDir> agentSourceDir ) {
   agentSourceDir_ = std::move( agentSourceDir );
   agentSourceDirReactor_ = std::make_unique<AgentSourceDirReactor>( agentSourceDir_, *this );
}

void PolicySm::handleSource() {
   TRACE( 0, __PRETTY_FUNCTION__ );
   if( !initialized_ )
      return;
   for( const auto& entry : sourceDir_->entry() )
      handleSource( entry.key );
   for( const auto& entry : agentSourceDir_->source() )
      handleSource( entry.key );
}

void PolicySm::handleSource( const std::string& sourceName ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << sourceName );
   if( !initialized_ )
      return;
   const Ptr<Vexil::Entity> found = sourceDir_->entry( sourceName );
   const auto* const externalSource = dynamic_cast<const SourceDirEntry*>( found.get() );
   const Ptr<SourceDirEntry> agentSource = agentSourceDir_->source( sourceName );
   Ptr<const SourceDirEntry> entry;
   const char* type = "None";
   if( agentSource ) {
      VEXIL_ASSERT( !externalSource );
      entry = agentSource;
      type = "agent";
   } else if( externalSource ) {
      entry = externalSource;
      type = "external";
   }
   TRACE( 1, "handleSource SDE for " << sourceName << " is " << entryStr( entry.get() )
                                     << " type is " << type );
   Ptr<PolicySourceSm> sm = sourceSm( sourceName );
   if( !entry ) {
      TRACE( 1, "handleSource no sourceDirEntry found for " << sourceName );
      if( sm ) {
         TRACE( 1, "handleSource deleting SM" );
         sourceSmDel( sourceName );
         setFloodSetOutputType();
      }
      return;
   }
   if( sm ) {
      TRACE( 1, "handleSource found SM for " << sourceName << " checking for changes" );
      VEXIL_ASSERT( sm->source()->name() == sourceName );
      if( sm->source() == entry &&
          sm->source()->hostTableTarnPath() == entry->hostTableTarnPath() &&
          sm->source()->hostTableLen() == entry->hostTableLen() &&
          sm->source()->source() == entry->source() ) {
         TRACE( 1, "handleSource no change in source" );
         return;
      }
      TRACE( 1, "handleSource source has changed, deleting and recreating SM" );
      sourceSmDel( sourceName );
   }
   TRACE( 1, "handleSource creating SM for " << sourceName );
   sm = sourceSmIs( sourceName, entry, this, entityManager_ );
   setFloodSetOutputType();
   VEXIL_ASSERT( sm );
   TRACE( 1, "handleSource SM is " << sm->name() << " total SMs now is " << sourceSm_.size() );
}

Vexil::Ptr<PolicySourceSm> PolicySm::sourceSmIs( const std::string& name,
                                                 Ptr<const SourceDirEntry> source,
                                                 PolicySm* policySm,
                                                 Ptr<Vexil::EntityManager> entityManager ) {
   if( !source || !entityManager || !policySm )
      throw Vexil::MutatorFailure( "null ValidPtr" );
   if( const Ptr<PolicySourceSm> present = sourceSm( name ) ) {
      const auto refuseOther = []( const char* attribute, const void* given, const void* current ) {
         if( given == current )
            return;
         std::ostringstream text;
         text << "Reinstantiating the pointer interface where constructor parameter attribute "
              << attribute << " has a different value of " << given << " than the current value of "
              << current << " not allowed";
         throw Vexil::MutatorFailure( text.str() );
      };
      refuseOther( "_source", source.get(), present->source().get() );
      refuseOther( "_policySm", policySm, present->policySm() );
      refuseOther( "_entityManager", entityManager.get(), present->entityManager().get() );
      return present;
   }
   const auto sm = Vexil::makeEntity<PolicySourceSm>( name, source, policySm, entityManager );
   sourceSm_.emplace( name, sm );
   sourceOrder_.clear();
   for( const auto& entry : sourceSm_ )
      sourceOrder_.push_back( entry.value.get() );
   sm->handleInitialized();
   return sm;
}

void PolicySm::sourceSmDel( const std::string& name ) {
   const Ptr<PolicySourceSm> sm = sourceSm( name );
   std::erase( sourceOrder_, sm.get() );
   sourceSm_.erase( name );
   for( auto at = sourceSmByEnum_.begin(); at != sourceSmByEnum_.end(); ++at )
      if( at->value == sm )
         sourceSmByEnumDel( Source( at->key ) );
}

void PolicySm::sourceSmByEnumDel( Source source ) {
   const Ptr<PolicySourceSm> leaving = sourceSmByEnum( source );
   sourceSmByEnum_.erase( source );
   if( !leaving )
      return;
   if( leaving->ready() ) {
      vanished_.sourceIs( source, leaving->source(), clock_->now(), sourceHoldTime() );
      holdTimer_.timeMinIs( vanished_.nextEnd() );
   } else { // it has said that its tables count no more, and is held for nothing
      reviewOutput();
   }
}

void PolicySm::handleSourceReplayed( Source source ) {
   if( vanished_.sourceDel( source ) )
      reviewOutput();
}

void PolicySm::handleHoldTimer() {
   if( vanished_.endHolds( clock_->now() ) )
      reviewOutput();
   holdTimer_.timeMinIs( vanished_.nextEnd() );
}

void PolicySm::reviewOutput() {
   sweep_.request();
   sweepTimer_.timeMinIs( 0 );
}

// The review works off what a slice queues, often in the same turn: so this one is the shorter.
void PolicySm::handleSweepTimer() {
   if( sweep_.work( clock_->now() + reviewQuantum() / 5 ) )
      sweepTimer_.timeMinIs( 0 );
}

} // namespace L2Rib
