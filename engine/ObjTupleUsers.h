// Who uses one output object: output hosts, and other output objects that point to it.
#pragma once

#include "L2Rib/L2Rib.h"
#include "runtime/Entity.h"
#include "runtime/HashMap.h"

namespace L2Rib {

// Made and owned by the engine, one for each output object in use. The users are sets, not counts:
// entering the same user twice leaves one relation. Looking up, entering and removing a user take
// constant time. One relation costs 12 bytes in an array that is between three eighths and three
// quarters full, so 16 to 32 bytes; the smallest array has 8 slots, and an empty set has none.
class ObjTupleUsers : public Vexil::Entity {
 public:
   struct Handlers {
      virtual void handleZeroReferences() {}
   };
   Vexil::Notifiees<Handlers> notifiees;
   // Tells the reactors that nothing uses the object any more. The engine, which is the one to find
   // that out, has nobody to tell.
   void zeroReferences() const { notifiees.notify( &Handlers::handleZeroReferences ); }

   explicit ObjTupleUsers( const ObjTuple& used ) : used_( used ) {}

   const ObjTuple& used() const { return used_; }
   bool empty() const { return otUser().empty() && mvpUser().empty(); }
   size_t size() const { return otUser().size() + mvpUser().size(); }

   // Brings the place of a host that may soon be entered, given its hash, nearer to the processor.
   void prefetchMvpUser( uint64_t hash ) const { mvpUser().prefetchHash( hash ); }

   VEXIL_KEY_SET( ObjTuple, otUser )
   VEXIL_KEY_SET( Bridging::MacVlanPair, mvpUser )

 private:
   ObjTuple used_;
};

} // namespace L2Rib
