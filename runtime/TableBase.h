// What the event loop, the agent and the status report need to know of a shared table, whatever it
// holds.
#pragma once

#include "runtime/Clock.h"
#include "runtime/Entity.h"
#include "runtime/Trace.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>

namespace Vexil {

// Whether a table takes one more record.
enum class Room {
   yes,
   full,    // it has the highest capacity that it may have
   noMemory // it could grow, but there is no memory for it
};

class TableBase : public Entity {
 public:
   // Delivers changes to the reactors until there are no more or the deadline has passed (at least
   // one batch is delivered). Returns whether more are left. Never throws: corruption is recorded.
   virtual bool poll( const Clock& clock, Seconds deadline ) = 0;
   // Wakes the readers if something was written since the last time. Once per batch of writes.
   virtual void ring() = 0;

   virtual const std::string& path() const = 0;
   virtual uint64_t tableId() const = 0;
   virtual uint32_t capacity() const = 0;
   virtual uint32_t count() const = 0;
   // For the writer alone.
   // How many more records it takes at the most: what is free when it has grown as far as it may.
   virtual uint64_t roomLeft() const = 0;
   virtual void capacityIs( uint32_t capacity ) = 0;
   virtual void capacityMaxIs( uint32_t capacity ) = 0;
   virtual Room makeRoom( size_t expected = 1 ) = 0;
   // Called in place of going on when this process finds that the file of a table that it writes
   // has been cut short or overwritten: what is written is lost from then on.
   void onLoss( std::function<void( const std::string& what )> handler ) {
      onLoss_ = std::move( handler );
   }
   // How far the writer and this entity have come in the journal. What stands before the cursor has
   // been delivered; 0 while all keys are being walked.
   virtual uint64_t journalHead() const = 0;
   virtual uint64_t journalCursor() const = 0;
   // How many of the changes have been delivered: grows with each, in a walk over all keys too.
   virtual uint64_t changesTold() const = 0;
   uint64_t overruns() const { return overruns_; }

   // Records that the table was found corrupt: counts, and says each message once in the log. Of a
   // table with many, the log has the first ones.
   void corruptionDetected( const std::string& message ) const {
      ++corruptions_;
      lastCorruption_ = message;
      if( told_.size() > mostTold || !told_.insert( message ).second )
         return;
      log( "corruption detected: " + ( told_.size() <= mostTold
                                          ? message
                                          : path() + ": more of it, which is only counted" ) );
   }
   uint64_t corruptions() const { return corruptions_; }
   // The latest message; empty when there was none.
   const std::string& lastCorruption() const { return lastCorruption_; }

 protected:
   // The file can't be written any more.
   void lost( const std::string& what ) const {
      corruptionDetected( what );
      if( onLoss_ )
         onLoss_( what );
   }

   uint64_t cursor_ = 0;
   uint64_t overruns_ = 0;
   std::function<void( const std::string& )> onLoss_;

 private:
   static constexpr size_t mostTold = 8;

   mutable uint64_t corruptions_ = 0;
   mutable std::string lastCorruption_;
   mutable std::set<std::string> told_;
};

} // namespace Vexil
