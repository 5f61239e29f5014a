// What a source may publish: the checks that keep nonsense out of the tables.
//
// The agent takes what stands in a source's table for what the source means, and stops at an
// invariant that is broken. So everything is checked before it is written. References are not: a
// host may name an object that follows later, and waits for it in the agent.
#pragma once

#include "L2Rib/SourceDir.h"

#include <optional>
#include <string>

namespace L2Rib::Client {

// Why something can't be done, in one line that says what would be right; nothing when it was done.
using Rejection = std::optional<std::string>;

Rejection checked( const Bridging::MacVlanPair& key );
Rejection checked( const Host& host );
Rejection checked( const Dest& dest );
Rejection checked( const LoadBalance& lb );
Rejection checked( const Label& label );
Rejection checked( const FloodMember& member );
// An id that an object may have: neither 0 nor all ones. The kind is for the text.
Rejection checkedId( TableType kind, uint64_t id );

} // namespace L2Rib::Client
