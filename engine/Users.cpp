// User reference counting: an output object lives exactly as long as something in the output uses
// it.
#include "engine/L2RibPolicySm.h"
#include "engine/PolicyTrace.h"

#include <algorithm>

namespace L2Rib {

// Every relation has one user: an output object or an output host.
#define ASSERT_ONE_USER()                                                                          \
   VEXIL_ASSERT( ( otUser != Util::objTupleInvalid() && mvpUser == Util::mvpInvalid() ) ||         \
                 ( otUser == Util::objTupleInvalid() && mvpUser != Util::mvpInvalid() ) )

void PolicySm::addUser( const ObjTuple& otUsed, const ObjTuple& otUser,
                        const Bridging::MacVlanPair& mvpUser ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " user is OT " << otUser << " or MVP " << mvpStr( mvpUser )
                                 << ", using " << otUsed );
   VEXIL_ASSERT( otUsed != Util::objTupleInvalid() );
   ASSERT_ONE_USER();
   Ptr<ObjTupleUsers> otu = usersMap( otUsed );
   if( !otu ) {
      TRACE( 0, "addUser instantiating new otu for " << otUsed );
      otu = usersMapIs( otUsed );
   }
   VEXIL_ASSERT( otu && otu->used() == otUsed );
   VEXIL_ASSERT( usersMap( otUsed ) == otu );
   users_.userIs( otu, otUser, mvpUser );
}

bool PolicySm::isUser( const ObjTuple& otUsed, const ObjTuple& otUser,
                       const Bridging::MacVlanPair& mvpUser ) const {
   TRACE( 0, __PRETTY_FUNCTION__ << " user is OT " << otUser << " or MVP " << mvpStr( mvpUser )
                                 << ", using " << otUsed );
   ASSERT_ONE_USER();
   const Ptr<ObjTupleUsers> otu = usersMap( otUsed );
   if( !otu )
      return false;
   return otUser == Util::objTupleInvalid() ? otu->mvpUser( mvpUser ) : otu->otUser( otUser );
}

void PolicySm::rmUser( const ObjTuple& otUsed, const ObjTuple& otUser,
                       const Bridging::MacVlanPair& mvpUser ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " user is OT " << otUser << " or MVP " << mvpStr( mvpUser )
                                 << ", using " << otUsed );
   ASSERT_ONE_USER();
   const Ptr<ObjTupleUsers> otu = usersMap( otUsed );
   if( !otu ) {
      if( restartState() > otSourceCheck_ ) // before, the relation may not have been rebuilt yet
         VEXIL_ASSERT( otu );
      return;
   }
   if( restartState() < otFloatCheck_ ) {
      VEXIL_ASSERT( !otu || !otu->otUser( otUser ) );
      return;
   }
   if( otUser == Util::objTupleInvalid() )
      VEXIL_ASSERT( otu->mvpUser( mvpUser ) );
   else
      VEXIL_ASSERT( otu->otUser( otUser ) );
   users_.userDel( *otu, otUser, mvpUser );
   if( !otu->empty() )
      return;
   TRACE( 0, "rmUser no users left for " << otUsed );
   if( restartState() < zeroRefCleanup_ ) {
      TRACE( 0, "rmUser deferring delete of " << otUsed << " until after initial sync complete" );
      otForZeroRefCleanupIs( otUsed, true );
   } else if( isInProcess( otUsed ) ) {
      otForZeroRefCleanupIs( otUsed, true ); // whoever is at work on it may be about to use it
   } else {
      onZeroRefs( otUsed );
   }
}

// Whether the copy of an input object that is being processed. Its user may go meanwhile: a source
// that turns a hierarchy upside down makes an object's user its member.
bool PolicySm::isInProcess( const ObjTuple& ot ) const {
   return !inProcess_.empty() &&
          std::ranges::find( inProcess_, tupleManager( ot.tableType() )->outputToInput( ot ) ) !=
             inProcess_.end();
}

// Carries out a deferred delete, unless a user has come back.
void PolicySm::handleZeroRefCleanupCheck( const ObjTuple& ot ) {
   VEXIL_ASSERT( ot != Util::objTupleInvalid() );
   if( !users_.isUnused( ot ) ||
       !output_.contains( ot ) ) // it may have gone with another one meanwhile
      return;
   TRACE( 0,
          "handleZeroRefCleanupCheck no users left for " << ot << " handling deferred delete now" );
   onZeroRefs( ot );
}

// After one host or object has been processed: what it left without a user is deleted.
void PolicySm::cleanUpUnused() {
   for( auto at = otForZeroRefCleanup_.begin(); at != otForZeroRefCleanup_.end(); ++at ) {
      const ObjTuple ot = at->key;
      handleZeroRefCleanupCheck( ot );
      otForZeroRefCleanupDel( ot );
   }
}

// Deletes an object that has lost its last user, and releases what it pointed to: parents before
// children, one child and all below it before the next child.
void PolicySm::onZeroRefs( const ObjTuple& ot ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << ot );
   TRACE( 8, "onZeroRefs deleting otu for " << ot );
   usersMapDel( ot );
   const Ptr<ObjTupleManager>& manager = tupleManager( ot.tableType() );
   memo_.forget( manager->outputToInput( ot ) );
   depths_.depthDel( ot );
   manager->delOutputOt( ot );
   switch( ot.tableType() ) {
   case tableTypeLoadBalance_:
      onLbZeroRefs( ot );
      break;
   case tableTypeLabel_:
      onLabelZeroRefs( ot );
      break;
   case tableTypeDest_:
      onDestZeroRefs( ot );
      break;
   default:
      VEXIL_ASSERT( 0 );
   }
   if( !users_.beginCascade() )
      return; // the outermost call processes it
   while( const auto release = users_.nextRelease() )
      rmUser( release->used, release->user, Util::mvpInvalid() );
   users_.endCascade();
}

void PolicySm::onDestZeroRefs( const ObjTuple& ot ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << ot );
   VEXIL_ASSERT( ot.tableType() == tableTypeDest_ );
   output_.dest->destDel( ot.destId() );
}

void PolicySm::onLabelZeroRefs( const ObjTuple& ot ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << ot );
   const LabelAndSource row = output_.label->label( ot.labelId() );
   output_.label->labelDel( ot.labelId() );
   if( row.key() == ot.labelId() )
      users_.releaseIs( row.label().next(), ot );
}

void PolicySm::onLbZeroRefs( const ObjTuple& ot ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " " << ot );
   const LoadBalanceAndSource row = output_.lb->lb( ot.lbId() );
   output_.lb->lbDel( ot.lbId() );
   // The last one on the stack is taken first. A next that stands at several positions is one
   // relation, removed at the first of them.
   const auto nexts = row.lb().used();
   for( size_t i = nexts.size(); i-- > 0; )
      if( std::find( nexts.begin(), nexts.begin() + static_cast<ptrdiff_t>( i ), nexts[ i ] ) ==
          nexts.begin() + static_cast<ptrdiff_t>( i ) )
         users_.releaseIs( nexts[ i ], ot );
}

} // namespace L2Rib
