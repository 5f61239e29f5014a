// Object mapping: the sources' dests, groups and labels, copied into one output id space.
//
// A copy is written only after everything below it has been: the recursion is depth first. Whether
// an object, with all below it, is up to date is remembered together with the version of the
// source's object tables, so that a million hosts behind one group cost one lookup each; and so is,
// for the rest of a pass, that it could not be written.
#include "engine/L2RibPolicySm.h"
#include "engine/PolicyTrace.h"

#include <algorithm>
#include <array>

namespace L2Rib {

namespace {

// An object as a source published it, checked for what no honest source writes: such a record is
// reported as corruption of its table and reads as absent.
Dest checked( const DestTable&, const Dest& dest ) { return dest; }

Label checked( const LabelTable& table, const Label& label ) {
   if( isSound( label.next() ) )
      return label;
   table.corruptionDetected( table.path() + ": label " + label.key().str() +
                             " has a next that can be no object" );
   return Label();
}

LoadBalance checked( const LoadBalanceTable& table, const LoadBalance& lb ) {
   const auto nexts = lb.used();
   if( lb.nexts() <= nexts.size() && std::ranges::all_of( nexts, isSound ) )
      return lb;
   table.corruptionDetected( table.path() + ": group " + lb.key().str() +
                             " has too many nexts or one that can be no object" );
   return LoadBalance();
}

// The input object of that id; a record with the invalid key when the source has none.
template<class Table, class Id>
auto inputObject( const Table* table, const Id& id ) {
   using Record = decltype( table->get( id ) );
   return table ? checked( *table, table->get( id ) ) : Record();
}

} // namespace

void PolicySm::handleOtas( const ObjTupleAndSource& otas ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas );
   otasListIs( otas, true );
   maybeRescheduleHostReview();
}

const Vexil::Ptr<ObjTupleManager>& PolicySm::tupleManager( TableType tableType ) const {
   const auto found = tupleManager_.find( tableType );
   VEXIL_ASSERT( found != tupleManager_.end() );
   return found->second;
}

const Vexil::Ptr<ObjTupleManager>& PolicySm::tupleManagerIs( TableType tableType, uint64_t lowest,
                                                             uint64_t highest ) {
   Ptr<ObjTupleManager>& manager = tupleManager_[ tableType ];
   if( !manager )
      manager = Vexil::makeEntity<ObjTupleManager>( tableType, lowest, highest );
   return manager;
}

ObjTuple PolicySm::outputObjTuple( const ObjTupleAndSource& otas ) const {
   VEXIL_ASSERT( otas.tableType() != tableTypeInvalid_ );
   return tupleManager( otas.tableType() )->inputToOutput( otas );
}

DestId PolicySm::outputDestId( const ObjTupleAndSource& otas ) const {
   VEXIL_ASSERT( otas.tableType() != tableTypeInvalid_ );
   const ObjTuple ot = outputObjTuple( otas );
   return ot == Util::objTupleInvalid() ? Util::destIdInvalid() : ot.destId();
}

LoadBalanceId PolicySm::outputLbId( const ObjTupleAndSource& otas ) const {
   VEXIL_ASSERT( otas.tableType() != tableTypeInvalid_ );
   const ObjTuple ot = outputObjTuple( otas );
   return ot == Util::objTupleInvalid() ? Util::lbIdInvalid() : ot.lbId();
}

LabelId PolicySm::outputLabelId( const ObjTupleAndSource& otas ) const {
   VEXIL_ASSERT( otas.tableType() != tableTypeInvalid_ );
   const ObjTuple ot = outputObjTuple( otas );
   return ot == Util::objTupleInvalid() ? Util::labelIdInvalid() : ot.labelId();
}

// The status holds every new id before a row with that id is written, so that no id is given twice
// however the agent ends. Past the last id all three return the invalid one.
DestId PolicySm::newDestId( const ObjTupleAndSource& otas ) {
   const ObjTuple ot = tupleManager( tableTypeDest_ )->newOutputOt( otas );
   if( ot == Util::objTupleInvalid() )
      return Util::destIdInvalid();
   output_.status->maxDestIdIs( ot.destId() );
   return ot.destId();
}

