#include "runtime/StateDb.h"

#include "runtime/Failure.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>

namespace Vexil {

namespace {

std::map<std::string, EntityType>& types() {
   static std::map<std::string, EntityType> all;
   return all;
}

// Keeps a Directory in step with a folder: an entry is a table file whose record type names the
// entity type. Another file under the same name is another entity.
class FolderBinding {
 public:
   FolderBinding( EntityManager& manager, std::string path, Ptr<Directory> directory )
      : manager_( manager ), path_( std::move( path ) ), folder_( manager.fileOf( path_ ) ),
        directory_( std::move( directory ) ) {}

   void review( const std::string& name ) {
      if( name.empty() )
         reviewAll();
      else
         reviewEntry( name );
   }
   void reviewAll() {
      std::vector<std::string> names;
      for( const auto& [ name, entry ] : entries_ )
         names.push_back( name );
      std::error_code error;
      for( const auto& file : std::filesystem::directory_iterator( folder_, error ) )
         names.push_back( file.path().filename() );
      for( const std::string& name : names )
         if( name[ 0 ] != '.' )
            reviewEntry( name );
   }

 private:
   struct Entry {
      ino_t inode;
      Mounted mounted;
   };

   void reviewEntry( const std::string& name ) {
      const std::string file = folder_ + "/" + name;
      struct stat status {};
      const bool present = stat( file.c_str(), &status ) == 0;
      const auto known = entries_.find( name );
      if( known != entries_.end() ) {
         if( present && known->second.inode == status.st_ino )
            return;
         entries_.erase( known ); // unbound first: the old entity stands still
      }
      if( present && mountEntry( name, file, status.st_ino ) )
         return;
      directory_->entryDel( name );
   }

   bool mountEntry( const std::string& name, const std::string& file, ino_t inode ) {
      const std::string typeName = tableTypeName( file );
      const EntityType* const type = registeredType( typeName );
      if( !type || !type->mount ) {
         log( file + ": not an entry: no known entity type '" + typeName + "'" );
         return false;
      }
      try {
         Mounted mounted = type->mount( manager_, path_ + "/" + name, MountMode::read );
         directory_->entryIs( name, mounted.entity );
         entries_[ name ] = { inode, std::move( mounted ) };
         return true;
      } catch( const TableError& failure ) {
         if( failure.kind() != TableError::absent ) // it may have gone since we looked
            log( failure.what() );
         return false;
      }
   }

   EntityManager& manager_;
   std::string path_;   // in the state database
   std::string folder_; // in the file system
   Ptr<Directory> directory_;
   std::map<std::string, Entry> entries_;
};

Mounted mountDirectory( EntityManager& manager, const std::string& path, MountMode ) {
   const auto directory = makeEntity<Directory>();
   if( manager.inMemory() )
      return { directory, nullptr };
   const std::string folder = manager.fileOf( path );
   makeFoldersFor( folder + "/" );
   const auto binding = std::make_shared<FolderBinding>( manager, path, directory );
   // Watched before the first look, so that nothing falls between.
   manager.fileWatcher()->watchFolder(
      folder, [ binding ]( const std::string& name ) { binding->review( name ); } );
   binding->reviewAll();
   return { directory, binding };
}

[[maybe_unused]] const bool directoryRegistered = [] {
   registerType( "Vexil::Directory", { mountDirectory, nullptr } );
   return true;
}();

} // namespace

MountMode mountModeOf( const std::string& text ) {
   if( text == "r" )
      return MountMode::read;
   if( text == "w" )
      return MountMode::write;
   VEXIL_ASSERT( text == "ri" );
   return MountMode::readDirectory;
}

void registerType( const std::string& typeName, EntityType type ) {
   if( !types().emplace( typeName, std::move( type ) ).second )
      throw MutatorFailure( "type " + typeName + " is registered twice" );
}

const EntityType* registeredType( const std::string& typeName ) {
   const auto found = types().find( typeName );
   return found == types().end() ? nullptr : &found->second;
}

void Directory::entryIs( const std::string& name, Ptr<Entity> entity ) {
   if( !entity )
      nullMutatorFailure( "Vexil::Directory", "entry" );
   entry_.erase( name );
   entry_.emplace( name, std::move( entity ) );
   notifiees.notify( &Handlers::handleEntry, name );
}

void Directory::entryDel( const std::string& name ) {
   if( entry_.erase( name ) )
      notifiees.notify( &Handlers::handleEntry, name );
}

void MountGroup::doMount( const std::string& path, const std::string& typeName,
                          const std::string& mode ) {
   requests_.push_back( { path, typeName, mountModeOf( mode ) } );
}

void MountGroup::doClose() {
   for( const Request& request : requests_ )
      manager_.mount( request.path, request.typeName, request.mode );
   requests_.clear();
}

EntityManager::EntityManager( ActivityManager& loop, std::string stateDirectory )
   : clock_( loop.clock() ), stateDirectory_( std::move( stateDirectory ) ),
     watcher_( std::make_unique<FileWatcher>( loop ) ) {
   makeFoldersFor( stateDirectory_ + "/" );
   bellWork_ = loop.atEndOfTurn( [ this ] { ringBells(); } );
}

EntityManager::EntityManager( Ptr<Clock> clock ) : clock_( std::move( clock ) ) {}

void EntityManager::mount( const std::string& path, const std::string& typeName, MountMode mode ) {
   const EntityType* const type = registeredType( typeName );
   if( !type || !type->mount )
      throw TableError( TableError::mismatch, path + ": no known entity type '" + typeName + "'" );
   mounted_[ path ] = type->mount( *this, path, mode );
}

Ptr<Entity> EntityManager::entity( const std::string& path ) const {
   const auto found = mounted_.find( path );
   return found == mounted_.end() ? nullptr : found->second.entity;
}

void EntityManager::entityIs( const std::string& path, Ptr<Entity> entity ) {
   mounted_[ path ] = { std::move( entity ), nullptr };
}

void EntityManager::ringBells() {
   for( const auto& table : written_ )
      table->ring();
}

} // namespace Vexil
