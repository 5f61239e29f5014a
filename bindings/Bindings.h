// How the RIB's entities are mounted in the state database: for each type the binding that keeps
// the entity in step with its file.
#pragma once

namespace L2Rib {

// Registers the entity types of the RIB's data model. To be called once, when the library is
// loaded.
void registerEntityTypes();

} // namespace L2Rib