LoadBalanceId PolicySm::newLbId( const ObjTupleAndSource& otas ) {
   const ObjTuple ot = tupleManager( tableTypeLoadBalance_ )->newOutputOt( otas );
   if( ot == Util::objTupleInvalid() )
      return Util::lbIdInvalid();
   output_.status->maxLbIdIs( ot.lbId() );
   return ot.lbId();
}

LabelId PolicySm::newLabelId( const ObjTupleAndSource& otas ) {
   const ObjTuple ot = tupleManager( tableTypeLabel_ )->newOutputOt( otas );
   if( ot == Util::objTupleInvalid() )
      return Util::labelIdInvalid();
   output_.status->maxLabelIdIs( ot.labelId() );
   return ot.labelId();
}

void PolicySm::dropMapping( const ObjTupleAndSource& otas ) {
   forgetVerified( otas );
   tupleManager( otas.tableType() )->delOutputOt( outputObjTuple( otas ) );
}

bool PolicySm::processOtas( const ObjTupleAndSource& otas, bool forceCreate ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas << " forceCreate " << forceCreate );
   VEXIL_ASSERT( otas.tableType() != tableTypeInvalid_ );
   const Ptr<PolicySourceSm> sm = sourceSmByEnum( otas.source() );
   VEXIL_ASSERT( sm );
   // Taken before anything is read: a change that comes meanwhile makes it outdated.
   const auto version = sm->objectVersion();
   if( otas == lastVerified_.otas && version == lastVerified_.version )
      return true;
   if( const Verified* known = verified_.find( otas ); known && known->version == version ) {
      lastVerified_ = { otas, version };
      return true;
   }
   if( const auto* failed = failedInPass_.find( otas ); failed && forceCreate ) {
      if( failed->version == version ) {
         TRACE( 8, "processOtas failed in this pass already: " << otas );
         return failed->ok;
      }
      failedInPass_.erase( otas );
   }
   const bool isLoop = std::ranges::find( inProcess_, otas ) != inProcess_.end();
   if( isLoop || inProcess_.size() == maxObjectDepth ) {
      TRACE( 8,
             "processOtas" << ( isLoop ? " loop of objects at " : " chain of objects too long at " )
                           << otas );
      return false; // whoever points here enters itself among the failed
   }
   inProcess_.push_back( otas );
   bool ok = true;
   switch( otas.tableType() ) {
   case tableTypeLoadBalance_:
      ok = processLb( otas, forceCreate );
      break;
   case tableTypeLabel_:
      ok = processLabel( otas, forceCreate );
      break;
   case tableTypeDest_:
      processDest( otas, forceCreate );
      break;
   default:
      VEXIL_ASSERT( 0 );
   }
   inProcess_.pop_back();
   if( !ok && inProcess_.empty() ) // further down, it may be the way there that is at fault
      failedInPass_.emplace( otas, Failed{ version, false } );
   return ok;
}

// The object, with all below it, is in the output as the source had it at that version.
void PolicySm::noteVerified( const ObjTupleAndSource& otas, const Verified& found ) {
   const auto [ known, isNew ] = verified_.emplace( otas, found );
   if( !isNew )
      *known = found;
}

void PolicySm::forgetVerified( const ObjTupleAndSource& otas ) {
   verified_.erase( otas );
   lastVerified_ = {};
}

// The object is gone from its source. Its output copy goes with its last user; only an id that was
// given to it and never led to a row is taken back, so that nobody points to that row.
void PolicySm::forgetUnwritten( const ObjTupleAndSource& otas, bool hasRow ) {
   forgetVerified( otas );
   if( !hasRow && outputObjTuple( otas ) != Util::objTupleInvalid() )
      dropMapping( otas );
}

