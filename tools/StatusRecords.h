// The status tables of the programs beside the agent, for reading.
#pragma once

#include "tools/Commands.h"

#include <algorithm>
#include <string>
#include <vector>

namespace Tools {

// The records of a table at a path of the state database, by key; none when it is not there.
template<class Table, class Key, class Record>
std::vector<Record> recordsOf( const Context& context, const char* path ) {
   std::vector<Record> all;
   try {
      Table( context.fileOf( path ), Table::Mode::read ).forEach( [ & ]( const Record& record ) {
         all.push_back( record );
      } );
   } catch( const Vexil::TableError& failure ) {
      if( failure.kind() != Vexil::TableError::absent )
         throw;
   }
   std::sort( all.begin(), all.end(), []( const Record& a, const Record& b ) {
      return Vexil::TableView<Key, Record>::keyOf( a ) < Vexil::TableView<Key, Record>::keyOf( b );
   } );
   return all;
}

} // namespace Tools
