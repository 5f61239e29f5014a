// The review: working off what changed, in slices, and trying again what failed.
//
// A pass begins when no bookmark is set; the parked entries join it. It consists of slices of at
// most reviewQuantum seconds, each armed by the one before, hosts first, then objects. The hammer
// timer starts a pass every hammerReviewInterval seconds while anything is parked.
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
   failingHosts_.failed( mvp, clock_->now() );
}

void PolicySm::foundFailedOtas( const ObjTupleAndSource& otas ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas );
   failedOtasIs( otas, true );
   failingOtas_.failed( otas, clock_->now() );
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
   if( hostBookmark() == Util::mvpInvalid() )
      parkedToLists();

   const auto hosts = walkSlice(
      hostList(), hostBookmark(), *clock_, deadline,
      [ & ]( const Bridging::MacVlanPair& mvp ) {
         TRACE( 0, "handleReviewTimer looking at host " << mvpStr( mvp ) );
         const bool ok = processHost( mvp );
         hostListDel( mvp );
         cleanUpUnused();
         if( ok ) {
            failingHosts_.mended( mvp );
         } else {
            TRACE( 8, "handleReviewTimer processing failure on " << mvpStr( mvp ) );
            VEXIL_ASSERT( failedHost( mvp ) );
         }
      },
      [ & ]( const Bridging::MacVlanPair& mvp ) { prefetchHost( mvp ); },
      [ & ]( const Bridging::MacVlanPair& mvp ) { prefetchHostIndex( mvp ); } );
   hostBookmarkIs( hosts.bookmark );
   if( hosts.timedOut ) {
      TRACE( 0, "handleReviewTimer ending review run after " << hosts.count << " hosts" );
      if( hosts.atEnd )
         TRACE( 0, "handleReviewTimer host check complete (at timeout) with " << hosts.count
                                                                              << " hosts" );
   } else {
      TRACE( 0, "handleReviewTimer host check complete with " << hosts.count << " hosts" );
      reviewOtas( deadline );
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

// The start of a pass: what failed before is tried again.
void PolicySm::parkedToLists() {
   retries_ += failedHost_.size() + failedOtas_.size();
   failedInPass_.clear();
   moveAll( failedHost_, hostList_ );
   moveAll( failedOtas_, otasList_ );
}

void PolicySm::reviewOtas( Seconds deadline ) {
   const auto objects = walkSlice(
      otasList(), otasBookmark(), *clock_, deadline, [ & ]( const ObjTupleAndSource& otas ) {
         TRACE( 0, "handleReviewTimer looking at " << otas );
         const bool ok = processOtas( otas, false );
         otasListDel( otas );
         cleanUpUnused();
         if( ok )
            failingOtas_.mended( otas );
         else
            TRACE( 8, "handleReviewTimer processing failure on " << otas );
      } );
   otasBookmarkIs( objects.bookmark );
   if( objects.timedOut )
      TRACE( 0, "handleReviewTimer ending review run after " << objects.count << " otas" );
   if( objects.atEnd )
      TRACE( 0, "handleReviewTimer"
                   << ( objects.timedOut ? " otas check complete (at timeout) with "
                                         : " otas check complete with " )
                   << objects.count << " otass" );
}

void PolicySm::handleHammerReviewTimer() {
   TRACE( 0, __PRETTY_FUNCTION__ );
   if( restartState() == running_ && !( failedHost().empty() && failedOtas().empty() ) ) {
      TRACE( 1, "handleHammerReviewTimer rescheduling host review." );
      reviewTimer_.timeMinIs( 0 );
   }
   hammerReviewTimer_.timeMinIs( clock_->now() + hammerReviewInterval() );
}

} // namespace L2Rib
