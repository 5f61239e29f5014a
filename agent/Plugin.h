// What a plug-in of this agent sees, and how it declares itself.
//
//    class Mine : public Vexil::Entity {
//     public:
//       explicit Mine( L2Rib::Plugin::Context& context );
//    };
//    L2RIB_PLUGIN( "L2RibPlugin", Mine )
//
// Plug-ins run in the agent's process, on its event-loop thread: they read the host output where it
// is written and hear of every change at the time of the change. docs/plugins.md is the manual.
#pragma once

#include "L2Rib/L2RibTarn.h"
#include "runtime/PluginLoader.h"
#include "runtime/StateDb.h"

#include <utility>
#include <vector>

namespace L2Rib::Plugin {

// The categories: "L2RibPlugin" is loaded in normal work, "L2RibTestPlugin" in its place when the
// agent was started with test plug-ins.
constexpr const char* category = "L2RibPlugin";
constexpr const char* testCategory = "L2RibTestPlugin";

// Given by the agent to every plug-in of either category. The attributes are set when a plug-in is
// made and stay as they are. The context keeps the plug-ins; it goes after the engine, whose last
// writes the plug-ins have therefore seen, and before the static host source.
class Context : public Vexil::Entity {
 public:
   // The last one that was loaded goes first.
   ~Context() override {
      while( !plugin_.empty() )
         plugin_.pop_back();
   }

   VEXIL_ATTRIBUTE( Vexil::Ptr<Vexil::EntityManager>, entityManager )
   // Read-only. In this process it is the writer's own table, so a reactor on it is called from
   // within the write, each time, and never overtaken.
   VEXIL_ATTRIBUTE( Vexil::Ptr<const HostOutput>, l2RibOutput )
   VEXIL_ATTRIBUTE( Vexil::Ptr<Vexil::Clock>, clock )
   // The objects of the plug-ins, in the order of their loading. A plug-in must not hold a
   // reference to the context: each would keep the other.
   VEXIL_ATTRIBUTE( std::vector<Vexil::Ptr<Vexil::Entity>>, plugin )
};

} // namespace L2Rib::Plugin

// Defines the library's entry point: Class is an entity that is made from the context.
#define L2RIB_PLUGIN( pluginCategory, Class )                                                      \
   extern "C" const Vexil::PluginDescription* vexilPlugin() {                                      \
      static const Vexil::PluginDescription description{                                           \
         .category = pluginCategory,                                                               \
         .name = #Class,                                                                           \
         .create = []( Vexil::Entity& context ) -> Vexil::Ptr<Vexil::Entity> {                     \
            return Vexil::makeEntity<Class>( static_cast<L2Rib::Plugin::Context&>( context ) );    \
         } };                                                                                      \
      return &description;                                                                         \
   }
