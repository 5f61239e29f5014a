// The mapping between the sources' objects and the output objects of one table type.
//
// Every input object that has an output copy has one output id, and every output id stands for one
// input object. Ids are handed out in ascending order and never twice, not even after the object
// has gone: a reader that remembers an id can't mistake another object for it.
#pragma once

#include "L2Rib/L2Rib.h"
#include "runtime/Entity.h"
#include "runtime/HashMap.h"

#include <algorithm>

namespace L2Rib {

class ObjTupleManager : public Vexil::Entity {
 public:
   // Hands out the ids from lowest to highest, both included.
   ObjTupleManager( TableType tableType, uint64_t lowest, uint64_t highest )
      : tableType_( tableType ), next_( lowest ), highest_( highest ) {}

   TableType tableType() const { return tableType_; }

   // The output object of an input object, and the other way round; the invalid value when there is
   // no such mapping. Constant time.
   ObjTuple inputToOutput( const ObjTupleAndSource& otas ) const {
      const ObjTuple* found = inputToOutput_.find( otas );
      return found ? *found : Util::objTupleInvalid();
   }
   ObjTupleAndSource outputToInput( const ObjTuple& ot ) const {
      const ObjTupleAndSource* found = outputToInput_.find( ot );
      return found ? *found : Util::otasInvalid();
   }
   const Vexil::HashMap<ObjTupleAndSource, ObjTuple>& inputToOutput() const {
      return inputToOutput_;
   }
   size_t size() const { return outputToInput_.size(); }

   // Maps an input object to the next output id; one that is mapped keeps what it has. The invalid
   // tuple, and no mapping, when all ids have been given.
   ObjTuple newOutputOt( const ObjTupleAndSource& otas ) {
      if( const ObjTuple* const present = inputToOutput_.find( otas ) )
         return *present;
      if( next_ > highest_ )
         return Util::objTupleInvalid();
      const ObjTuple ot( ObjId( next_ ), tableType_ );
      restoreMapping( otas, ot );
      return ot;
   }
   // Forgets an output object, in both directions.
   void delOutputOt( const ObjTuple& ot ) {
      inputToOutput_.erase( outputToInput( ot ) );
      outputToInput_.erase( ot );
   }
   // Enters a mapping that is known already, without giving an id. The id isn't given later either.
   void restoreMapping( const ObjTupleAndSource& otas, const ObjTuple& ot ) {
      next_ = std::max( next_, ot.objId().value() + 1 );
      inputToOutput_.emplace( otas, ot );
      outputToInput_.emplace( ot, otas );
   }
   void inputToOutputDelAll() { inputToOutput_.clear(); }
   void outputToInputDelAll() { outputToInput_.clear(); }

 private:
   TableType tableType_;
   uint64_t next_;
   uint64_t highest_;
   Vexil::HashMap<ObjTupleAndSource, ObjTuple> inputToOutput_;
   Vexil::HashMap<ObjTuple, ObjTupleAndSource> outputToInput_;
};

// A set of objects.
class ObjTupleSet {
 public:
   VEXIL_KEY_SET( ObjTuple, ot )
   void newOt( const ObjTuple& ot, bool member ) { otIs( ot, member ); }
};

} // namespace L2Rib
