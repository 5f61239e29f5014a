// The output tables, and what is asked of their rows whatever table they stand in.
#pragma once

#include "L2Rib/FloodSets.h"
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/Parked.h"
#include "L2Rib/Status.h"

#include <array>
#include <vector>

namespace L2Rib {

// Where the engine writes. Given by its caller, who keeps the tables' writer.
struct OutputTables {
   Vexil::Ptr<HostOutput> host;
   Vexil::Ptr<LoadBalanceOutput> lb;
   Vexil::Ptr<LabelOutput> label;
   Vexil::Ptr<DestOutput> dest;
   Vexil::Ptr<FloodSetOutput> flood;
   Vexil::Ptr<PolicySmStatus> status;

   // Whether the object has a row; the invalid tuple and one of no known type have none.
   bool contains( const ObjTuple& ot ) const;
   // What its row points to, in order; nothing when it has no row.
   std::vector<ObjTuple> nextsOf( const ObjTuple& ot ) const;
   // Deletes its row, if there is one.
   void erase( const ObjTuple& ot ) const;
   // How many rows are free, by table.
   std::array<uint64_t, outputTables> freeRows() const;
   // The table that has the copies of objects of that type; none for a type that is not known.
   static OutputTable nameOf( TableType type );
};

} // namespace L2Rib
