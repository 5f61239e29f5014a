// A plug-in that needs what no library of the process has.
#include "runtime/PluginLoader.h"

namespace Absent {
const Vexil::PluginDescription* description();
}
extern "C" const Vexil::PluginDescription* vexilPlugin() { return Absent::description(); }
