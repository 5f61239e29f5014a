// A walk over all of the output that queues it to be decided anew, in slices.
//
// When a source's hold is over, when it is back, or when changes of its tables were lost to us,
// any host may have another winner: also one that is not the source's own, because sequence numbers
// run in a circle and a third candidate can turn the choice between two others. So the whole output
// is queued, but for what another vanished source still keeps. The walk also forgets the ids that
// were given to objects of sources that are gone and never came to stand in a row.
//
// A request while a walk is under way lets that one go on where it stands and asks for another one
// behind it. However often sources come and go, every row is met once a round.
#pragma once

#include "L2Rib/L2Rib.h"
#include "runtime/Clock.h"

namespace L2Rib {

class PolicySm;

class OutputSweep {
 public:
   explicit OutputSweep( PolicySm& engine ) : engine_( engine ) {}

   // All that is in the output now is to be queued.
   void request();
   // One slice. False when nothing is left to do.
   bool work( Vexil::Seconds deadline );
   // What is still to be looked at, at the most: slots of the host output, VLANs of the flood
   // output. 0 when no walk is under way.
   uint64_t left() const;

 private:
   enum class Stage { idle, hosts, floodMembers, mappings };

   bool queueHosts( Vexil::Seconds deadline );
   bool queueFloodMembers( Vexil::Seconds deadline );
   bool forgetMappings( Vexil::Seconds deadline );

   PolicySm& engine_;
   Stage stage_ = Stage::idle;
   bool again_ = false;    // asked for while a walk was under way
   uint64_t tableId_ = 0;  // of the host output whose slots are walked
   uint32_t slot_ = 0;     // in it, the next one
   FloodSetTriple member_; // where the walk over the flood output goes on; the default one: at its
                           // beginning
   ObjTupleAndSource mapping_; // likewise for the mappings
};

} // namespace L2Rib
