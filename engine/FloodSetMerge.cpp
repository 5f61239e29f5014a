// Flood-set merging: a destination is in the output flood set of (VLAN, MAC) exactly when a ready
// source has it in its own.
//
// Changed members wait in a backlog, which is processed on a timer in slices of at most
// floodReviewQuantum seconds. The backlog is a set: a burst of changes of one member costs one
// evaluation. A member that finds no room in the output is parked, and tried again like a failed
// host.
#include "engine/L2RibPolicySm.h"
#include "engine/PolicyTrace.h"
#include "engine/SliceWalk.h"

#include <utility>

namespace L2Rib {

void PolicySm::floodSetTimerIs( Ptr<Vexil::Clock> clock ) {
   floodSetTimer_.emplace( std::move( clock ), [ this ] { processFloodSetBacklog(); } );
}

void PolicySm::setFloodSetTimer() { floodSetTimer_->timeMinIs( 0 ); }

void PolicySm::expectFloodMembers( size_t count ) {
   floodSetBacklog_.reserve( floodSetBacklog_.size() + count );
}

void PolicySm::processFloodSetBacklog() {
   TRACE( 0, __PRETTY_FUNCTION__ << " floodSet length: " << floodSetBacklog().size() );
   floodSetTimer_->timeMinIs( Vexil::never );
   const Seconds deadline = clock_->now() + floodReviewQuantum();
   if( !floodSetBookmarkValid() &&
       awaited_.retryDue( Awaited::floodBacklog, output_.freeRows() ) ) {
      floodRetried_ = true;
      retries_ += failedFloodSet_.size();
      for( const auto& failed : failedFloodSet_ )
         floodSetBacklogIs( failed.value, true );
      failedFloodSet_.clear();
   }
   const auto slice =
      walkSlice( floodSetBacklog(), floodSetBookmarkValid() ? floodSetBookmark() : FloodSetTriple(),
                 *clock_, deadline, [ this ]( const FloodSetTriple& triple ) {
                    const bool anyParked = !awaited_.empty();
                    if( anyParked )
                       failedFloodSet_.erase( Awaited::keyOf( triple ) );
                    handleFloodSetDest( triple.vlan(), triple.mac(), triple.dest() );
                    floodSetBacklogDel( triple );
                    if( anyParked && !failedFloodSet_.contains( Awaited::keyOf( triple ) ) )
                       awaited_.mended( Awaited::keyOf( triple ) );
                 } );
   floodSetBookmarkValidIs( !slice.atEnd );
   const bool again = slice.atEnd && awaited_.passEnded( Awaited::floodBacklog,
                                                         std::exchange( floodRetried_, false ),
                                                         output_.freeRows() );
   if( !slice.atEnd ) {
      TRACE( 0, __PRETTY_FUNCTION__ << " processed " << slice.count << " from backlog" );
      floodSetBookmarkIs( slice.bookmark );
   }
   if( again || !floodSetBacklog().empty() ) // the rest, or what came in behind the walk
      floodSetTimer_->timeMinIs( 0 );
}

void PolicySm::handleFloodSetDest( const Bridging::VlanId& vlan, const Vexil::EthAddr& mac,
                                   const Dest& dest ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " vlan: " << vlan << " mac: " << mac << " dest: " << dest );
   VEXIL_ASSERT( dest.key() == Util::destIdNotInTarn() );
   for( const PolicySourceSm* sm : sourceOrder_ ) {
      if( !sm->ready() )
         continue;
      const auto sets = sm->source()->vlanFloodSet( vlan );
      const auto ifs = sets ? sets->floodSet( mac ) : nullptr;
      if( !ifs || !ifs->destSet( dest ) )
         continue;
      VEXIL_ASSERT( ifs->floodSetType() != floodSetTypeInvalid_ );
      if( !hasFloodRoom( vlan, mac, dest ) )
         return;
      const auto outSet = output_.flood->vlanFloodSetIs( vlan )->floodSetIs( mac );
      outSet->floodSetTypeIs( ifs->floodSetType() );
      outSet->destSetIs( dest, true );
      return;
   }
   // No ready source has it: out of the output with it, and with what it leaves empty.
   const auto outSets = output_.flood->vlanFloodSet( vlan );
   if( !outSets )
      return;
   if( const auto outSet = outSets->floodSet( mac ) ) {
      outSet->destSetDel( dest );
      TRACE( 0, __PRETTY_FUNCTION__ << " deleting " << dest << " in " << vlan << "/" << mac );
      if( outSet->destSet().empty() ) {
         outSets->floodSetDel( mac );
         TRACE( 0, __PRETTY_FUNCTION__ << " deleting output FloodSet for " << vlan << "/" << mac );
      }
   }
   if( outSets->floodSet().empty() ) {
      output_.flood->vlanFloodSetDel( vlan );
      TRACE( 0, __PRETTY_FUNCTION__ << " deleting output VlanFloodSet for " << vlan );
   }
}

// Whether the member is in the output or finds room there; parks it when it does not.
bool PolicySm::hasFloodRoom( const Bridging::VlanId& vlan, const Vexil::EthAddr& mac,
                             const Dest& dest ) {
   const auto outSets = output_.flood->vlanFloodSet( vlan );
   const auto outSet = outSets ? outSets->floodSet( mac ) : nullptr;
   if( outSet && outSet->destSet( dest ) )
      return true;
   const Vexil::Room room = output_.flood->makeRoom();
   if( room == Vexil::Room::yes )
      return true;
   const FloodSetTriple member( vlan, mac, dest );
   TRACE( 8, "handleFloodSetDest no room in output for " << member );
   const ParkedKey key = Awaited::keyOf( member );
   failedFloodSet_.emplace( key, member );
   awaited_.parked( key, sourceNone_, noRoom( outputTableFlood_, room, output_.flood->capacity() ),
                    clock_->now() );
   return false;
}

void PolicySm::setFloodSetOutputType() {
   TRACE( 0, __PRETTY_FUNCTION__ );
   unsigned mask = 0;
   for( const PolicySourceSm* sm : sourceOrder_ )
      if( sm->source()->initialized() ) {
         TRACE( 0,
                "setFloodSetOutputType adding " << entryStr( sm->source().get() ) << " to type." );
         mask |= static_cast<unsigned>( sm->sourceEnum() );
      }
   TRACE( 0, "setFloodSetOutputType" << std::hex << " new source is " << mask << ", old is "
                                     << ( output_.flood ? output_.flood->source() : 0 ) );
   if( output_.flood )
      output_.flood->sourceIs( mask );
}

} // namespace L2Rib
