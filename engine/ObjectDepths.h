// How deep do the rows of the output go from an object downwards?
//
// The depth of an object is the number of objects on the longest way down from it, itself included;
// a dest has 1. It bounds the chains that are programmed (maxObjectDepth), the recursion over them
// with it, and answers most questions for loops: a way leads from one object to another only if the
// first one is deeper.
//
// Depths are computed from the rows when they are asked for, and remembered until a row below
// changes. Whoever is remembered has all below it remembered, so a change forgets the objects above
// it and stops where nothing is remembered. Found rows of a restart may form a loop: an object on
// one, or above it, counts as deeper than any bound.
#pragma once

#include "L2Rib/L2Rib.h"
#include "runtime/HashMap.h"

#include <algorithm>
#include <vector>

namespace L2Rib {

// The longest chain of objects that is programmed: our own limit. Real chains have a handful of
// members; the bound keeps a source that publishes an endless one from exhausting the stack.
constexpr unsigned maxObjectDepth = 64;

class ObjectDepths {
 public:
   static constexpr unsigned endless = 1u << 20; // more than any bound

   // nextsOf( ot ) says what the row of ot points to.
   template<class NextsOf>
   unsigned depth( const ObjTuple& ot, NextsOf nextsOf ) {
      if( ot.tableType() == tableTypeDest_ )
         return 1;
      if( const unsigned* const known = depth_.find( ot ) )
         return *known;
      // Depth first, each object once, on a stack of our own.
      struct Step {
         ObjTuple ot;
         std::vector<ObjTuple> nexts;
         unsigned deepest = 0;
      };
      std::vector<Step> way;
      const auto enter = [ & ]( const ObjTuple& object ) {
         depth_.emplace( object, endless ); // a next that leads back here is on a loop
         way.push_back( { object, nextsOf( object ) } );
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

   // The row of ot has been written with that depth. usersOf( ot ) says which objects point to it.
   template<class UsersOf>
   void depthIs( const ObjTuple& ot, unsigned depth, UsersOf usersOf ) {
      const auto [ known, isNew ] = depth_.emplace( ot, depth );
      if( !isNew && *known == depth )
         return;
      *known = depth;
      std::vector<ObjTuple> outdated = usersOf( ot );
      while( !outdated.empty() ) {
         const ObjTuple user = outdated.back();
         outdated.pop_back();
         if( depth_.erase( user ) )
            for( const ObjTuple& above : usersOf( user ) )
               outdated.push_back( above );
      }
   }
   // The row has gone; nothing points to it any more.
   void depthDel( const ObjTuple& ot ) { depth_.erase( ot ); }
   void clear() { depth_.clear(); }

   // The objects on the longest way that leads to ot from above, ot not included; what is past the
   // bound is not looked at.
   template<class UsersOf>
   static unsigned height( const ObjTuple& ot, UsersOf usersOf ) {
      Vexil::KeySet<ObjTuple> level; // all objects from which a way of that length leads to ot
      level.emplace( ot );
      unsigned height = 0;
      for( ; height <= maxObjectDepth; ++height ) {
         Vexil::KeySet<ObjTuple> above;
         for( const auto& at : level )
            for( const ObjTuple& user : usersOf( at.key ) )
               above.emplace( user );
         if( above.empty() )
            break;
         level = std::move( above );
      }
      return height;
   }

 private:
   Vexil::HashMap<ObjTuple, unsigned> depth_; // of groups and labels
};

} // namespace L2Rib
