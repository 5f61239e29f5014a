#include "L2Rib/SourceDir.h"

namespace L2Rib {

using Vexil::makeEntity;
using Vexil::Ptr;

std::string entryStr( const SourceDirEntry* entry ) {
   return entry ? entry->name() + " (" + sourceStr( entry->source() ) + ")" : "none";
}

Ptr<SourceDirEntry> AgentSourceDir::sourceIs( const std::string& name ) {
   if( const Ptr<SourceDirEntry> present = source( name ) )
      return present;
   const auto made = makeEntity<SourceDirEntry>( name );
   source_.emplace( name, made );
   notifiees.notify( &Handlers::handleSource, name );
   return made;
}

void AgentSourceDir::sourceIs( const std::string& name, Ptr<SourceDirEntry> entry ) {
   if( !source_.emplace( name, std::move( entry ) ).second )
      return;
   notifiees.notify( &Handlers::handleSource, name );
}

void AgentSourceDir::sourceDel( const std::string& name ) {
   if( source_.erase( name ) )
      notifiees.notify( &Handlers::handleSource, name );
}

} // namespace L2Rib
