// The states of the engine's restart, in their order: the engine compares them with < and >.
#pragma once

#include <optional>
#include <ostream>
#include <string_view>

namespace L2Rib {

enum PolicySmRestartState {
   init_ = 0,            // constructed, nothing adopted yet
   hostSourceCheck_ = 1, // checking every found output host against the output objects
   otSourceCheck_ = 2,   // checking every found output object, restoring its id mapping
   otFloatCheck_ = 3,    // checking that every found output object has a user
   initialHostScan_ = 4, // selecting the best host again for every found output host
   zeroRefCleanup_ = 5,  // carrying out the deletes that were deferred meanwhile
   running_ = 6,         // normal work
};

// The names without the underscore.
const char* restartStateStr( PolicySmRestartState state );
std::optional<PolicySmRestartState> restartStateParse( std::string_view text );
inline std::ostream& operator<<( std::ostream& to, PolicySmRestartState state ) {
   return to << restartStateStr( state );
}

} // namespace L2Rib
