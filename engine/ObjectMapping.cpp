// Object mapping: the sources' dests, groups and labels, copied into one output id space.
//
// A copy is written only after everything below it has been: the recursion is depth first. What has
// been found up to date, or to fail, is remembered (ObjectMemo), so each object is looked at once.
// Whoever fails says why in obstacle_, and those above it are parked with the same reason.
#include "engine/L2RibPolicySm.h"
#include "engine/PolicyTrace.h"

#include <algorithm>

namespace L2Rib {

namespace {

// The input object of that id; a record with the invalid key when the source has none.
template<class Table, class Id>
auto inputObject( const Table* table, const Id& id ) {
   using Record = decltype( table->get( id ) );
   return table ? table->get( id ) : Record();
}

} // namespace

void PolicySm::handleOtas( const ObjTupleAndSource& otas ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas );
   otasListIs( otas, true );
   awaited_.objectChanged( otas );
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
   memo_.forget( otas );
   tupleManager( otas.tableType() )->delOutputOt( outputObjTuple( otas ) );
}

bool PolicySm::processOtas( const ObjTupleAndSource& otas, bool forceCreate ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas << " forceCreate " << forceCreate );
   VEXIL_ASSERT( otas.tableType() != tableTypeInvalid_ );
   const Ptr<PolicySourceSm> sm = sourceSmByEnum( otas.source() );
   VEXIL_ASSERT( sm );
   if( inProcess_.empty() )
      version_ = sm->objectVersion();
   if( memo_.isVerified( otas, version_ ) )
      return true;
   if( const auto* known = forceCreate ? memo_.failed( otas, version_ ) : nullptr ) {
      TRACE( 8, "processOtas failed already, and nothing has changed: " << otas );
      obstacle_ = known->obstacle;
      return known->ok;
   }
   const bool isLoop = std::ranges::find( inProcess_, otas ) != inProcess_.end();
   if( isLoop || inProcess_.size() == maxObjectDepth ) {
      TRACE( 8,
             "processOtas" << ( isLoop ? " loop of objects at " : " chain of objects too long at " )
                           << otas );
      obstacle_ = { isLoop ? parkedLoop_ : parkedTooDeep_, outputTableNone_, maxObjectDepth, otas };
      return false; // whoever points here enters itself among the failed
   }
   if( inProcess_.empty() && awaited_.isShortOfObjectRows() && otas.tableType() != tableTypeDest_ &&
       ( forceCreate || output_.contains( outputObjTuple( otas ) ) ) && !fitsWhole( otas, *sm ) ) {
      TRACE( 8, "processOtas no room in output for all of " << otas );
      foundFailedOtas( otas );
      noteFailed( otas, false );
      return false;
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
      noteFailed( otas, false );
   return ok;
}

// --- dests --------------------------------------------------------------------------------------

void PolicySm::processDest( const ObjTupleAndSource& otas, bool forceCreate ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas << " forceCreate " << forceCreate );
   VEXIL_ASSERT( otas.destId() != Util::destIdInvalid() );
   const Ptr<PolicySourceSm> sm = sourceSmByEnum( otas.source() );
   VEXIL_ASSERT( sm );
   const Dest inDest = inputObject( sm->destTable(), otas.destId() );
   DestId outDestId = outputDestId( otas );
   const DestAndSource outDas = output_.dest->dest( outDestId );
   const bool isNew = outDas.key() == Util::destIdInvalid();
   TRACE( 8, "processDest inDest is " << inDest << " outDestId is " << outDestId << " outDas is "
                                      << outDas );
   if( inDest.key() != otas.destId() ) {
      TRACE( 8, "processDest mismatched keys, delete not handled here." );
      noteAbsent( otas, !isNew );
      return;
   }
   if( isNew && !forceCreate ) {
      TRACE( 8, "processDest No such output dest, create not handled now." );
      return;
   }
   if( isNew && !hasRoomForNew( otas, output_.dest->makeRoom(), outputTableDest_, *output_.dest ) )
      return;
   if( outDestId == Util::destIdInvalid() ) {
      outDestId = newDestId( otas );
      TRACE( 8, "processDest No such output dest, new destId is " << outDestId );
      if( outDestId == Util::destIdInvalid() )
         return noteNoId( otas );
   }

   Dest newDest( outDestId );
   newDest.copyAllButKey( inDest );
   if( !isNew && newDest.equalExceptKey( outDas.dest() ) ) {
      TRACE( 8, "processDest no change in dest, ignoring update" );
   } else {
      TRACE( 0, "processDest writing " << otas << " into output table at id " << outDestId
                                       << " with value " << newDest );
      if( !output_.dest->destIs( DestAndSource( newDest, otas ) ) )
         return writeFailed( outputTableDest_, otas, isNew );
   }
   noteVerified( otas, true );
}

// --- labels -------------------------------------------------------------------------------------

