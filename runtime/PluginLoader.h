// Plug-ins: libraries that run in an agent's process and see what the agent shows them.
//
// A plug-in library exports one function with C linkage, vexilPlugin(), which returns its
// description: the category that it belongs to, its name, and how its object is made. The agent
// that loads a category hands each object the context of that category, an entity of the agent's
// own that says what there is to see. docs/plugins.md is the manual.
//
// Life: the object of a plug-in is kept by whoever loaded it, who releases it before or with the
// context, so a plug-in may use its context for all of its life. The library stays mapped until the
// process ends: its code may still be running, its static objects in use.
//
// All of it happens on the event-loop thread.
#pragma once

#include "runtime/Entity.h"

#include <string>
#include <vector>

namespace Vexil {

// Goes up whenever a plug-in that was built before would misunderstand this process.
constexpr uint32_t pluginInterfaceVersion = 1;

// What vexilPlugin() returns: an object with static lifetime.
struct PluginDescription {
   uint32_t interfaceVersion = pluginInterfaceVersion; // first in every version
   const char* category = nullptr;
   const char* name = nullptr; // for the log
   // Makes the object. Throws std::exception with the reason when it can't do its work. The context
   // is of the type that the category says.
   Ptr<Entity> ( *create )( Entity& context ) = nullptr;
};

// The name under which a plug-in library exports its entry point, which is
//    extern "C" const Vexil::PluginDescription* vexilPlugin();
constexpr const char* pluginEntryPoint = "vexilPlugin";

// The default plug-in loader. Opens every library (*.so) of the directory, in the order of the file
// names, and makes the objects of those that declare the category; the others are closed again. One
// that can't be loaded is named in the log with the reason, and the rest are loaded all the same. A
// directory that is absent has no plug-ins in it.
std::vector<Ptr<Entity>> loadPlugins( const std::string& directory, const std::string& category,
                                      Entity& context );

} // namespace Vexil
