// Restart: the engine adopts the output that an earlier run left, checks it, decides every host
// anew, and only then enters normal work. Readers don't see the output emptied and refilled, unless
// it had to be wiped.
//
//    init --> hostSourceCheck --> otSourceCheck --> otFloatCheck --> initialHostScan
//         --> zeroRefCleanup --> running
//
// The three checks rebuild, from the rows alone, who uses which object and which input object each
// copy stands for. Rows that contradict each other (an earlier run was killed between two writes)
// lead to the wipe: all output goes, and normal work builds it from the sources. The scan then
// writes what really changed while no agent ran; objects that lose their last user meanwhile are
// kept until it is over, since a later host may use them. A found host that can't be programmed,
// because its object is missing or there is no room, leads to the wipe too.
//
// One timer steps all of it, in slices of at most reviewQuantum seconds; each list is walked from
// its bookmark. Sources' changes are only queued until the state is running.
#include "engine/KeyWalk.h"
#include "engine/L2RibPolicySm.h"
#include "engine/PolicyTrace.h"
#include "engine/SliceWalk.h"

#include <algorithm>

namespace L2Rib {

namespace {

constexpr uint64_t highestOutputId = Constants::highestOutputId().value();

// Above every id that was ever given, found in the table or told by the status.
uint64_t firstFreeId( uint64_t found, uint64_t told ) {
   return std::min( std::max( found, told ), highestOutputId ) + 1;
}

// Whether an id was given that the status does not cover. A damaged row may have any.
bool isUntold( uint64_t found, uint64_t told ) { return told < found && found <= highestOutputId; }

} // namespace

// --- adoption ----------------------------------------------------------------------------------

void PolicySm::handleInitialized() {
   TRACE( 0, __PRETTY_FUNCTION__ );
   restartBegan_ = clock_->now();
   initialSyncTimer_.emplace( clock_, [ this ] { handleInitialSyncTimer(); } );
   floodSetTimerIs( clock_ );
   VEXIL_ASSERT( !initialized_ );
   initialized_ = true;
   VEXIL_ASSERT( Util::objTupleInvalid() ==
                 ObjTuple( ObjId( L2Rib::Constants::objIdInvalid() ), tableTypeInvalid_ ) );
   VEXIL_ASSERT( Util::otasInvalid() == ObjTupleAndSource( Util::objTupleInvalid(), sourceNone_ ) );
   hostForSourceCheckBookmarkIs( Util::mvpInvalid() );
   otForSourceCheckBookmarkIs( Util::objTupleInvalid() );
   hostForInitialSyncBookmarkIs( Util::mvpInvalid() );
   otForZeroRefCleanupBookmarkIs( Util::objTupleInvalid() );
   hostBookmarkIs( Util::mvpInvalid() );
   otasBookmarkIs( Util::otasInvalid() );

   adoptHosts();
   const uint64_t maxLabelId = adoptObjects( *output_.label );
   const uint64_t maxLbId = adoptObjects( *output_.lb );
   const uint64_t maxDestId = adoptObjects( *output_.dest );
   TRACE( 1, "handleInitialized max IDs found, label: " << maxLabelId << " LB: " << maxLbId
                                                        << " dest: " << maxDestId );
   PolicySmStatus& status = *output_.status;
   TRACE( 1, "handleInitialized status said label: " << status.maxLabelId()
                                                     << " LB: " << status.maxLbId()
                                                     << " dest: " << status.maxDestId() );
   // What was found may go before the next id is given, and then the status alone tells of it: one
   // that was lost knows it again from now on.
   if( isUntold( maxDestId, status.maxDestId().value() ) )
      status.maxDestIdIs( DestId( maxDestId ) );
   if( isUntold( maxLbId, status.maxLbId().value() ) )
      status.maxLbIdIs( LoadBalanceId( maxLbId ) );
   if( isUntold( maxLabelId, status.maxLabelId().value() ) )
      status.maxLabelIdIs( LabelId( maxLabelId ) );
   tupleManagerIs( tableTypeDest_, firstFreeId( maxDestId, status.maxDestId().value() ),
                   highestOutputId );
   tupleManagerIs( tableTypeLoadBalance_, firstFreeId( maxLbId, status.maxLbId().value() ),
                   highestOutputId );
   tupleManagerIs( tableTypeLabel_, firstFreeId( maxLabelId, status.maxLabelId().value() ),
                   highestOutputId );
   adoptFloodSets();
   handleSource();
   setFloodSetTimer();
   restartStateIs( hostSourceCheck_ );
   maybeRescheduleInitialSyncReview();
}

void PolicySm::adoptHosts() {
   hostForSourceCheck_.reserve( output_.host->count() );
   output_.host->forEachKeyByHash( [ this ]( const Bridging::MacVlanPair& mvp ) {
      TRACE( 9, "handleInitialized adding " << mvpStr( mvp )
                                            << " to source check and initial sync list" );
      hostForSourceCheckIs( mvp, true );
   } );
   hostForInitialSync_ = hostForSourceCheck_.copy();
}

// Returns the highest id found, 0 in an empty table.
template<class Table>
uint64_t PolicySm::adoptObjects( const Table& table ) {
   uint64_t maxId = 0;
   table.forEachKey( [ & ]( const auto& id ) {
      const ObjTuple ot( id );
      TRACE( 9, "handleInitialized adding " << ot << " to source check and initial sync list" );
      otForSourceCheckIs( ot, true );
      maxId = std::max( maxId, id.value() );
   } );
   return maxId;
}

// Every found member is judged anew.
void PolicySm::adoptFloodSets() {
   for( const auto& sets : output_.flood->vlanFloodSet() )
      for( const auto& set : sets.value->floodSet() )
         for( const auto& member : set.value->destSet() )
            floodSetBacklogIs( FloodSetTriple( sets.key, set.key, member.key ), true );
}

// --- the slices --------------------------------------------------------------------------------

void PolicySm::restartStateIs( PolicySmRestartState state ) {
   TRACE( 1, "restartState from " << restartState_ << " to " << state );
   restartState_ = state;
   if( state == running_ )
      restartDuration_ = clock_->now() - restartBegan_;
}

Vexil::Seconds PolicySm::restartDuration() const {
   return restartState() == running_ ? restartDuration_ : clock_->now() - restartBegan_;
}

uint64_t PolicySm::restartEntriesLeft() const {
   if( restartState() == running_ )
      return 0;
   // The found objects are looked at twice and leave their list the second time.
   return hostForSourceCheck().size() + hostForInitialSync().size() + otForZeroRefCleanup().size() +
          otForSourceCheck().size() +
          ( restartState() < otFloatCheck_ ? otForSourceCheck().size() - objectsChecked_ : 0 );
}

void PolicySm::maybeRescheduleInitialSyncReview() {
   TRACE( 0, __PRETTY_FUNCTION__ << " restart state is " << restartState() );
   VEXIL_ASSERT( initialSyncTimer_ );
   if( restartState() < running_ )
      initialSyncTimer_->timeMinIs( 0 );
}

void PolicySm::handleInitialSyncTimer() {
   TRACE( 0, __PRETTY_FUNCTION__ << " restartState is " << restartState() );
   initialSyncTimer_->timeMinIs( Vexil::never );
   if( !initialized_ )
      return;
   const Seconds now = clock_->now();
   const Seconds end = now + reviewQuantum();
   if( restartState() <= otFloatCheck_ && !handleSourceCheck( now, end ) ) {
      maybeRescheduleInitialSyncReview();
      return;
   }
   VEXIL_ASSERT( restartState() > otFloatCheck_ );
   if( restartState() == initialHostScan_ && !scanHosts( end ) )
      return;
   hostForInitialSyncBookmarkIs( Util::mvpInvalid() );
   if( restartState() != zeroRefCleanup_ ) { // the checks found the tables inconsistent
      otForZeroRefCleanupBookmarkIs( Util::objTupleInvalid() );
      maybeRescheduleHostReview();
      return;
   }
   cleanUpZeroRefs( end );
}

// Decides the found hosts anew. True when all have been and the slice has time left.
bool PolicySm::scanHosts( Seconds end ) {
   TRACE( 0, "handleInitialSyncTimer running host initial sync" );
   hostsAhead_.clear();
   const auto hosts = walkSlice(
      hostForInitialSync(), hostForInitialSyncBookmark(), *clock_, end,
      [ & ]( const Bridging::MacVlanPair& mvp ) {
         TRACE( 0, "handleInitialSyncTimer checking host " << mvpStr( mvp ) );
         if( !processHost( mvp ) ) {
            TRACE( 0, "handleInitialSyncTimer failed to process host " << mvpStr( mvp )
                                                                       << " during initial sync" );
            return false;
         }
         hostForInitialSyncDel( mvp );
         return true;
      },
      [ & ]( const Bridging::MacVlanPair& mvp ) { prefetchHost( mvp ); } );
   if( hosts.stopped ) {
      handleTablesInconsistent();
      queuedReviewTimer_.timeMinIs( 0 ); // the scan ends here and asks for no review
      return false;
   }
   if( hosts.timedOut ) {
      TRACE( 0, "handleInitialSyncTimer ending review run after " << hosts.count << " hosts" );
      hostForInitialSyncBookmarkIs( hosts.bookmark );
   }
   if( hosts.atEnd ) {
      TRACE( 0, "handleInitialSyncTimer host check complete with " << hosts.count << " hosts" );
      restartStateIs( zeroRefCleanup_ );
   }
   if( hosts.timedOut )
      maybeRescheduleInitialSyncReview();
   return !hosts.timedOut;
}

// Carries out the deletes that were deferred until all hosts had been decided.
void PolicySm::cleanUpZeroRefs( Seconds end ) {
   TRACE( 0, "handleInitialSyncTimer running zero ref cleanup check" );
   const auto objects = walkSlice( otForZeroRefCleanup(), otForZeroRefCleanupBookmark(), *clock_,
                                   end, [ & ]( const ObjTuple& ot ) {
                                      TRACE( 0, "handleInitialSyncTimer checking OT "
                                                   << ot << " for zero ref cleanup" );
                                      handleZeroRefCleanupCheck( ot );
                                      otForZeroRefCleanupDel( ot );
                                   } );
   otForZeroRefCleanupBookmarkIs( objects.bookmark );
   if( objects.timedOut ) {
      TRACE( 0, "handleInitialSyncTimer ending review for zero ref after " << objects.count
                                                                           << " OTs" );
      if( objects.atEnd ) {
         TRACE( 0, "handleInitialSyncTimer OT zero ref check complete with " << objects.count
                                                                             << " hosts" );
         restartStateIs( running_ );
         // A slice that has run out of time asks for no review, and nobody else may for long:
         // what was queued meanwhile is looked after in a turn of its own.
         queuedReviewTimer_.timeMinIs( 0 );
      }
      maybeRescheduleInitialSyncReview();
      return;
   }
   TRACE( 0, "handleInitialSyncTimer OT zero ref check complete with " << objects.count << " OTs" );
   restartStateIs( running_ );
   maybeRescheduleHostReview();
}

// --- the checks of the found rows ---------------------------------------------------------------

bool PolicySm::handleSourceCheck( const Seconds& start, const Seconds& end ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " start " << start << " end " << end );
   if( restartState() == hostSourceCheck_ && !checkHosts( end ) )
      return false;
   if( restartState() == otSourceCheck_ && !checkObjects( end ) )
      return false;
   if( restartState() == otFloatCheck_ && !detectedInconsistentTables() && !checkFloating( end ) )
      return false;
   otForSourceCheckBookmarkIs( Util::objTupleInvalid() );
   if( detectedInconsistentTables() ) {
      TRACE( 0, "handleSourceCheck tables were inconsistent!" );
      handleTablesInconsistent();
      return true;
   }
   VEXIL_ASSERT( restartState() == initialHostScan_ );
   TRACE( 0, "handleSourceCheck done with initial sync of back pointers" );
   return true;
}

