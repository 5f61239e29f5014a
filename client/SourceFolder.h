// The folder of the sources, seen from outside of the agent: which sources are published, who runs
// them, and the lock under which they come and go.
//
// A source NAME is an entry file, bridging/l2Rib/inputDir/NAME, and a folder with its tables,
// bridging/l2Rib/input/NAME. The entry is what counts: it is there after the tables are and gone
// before they are. A source is running while a process holds the writer's lock of its entry or of
// one of its tables; one that nobody runs was kept, or its process died.
//
// The sources inside the agent have their entries in bridging/l2Rib/agentInputDir, where nobody but
// the agent publishes or removes any.
#pragma once

#include "L2Rib/L2RibTarn.h"
#include "L2Rib/SourceEntry.h"
#include "runtime/FileLock.h"

#include <map>
#include <string>

namespace L2Rib::Client {

class SourceFolder {
 public:
   explicit SourceFolder( std::string stateDirectory )
      : stateDirectory_( std::move( stateDirectory ) ) {}

   // The file of a path in the state database, and those of a source.
   std::string fileOf( const std::string& path ) const { return stateDirectory_ + "/" + path; }
   std::string entryFile( const std::string& name ) const;
   std::string tableFolder( const std::string& name ) const { return fileOf( tablePath( name ) ); }
   // The path in the state database of a source's table, or of the folder of its tables.
   static std::string tablePath( const std::string& name, const std::string& table = "" );

   struct Published {
      bool readable = false; // else the record is empty: the entry file is damaged
      SourceEntryRecord record;
   };
   // By name. No folder means no sources.
   std::map<std::string, Published> sources() const { return publishedIn( Path::inputDir ); }
   // Those inside the agent, as it has them or as the last one left them.
   std::map<std::string, Published> agentSources() const {
      return publishedIn( Path::agentInputDir );
   }
   // Both kinds.
   std::map<std::string, Published> allSources() const;
   bool published( const std::string& name ) const;
   bool running( const std::string& name ) const;

   // Held while sources are published or removed, so that the value of each is its own. Waits until
   // it is free. Throws Vexil::TableError when the state directory can't be written.
   class Lock : Vexil::FileLock {
    public:
      explicit Lock( const SourceFolder& folder )
         : FileLock( folder.fileOf( "bridging/l2Rib/.sources.lock" ) ) {}
   };
   // Removes the entry, then the folder of its tables, whoever made them. With the lock held.
   void remove( const std::string& name ) const;
   // Removes what publishers that died before they gave it a name left behind. With the lock held.
   void removeUnpublished( const std::string& name ) const;

 private:
   std::map<std::string, Published> publishedIn( const char* directory ) const;

   std::string stateDirectory_;
};

} // namespace L2Rib::Client
