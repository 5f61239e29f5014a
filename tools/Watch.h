// Following the output and telling each change in a line: of watch, and of the page that web
// serves.
#pragma once

#include "tools/Filter.h"

#include <algorithm>
#include <string>
#include <vector>

namespace Tools {

// What is asked for. The filter is resolved.
struct Watched {
   std::vector<std::string> tables; // "hosts", "dests", "groups", "labels", "flood"
   RowFilter filter;
   bool noDump = false; // only the changes, not the present content

   bool wants( const std::string& table ) const {
      return std::find( tables.begin(), tables.end(), table ) != tables.end();
   }
};

// Who is told. All calls come from the thread that watches.
class WatchReader {
 public:
   virtual ~WatchReader() = default;
   // Before the first line: what ends the watching is entered into the loop here.
   virtual void begin( Vexil::ActivityManager& loop ) = 0;
   // A line without its end; host is null unless it is about one host.
   virtual void line( const std::string& line, const Bridging::MacVlanPair* host ) = 0;
   // After all lines of a turn of the loop; false ends the watching.
   virtual bool batchDone() = 0;
};

// Watches until the loop is stopped: JSON where the context says so, words for people otherwise,
// and then too when the agent stops and comes back. Throws Vexil::TableError when the output can't
// be read.
void watchOutput( const Context& context, const Watched& asked, WatchReader& reader );

} // namespace Tools
