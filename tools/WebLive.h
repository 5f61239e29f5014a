// The live changes that the page of web shows: one watch of the output for all who look at it.
//
// The watch runs in a thread of its own for as long as anybody listens. A listener that takes its
// lines too slowly, or asks for more than a person can read, loses the oldest and learns how many.
#pragma once

#include "tools/Watch.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace Tools {

class LiveWatch;

// One who listens. Its calls come from one thread; it may go at any time.
class LiveListener {
 public:
   LiveListener( std::shared_ptr<LiveWatch> watch, const RowFilter& filter );
   ~LiveListener();
   LiveListener( const LiveListener& ) = delete;
   LiveListener& operator=( const LiveListener& ) = delete;

   struct Lines {
      std::deque<std::string> lines; // the latest ones, in the words of watch
      size_t left = 0;               // lines that are left out before these
      bool ended = false;            // the watch has ended, and nothing more comes
   };
   // What has come since the last call; waits that long for something to come.
   Lines take( std::chrono::milliseconds longest );

 private:
   friend class LiveWatch;
   static constexpr size_t most = 100; // lines at a time

   const std::shared_ptr<LiveWatch> watch_;
   const RowFilter filter_; // its VLANs and addresses
   Lines waiting_;          // under the watch's lock
};

class LiveWatch : public WatchReader {
 public:
   // The context outlives it.
   explicit LiveWatch( const Context& context );
   // Ends the thread.
   ~LiveWatch() override;

   void begin( Vexil::ActivityManager& loop ) override;
   void line( const std::string& line, const Bridging::MacVlanPair* host ) override;
   bool batchDone() override;

 private:
   friend LiveListener;
   void watch( const Context& context );

   std::mutex lock_;
   std::condition_variable come_;
   std::set<LiveListener*> listeners_;
   bool ended_ = false;
   int stop_ = -1; // an eventfd
   std::thread thread_;
};

} // namespace Tools
