// Since when entries have been failing, though each try takes them out of the parked ones and puts
// them back: for the one figure of how old the oldest failure is.
//
// Failures are noted in the order of time, so the oldest stands at the front of a queue. One that
// is mended leaves its place in the queue, which is skipped when it has come to the front; places
// without an entry are cleared away when they are the greater part. Every operation but forget()
// takes constant time on the average.
#pragma once

#include "runtime/Clock.h"
#include "runtime/HashMap.h"

#include <deque>

namespace L2Rib {

template<class Key>
class FailureAges {
 public:
   // Key failed at that time, once more or for the first time.
   void failed( const Key& key, Vexil::Seconds now ) {
      if( !place_.emplace( key, next_ ).second )
         return;
      queue_.push_back( { key, next_++, now } );
   }
   void mended( const Key& key ) {
      if( !place_.empty() && place_.erase( key ) )
         clearAway();
   }
   // Nothing more will be tried for these keys.
   template<class Which>
   void forget( Which which ) {
      for( const Place& place : queue_ )
         if( stands( place ) && which( place.key ) )
            place_.erase( place.key );
      clearAway();
   }
   // Never, when nothing fails.
   Vexil::Seconds oldest() const { return queue_.empty() ? Vexil::never : queue_.front().since; }

 private:
   struct Place {
      Key key;
      uint64_t number;
      Vexil::Seconds since;
   };
   bool stands( const Place& place ) const {
      const uint64_t* const number = place_.find( place.key );
      return number && *number == place.number;
   }
   void clearAway() {
      while( !queue_.empty() && !stands( queue_.front() ) )
         queue_.pop_front();
      if( queue_.size() > 2 * place_.size() + 64 )
         std::erase_if( queue_, [ this ]( const Place& place ) { return !stands( place ); } );
   }

   Vexil::HashMap<Key, uint64_t> place_; // the number of the key's place in the queue
   std::deque<Place> queue_;
   uint64_t next_ = 0;
};

} // namespace L2Rib
