// The clock and its timers.
//
// Times are seconds as double. A timer has a wake time: 0 fires it at the next turn of the event
// loop, +infinity disarms it, anything else when the clock has reached it. A new timer has wake
// time 0, so it fires once unless it is re-armed first. A timer that fires is disarmed just before
// its handler runs; the handler arms it again if it wants more.
//
// The logic never asks the system for the time: it is given a clock, and a test gives it one of its
// own, which it moves by hand and turns with fireDue().
#pragma once

#include "runtime/Entity.h"

#include <functional>
#include <limits>
#include <set>
#include <utility>
#include <vector>

namespace Vexil {

using Seconds = double;
constexpr Seconds never = std::numeric_limits<double>::infinity();

class TimerReactor;

class Clock : public Entity {
 public:
   virtual Seconds now() const = 0;
   // Whether it is later than the deadline: what a slice of work asks after every entry.
   virtual bool isPast( Seconds deadline ) const { return now() > deadline; }

   // One turn: fires every timer that is due at the start of the turn, in the order of wake times
   // and then of arming, each at most once; one that is armed meanwhile waits for the next turn.
   void fireDue();
   // The earliest wake time, or never.
   Seconds nextWake() const;

 private:
   friend class TimerReactor;
   void arm( TimerReactor& timer );
   void disarm( TimerReactor& timer );

   struct Armed {
      Seconds wake;
      uint64_t order;
      TimerReactor* timer;
      auto operator<=>( const Armed& ) const = default;
   };
   std::set<Armed> armed_;
   uint64_t armings_ = 0;
};

class TimerReactor {
 public:
   // handler is called on the clock's thread, in fireDue(); it may destroy the timer.
   TimerReactor( Ptr<Clock> clock, std::function<void()> handler );
   TimerReactor( const TimerReactor& ) = delete;
   TimerReactor& operator=( const TimerReactor& ) = delete;
   ~TimerReactor();

   Seconds timeMin() const { return timeMin_; }
   void timeMinIs( Seconds wake );

 private:
   friend class Clock;
   Ptr<Clock> clock_;
   std::function<void()> handler_;
   Seconds timeMin_ = 0;
   uint64_t order_ = 0; // of the arming; 0 while disarmed
};

// Seconds since the machine started, the same in every process of it; never set back.
class SystemClock : public Clock {
 public:
   Seconds now() const override;
   // Costs a quarter of now() for most of a slice: first asks the time of the kernel's last tick,
   // and the exact one only when less than two ticks may be left.
   bool isPast( Seconds deadline ) const override;
};

// Stands still until it is moved.
class ManualClock : public Clock {
 public:
   explicit ManualClock( Seconds start = 1000.0 ) : now_( start ) {}
   Seconds now() const override {
      now_ += tick_;
      return now_;
   }
   void nowIs( Seconds now ) { now_ = now; }
   // Lets every look at the clock take that long, so that a slice can run out of time.
   void tickIs( Seconds tick ) { tick_ = tick; }

 private:
   mutable Seconds now_;
   Seconds tick_ = 0;
};

} // namespace Vexil
