// l2ribctl source run: a source that takes its operations from standard input.
#pragma once

#include "client/SourcePublisher.h"

namespace Tools {

// Runs until standard input ends, or until SIGINT or SIGTERM. Returns the exit status.
int runSource( const L2Rib::Client::SourceOptions& options, bool keep );

} // namespace Tools
