// The output as a graph: hosts, objects, and who points to whom; and the flood sets beside it. For
// the commands that walk it.
#pragma once

#include "client/OutputReader.h"

#include <map>
#include <set>
#include <vector>

namespace Tools {

// All rows as they stood at one moment, as far as the agent held still for it.
struct OutputGraph {
   explicit OutputGraph( const L2Rib::Client::OutputReader& output );

   // What an object's row points to; empty for dests, and for objects that have no row.
   std::vector<L2Rib::ObjTuple> nextsOf( const L2Rib::ObjTuple& object ) const;
   // The objects that are reached from these, themselves included, whether they have rows or not.
   std::set<L2Rib::ObjTuple> reachedFrom( std::vector<L2Rib::ObjTuple> starts ) const;
   bool has( const L2Rib::ObjTuple& object ) const;
   // Whose object the row is a copy of; the row must be there.
   L2Rib::Source sourceOf( const L2Rib::ObjTuple& object ) const;

   std::vector<L2Rib::HostAndSource> hosts; // by VLAN, then MAC
   std::map<L2Rib::DestId, L2Rib::DestAndSource> dests;
   std::map<L2Rib::LoadBalanceId, L2Rib::LoadBalanceAndSource> groups;
   std::map<L2Rib::LabelId, L2Rib::LabelAndSource> labels;
   std::vector<L2Rib::FloodMember> flood; // by VLAN, then address
   bool stoodStill = false;               // nothing was written while it was read
};

} // namespace Tools
