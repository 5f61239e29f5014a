// Plug-ins of both categories, and broken ones, from one source: FAULT says which.
#include "agent/Plugin.h"
#include "runtime/Trace.h"

#include <stdexcept>
#include <string>

namespace {

enum Fault { none, throwsInCreate, makesNothing, otherInterface, noCategory };

// Says in the log when it is made and when it goes.
class Speaking : public Vexil::Entity {
 public:
   explicit Speaking( L2Rib::Plugin::Context& context ) {
      Vexil::log( std::string( NAME " made with " ) +
                  ( context.entityManager() && context.clock() && context.l2RibOutput()
                       ? std::to_string( context.l2RibOutput()->capacity() )
                       : "an incomplete context" ) );
   }
   ~Speaking() override { Vexil::log( NAME " gone" ); }
};

Vexil::Ptr<Vexil::Entity> create( Vexil::Entity& context ) {
   if( FAULT == throwsInCreate )
      throw std::runtime_error( "its work is impossible" );
   if( FAULT == makesNothing )
      return nullptr;
   return Vexil::makeEntity<Speaking>( static_cast<L2Rib::Plugin::Context&>( context ) );
}

} // namespace

extern "C" const Vexil::PluginDescription* vexilPlugin() {
   static const Vexil::PluginDescription description{
      .interfaceVersion = Vexil::pluginInterfaceVersion + ( FAULT == otherInterface ),
      .category = FAULT == noCategory ? nullptr : CATEGORY,
      .name = NAME,
      .create = create };
   return &description;
}