void PolicySm::processDest( const ObjTupleAndSource& otas, bool forceCreate ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas << " forceCreate " << forceCreate );
   VEXIL_ASSERT( otas.destId() != Util::destIdInvalid() );
   const Ptr<PolicySourceSm> sm = sourceSmByEnum( otas.source() );
   VEXIL_ASSERT( sm );
   const auto version = sm->objectVersion();
   const Dest inDest = inputObject( sm->destTable(), otas.destId() );
   DestId outDestId = outputDestId( otas );
   const DestAndSource outDas = output_.dest->dest( outDestId );
   const bool isNew = outDas.key() == Util::destIdInvalid();
   TRACE( 8, "processDest inDest is " << inDest << " outDestId is " << outDestId << " outDas is "
                                      << outDas );
   if( inDest.key() != otas.destId() ) {
      TRACE( 8, "processDest mismatched keys, delete not handled here." );
      forgetUnwritten( otas, !isNew );
      return;
   }
   if( isNew && !forceCreate ) {
      TRACE( 8, "processDest No such output dest, create not handled now." );
      return;
   }
   if( outDestId == Util::destIdInvalid() ) {
      outDestId = newDestId( otas );
      TRACE( 8, "processDest No such output dest, new destId is " << outDestId );
      if( outDestId == Util::destIdInvalid() )
         return; // no id is left: the caller finds no output copy
   }

   Dest newDest( outDestId );
   newDest.copyAllButKey( inDest );
   if( !isNew && newDest.equalExceptKey( outDas.dest() ) ) {
      TRACE( 8, "processDest no change in dest, ignoring update" );
   } else {
      TRACE( 0, "processDest writing " << otas << " into output table at id " << outDestId
                                       << " with value " << newDest );
      if( !output_.dest->destIs( DestAndSource( newDest, otas ) ) ) {
         TRACE( 8, "processDest no room in output for " << otas );
         dropMapping( otas );
         return;
      }
   }
   noteVerified( otas, { version, 1, true } );
}

bool PolicySm::processLabel( const ObjTupleAndSource& otas, bool forceCreate ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas << " forceCreate " << forceCreate );
   VEXIL_ASSERT( otas.labelId() != Util::labelIdInvalid() );
   const Ptr<PolicySourceSm> sm = sourceSmByEnum( otas.source() );
   VEXIL_ASSERT( sm );
   const auto version = sm->objectVersion();
   const Label inLabel = inputObject( sm->labelTable(), otas.labelId() );
   LabelId outLabelId = outputLabelId( otas );
   const LabelAndSource oldOutLas = output_.label->label( outLabelId );
   const bool isNew = oldOutLas.key() == Util::labelIdInvalid();
   TRACE( 8, "processLabel inLabel is " << inLabel << " outLabelId is " << outLabelId
                                        << " oldOutLas is " << oldOutLas << " from source "
                                        << otas.source() );
   if( inLabel.key() != otas.labelId() ) {
      TRACE( 8, "processLabel mismatched keys, delete not handled here." );
      forgetUnwritten( otas, !isNew );
      return true;
   }
   if( isNew && !forceCreate ) {
      TRACE( 8, "processLabel no such output Label, create not handled here." );
      return true;
   }
   if( outLabelId == Util::labelIdInvalid() ) {
      outLabelId = newLabelId( otas );
      TRACE( 8, "processLabel no such output Label, new labelId is " << outLabelId );
      if( outLabelId == Util::labelIdInvalid() )
         return true; // no id is left: the caller finds no output copy
      VEXIL_ASSERT( outLabelId != Util::labelIdInvalid() );
   }

   VEXIL_ASSERT( inLabel.next() != Util::objTupleInvalid() );
   const ObjTupleAndSource next( inLabel.next(), sm->sourceEnum() );
   const bool ok = processOtas( next, true );
   const ObjTuple outOt = outputObjTuple( next );
   if( !ok || !usableNext( next, outOt, ObjTuple( outLabelId ) ) ) {
      TRACE( 8, "processLabel failed to process" << next << ( ok ? "" : " (cascading)" ) );
      releaseIfUnused( outOt );
      foundFailedOtas( otas );
      return false;
   }
   VEXIL_ASSERT( outOt != Util::objTupleInvalid() );
   const Label newOutLabel( outLabelId, outOt, inLabel.label() );
   TRACE( 8, "processLabel newOutLabel is " << newOutLabel );
   noteVerified( otas, { version, depthOf( next ) + 1, isWhole( next ) } );
   if( !isNew && newOutLabel == oldOutLas.label() ) {
      TRACE( 8, "processLabel no change in label, ignoring update" );
      return true;
   }
   TRACE( 0, "processLabel writing " << otas << " into output table at id " << outLabelId
                                     << " with value " << newOutLabel );
   if( !output_.label->labelIs( LabelAndSource( newOutLabel, otas ) ) ) {
      TRACE( 8, "processLabel no room in output for " << otas );
      dropMapping( otas );
      failedInPass_.emplace( otas, Failed{ version, true } );
      releaseIfUnused( outOt );
      return true; // the caller finds no output copy
   }

   const ObjTuple labelTuple( outLabelId );
   const ObjTuple oldNext = oldOutLas.label().next();
   if( outOt == oldNext )
      return true;
   VEXIL_ASSERT( newOutLabel.next() != Util::objTupleInvalid() );
   addUser( outOt, labelTuple, Util::mvpInvalid() );
   if( !isNew )
      rmUser( oldNext, labelTuple, Util::mvpInvalid() );
   return true;
}

