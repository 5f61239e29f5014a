#include "runtime/StateDb.h"

#include "runtime/Descriptors.h"
#include "runtime/Failure.h"
#include "runtime/RetryTimer.h"

#include <cstdlib>
#include <filesystem>
#include <set>
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
//
// What has gone or was replaced leaves the directory before anything new enters it. So the entries
// that are in it at one time have also stood in the folder at one time: whoever publishes entries
// with something that only one of them may have finds that kept here too.
//
// An entry that can't be mounted because a resource is missing (descriptors, memory) is tried
// again.
class FolderBinding {
 public:
   FolderBinding( EntityManager& manager, std::string path, Ptr<Directory> directory )
      : manager_( manager ), path_( std::move( path ) ), folder_( manager.fileOf( path_ ) ),
        directory_( std::move( directory ) ),
        retry_( manager.clock(), [ this ] { review( "" ); } ) {}

   // Something happened to the entry of that name; to any, when it is empty.
   void review( const std::string& name ) {
      std::set<std::string> names = dropStale();
      for( const auto& [ refused, why ] : refused_ )
         names.insert( refused );
      if( !name.empty() )
         names.insert( name );
      else
         for( std::error_code error;
              const auto& file : std::filesystem::directory_iterator( folder_, error ) )
            names.insert( file.path().filename() );
      for( const std::string& present : names )
         if( present[ 0 ] != '.' && !entries_.contains( present ) )
            mountEntry( present );
      if( !refused_.empty() )
         retry_.failed();
      else
         retry_.succeeded();
   }

 private:
   struct Entry {
      ino_t inode;
      Mounted mounted;
   };

   // The file that has the entry's name now; 0 when there is none.
   ino_t inodeOf( const std::string& name ) const {
      struct stat status {};
      return stat( ( folder_ + "/" + name ).c_str(), &status ) == 0 ? status.st_ino : 0;
   }

   // Takes out the entries whose files no longer have their names. Returns which they are.
   std::set<std::string> dropStale() {
      std::set<std::string> dropped;
      for( const auto& [ name, entry ] : entries_ )
         if( inodeOf( name ) != entry.inode )
            dropped.insert( name );
      for( const std::string& name : dropped ) {
         entries_.erase( name ); // unbound first: the old entity stands still
         directory_->entryDel( name );
      }
      return dropped;
   }

   void mountEntry( const std::string& name ) {
      const std::string file = folder_ + "/" + name;
      const ino_t inode = inodeOf( name );
      const std::string refusedBefore = std::exchange( refused_[ name ], "" );
      refused_.erase( name );
      if( inode == 0 )
         return;
      try {
         requireSpareDescriptor( file );
         const std::string typeName = tableTypeName( file );
         const EntityType* const type = registeredType( typeName );
         if( !type || !type->mount )
            return log( file + ": not an entry: no known entity type '" + typeName + "'" );
         Mounted mounted = type->mount( manager_, path_ + "/" + name, MountMode::read );
         dropStale(); // what this one may have taken the place of; it is reported on its own
         directory_->entryIs( name, mounted.entity );
         entries_[ name ] = { inode, std::move( mounted ) };
      } catch( const TableError& failure ) {
         if( failure.kind() == TableError::absent ) // it has gone since we looked
            return;
         if( failure.what() != refusedBefore )
            log( failure.what() );
         if( failure.kind() == TableError::system )
            refused_[ name ] = failure.what();
      }
   }

   EntityManager& manager_;
   std::string path_;   // in the state database
   std::string folder_; // in the file system
   Ptr<Directory> directory_;
   std::map<std::string, Entry> entries_;
   std::map<std::string, std::string> refused_; // because a resource is missing: why, by name
   RetryTimer retry_;
};

// Mounted as a directory whose entries come, it is there from then on; else it is waited for.
Mounted mountDirectory( EntityManager& manager, const std::string& path, MountMode mode ) {
   const auto directory = makeEntity<Directory>();
   if( manager.inMemory() )
      return { directory, nullptr };
   const std::string folder = manager.fileOf( path );
   if( mode == MountMode::readDirectory )
      makeFoldersFor( folder + "/" );
   const auto binding = std::make_shared<FolderBinding>( manager, path, directory );
   // Watched before the first look, so that nothing falls between.
   manager.fileWatcher()->watchFolder(
      folder, [ binding ]( const std::string& name ) { binding->review( name ); } );
   binding->review( "" );
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
   manager_.startingIs( true );
   for( const Request& request : requests_ )
      try {
         manager_.mount( request.path, request.typeName, request.mode );
      } catch( const TableError& failure ) {
         log( "mounting " + request.path + ": " + failure.what() );
         manager_.mountStatus_ = MountStatus::failed;
      }
   requests_.clear();
   manager_.startingIs( false );
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

void EntityManager::setAside( const std::string& path, const TableError& failure ) const {
   if( failure.kind() != TableError::mismatch && failure.kind() != TableError::damaged )
      throw failure;
   const std::string file = fileOf( path ), aside = file + ".unreadable";
   std::error_code error;
   std::filesystem::remove_all( aside, error ); // of an earlier time
   std::filesystem::rename( file, aside, error );
   if( error )
      throw TableError( TableError::system, file + ": setting it aside: " + error.message() );
   log( std::string( failure.what() ) + ": it is made anew, the old one is " + aside );
}

void EntityManager::ringAtEndOfTurn( Ptr<TableBase> table ) {
   table->onLoss( []( const std::string& what ) {
      log( what + ": it can't be written any more; this process ends" );
      std::_Exit( 1 ); // without releasing anything: that would write to other tables
   } );
   written_.push_back( std::move( table ) );
}

void EntityManager::ringBells() {
   for( const auto& table : written_ )
      table->ring();
}

} // namespace Vexil
