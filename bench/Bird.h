// BIRD as the rival of the merge: an instance of our own, in the foreground, with three static
// protocols of ascending preference that hold the same routes, and no kernel protocol. It is driven
// through its control socket; the phases are those of MergeEngine.h.
#pragma once

#include "bench/MergeEngine.h"

#include <cstdint>
#include <string>

namespace Bench {

struct BirdPhase {
   double seconds;   // from the command to the first answer that shows the phase done
   double processor; // seconds of processor time of BIRD meanwhile, without that of the polling
   double silence;   // the longest that BIRD took to answer a poll
};

struct BirdResult {
   std::array<BirdPhase, phaseCount> phase;
   double tableBytes; // growth of its resident memory over the three first phases
   double allBytes;   // its resident memory then, configuration included
};

bool birdInstalled();
// Runs the phases with that many routes a protocol, on files in a folder.
BirdResult runBird( const std::string& folder, uint32_t routes );

} // namespace Bench