// Every host's object must exist; the host becomes its user. The three checks return false when the
// slice ran out of time.
bool PolicySm::checkHosts( Seconds end ) {
   const auto hosts = walkSlice(
      hostForSourceCheck(), hostForSourceCheckBookmark(), *clock_, end,
      [ & ]( const Bridging::MacVlanPair& mvp ) {
         TRACE( 0, "handleSourceCheck checking host " << mvpStr( mvp ) );
         const HostAndSource outHost = output_.host->host( mvp );
         VEXIL_ASSERT( outHost.key() == mvp && outHost.key() != Util::mvpInvalid() );
         const ObjTuple ot = outHost.next();
         if( ot != Util::objTupleInvalid() ) {
            if( !requireNext( ot ) )
               return false;
            addUser( ot, Util::objTupleInvalid(), mvp );
         }
         hostForSourceCheckDel( mvp );
         return true;
      },
      [ & ]( const Bridging::MacVlanPair& mvp ) { output_.host->prefetchRecord( mvp.hash() ); } );
   if( hosts.timedOut )
      TRACE( 0, "handleSourceCheck ending host review run after " << hosts.count << " hosts" );
   hostForSourceCheckBookmarkIs( hosts.timedOut ? hosts.bookmark : Util::mvpInvalid() );
   if( hosts.atEnd || hosts.stopped ) {
      TRACE( 0, "handleSourceCheck host check complete with " << hosts.count << " hosts this run" );
      restartStateIs( otSourceCheck_ );
   }
   return !hosts.timedOut;
}

