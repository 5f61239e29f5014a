// A walk over all keys of a shared table that looks ahead.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

namespace L2Rib {

// Calls each( key ) for every key of the table, in memory order, and ahead( key ) some keys before
// its turn: a table may hold a million keys, and whatever each() will touch for one of them can be
// fetched from memory meanwhile.
template<class Key, class Table, class Ahead, class Each>
void forEachKeyAhead( const Table& table, Ahead ahead, Each each ) {
   std::array<Key, 32> coming;
   size_t size = 0;
   const auto forward = [ & ] {
      std::for_each_n( coming.begin(), size, each );
      size = 0;
   };
   table.forEachKey( [ & ]( const Key& key ) {
      ahead( key );
      coming[ size++ ] = key;
      if( size == coming.size() )
         forward();
   } );
   forward();
}

} // namespace L2Rib
