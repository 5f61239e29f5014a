// What is remembered of input objects between two looks at them: is this one, with all below it, up
// to date at this version of its source's tables, or known to fail?
//
// The version is that of the changes that the engine has been told of. It is taken once for an
// object and all below it, so each of these is looked at once, however many ways lead there and
// however fast the source writes meanwhile: a change that comes later is told later, and queues the
// object again. A million hosts behind one group cost one lookup each.
#pragma once

#include "engine/Awaited.h"
#include "engine/L2RibPolicySourceSm.h"
#include "runtime/HashMap.h"

namespace L2Rib {

class ObjectMemo {
 public:
   using Version = PolicySourceSm::ObjectVersion;

   // The object's copy, with all below it, is in the output as the source had it at that version.
   struct Verified {
      Version version;
      bool whole; // no copy of an object that the source has deleted is among it and those below
   };
   // It could not be written at that version: what processOtas() said then, and why.
   struct Failed {
      Version version;
      bool ok;
      Obstacle obstacle;
   };

   bool isVerified( const ObjTupleAndSource& otas, const Version& version ) {
      if( otas == last_.otas && version == last_.version )
         return true;
      const Verified* const known = verified_.find( otas );
      if( !known || known->version != version )
         return false;
      last_ = { otas, version };
      return true;
   }
   void verifiedIs( const ObjTupleAndSource& otas, const Verified& found ) {
      const auto [ known, isNew ] = verified_.emplace( otas, found );
      if( !isNew )
         *known = found;
   }
   // Null when the object is not known to be in the output.
   const Verified* verified( const ObjTupleAndSource& otas ) const {
      return verified_.find( otas );
   }

   // Null when it is not known to fail at that version.
   const Failed* failed( const ObjTupleAndSource& otas, const Version& version ) const {
      const Failed* const known = failed_.find( otas );
      return known && known->version == version ? known : nullptr;
   }
   void failedIs( const ObjTupleAndSource& otas, const Failed& found ) {
      const auto [ known, isNew ] = failed_.emplace( otas, found );
      if( !isNew )
         *known = found;
   }
   // What failed is about to be tried again.
   void failedDelAll() { failed_.clear(); }

   void forget( const ObjTupleAndSource& otas ) {
      verified_.erase( otas );
      last_ = {};
   }
   void clear() {
      verified_.clear();
      failed_.clear();
      last_ = {};
   }

 private:
   Vexil::HashMap<ObjTupleAndSource, Verified> verified_;
   Vexil::HashMap<ObjTupleAndSource, Failed> failed_;
   struct {
      ObjTupleAndSource otas;
      Version version;
   } last_; // hosts that are decided one after the other often lead to one object
};

} // namespace L2Rib
