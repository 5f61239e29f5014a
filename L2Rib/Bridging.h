// The bridging configuration, as far as the RIB reads it: per forwarding database (one a VLAN) the
// statically configured hosts.
#pragma once

#include "L2Rib/NetTypes.h"
#include "runtime/Entity.h"

namespace Bridging {

class Config : public Vexil::Entity {};

} // namespace Bridging
