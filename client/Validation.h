// How the client library says that something can't be done.
#pragma once

#include "L2Rib/Fault.h"

#include <optional>
#include <string>

namespace L2Rib::Client {

// Why something can't be done, in one line that says what was expected; nothing when it was done.
using Rejection = std::optional<std::string>;

// The agent takes what stands in a source's table for what the source means, and stops at an
// invariant that is broken. So everything is checked before it is written, by the rules that the
// agent has. References are not: a host may name an object that follows later.
template<class Record>
Rejection checked( const Record& record ) {
   const MaybeFault fault = faultIn( record );
   return fault ? Rejection( fault->text ) : Rejection();
}

} // namespace L2Rib::Client