bool PolicySm::processLabel( const ObjTupleAndSource& otas, bool forceCreate ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas << " forceCreate " << forceCreate );
   VEXIL_ASSERT( otas.labelId() != Util::labelIdInvalid() );
   const Ptr<PolicySourceSm> sm = sourceSmByEnum( otas.source() );
   VEXIL_ASSERT( sm );
   const Label inLabel = inputObject( sm->labelTable(), otas.labelId() );
   LabelId outLabelId = outputLabelId( otas );
   const LabelAndSource oldOutLas = output_.label->label( outLabelId );
   const bool isNew = oldOutLas.key() == Util::labelIdInvalid();
   TRACE( 8, "processLabel inLabel is " << inLabel << " outLabelId is " << outLabelId
                                        << " oldOutLas is " << oldOutLas << " from source "
                                        << otas.source() );
   if( inLabel.key() != otas.labelId() ) {
      TRACE( 8, "processLabel mismatched keys, delete not handled here." );
      noteAbsent( otas, !isNew );
      return true;
   }
   if( isNew && !forceCreate ) {
      TRACE( 8, "processLabel no such output Label, create not handled here." );
      return true;
   }
   if( isNew &&
       !hasRoomForNew( otas, output_.label->makeRoom(), outputTableLabel_, *output_.label ) )
      return true;
   if( outLabelId == Util::labelIdInvalid() ) {
      outLabelId = newLabelId( otas );
      TRACE( 8, "processLabel no such output Label, new labelId is " << outLabelId );
      if( outLabelId == Util::labelIdInvalid() )
         return noteNoId( otas ), true; // the caller finds no output copy
      VEXIL_ASSERT( outLabelId != Util::labelIdInvalid() );
   }

   VEXIL_ASSERT( inLabel.next() != Util::objTupleInvalid() );
   const ObjTupleAndSource next( inLabel.next(), sm->sourceEnum() );
   const bool ok = processOtas( next, true );
   const ObjTuple outOt = outputObjTuple( next );
   const ObjTuple labelTuple( outLabelId );
   if( !ok || !usableNext( next, outOt, labelTuple ) ||
       !fits( otas, labelTuple, depths_.depth( outOt ) + 1 ) ) {
      TRACE( 8, "processLabel failed to process" << next << ( ok ? "" : " (cascading)" ) );
      releaseIfUnused( outOt );
      foundFailedOtas( otas );
      return false;
   }
   VEXIL_ASSERT( outOt != Util::objTupleInvalid() );
   const Label newOutLabel( outLabelId, outOt, inLabel.label() );
   TRACE( 8, "processLabel newOutLabel is " << newOutLabel );
   if( !isNew && newOutLabel == oldOutLas.label() )
      TRACE( 8, "processLabel no change in label, ignoring update" );
   else if( !writeLabel( otas, oldOutLas, newOutLabel ) )
      return true; // the caller finds no output copy
   noteVerified( otas, isWhole( next ) );
   return true;
}

bool PolicySm::writeLabel( const ObjTupleAndSource& otas, const LabelAndSource& oldRow,
                           const Label& newOutLabel ) {
   const ObjTuple labelTuple( newOutLabel.key() );
   const ObjTuple outOt = newOutLabel.next();
   const ObjTuple oldNext = oldRow.label().next();
   const bool isNew = oldRow.key() == Util::labelIdInvalid();
   TRACE( 0, "processLabel writing " << otas << " into output table at id " << newOutLabel.key()
                                     << " with value " << newOutLabel );
   if( !output_.label->labelIs( LabelAndSource( newOutLabel, otas ) ) ) {
      writeFailed( outputTableLabel_, otas, isNew );
      releaseIfUnused( outOt );
      return false;
   }
   depths_.depthIs( labelTuple, depths_.depth( outOt ) + 1 );
   if( outOt == oldNext )
      return true;
   VEXIL_ASSERT( newOutLabel.next() != Util::objTupleInvalid() );
   addUser( outOt, labelTuple, Util::mvpInvalid() );
   if( !isNew )
      rmUser( oldNext, labelTuple, Util::mvpInvalid() );
   return true;
}

// --- groups -------------------------------------------------------------------------------------