bool PolicySm::processLb( const ObjTupleAndSource& otas, bool forceCreate ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas << " forceCreate " << forceCreate );
   VEXIL_ASSERT( otas.lbId() != Util::lbIdInvalid() );
   const Ptr<PolicySourceSm> sm = sourceSmByEnum( otas.source() );
   VEXIL_ASSERT( sm );
   const auto version = sm->objectVersion();
   const LoadBalance inLb = inputObject( sm->lbTable(), otas.lbId() );
   LoadBalanceId outLbId = outputLbId( otas );
   const LoadBalanceAndSource oldOutLbas = output_.lb->lb( outLbId );
   const bool isNew = oldOutLbas.key() == Util::lbIdInvalid();
   TRACE( 8, "processLb inLb is " << inLb << " outLbId is " << outLbId << " oldOutLbas is "
                                  << oldOutLbas );
   if( inLb.key() != otas.lbId() ) {
      TRACE( 8, "processLb mismatched keys, delete not handled here." );
      forgetUnwritten( otas, !isNew );
      return true;
   }
   if( isNew && !forceCreate ) {
      TRACE( 8, "processLb no such output LB, create not handled here." );
      return true;
   }
   if( outLbId == Util::lbIdInvalid() ) {
      outLbId = newLbId( otas );
      TRACE( 8, "processLb No such output LB, new lbId is " << outLbId );
      if( outLbId == Util::lbIdInvalid() )
         return true; // no id is left: the caller finds no output copy
      VEXIL_ASSERT( outLbId != Util::lbIdInvalid() );
   }
   const ObjTuple outOtForLb( outLbId );
   TRACE( 8, "processLb new LB is " << inLb << " output ot is " << outOtForLb );
   VEXIL_ASSERT( inLb.nexts() > 0 );

   // Members first. The group becomes a user of each before its row names it.
   const LoadBalance& oldOutLb = oldOutLbas.lb();
   LoadBalance newLb( outLbId );
   ObjTupleSet newNexts;
   std::vector<ObjTuple> otUsersAdded;
   const auto undo = [ & ] {
      for( size_t i = 0; i < otUsersAdded.size(); ++i ) {
         VEXIL_ASSERT( otUsersAdded[ i ] != Util::objTupleInvalid() );
         rmUser( otUsersAdded[ i ], outOtForLb, Util::mvpInvalid() );
      }
   };
   bool changed = false;
   unsigned depth = 0;
   bool whole = true;
   const auto inNexts = inLb.used();
   for( auto it = inNexts.begin(); it != inNexts.end(); ++it ) {
      const EcmpIndex position( static_cast<uint32_t>( it - inNexts.begin() ) );
      VEXIL_ASSERT( *it != Util::objTupleInvalid() );
      const ObjTupleAndSource next( *it, sm->sourceEnum() );
      const bool ok = processOtas( next, true );
      const ObjTuple outOt = outputObjTuple( next );
      if( !ok || !usableNext( next, outOt, outOtForLb ) ) {
         TRACE( 8, "processLb failed to process " << next << ( ok ? "" : " (cascading)" ) );
         releaseIfUnused( outOt );
         undo();
         foundFailedOtas( otas );
         return false;
      }
      depth = std::max( depth, depthOf( next ) );
      whole = whole && isWhole( next );
      if( !isUser( outOt, outOtForLb, Util::mvpInvalid() ) ) {
         addUser( outOt, outOtForLb, Util::mvpInvalid() );
         otUsersAdded.push_back( outOt );
      }
      if( position.value() >= oldOutLb.nexts() || outOt != oldOutLb.next( position ) )
         changed = true;
      else
         VEXIL_ASSERT( usersMap( outOt )->otUser( outOtForLb ) );
      newLb.nextIs( position, outOt );
      newNexts.newOt( outOt, true );
   }

   noteVerified( otas, { version, depth + 1, whole } );
   if( !isNew && !changed && newLb.nexts() == oldOutLb.nexts() ) {
      TRACE( 8, "processLb No change in LB, ignoring update." );
      return true;
   }
   TRACE( 0, "processLb writing " << otas << " into output table at id " << outLbId
                                  << " with value " << newLb );
   if( !output_.lb->lbIs( LoadBalanceAndSource( newLb, otas ) ) ) {
      TRACE( 8, "processLb no room in output for " << otas );
      dropMapping( otas );
      failedInPass_.emplace( otas, Failed{ version, true } );
      undo();
      return true; // the caller finds no output copy
   }
   if( !isNew )
      releaseOldNexts( oldOutLb, newNexts, outOtForLb );
   return true;
}

