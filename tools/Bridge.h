// The status of l2rib-bridge, from its tables, whether it runs or not.
#pragma once

#include "L2Rib/BridgeStatus.h"
#include "tools/Show.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Tools {

struct BridgeProgram {
   bool runs = false;
   L2Rib::BridgeProgramRecord record;
};
// None where it never ran.
std::optional<BridgeProgram> bridgeProgram( const Context& context );
// Why the kernel was not given a host, by its key; empty where l2rib-bridge never ran.
std::map<Bridging::MacVlanPair, std::string> hostsRefused( const Context& context );
// By VLAN.
std::vector<L2Rib::BridgeRecord> bridgeRecords( const Context& context );

// What the kernel was given for that host, or why it was not:
// {"bridge","device","nexthop","vteps"}, with "vtep" and "vni", with "interface", or with
// "refused". null where l2rib-bridge never ran or has no bridge for the VLAN.
Json kernelJson( const Context& context, const Bridging::MacVlanPair& key );
// The same in a line for people.
std::string kernelText( const Json& kernel );

} // namespace Tools
