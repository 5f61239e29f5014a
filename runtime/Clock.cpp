#include "runtime/Clock.h"

#include <ctime>

namespace Vexil {

void Clock::arm( TimerReactor& timer ) {
   if( timer.timeMin_ == never )
      return;
   timer.order_ = ++armings_;
   armed_.insert( { timer.timeMin_, timer.order_, &timer } );
}

void Clock::disarm( TimerReactor& timer ) {
   if( timer.order_ == 0 )
      return;
   armed_.erase( { timer.timeMin_, timer.order_, &timer } );
   timer.order_ = 0;
}

Seconds Clock::nextWake() const { return armed_.empty() ? never : armed_.begin()->wake; }

void Clock::fireDue() {
   const Seconds turn = now();
   const uint64_t lastArming = armings_;
   // A handler may arm, disarm or destroy any timer, so each step looks again for the first one
   // that is due and was armed before this turn.
   while( true ) {
      auto due = armed_.begin();
      while( due != armed_.end() && due->wake <= turn && due->order > lastArming )
         ++due;
      if( due == armed_.end() || due->wake > turn )
         return;
      TimerReactor& timer = *due->timer;
      timer.timeMinIs( never );
      const auto handler = timer.handler_; // survives a handler that destroys its timer
      handler();
   }
}

TimerReactor::TimerReactor( Ptr<Clock> clock, std::function<void()> handler )
   : clock_( std::move( clock ) ), handler_( std::move( handler ) ) {
   clock_->arm( *this );
}

TimerReactor::~TimerReactor() { clock_->disarm( *this ); }

void TimerReactor::timeMinIs( Seconds wake ) {
   if( wake == timeMin_ && ( order_ != 0 || wake == never ) )
      return;
   clock_->disarm( *this );
   timeMin_ = wake;
   clock_->arm( *this );
}

namespace {

Seconds secondsOf( const timespec& t ) {
   return static_cast<Seconds>( t.tv_sec ) + static_cast<Seconds>( t.tv_nsec ) * 1e-9;
}

Seconds tickOfKernel() {
   timespec t{};
   clock_getres( CLOCK_MONOTONIC_COARSE, &t );
   return secondsOf( t );
}

} // namespace

Seconds SystemClock::now() const {
   timespec t{};
   clock_gettime( CLOCK_MONOTONIC, &t );
   return secondsOf( t );
}

bool SystemClock::isPast( Seconds deadline ) const {
   static const Seconds margin = 2 * tickOfKernel();
   timespec lastTick{};
   clock_gettime( CLOCK_MONOTONIC_COARSE, &lastTick );
   return secondsOf( lastTick ) + margin > deadline && now() > deadline;
}

} // namespace Vexil