// After a group's row has been rewritten: the members that it no longer has lose it as a user.
void PolicySm::releaseOldNexts( const LoadBalance& oldOutLb, const ObjTupleSet& newNexts,
                                const ObjTuple& outOtForLb ) {
   for( const ObjTuple& oldNext : oldOutLb.used() )
      if( oldNext != Util::objTupleInvalid() && !newNexts.ot( oldNext ) &&
          isUser( oldNext, outOtForLb, Util::mvpInvalid() ) ) // once for a repeated member
         rmUser( oldNext, outOtForLb, Util::mvpInvalid() );
}

// An object that was brought into the output for a user that then could not be written goes again,
// when the work under way is over and nobody else has come to use it.
void PolicySm::releaseIfUnused( const ObjTuple& ot ) {
   if( ot != Util::objTupleInvalid() && !usersMap( ot ) && hasOutputRow( ot ) )
      otForZeroRefCleanupIs( ot, true );
}

bool PolicySm::hasOutputRow( const ObjTuple& ot ) const {
   if( ot.objId() == ObjId( Constants::objIdInvalid() ) )
      return false;
   switch( ot.tableType() ) {
   case tableTypeLoadBalance_:
      return output_.lb->contains( ot.lbId() );
   case tableTypeLabel_:
      return output_.label->contains( ot.labelId() );
   case tableTypeDest_:
      return output_.dest->contains( ot.destId() );
   default:
      return false;
   }
}

// What an output object points to, in order; nothing when it has no row.
std::vector<ObjTuple> PolicySm::nextsOfRow( const ObjTuple& ot ) const {
   std::vector<ObjTuple> nexts;
   if( !hasOutputRow( ot ) )
      return nexts;
   if( ot.tableType() == tableTypeLabel_ )
      nexts.push_back( output_.label->label( ot.labelId() ).label().next() );
   if( ot.tableType() == tableTypeLoadBalance_ ) {
      const LoadBalance lb = output_.lb->lb( ot.lbId() ).lb();
      for( uint32_t i = 0; i < lb.nexts(); ++i )
         nexts.push_back( lb.next( EcmpIndex( i ) ) );
   }
   return nexts;
}

// Whether an object may point to outOt, the output copy of next, once next has been processed.
bool PolicySm::usableNext( const ObjTupleAndSource& next, const ObjTuple& outOt,
                           const ObjTuple& user ) const {
   if( outOt == Util::objTupleInvalid() || depthOf( next ) >= maxObjectDepth )
      return false;
   // A copy whose object the source has deleted stands as it was; it may lead back to us.
   return isWhole( next ) || !leadsTo( outOt, user );
}

// Whether target is among the output objects at or below ot.
bool PolicySm::leadsTo( const ObjTuple& ot, const ObjTuple& target ) const {
   Vexil::KeySet<ObjTuple> met;
   std::vector<ObjTuple> toVisit{ ot };
   while( !toVisit.empty() ) {
      const ObjTuple at = toVisit.back();
      toVisit.pop_back();
      if( at == target )
         return true;
      if( !met.emplace( at ).second )
         continue;
      for( const ObjTuple& next : nextsOfRow( at ) )
         toVisit.push_back( next );
   }
   return false;
}

// How deep the objects go from a verified one downwards.
unsigned PolicySm::depthOf( const ObjTupleAndSource& otas ) const {
   const Verified* known = verified_.find( otas );
   return known ? known->depth : 0;
}

// Whether all from a processed one downwards is as the source has it now.
bool PolicySm::isWhole( const ObjTupleAndSource& otas ) const {
   const Verified* known = verified_.find( otas );
   return known && known->whole;
}

} // namespace L2Rib
