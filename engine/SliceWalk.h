// One slice of a walk over a work list: bounded by a deadline, resumed from a bookmark.
#pragma once

#include "runtime/Clock.h"
#include "runtime/HashMap.h"

#include <type_traits>

namespace L2Rib {

template<class Key>
struct Slice {
   size_t count;  // entries visited
   bool stopped;  // visit() ended the walk
   bool timedOut; // the deadline ended the slice; it may have been at the last entry all the same
   bool atEnd;    // no entry is left behind the last one visited
   Key bookmark;  // where the next slice resumes; the invalid key when nothing is left
};

// Visits the entries of list from bookmark on, or all from the beginning when it is the invalid
// (default) key, until the clock is past the deadline; at least one entry is visited when there is
// one. The clock is read after every entry, so a slice lasts no longer than its time and the work
// of one entry. visit( key ) may delete any entry, its own included, and insert others: one ahead
// of the walk is met in the same pass; when it returns false, the walk ends there. ahead( key ) is
// called for each entry some places before its turn, so that what it needs can be fetched from
// memory meanwhile. It is a hint and may miss some.
template<class Key, class Value, class Visit, class Ahead>
Slice<Key> walkSlice( const Vexil::HashMap<Key, Value>& list, const Key& bookmark,
                      const Vexil::Clock& clock, Vexil::Seconds deadline, Visit visit,
                      Ahead ahead ) {
   constexpr int distance = 10; // places ahead: enough work to hide a memory access behind
   auto at = bookmark == Key() ? list.begin() : list.from( bookmark );
   typename Vexil::HashMap<Key, Value>::LookAhead scout( list, at );
   const auto scoutOn = [ & ] {
      if( const Key* key = scout.next() )
         ahead( *key );
   };
   for( int i = 0; i < distance && at != list.end(); ++i )
      scoutOn();

   size_t count = 0;
   while( at != list.end() ) {
      const Key key = at->key;
      scoutOn();
      ++count;
      if constexpr( std::is_same_v<decltype( visit( key ) ), bool> ) {
         if( !visit( key ) )
            return { count, true, false, false, key };
      } else {
         visit( key );
      }
      ++at;
      if( clock.isPast( deadline ) ) {
         const bool atEnd = at == list.end();
         return { count, false, true, atEnd, atEnd ? Key() : at->key };
      }
   }
   return { count, false, false, true, Key() };
}

template<class Key, class Value, class Visit>
Slice<Key> walkSlice( const Vexil::HashMap<Key, Value>& list, const Key& bookmark,
                      const Vexil::Clock& clock, Vexil::Seconds deadline, Visit visit ) {
   return walkSlice( list, bookmark, clock, deadline, visit, []( const Key& ) {} );
}

} // namespace L2Rib
