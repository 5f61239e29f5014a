// How the merged flood sets cross process borders: flattened into a shared table, one record a
// member, written as they change, and read back when the agent starts again.
#pragma once

#include "L2Rib/FloodRecords.h"
#include "L2Rib/FloodSets.h"
#include "runtime/StateDb.h"

namespace L2Rib {

// Mounts the flood output. For reading: the entity follows the tables, which are there. For
// writing: the entity holds what an earlier run left, and every change of it is in the tables when
// the change returns. The member table grows when it is full.
Vexil::Mounted mountFloodOutput( Vexil::EntityManager& manager, const std::string& path,
                                 Vexil::MountMode mode );

} // namespace L2Rib