bool PolicySm::processLb( const ObjTupleAndSource& otas, bool forceCreate ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << otas << " forceCreate " << forceCreate );
   VEXIL_ASSERT( otas.lbId() != Util::lbIdInvalid() );
   const Ptr<PolicySourceSm> sm = sourceSmByEnum( otas.source() );
   VEXIL_ASSERT( sm );
   const LoadBalance inLb = inputObject( sm->lbTable(), otas.lbId() );
   LoadBalanceId outLbId = outputLbId( otas );
   const LoadBalanceAndSource oldOutLbas = output_.lb->lb( outLbId );
   const bool isNew = oldOutLbas.key() == Util::lbIdInvalid();
   TRACE( 8, "processLb inLb is " << inLb << " outLbId is " << outLbId << " oldOutLbas is "
                                  << oldOutLbas );
   if( inLb.key() != otas.lbId() ) {
      TRACE( 8, "processLb mismatched keys, delete not handled here." );
      noteAbsent( otas, !isNew );
      return true;
   }
   if( isNew && !forceCreate ) {
      TRACE( 8, "processLb no such output LB, create not handled here." );
      return true;
   }
   if( isNew &&
       !hasRoomForNew( otas, output_.lb->makeRoom(), outputTableLoadBalance_, *output_.lb ) )
      return true;
   if( outLbId == Util::lbIdInvalid() ) {
      outLbId = newLbId( otas );
      TRACE( 8, "processLb No such output LB, new lbId is " << outLbId );
      if( outLbId == Util::lbIdInvalid() )
         return noteNoId( otas ), true; // the caller finds no output copy
      VEXIL_ASSERT( outLbId != Util::lbIdInvalid() );
   }
   TRACE( 8, "processLb new LB is " << inLb << " output ot is " << ObjTuple( outLbId ) );
   VEXIL_ASSERT( inLb.nexts() > 0 );

   Members members;
   members.newLb.keyIs( outLbId );
   if( !processMembers( otas, inLb, oldOutLbas.lb(), members ) ) {
      undo( members );
      foundFailedOtas( otas );
      return false;
   }
   if( !isNew && !members.changed && members.newLb.nexts() == oldOutLbas.lb().nexts() )
      TRACE( 8, "processLb No change in LB, ignoring update." );
   else if( !writeLb( otas, oldOutLbas, members ) )
      return true; // the caller finds no output copy
   noteVerified( otas, members.whole );
   return true;
}

// Members first; the group becomes a user of each before its row names it. False when one of them
// can't be in the output, or not below this group.
bool PolicySm::processMembers( const ObjTupleAndSource& otas, const LoadBalance& inLb,
                               const LoadBalance& oldOutLb, Members& members ) {
   const ObjTuple outOtForLb( members.newLb.key() );
   const auto inNexts = inLb.used();
   for( auto it = inNexts.begin(); it != inNexts.end(); ++it ) {
      const EcmpIndex position( static_cast<uint32_t>( it - inNexts.begin() ) );
      VEXIL_ASSERT( *it != Util::objTupleInvalid() );
      const ObjTupleAndSource next( *it, otas.source() );
      const bool ok = processOtas( next, true );
      const ObjTuple outOt = outputObjTuple( next );
      if( !ok || !usableNext( next, outOt, outOtForLb ) ||
          !fits( otas, outOtForLb, depths_.depth( outOt ) + 1 ) ) {
         TRACE( 8, "processLb failed to process " << next << ( ok ? "" : " (cascading)" ) );
         releaseIfUnused( outOt );
         return false;
      }
      members.deepest = std::max( members.deepest, depths_.depth( outOt ) );
      members.whole = members.whole && isWhole( next );
      if( !isUser( outOt, outOtForLb, Util::mvpInvalid() ) ) {
         addUser( outOt, outOtForLb, Util::mvpInvalid() );
         members.otUsersAdded.push_back( outOt );
      }
      if( position.value() >= oldOutLb.nexts() || outOt != oldOutLb.next( position ) )
         members.changed = true;
      else
         VEXIL_ASSERT( usersMap( outOt )->otUser( outOtForLb ) );
      members.newLb.nextIs( position, outOt );
      members.newNexts.newOt( outOt, true );
   }
   return true;
}

bool PolicySm::writeLb( const ObjTupleAndSource& otas, const LoadBalanceAndSource& oldRow,
                        const Members& members ) {
   const ObjTuple outOtForLb( members.newLb.key() );
   const bool isNew = oldRow.key() == Util::lbIdInvalid();
   TRACE( 0, "processLb writing " << otas << " into output table at id " << members.newLb.key()
                                  << " with value " << members.newLb );
   if( !output_.lb->lbIs( LoadBalanceAndSource( members.newLb, otas ) ) ) {
      writeFailed( outputTableLoadBalance_, otas, isNew );
      undo( members );
      return false;
   }
   depths_.depthIs( outOtForLb, members.deepest + 1 );
   if( !isNew )
      releaseOldNexts( oldRow.lb(), members.newNexts, outOtForLb );
   return true;
}

// The group can't be written: it is a user of nothing that it was not a user of before.
void PolicySm::undo( const Members& members ) {
   const auto& otUsersAdded = members.otUsersAdded;
   for( size_t i = 0; i < otUsersAdded.size(); ++i ) {
      VEXIL_ASSERT( otUsersAdded[ i ] != Util::objTupleInvalid() );
      rmUser( otUsersAdded[ i ], ObjTuple( members.newLb.key() ), Util::mvpInvalid() );
   }
}

// After a group's row has been rewritten: the members that it no longer has lose it as a user.
void PolicySm::releaseOldNexts( const LoadBalance& oldOutLb, const ObjTupleSet& newNexts,
                                const ObjTuple& outOtForLb ) {
   for( const ObjTuple& oldNext : oldOutLb.used() )
      if( oldNext != Util::objTupleInvalid() && !newNexts.ot( oldNext ) &&
          isUser( oldNext, outOtForLb, Util::mvpInvalid() ) ) // once for a repeated member
         rmUser( oldNext, outOtForLb, Util::mvpInvalid() );
}

} // namespace L2Rib
