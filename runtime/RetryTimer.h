// Tries again, at growing intervals, what failed because a resource was missing.
#pragma once

#include "runtime/Clock.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace Vexil {

class RetryTimer {
 public:
   static constexpr Seconds shortest = 0.1;
   static constexpr Seconds longest = 10;

   // Nothing is tried before the first failure.
   RetryTimer( Ptr<Clock> clock, std::function<void()> again )
      : clock_( clock ), timer_( std::move( clock ), std::move( again ) ) {
      succeeded();
   }
   // again() is called after an interval: the shortest, and twice as long each time. Failures that
   // come while it is awaited do not put it off.
   void failed() {
      if( timer_.timeMin() != never )
         return;
      timer_.timeMinIs( clock_->now() + interval_ );
      interval_ = std::min( 2 * interval_, longest );
   }
   // There is nothing to try; the next interval is the shortest.
   void succeeded() {
      timer_.timeMinIs( never );
      interval_ = shortest;
   }

 private:
   Ptr<Clock> clock_;
   Seconds interval_ = shortest;
   TimerReactor timer_;
};

} // namespace Vexil
