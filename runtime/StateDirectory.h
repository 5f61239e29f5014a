// What the daemon demands of its state directory.
#pragma once

#include <string>

namespace Vexil {

// Makes the directory if it is absent. Throws std::runtime_error with a text that says what is
// wrong and what would be right when it is no directory, or when anybody but root and this
// process's own user may write it: whoever can replace a table can make the switch forward to
// anywhere.
void requireStateDirectory( const std::string& directory );

} // namespace Vexil
