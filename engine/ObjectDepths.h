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

#include "engine/OutputTables.h"
#include "engine/OutputUsers.h"
#include "runtime/HashMap.h"

namespace L2Rib {

// The longest chain of objects that is programmed: our own limit. Real chains have a handful of
// members; the bound keeps a source that publishes an endless one from exhausting the stack.
constexpr unsigned maxObjectDepth = 64;

class ObjectDepths {
 public:
   // Both outlive this.
   ObjectDepths( const OutputTables& rows, const OutputUsers& users )
      : rows_( rows ), users_( users ) {}

   unsigned depth( const ObjTuple& ot );
   // The row of ot has been written with that depth.
   void depthIs( const ObjTuple& ot, unsigned depth );
   // The row has gone; nothing points to it any more.
   void depthDel( const ObjTuple& ot ) { depth_.erase( ot ); }
   void clear() { depth_.clear(); }

   // Whether the row of ot, once it is that deep, leaves every way through it within the bound:
   // whoever points to it already gets deeper with it.
   bool fits( const ObjTuple& ot, unsigned depth );
   // Whether target, which is about to point to ot, is among the objects at or below ot.
   bool leadsTo( const ObjTuple& ot, const ObjTuple& target );

 private:
   static constexpr unsigned endless = 1u << 20; // more than any bound

   unsigned height( const ObjTuple& ot ) const;

   const OutputTables& rows_;
   const OutputUsers& users_;
   Vexil::HashMap<ObjTuple, unsigned> depth_; // of groups and labels
};

} // namespace L2Rib
