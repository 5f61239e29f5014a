// Tells the service manager how the daemon is: systemd's notification protocol, a datagram of
// NAME=VALUE lines to the socket that the environment names. Without such a socket nothing is sent.
//
//    NOTIFY_SOCKET   the socket's file, or @NAME in the abstract namespace
//    WATCHDOG_USEC   how long the daemon may be silent before it is taken for hung
//    WATCHDOG_PID    whom that is meant for, when it is not everybody
#pragma once

#include "runtime/ActivityManager.h"
#include "runtime/Agent.h"

#include <functional>
#include <string>

namespace Vexil {

class ServiceNotifier {
 public:
   explicit ServiceNotifier( ActivityManager& loop );
   ~ServiceNotifier();
   ServiceNotifier( const ServiceNotifier& ) = delete;
   ServiceNotifier& operator=( const ServiceNotifier& ) = delete;

   // The daemon serves from now on. Its progress is asked for and told, as the status text, several
   // times a second until it is complete. The watchdog is fed from the event loop, twice as often
   // as it needs: a loop that hangs feeds it no more.
   void ready( std::function<BaseAgent::Progress()> progress );
   void stopping();

 private:
   // False when there was no room for them, so that they may be told again.
   bool send( const std::string& lines, int flags = 0 ) const;
   void tellProgress();
   void feedWatchdog();

   ActivityManager& loop_;
   std::string socketName_; // as in a socket address; empty: nobody listens
   int socket_ = -1;
   Seconds watchdogPeriod_ = never;
   std::function<BaseAgent::Progress()> progress_;
   std::string told_;
   TimerReactor progressTimer_;
   TimerReactor watchdogTimer_;
};

} // namespace Vexil
