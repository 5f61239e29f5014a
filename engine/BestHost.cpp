// Best-host selection: the one host per MAC and VLAN that goes into the output.
#include "L2Rib/HostRank.h"
#include "engine/L2RibPolicySm.h"
#include "engine/PolicyTrace.h"

namespace L2Rib {

void PolicySm::handleHost( const Bridging::MacVlanPair& mvp ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << mvpStr( mvp ) );
   if( !initialized_ )
      return; // the initial scan covers it
   hostListIs( mvp, true );
   maybeRescheduleHostReview();
}

void PolicySm::expectHosts( size_t count ) { hostList_.reserve( count ); }

void PolicySm::prefetchHandleHost( const Bridging::MacVlanPair& mvp ) const {
   hostList_.prefetch( mvp );
}

bool PolicySm::hostIsBetter( const Host& host, Source source, const Host& curBestHost,
                             Source curBestHostSource ) const {
   TRACE( 0, __PRETTY_FUNCTION__ << " comparing " << host << " and " << curBestHost );
   VEXIL_ASSERT( source != curBestHostSource );
   const auto [ better, rule ] = rankHost( host, source, curBestHost, curBestHostSource );
   switch( rule ) {
   case RankRule::pref:
      TRACE( 3, "hostIsBetter" << ( better ? " win on pref" : " lose on pref" ) );
      break;
   case RankRule::seqNo:
      TRACE( 3, "hostIsBetter" << ( better ? " win on seqNo" : " lose on seqNo" ) );
      break;
   case RankRule::inlineOverObject:
      TRACE( 3, "hostIsBetter" << ( better ? " win because MT > CI" : " lose because CI < MT" ) );
      break;
   case RankRule::ciDest:
      break;
   case RankRule::source:
      TRACE( 3, "hostIsBetter" << ( host.next() == Util::objTupleInvalid()
                                       ? " dests are same, tie break comparing source enum, "
                                       : " tie break comparing source enum, " )
                               << source << " vs " << curBestHostSource );
      break;
   }
   return better;
}

bool PolicySm::validDest( const CiDest& ciDest ) const {
   TRACE( 0, __PRETTY_FUNCTION__ );
   if( ciDest.destType() != destTypeVxlan_ || ciDest.vtepCount() < 2 )
      return true;
   const auto vteps = ciDest.vteps();
   for( size_t i = 1; i < vteps.size(); ++i )
      if( !( vteps[ i - 1 ] < vteps[ i ] ) )
         return false;
   return true;
}

bool PolicySm::sourceValid( const HostAndSource& row ) {
   switch( static_cast<uint32_t>( row.source() ) ) {
   case 0x1:
   case 0x8:
   case 0x40:
   case 0x100:
   case 0x200:
   case 0x10000000:
   case 0x20000000:
   case 0x40000000:
   case 0x80000000:
      return true;
   default:
      return false;
   }
}

void PolicySm::prefetchHost( const Bridging::MacVlanPair& mvp ) {
   HostsAhead::Places& places = hostsAhead_.comingIs( mvp );
   const uint64_t hash = places.hash;
   users_.prefetchMvpUser( hash );
   for( size_t number = 0; number < sourceOrder_.size(); ++number ) {
      const PolicySourceSm& sm = *sourceOrder_[ number ];
      if( sm.ready() && sm.hostTable() )
         places.sourceIs( number, sm.hostTable()->prefetchRecord( hash ) );
   }
   places.output = output_.host->prefetchRecord( hash );
}

// No source has the host any more: its row, if there is one, goes.
void PolicySm::withdrawHost( const Bridging::MacVlanPair& mvp, const HostAndSource* oldRow ) {
   TRACE( 0, "processHost host " << mvpStr( mvp ) << " not found." );
   if( !oldRow ) {
      TRACE( 1, "processHost host " << mvpStr( mvp ) << " wasn't present before, nothing to do!" );
      return;
   }
   TRACE( 0, "processHost removing from output." );
   output_.host->hostDel( mvp );
   if( oldRow->next() != Util::objTupleInvalid() )
      rmUser( oldRow->next(), Util::objTupleInvalid(), mvp );
}

// Brings the winner's object into the output and makes newRow, and the host as its user, point
// there. False when it can't be: the host is parked.
bool PolicySm::programNext( const Bridging::MacVlanPair& mvp, const ObjTupleAndSource& otas,
                            const ObjTuple& oldNext, HostAndSource& newRow ) {
   const bool ok = processOtas( otas, true );
   const ObjTuple newOutOt = outputObjTuple( otas );
   if( !ok || newOutOt == Util::objTupleInvalid() ) {
      TRACE( 8, "processHost failed to process " << otas << ( ok ? "" : " (cascading)" ) );
      foundFailedHost( mvp );
      return false;
   }
   VEXIL_ASSERT( newOutOt != Util::objTupleInvalid() );
   newRow.nextIs( newOutOt );
   if( oldNext != newOutOt )
      addUser( newOutOt, Util::objTupleInvalid(), mvp );
   return true;
}

