// The event loop: one thread, one epoll descriptor.
//
// A turn waits for a descriptor, a signal or the next timer, calls the handlers of the descriptors
// that are readable, fires the timers that are due, and at last runs the end-of-turn work (ringing
// the doorbells of written tables, publishing the status). Everything in a process runs here, one
// call at a time.
#pragma once

#include "runtime/Clock.h"

#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace Vexil {

class ActivityManager {
 public:
   // With the system's clock, or one of the caller's.
   explicit ActivityManager( Ptr<Clock> clock = makeEntity<SystemClock>() );
   ~ActivityManager();
   ActivityManager( const ActivityManager& ) = delete;
   ActivityManager& operator=( const ActivityManager& ) = delete;

   const Ptr<Clock>& clock() const { return clock_; }
   // For turning this loop inside another one: readable when a watched descriptor or a signal is.
   // Timers do not show on it.
   int fd() const { return epoll_; }

   // Calls readable() in each turn in which fd has something to read, until unwatch( fd ). The
   // descriptor stays the caller's; it is unwatched before it is closed.
   void watch( int fd, std::function<void()> readable );
   void unwatch( int fd );
   // Blocks the signal's default action and calls handler() in the loop instead.
   void signalIs( int signal, std::function<void()> handler );
   // Runs the work at the end of every turn for as long as the caller keeps what is returned. The
   // work added last runs first, so that what was set up first (ringing the bells) has the last
   // word.
   [[nodiscard]] std::shared_ptr<void> atEndOfTurn( std::function<void()> work );

   // One turn that waits at most longestWait seconds.
   void turn( Seconds longestWait = never );
   // Turns until stop().
   void run();
   void stop() { running_ = false; }

   // The longest time that one turn took so far, without the waiting.
   Seconds longestHold() const { return longestHold_; }

 private:
   void readSignals();

   Ptr<Clock> clock_;
   int epoll_ = -1;
   int signals_ = -1;
   std::map<int, std::function<void()>> watched_; // by descriptor
   std::map<int, std::function<void()>> signalHandlers_;
   std::vector<std::weak_ptr<std::function<void()>>> endOfTurn_;
   bool running_ = false;
   Seconds longestHold_ = 0;
};

} // namespace Vexil
