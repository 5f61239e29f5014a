// How the merged flood sets cross process borders: flattened into a shared table, one record a
// member, written as they change, and read back when the agent starts again.
#pragma once

#include "L2Rib/FloodSets.h"
#include "L2Rib/SourceDir.h"
#include "runtime/StateDb.h"

#include <memory>

namespace L2Rib {

// The mask of sources beside the flood output's members.
struct FloodSourceRecord {
   uint32_t key = 1;
   uint32_t source = 0;

   friend bool operator==( const FloodSourceRecord&, const FloodSourceRecord& ) = default;
};
static_assert( Vexil::WireRecord<FloodSourceRecord, 8> );
MaybeFault formatFaultIn( const FloodSourceRecord& record );

class FloodSourceTable : public Vexil::NamedTable<FloodSourceTable, uint32_t, FloodSourceRecord> {
 public:
   using NamedTable::NamedTable;
   static constexpr const char* typeName = "L2Rib::FloodSource";
   static constexpr const char* collection = "source";
};

// Mounts the flood output. For reading: the entity follows the tables, which are there. For
// writing: the entity holds what an earlier run left, and every change of it is in the tables when
// the change returns. The member table grows when it is full.
Vexil::Mounted mountFloodOutput( Vexil::EntityManager& manager, const std::string& path,
                                 Vexil::MountMode mode );

} // namespace L2Rib

VEXIL_TABLE( L2Rib::FloodMemberKey, L2Rib::FloodMember )
VEXIL_TABLE( uint32_t, L2Rib::FloodSourceRecord )