// Everything that an object points to must exist; the object becomes its user. What it was copied
// from is known again. The entries stay for the next check.
bool PolicySm::checkObjects( Seconds end ) {
   const auto objects = walkSlice( otForSourceCheck(), otForSourceCheckBookmark(), *clock_, end,
                                   [ & ]( const ObjTuple& ot ) { checkObject( ot ); } );
   objectsChecked_ += objects.count;
   if( objects.timedOut )
      TRACE( 0, "handleSourceCheck ending OT source review run after " << objects.count << " OTs" );
   otForSourceCheckBookmarkIs( objects.bookmark );
   if( objects.atEnd ) {
      TRACE( 0, "handleSourceCheck OT source check complete with " << objects.count
                                                                   << " OTs this run" );
      restartStateIs( otFloatCheck_ );
   }
   return !objects.timedOut;
}

void PolicySm::checkObject( const ObjTuple& ot ) {
   const auto useNext = [ & ]( const ObjTuple& next ) {
      if( requireNext( next ) )
         addUser( next, ot, Util::mvpInvalid() );
   };
   ObjTupleAndSource sourceOtas;
   switch( ot.tableType() ) {
   case tableTypeDest_: {
      const DestId destId = ot.destId();
      TRACE( 0, "handleSourceCheck checking dest " << destId );
      const DestAndSource das = output_.dest->dest( destId );
      VEXIL_ASSERT( das.key() == destId );
      sourceOtas = das.sourceOtas();
      break;
   }
   case tableTypeLabel_: {
      const LabelId labelId = ot.labelId();
      TRACE( 0, "handleSourceCheck checking label " << labelId );
      const LabelAndSource las = output_.label->label( labelId );
      VEXIL_ASSERT( las.key() == labelId );
      useNext( las.label().next() );
      sourceOtas = las.sourceOtas();
      break;
   }
   case tableTypeLoadBalance_: {
      const LoadBalanceId lbId = ot.lbId();
      TRACE( 0, "handleSourceCheck checking LB " << lbId );
      const LoadBalanceAndSource lbas = output_.lb->lb( lbId );
      VEXIL_ASSERT( lbas.key() == lbId );
      if( lbas.lb().nexts() == 0 ) {
         TRACE( 0, "handleSourceCheck no next pointers on LB!!" );
         detectedInconsistentTablesIs( true );
      }
      for( uint32_t i = 0; i < lbas.lb().nexts(); ++i )
         useNext( lbas.lb().next( EcmpIndex( i ) ) );
      sourceOtas = lbas.sourceOtas();
      break;
   }
   default:
      VEXIL_ASSERT( 0 );
   }
   VEXIL_ASSERT( sourceOtas != Util::otasInvalid() );
   restoreMapping( sourceOtas, ot );
}

