// Flood sets as shared tables hold them: flattened, one record for each member of a set. Sources
// and the flood output have the same members; the output has the mask of its sources beside them.
#pragma once

#include "L2Rib/Fault.h"
#include "L2Rib/L2Rib.h"
#include "runtime/SharedTable.h"

namespace L2Rib {

// The key of a member in a table: the same as in a collection, but for the hash. The engine works
// its backlog of triples off in the order of their hashes. A table with that same order would be
// filled from one end, and each time that it has to grow all that it has would be in one run of
// its index.
struct FloodMemberKey : FloodSetTriple {
   FloodMemberKey() = default;
   FloodMemberKey( const FloodSetTriple& triple ) : FloodSetTriple( triple ) {}

   uint64_t hash() const { return Vexil::mix64( FloodSetTriple::hash() ); }
};

// A member of a source's flood sets as its flood table holds it, with the type of its set.
struct FloodMember {
   FloodMemberKey triple;
   FloodSetType floodSetType = floodSetTypeInvalid_;

   friend bool operator==( const FloodMember&, const FloodMember& ) = default;
};
static_assert( Vexil::WireRecord<FloodMember, 76> );
uint32_t layoutOf( const FloodMember& );
MaybeFault formatFaultIn( const FloodMember& member );
MaybeFault faultIn( const FloodMember& member );

class FloodMemberTable : public Vexil::NamedTable<FloodMemberTable, FloodMemberKey, FloodMember> {
 public:
   using NamedTable::NamedTable;
   static constexpr const char* typeName = "L2Rib::FloodMember";
   static constexpr const char* collection = "flood";
};

// The mask of sources beside the flood output's members.
struct FloodSourceRecord {
   uint32_t key = 1;
   uint32_t source = 0;

   friend bool operator==( const FloodSourceRecord&, const FloodSourceRecord& ) = default;
};
static_assert( Vexil::WireRecord<FloodSourceRecord, 8> );
uint32_t layoutOf( const FloodSourceRecord& );
MaybeFault formatFaultIn( const FloodSourceRecord& record );

class FloodSourceTable : public Vexil::NamedTable<FloodSourceTable, uint32_t, FloodSourceRecord> {
 public:
   using NamedTable::NamedTable;
   static constexpr const char* typeName = "L2Rib::FloodSource";
   static constexpr const char* collection = "source";
};

} // namespace L2Rib

VEXIL_TABLE( L2Rib::FloodMemberKey, L2Rib::FloodMember )
VEXIL_TABLE( uint32_t, L2Rib::FloodSourceRecord )