bool PolicySm::processHost( const Bridging::MacVlanPair& mvp ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << mvpStr( mvp ) );
   const HostsAhead::Places& places = hostsAhead_.placesOf( mvp );
   // The best of what the ready sources hold now.
   Vexil::Unfilled<Host> candidate[ 2 ]; // the best so far, and the one that is looked at
   const Host* best = nullptr;
   Host* next = &candidate[ 0 ].record;
   const PolicySourceSm* bestHostSource = nullptr;
   for( size_t number = 0; number < sourceOrder_.size(); ++number ) {
      const PolicySourceSm* const sm = sourceOrder_[ number ];
      if( !sm->ready() )
         continue;
      const Host& h = *next;
      if( !sm->host( mvp, places.hash, places.source( number ), *next ) ) {
         TRACE( 1, "processHost Did not find host " << mvpStr( mvp ) << " in source "
                                                    << sm->sourceEnum() );
         continue;
      }
      VEXIL_ASSERT( h.next() != Util::objTupleInvalid() || validDest( h.ciDest() ) );
      TRACE( 1, "processHost found host " << mvpStr( mvp ) << " in source " << sm->sourceEnum()
                                          << ", value is " << h );
      if( !best || hostIsBetter( h, sm->sourceEnum(), *best, bestHostSource->sourceEnum() ) ) {
         best = next;
         next = &candidate[ best == &candidate[ 0 ].record ].record;
         bestHostSource = sm;
         TRACE( 2, "processHost candidate best host is " << *best );
      }
   }

   TRACE( 1, "processHost Looking up " << mvpStr( mvp ) << " in output." );
   Vexil::Unfilled<HostAndSource> found;
   const HostAndSource* const oldRow =
      output_.host->get( mvp, places.hash, places.output, found.record ) ? &found.record : nullptr;
   TRACE( 1, "processHost got " << ( oldRow ? *oldRow : HostAndSource() ) );
   if( !best ) {
      withdrawHost( mvp, oldRow );
      return true;
   }
   VEXIL_ASSERT( bestHostSource );
   return programHost( *best, bestHostSource->sourceEnum(), oldRow, places );
}

// Brings the host, which has won, into the output in place of its old row, null when it has none.
// False when it can't be: the output is as it was, and the host parked.
bool PolicySm::programHost( const Host& bestHost, Source source, const HostAndSource* oldRow,
                            const HostsAhead::Places& places ) {
   const Bridging::MacVlanPair& mvp = places.mvp;
   obstructed_ = source;
   // Before any object is touched: a host that has no room leaves its objects alone.
   if( !oldRow &&
       !hasRoom( output_.host->makeRoom( hostList().size() ), outputTableHost_, *output_.host ) ) {
      TRACE( 8, "processHost no room in output for " << mvpStr( mvp ) );
      foundFailedHost( mvp );
      return false;
   }
   const ObjTuple oldNext = oldRow ? oldRow->next() : Util::objTupleInvalid();
   HostAndSource newRow( mvp, bestHost, source );
   if( bestHost.next() != Util::objTupleInvalid() &&
       !programNext( mvp, ObjTupleAndSource( bestHost.next(), source ), oldNext, newRow ) )
      return false;

   if( oldRow && newRow == *oldRow ) {
      TRACE( 1, "processHost host " << mvpStr( mvp )
                                    << " found, but was already up-to-date in table.  Done!" );
      return true;
   }
   TRACE( 1, "processHost pushing " << newRow << " into output" );
   if( !output_.host->set( newRow, places.hash, places.output ) ) { // the file takes nothing more
      TRACE( 8, "processHost no room in output for " << mvpStr( mvp ) );
      obstacle_ = noRoom( outputTableHost_, Vexil::Room::noMemory, output_.host->capacity() );
      if( newRow.next() != oldNext && newRow.next() != Util::objTupleInvalid() )
         rmUser( newRow.next(), Util::objTupleInvalid(), mvp );
      foundFailedHost( mvp );
      return false;
   }
   if( oldNext != Util::objTupleInvalid() && oldNext != newRow.next() )
      rmUser( oldNext, Util::objTupleInvalid(), mvp );
   return true;
}

} // namespace L2Rib
