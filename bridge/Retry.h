// When to try again what the kernel has refused: at growing intervals.
#pragma once

#include "runtime/Clock.h"

#include <algorithm>
#include <string>

namespace Bridge {

// A table that grows behind its writer's back refuses for some milliseconds, a table that is full
// until somebody acts: hence the first interval, and the longest.
constexpr Vexil::Seconds firstRetry = 0.05;
constexpr Vexil::Seconds longestRetry = 60;

struct Retry {
   unsigned tries = 0; // refusals in a row; 0: there was none
   Vexil::Seconds due = 0;
   std::string text; // the kernel's reason

   bool waits( Vexil::Seconds now ) const { return tries > 0 && due > now; }
   void refused( Vexil::Seconds now, std::string reason ) {
      due = now + std::min( longestRetry,
                            firstRetry * static_cast<double>( 1u << std::min( tries, 16u ) ) );
      ++tries;
      text = std::move( reason );
   }
};

} // namespace Bridge
