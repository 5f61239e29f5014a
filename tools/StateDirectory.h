// What the daemon demands of its state directory, and its sole right to it.
#pragma once

#include <string>

namespace Tools {

// The state directory of one agent. Only one at a time has it: the right goes with the object, or
// with the process.
class StateDirectory {
 public:
   // Makes the directory if it is absent. Throws std::runtime_error with a text that says what is
   // wrong, and what would be right, when it is no directory; when anybody but root and this
   // process's own user may write it (whoever can replace a table can make the switch forward to
   // anywhere); when another agent has it; and when the agent's mounts could not be written: their
   // failure would be fatal to the agent.
   explicit StateDirectory( std::string directory );
   ~StateDirectory();
   StateDirectory( const StateDirectory& ) = delete;
   StateDirectory& operator=( const StateDirectory& ) = delete;

 private:
   [[noreturn]] void refuse( const std::string& reason ) const;
   void requireOwned() const;
   void requireAlone();
   void requireWritable() const;

   std::string directory_;
   int lock_ = -1;
};

} // namespace Tools
