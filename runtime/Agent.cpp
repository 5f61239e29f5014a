#include "runtime/Agent.h"

#include <dlfcn.h>
#include <stdexcept>

namespace Vexil {

Ptr<BaseAgent> startAgent( const std::string& library, const std::string& typeName,
                           const std::string& agentName, ActivityManager& loop,
                           Ptr<EntityManager> manager, AgentSettings settings ) {
   if( !dlopen( library.c_str(), RTLD_NOW | RTLD_GLOBAL ) )
      throw std::runtime_error( std::string( "loading the agent library: " ) + dlerror() );
   const EntityType* const type = registeredType( typeName );
   if( !type || !type->create )
      throw std::runtime_error( library + ": has no agent '" + typeName + "'" );
   const Ptr<Entity> created = type->create( agentName );
   auto* const agent = dynamic_cast<BaseAgent*>( created.get() );
   if( !agent )
      throw std::runtime_error( library + ": '" + typeName + "' is no agent" );
   agent->entityManagerIs( manager );
   agent->activityManagerIs( &loop );
   agent->settingsIs( std::move( settings ) );
   agent->doInit(); // closes its mount group, which mounts everything
   agent->doMountsComplete( manager->mountStatus(), manager );
   return agent;
}

} // namespace Vexil
