#include "engine/ObjectDepths.h"

#include <algorithm>
#include <vector>

namespace L2Rib {

// Depth first, each object once, on a stack of our own.
unsigned ObjectDepths::depth( const ObjTuple& ot ) {
   if( ot.tableType() == tableTypeDest_ )
      return 1;
   if( const unsigned* const known = depth_.find( ot ) )
      return *known;
   struct Step {
      ObjTuple ot;
      std::vector<ObjTuple> nexts; // still to be looked at
      unsigned deepest = 0;
   };
   std::vector<Step> way;
   const auto enter = [ & ]( const ObjTuple& object ) {
      depth_.emplace( object, endless ); // a next that leads back here is on a loop
      way.push_back( { object, rows_.nextsOf( object ) } );
   };
   enter( ot );
   while( true ) {
      Step& step = way.back();
      if( !step.nexts.empty() ) {
         const ObjTuple next = step.nexts.back();
         const unsigned* const known = depth_.find( next );
         if( next.tableType() != tableTypeDest_ && !known ) {
            enter( next );
            continue;
         }
         step.deepest = std::max( step.deepest, known ? *known : 1u );
         step.nexts.pop_back();
         continue;
      }
      const unsigned found = step.deepest >= endless ? endless : step.deepest + 1;
      *depth_.find( step.ot ) = found;
      way.pop_back();
      if( way.empty() )
         return found;
   }
}

void ObjectDepths::depthIs( const ObjTuple& ot, unsigned depth ) {
   const auto [ known, isNew ] = depth_.emplace( ot, depth );
   if( !isNew && *known == depth )
      return;
   *known = depth;
   std::vector<ObjTuple> outdated = users_.objectUsersOf( ot );
   while( !outdated.empty() ) {
      const ObjTuple user = outdated.back();
      outdated.pop_back();
      if( depth_.erase( user ) )
         for( const ObjTuple& above : users_.objectUsersOf( user ) )
            outdated.push_back( above );
   }
}

// The objects on the longest way that leads to ot from above, ot not included, level by level; what
// is past the bound is not looked at.
unsigned ObjectDepths::height( const ObjTuple& ot ) const {
   Vexil::KeySet<ObjTuple> level; // all objects from which a way of that length leads to ot
   level.emplace( ot );
   unsigned height = 0;
   for( ; height <= maxObjectDepth; ++height ) {
      Vexil::KeySet<ObjTuple> above;
      for( const auto& at : level )
         for( const ObjTuple& user : users_.objectUsersOf( at.key ) )
            above.emplace( user );
      if( above.empty() )
         break;
      level = std::move( above );
   }
   return height;
}

bool ObjectDepths::fits( const ObjTuple& ot, unsigned depth ) {
   return depth <= maxObjectDepth && ( !rows_.contains( ot ) || depth <= this->depth( ot ) ||
                                       depth + height( ot ) <= maxObjectDepth );
}

// Ways lead from the deeper to the less deep, so most of them need not be walked.
bool ObjectDepths::leadsTo( const ObjTuple& ot, const ObjTuple& target ) {
   if( !rows_.contains( target ) )
      return false; // nobody points to it yet
   const unsigned depthOfTarget = depth( target );
   Vexil::KeySet<ObjTuple> met;
   std::vector<ObjTuple> toVisit{ ot };
   while( !toVisit.empty() ) {
      const ObjTuple at = toVisit.back();
      toVisit.pop_back();
      if( at == target )
         return true;
      if( depth( at ) <= depthOfTarget || !met.emplace( at ).second )
         continue;
      for( const ObjTuple& next : rows_.nextsOf( at ) )
         toVisit.push_back( next );
   }
   return false;
}

} // namespace L2Rib
