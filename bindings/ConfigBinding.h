// What fills the Bridging::Config entity from the bridging configuration in the state database.
//
// The binding follows both tables and the link, in slices: what it meets in a new generation, and
// what it knows and no longer meets. An invalid record is corruption of its table and reads as
// absent. Where a table can't be opened because a resource is missing, the configuration stays as
// it is known, and the opening is tried again. An fdbConfig entry that has lost its last host
// stays: it costs nothing, while deleting it would cost its readers a look at everything.
#pragma once

#include "L2Rib/ConfigRecords.h"
#include "runtime/StateDb.h"

#include <string>

namespace Bridging {

// Mounts the configuration under a path of the state database; read-only, whatever the mode. In
// memory it stays as it is made, empty.
Vexil::Mounted mountConfig( Vexil::EntityManager& manager, const std::string& path,
                            Vexil::MountMode mode );

} // namespace Bridging
