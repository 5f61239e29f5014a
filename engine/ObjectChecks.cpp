// What the copiers of objects have in common: what is noted of an object that was looked at,
// whether there is room for its copy, and whether it may stand where it is to stand, without a loop
// and within the bound of the depth.
#include "engine/L2RibPolicySm.h"
#include "engine/PolicyTrace.h"

namespace L2Rib {

// The object, with all below it, is in the output as the engine knows the source to have it.
void PolicySm::noteVerified( const ObjTupleAndSource& otas, bool whole ) {
   memo_.verifiedIs( otas, { version_, whole } );
   failedOtasDel( otas );
   awaited_.mended( Awaited::keyOf( otas ) );
}

// It can't be written now, for the reason in obstacle_.
void PolicySm::noteFailed( const ObjTupleAndSource& otas, bool ok ) {
   memo_.failedIs( otas, { version_, ok, obstacle_ } );
}

// The object is gone from its source. Its output copy goes with its last user; only an id that was
// given to it and never led to a row is taken back, so that nobody points to that row.
void PolicySm::noteAbsent( const ObjTupleAndSource& otas, bool hasRow ) {
   obstacle_ = { parkedObjectAbsent_, outputTableNone_, 0, otas };
   memo_.forget( otas );
   if( !hasRow )
      forgetUnwritten( otas );
}

void PolicySm::forgetUnwritten( const ObjTupleAndSource& otas ) {
   if( const ObjTuple ot = outputObjTuple( otas );
       ot != Util::objTupleInvalid() && !output_.contains( ot ) )
      dropMapping( otas );
}

// Whether that table, which was asked for room for one more row, has it; says in obstacle_ why not.
bool PolicySm::hasRoom( Vexil::Room room, OutputTable name, const Vexil::TableBase& table ) {
   if( room == Vexil::Room::yes )
      return true;
   obstacle_ = noRoom( name, room, table.capacity() );
   return false;
}

// The same for the new copy of an object, before an id is given to it or anything below it is
// touched. When there is none, the caller finds no output copy.
bool PolicySm::hasRoomForNew( const ObjTupleAndSource& otas, Vexil::Room room, OutputTable name,
                              const Vexil::TableBase& table ) {
   if( hasRoom( room, name, table ) )
      return true;
   TRACE( 8, "processOtas no room in output for " << otas );
   forgetUnwritten( otas );
   noteFailed( otas, true );
   return false;
}

// Whether the tables have room for all that is missing in the output of a group or label and what
// lies below it. Asked while entries wait for such room, before any of it is touched: what does not
// fit as a whole is left alone, not written and removed again with each retry.
bool PolicySm::fitsWhole( const ObjTupleAndSource& otas, const PolicySourceSm& sm ) {
   std::array<uint64_t, outputTables> missing{};
   Vexil::KeySet<ObjTupleAndSource> visited;
   std::vector<ObjTupleAndSource> toVisit{ otas };
   while( !toVisit.empty() ) {
      const ObjTupleAndSource at = toVisit.back();
      toVisit.pop_back();
      const OutputTable table = OutputTables::nameOf( at.tableType() );
      if( table == outputTableNone_ || !visited.emplace( at ).second ||
          memo_.isVerified( at, version_ ) )
         continue;
      missing[ table ] += !output_.contains( outputObjTuple( at ) );
      for( const ObjTuple& next : sm.nextsOf( at.ot() ) )
         toVisit.emplace_back( next, otas.source() );
   }
   const auto fits = [ & ]( OutputTable name, const Vexil::TableBase& table ) {
      if( missing[ name ] > table.roomLeft() )
         obstacle_ = noRoom( name, Vexil::Room::full, table.capacity() );
      return missing[ name ] <= table.roomLeft();
   };
   return fits( outputTableLoadBalance_, *output_.lb ) &&
          fits( outputTableLabel_, *output_.label ) && fits( outputTableDest_, *output_.dest );
}

// All output ids of its type have been given: the caller finds no output copy.
void PolicySm::noteNoId( const ObjTupleAndSource& otas ) {
   obstacle_ = { parkedNoId_, outputTableNone_, 0, otas };
   noteFailed( otas, true );
}

// Whether an object may point to outOt, the output copy of next, once next has been processed.
bool PolicySm::usableNext( const ObjTupleAndSource& next, const ObjTuple& outOt,
                           const ObjTuple& user ) {
   if( outOt == Util::objTupleInvalid() )
      return false; // obstacle_ says why
   // A copy whose object the source has deleted stands as it was; it may lead back to us.
   if( isWhole( next ) || !depths_.leadsTo( outOt, user ) )
      return true;
   obstacle_ = { parkedLoop_, outputTableNone_, 0, next };
   return false;
}

// Whether the row of ot, the copy of that input object, may be that deep.
bool PolicySm::fits( const ObjTupleAndSource& otas, const ObjTuple& ot, unsigned depth ) {
   if( depths_.fits( ot, depth ) )
      return true;
   obstacle_ = { parkedTooDeep_, outputTableNone_, maxObjectDepth, otas };
   return false;
}

// Whether all from a processed one downwards is as the source has it now.
bool PolicySm::isWhole( const ObjTupleAndSource& otas ) const {
   const ObjectMemo::Verified* const known = memo_.verified( otas );
   return known && known->whole;
}

// An object that was brought into the output for a user that then could not be written goes again,
// when the work under way is over and nobody else has come to use it.
void PolicySm::releaseIfUnused( const ObjTuple& ot ) {
   if( ot != Util::objTupleInvalid() && !usersMap( ot ) && output_.contains( ot ) )
      otForZeroRefCleanupIs( ot, true );
}

// The file of an output table takes nothing any more, although it had room.
void PolicySm::writeFailed( OutputTable table, const ObjTupleAndSource& otas, bool isNew ) {
   TRACE( 8, "processOtas no room in output for " << otas );
   obstacle_ = noRoom( table, Vexil::Room::noMemory, 0 );
   if( isNew )
      dropMapping( otas );
   noteFailed( otas, true );
}

} // namespace L2Rib
