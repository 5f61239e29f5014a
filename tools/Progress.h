// How far a long work has come, for a person who waits for it.
//
// One line on standard error, written over; only where that is a terminal, only after a moment, and
// gone when the work is done.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace Tools {

class Progress {
 public:
   Progress();
   ~Progress();
   Progress( const Progress& ) = delete;
   Progress& operator=( const Progress& ) = delete;

   // Now and then; a call that prints nothing costs a look at the clock.
   void at( const std::string& what );
   // "hosts: 12000 of 100000". Looks at the clock once in 1024 counts.
   void at( const char* what, uint64_t done, uint64_t all );

 private:
   using Clock = std::chrono::steady_clock;

   const bool terminal_;
   Clock::time_point next_;
   bool shown_ = false;
};

} // namespace Tools
