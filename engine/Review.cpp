// The review: working off what changed, in slices, and trying again what failed.
//
// A pass begins when no bookmark is set. It consists of slices of at most reviewQuantum seconds,
// each armed by the one before, hosts first, then objects.
//
// The parked entries join a pass at its beginning, all of them or none: when the hammer timer has
// ticked since they were tried last, or when something came that one of them waits for (Awaited).
// Were they to join every pass, a busy source would have all of them tried again with each of its
// changes; were they to wait for the hammer timer alone, a missing object that has come would bring
// its hosts in only seconds later.
#include "engine/L2RibPolicySm.h"
#include "engine/PolicyTrace.h"
#include "engine/SliceWalk.h"

#include <utility>

namespace L2Rib {

void PolicySm::maybeRescheduleHostReview() {
   TRACE( 0, __PRETTY_FUNCTION__ << " restartState is " << restartState() << " host length: "
                                 << hostList().size() << " otas length: " << otasList().size() );
   if( restartState() != running_ || ( hostList().empty() && otasList().empty() ) )
      return;
   TRACE( 1, "maybeRescheduleHostReview rescheduling host review." );
   reviewTimer_.timeMinIs( 0 );
}

void PolicySm::foundFailedHost( const Bridging::MacVlanPair& mvp ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << mvpStr( mvp ) );
   failedHostIs( mvp, true );
   awaited_.parked( Awaited::keyOf( mvp ), obstructed_, obstacle_, clock_->now() );
}

void PolicySm::foundFailedOtas( const ObjTupleAndSource& otas ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas );
   failedOtasIs( otas, true );
   awaited_.parked( Awaited::keyOf( otas ), otas.source(), obstacle_, clock_->now() );
}

void PolicySm::handleReviewTimer() {
   TRACE( 0, __PRETTY_FUNCTION__ << " host length: " << hostList().size()
                                 << " otas length: " << otasList().size() );
   reviewTimer_.timeMinIs( Vexil::never );
   const Seconds start = clock_->now();
   if( restartState() != running_ ) {
      TRACE( 0, "handleReviewTimer initial sync still running." );
      return;
   }
   const Seconds deadline = start + reviewQuantum();
   if( hostBookmark() == Util::mvpInvalid() && parkedToLists() )
      retried_ = true;

   hostsAhead_.clear();
   const auto hosts = walkSlice(
      hostList(), hostBookmark(), *clock_, deadline,
      [ & ]( const Bridging::MacVlanPair& mvp ) {
         TRACE( 0, "handleReviewTimer looking at host " << mvpStr( mvp ) );
         const bool ok = processHost( mvp );
         hostListDel( mvp );
         if( !otForZeroRefCleanup().empty() )
            cleanUpUnused();
         if( ok ) {
            failedHostDel( mvp );
            awaited_.mended( Awaited::keyOf( mvp ) );
         } else {
            TRACE( 8, "handleReviewTimer processing failure on " << mvpStr( mvp ) );
            VEXIL_ASSERT( failedHost( mvp ) );
         }
      },
      [ & ]( const Bridging::MacVlanPair& mvp ) { prefetchHost( mvp ); } );
   hostBookmarkIs( hosts.bookmark );
   if( hosts.timedOut ) {
      TRACE( 0, "handleReviewTimer ending review run after " << hosts.count << " hosts" );
      if( hosts.atEnd )
         TRACE( 0, "handleReviewTimer host check complete (at timeout) with " << hosts.count
                                                                              << " hosts" );
   } else {
      TRACE( 0, "handleReviewTimer host check complete with " << hosts.count << " hosts" );
      if( reviewOtas( deadline ) )
         endPass();
   }
   maybeRescheduleHostReview();
}

namespace {

// Moves all keys of from into to: the fewer into the more.
template<class Set>
void moveAll( Set& from, Set& to ) {
   if( to.size() < from.size() )
      std::swap( from, to );
   for( const auto& entry : from )
      to.emplace( entry.key );
   from.clear();
}

} // namespace

// The start of a pass: what failed before is tried again, if there is a reason to. Returns whether
// it is.
bool PolicySm::parkedToLists() {
   if( !awaited_.retryDue( Awaited::review, output_.freeRows() ) )
      return false;
   retries_ += failedHost_.size() + failedOtas_.size();
   memo_.failedDelAll();
   moveAll( failedHost_, hostList_ );
   moveAll( failedOtas_, otasList_ );
   return true;
}

// Returns whether the walk is at its end.
bool PolicySm::reviewOtas( Seconds deadline ) {
   const auto objects = walkSlice(
      otasList(), otasBookmark(), *clock_, deadline, [ & ]( const ObjTupleAndSource& otas ) {
         TRACE( 0, "handleReviewTimer looking at " << otas );
         const bool ok = reviewOtas( otas );
         otasListDel( otas );
         cleanUpUnused();
         if( !ok )
            TRACE( 8, "handleReviewTimer processing failure on " << otas );
         else if( !failedOtas( otas ) ) // which a host of this pass may have entered
            awaited_.mended( Awaited::keyOf( otas ) );
      } );
   otasBookmarkIs( objects.bookmark );
   if( objects.timedOut )
      TRACE( 0, "handleReviewTimer ending review run after " << objects.count << " otas" );
   if( objects.atEnd )
      TRACE( 0, "handleReviewTimer"
                   << ( objects.timedOut ? " otas check complete (at timeout) with "
                                         : " otas check complete with " )
                   << objects.count << " otass" );
   return objects.atEnd;
}

bool PolicySm::reviewOtas( const ObjTupleAndSource& otas ) {
   if( sourceSmByEnum( otas.source() ) )
      return processOtas( otas, false );
   failedOtasDel( otas ); // of a source that has gone: nobody can say any more what it is
   return true;
}

// What came for a parked entry during the pass is looked at in a pass of its own.
void PolicySm::endPass() {
   if( awaited_.passEnded( Awaited::review, std::exchange( retried_, false ), output_.freeRows() ) )
      reviewTimer_.timeMinIs( 0 );
}

void PolicySm::handleHammerReviewTimer() {
   TRACE( 0, __PRETTY_FUNCTION__ );
   if( restartState() == running_ && !( failedHost().empty() && failedOtas().empty() ) ) {
      TRACE( 1, "handleHammerReviewTimer rescheduling host review." );
      reviewTimer_.timeMinIs( 0 );
   }
   awaited_.hammerTicked();
   if( !failedFloodSet().empty() )
      setFloodSetTimer();
   hammerReviewTimer_.timeMinIs( clock_->now() + hammerReviewInterval() );
}

} // namespace L2Rib