// An object that nothing uses is left over from a change that was never finished.
bool PolicySm::checkFloating( Seconds end ) {
   TRACE( 0, "handleSourceCheck doing float check" );
   const auto objects = walkSlice( otForSourceCheck(), otForSourceCheckBookmark(), *clock_, end,
                                   [ & ]( const ObjTuple& ot ) {
                                      if( users_.isUnused( ot ) ) {
                                         TRACE( 0, "handleSourceCheck  no users for " << ot );
                                         detectedInconsistentTablesIs( true );
                                         return false;
                                      }
                                      otForSourceCheckDel( ot );
                                      return true;
                                   } );
   if( objects.timedOut )
      TRACE( 0, "handleSourceCheck ending review run after " << objects.count << " OTs" );
   otForSourceCheckBookmarkIs( objects.bookmark );
   if( objects.atEnd || objects.stopped ) {
      TRACE( 0, "handleSourceCheck OT check complete with " << objects.count << " OTs this run" );
      restartStateIs( initialHostScan_ );
   }
   return !objects.timedOut;
}

bool PolicySm::existsForSourceCheck( const ObjTuple& ot ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << ot );
   return output_.contains( ot );
}

// Notes that the tables are inconsistent when a row points to an object that isn't there.
bool PolicySm::requireNext( const ObjTuple& next ) {
   if( existsForSourceCheck( next ) )
      return true;
   TRACE( 0, "handleSourceCheck next object " << next << " does not exist!!!" );
   detectedInconsistentTablesIs( true );
   return false;
}

