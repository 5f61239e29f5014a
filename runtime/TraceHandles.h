// Which trace handles there are, for whoever sets them by name.
#pragma once

#include <string>
#include <vector>

namespace Vexil {

// Those that loaded code traces through, in order of their names.
std::vector<std::string> traceHandles();
// Those that only a setting has named so far: of code that is not loaded yet, or mistyped.
std::vector<std::string> unknownTraceHandles();

} // namespace Vexil
