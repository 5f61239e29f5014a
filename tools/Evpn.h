// The status of l2rib-evpn, from its tables, whether it runs or not.
#pragma once

#include "L2Rib/EvpnStatus.h"
#include "tools/Show.h"

#include <optional>

namespace Tools {

struct EvpnProgram {
   bool runs = false;
   L2Rib::EvpnProgramRecord record;
};
// None where it never ran.
std::optional<EvpnProgram> evpnProgram( const Context& context );
// By address.
std::vector<L2Rib::EvpnPeerRecord> evpnPeers( const Context& context );

} // namespace Tools