void PolicySm::restoreMapping( const ObjTupleAndSource& sourceOtas, const ObjTuple& outputOt ) {
   TRACE( 0, "restoreMapping between " << sourceOtas << " and " << outputOt );
   VEXIL_ASSERT( restartState() == otSourceCheck_ );
   VEXIL_ASSERT( outputOt.tableType() == sourceOtas.tableType() );
   // Two rows that stand for one input object contradict each other as well.
   if( const ObjTuple other = outputObjTuple( sourceOtas ); other != Util::objTupleInvalid() ) {
      TRACE( 0, "restoreMapping " << sourceOtas << " already has a copy, " << other << "!!!" );
      detectedInconsistentTablesIs( true );
   }
   tupleManager( outputOt.tableType() )->restoreMapping( sourceOtas, outputOt );
}

// --- the wipe ----------------------------------------------------------------------------------

void PolicySm::handleTablesInconsistent() {
   TRACE( 0, __PRETTY_FUNCTION__ );
   Vexil::log( detectedInconsistentTables()
                  ? "the output tables contradict each other: they are emptied and built anew"
                  : "a host of the output can't be programmed any more: the output is emptied and "
                    "built anew" );
   forEachKeyAhead<Bridging::MacVlanPair>(
      *output_.host,
      [ this ]( const Bridging::MacVlanPair& mvp ) { output_.host->prefetchIndex( mvp.hash() ); },
      [ this ]( const Bridging::MacVlanPair& mvp ) {
         delOtForInconsistency( output_.host->host( mvp ).next() ); // none, where it is inline
         output_.host->hostDel( mvp );
      } );
   output_.label->labelDelAll();
   output_.lb->lbDelAll();
   output_.dest->destDelAll();
   usersMapDelAll();
   for( const auto& [ tableType, manager ] : tupleManager_ ) {
      manager->inputToOutputDelAll();
      manager->outputToInputDelAll();
   }
   memo_.clear();
   depths_.clear();
   hostForSourceCheckDelAll();
   otForSourceCheckDelAll();
   restartStateIs( running_ );
}

// Deletes an object after everything below it. Found rows may point to one another in a loop, or in
// a chain of any length: the path from ot to the object at work is kept in objTupleForLoopCheck,
// and what is still to be done on a stack of our own.
void PolicySm::delOtForInconsistency( const ObjTuple& ot ) {
   struct Step {
      ObjTuple ot;
      bool nextsDone;
   };
   std::vector<Step> toDo{ { ot, false } };
   while( !toDo.empty() ) {
      const Step step = toDo.back();
      toDo.pop_back();
      if( step.nextsDone ) {
         output_.erase( step.ot );
         objTupleForLoopCheckDel( step.ot );
         continue;
      }
      TRACE( 0, __PRETTY_FUNCTION__ << " for " << step.ot );
      if( objTupleForLoopCheck( step.ot ) ) {
         TRACE( 0, "delOtForInconsistency found loop at " << step.ot );
         continue;
      }
      objTupleForLoopCheckIs( step.ot, true );
      toDo.push_back( { step.ot, true } );
      const std::vector<ObjTuple> nexts = output_.nextsOf( step.ot );
      for( auto next = nexts.rbegin(); next != nexts.rend(); ++next ) // the first one on top
         toDo.push_back( { *next, false } );
   }
}

} // namespace L2Rib
