// What is wrong with a record that another process may have written.
//
// The types of the records have the rules (L2Rib/Fault.h); here is what their verdicts mean to the
// tables. A record whose format is broken is corruption: a lookup finds nothing, a walk over the
// records ends, and the next writer of the table drops it. An invalid value in the right form is a
// record like any other to a table; what becomes of it is for the reader to say.
#pragma once

#include <optional>
#include <string>

namespace Vexil {

struct Fault {
   enum Verdict {
      format, // a value that the record's type does not have
      invalid // well formed, and not what an honest writer means
   };
   Verdict verdict;
   const char* field; // which one, as people and documents call it
   std::string text;  // what it is, and what would be right, in one line
};

} // namespace Vexil
