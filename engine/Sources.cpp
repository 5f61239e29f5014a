// The sources: which state machines exist, and what becomes of a source that vanishes.
//
// A source that vanishes leaves its hosts in the output: it is likely to come back, and readers
// should not notice. They are examined when it is back and has replayed its tables, or when
// sourceHoldTime has passed: each output host that stems from it is queued for review, and the
// review withdraws what no source has any more.
#include "engine/L2RibPolicySm.h"
#include "engine/PolicyTrace.h"
#include "engine/SliceWalk.h"
#include "engine/SourceReactors.h"

#include <algorithm>

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
   sourceSmByEnum_.erase( source );
   forgetOtasOf( source );
   heldUntil_[ source ] = clock_->now() + sourceHoldTime();
   holdTimer_.timeMinIs( std::min( holdTimer_.timeMin(), heldUntil_[ source ] ) );
}

// Nobody can say any more what these objects are. Copies that are in the output stay; an id that
// was given to one that never got there has been kept for the next try.
void PolicySm::forgetOtasOf( Source source ) {
   for( const auto& [ tableType, manager ] : tupleManager_ )
      for( auto at = manager->inputToOutput().begin(); at != manager->inputToOutput().end(); ++at )
         if( const auto [ otas, ot ] = *at; otas.source() == source )
            forgetUnwritten( otas, hasOutputRow( ot ) );
   for( auto at = otasList_.begin(); at != otasList_.end(); ++at )
      if( at->key.source() == source )
         otasListDel( at->key );
   failingOtas_.forget(
      [ & ]( const ObjTupleAndSource& otas ) { return otas.source() == source; } );
   for( auto at = failedOtas_.begin(); at != failedOtas_.end(); ++at )
      if( at->key.source() == source )
         failedOtasDel( at->key );
}

void PolicySm::handleSourceReplayed( Source source ) {
   if( heldUntil_.contains( source ) )
      endHold( source );
}

void PolicySm::endHold( Source source ) {
   heldUntil_.erase( source );
   reviewHostsOf( source );
}

void PolicySm::handleHoldTimer() {
   const Seconds now = clock_->now();
   Seconds next = Vexil::never;
   for( const auto held = heldUntil_; const auto& [ source, until ] : held ) {
      if( until <= now )
         endHold( source );
      else
         next = std::min( next, until );
   }
   holdTimer_.timeMinIs( next );
}

void PolicySm::reviewHostsOf( Source source ) {
   withdrawing_.emplace( source );
   withdrawalSlot_ = 0; // for all of them, from the start
   withdrawalVlan_ = Bridging::VlanId();
   withdrawalTimer_.timeMinIs( 0 );
}

uint64_t PolicySm::withdrawalChecksLeft() const {
   if( withdrawing_.empty() )
      return 0;
   const uint32_t slots = output_.host->slotCount();
   return slots - std::min( withdrawalSlot_, slots ) + output_.flood->vlanFloodSet().size() + 1;
}

// A slice of the two walks, over the host output in memory order and over the flood output. Which
// source a flood member stems from is not recorded, so all members are judged anew.
void PolicySm::handleWithdrawalTimer() {
   if( withdrawing_.empty() ) // the timer's first firing
      return;
   const Seconds deadline = clock_->now() + reviewQuantum();
   if( queueHostsOfVanished( deadline ) && queueFloodMembers( deadline ) )
      withdrawing_.clear();
   else
      withdrawalTimer_.timeMinIs( 0 );
}

// Returns whether the walk is at its end.
bool PolicySm::queueHostsOfVanished( Seconds deadline ) {
   constexpr uint32_t step = 256; // slots between two looks at the clock
   while( withdrawalSlot_ < output_.host->slotCount() ) {
      const auto row = output_.host->inSlot( withdrawalSlot_++ );
      if( row && withdrawing_.contains( row->source() ) )
         handleHost( row->key() );
      if( withdrawalSlot_ % step == 0 && clock_->now() > deadline )
         return false;
   }
   return true;
}

bool PolicySm::queueFloodMembers( Seconds deadline ) {
   const auto slice = walkSlice( output_.flood->vlanFloodSet(), withdrawalVlan_, *clock_, deadline,
                                 [ this ]( const Bridging::VlanId& vlan ) {
                                    queueFloodSets( vlan, *output_.flood->vlanFloodSet( vlan ) );
                                 } );
   withdrawalVlan_ = slice.bookmark;
   return slice.atEnd;
}

} // namespace L2Rib
