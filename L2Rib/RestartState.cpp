#include "L2Rib/RestartState.h"

#include <array>

namespace L2Rib {

namespace {
constexpr std::array names{ "init",         "hostSourceCheck", "otSourceCheck",
                            "otFloatCheck", "initialHostScan", "zeroRefCleanup",
                            "running" };
}

const char* restartStateStr( PolicySmRestartState state ) {
   const auto at = static_cast<size_t>( state );
   return at < names.size() ? names[ at ] : "unknown";
}

std::optional<PolicySmRestartState> restartStateParse( std::string_view text ) {
   for( size_t at = 0; at < names.size(); ++at )
      if( text == names[ at ] )
         return static_cast<PolicySmRestartState>( at );
   return std::nullopt;
}

} // namespace L2Rib
