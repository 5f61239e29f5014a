// Why a host is what it is: what explain --json prints, for the page that web serves.
#pragma once

#include "tools/Show.h"

namespace Tools {

// With what people are told beside: of each candidate "via", where it leads to, and "reason" why it
// loses; of each step of the path "via"; and the host's row of the "output", null when it has none.
// The output need not be complete.
Json explainInWords( const Context& context, const L2Rib::Client::OutputReader& output,
                     const Bridging::MacVlanPair& key );

} // namespace Tools
