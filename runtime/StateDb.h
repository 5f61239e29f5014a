// The state database: entities under paths, shared between processes.
//
// A path such as "bridging/l2Rib/hostOutput" is a file or folder under the state directory. There
// is no broker: whoever writes a path holds the writer's lock of its file. An entity is mounted by
// path, type name and mode:
//
//    "r"   read-only; the entity follows the file
//    "w"   this process is the writer, and finds what an earlier run left
//    "ri"  read-only, a directory whose entries come and go
//
// A type says how it is mounted when its library registers it (EntityType). The entity classes know
// nothing of files: what keeps the entity and its file in step is a binding beside the entity.
//
// An entity manager without a state directory keeps everything in this process; tests use it.
#pragma once

#include "runtime/ActivityManager.h"
#include "runtime/FileWatcher.h"
#include "runtime/HashMap.h"
#include "runtime/SharedTable.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Vexil {

class EntityManager;

enum class MountMode { read, write, readDirectory };
// "r", "w" or "ri"; anything else is an assertion.
MountMode mountModeOf( const std::string& text );

// An entity and what keeps it in step with its file. The binding goes before the entity.
struct Mounted {
   Ptr<Entity> entity;
   std::shared_ptr<void> binding;
};

// How entities of a type are made. Registered at library load under the type's name.
struct EntityType {
   // Mounts the entity of a path. Throws TableError when it can't be.
   std::function<Mounted( EntityManager& manager, const std::string& path, MountMode mode )> mount;
   // Makes an agent of that name; empty for types that are no agents.
   std::function<Ptr<Entity>( const std::string& name )> create;
};
// Throws MutatorFailure when the name is taken by another registration.
void registerType( const std::string& typeName, EntityType type );
// Null when no such type is registered.
const EntityType* registeredType( const std::string& typeName );

// A directory: named child entities. Its entries are set by a binding, or by a test.
class Directory : public Entity {
 public:
   struct Handlers {
      // The entry of that name appeared, was replaced by another entity, or went.
      virtual void handleEntry( const std::string& name ) = 0;
   };
   Notifiees<Handlers> notifiees;

   const HashMap<std::string, Ptr<Entity>>& entry() const { return entry_; }
   // Null when there is no entry of that name.
   Ptr<Entity> entry( const std::string& name ) const {
      const Ptr<Entity>* found = entry_.find( name );
      return found ? *found : nullptr;
   }
   void entryIs( const std::string& name, Ptr<Entity> entity );
   void entryDel( const std::string& name );
   VEXIL_DELETE_ALL( entry )

 private:
   HashMap<std::string, Ptr<Entity>> entry_;
};

enum class MountStatus { success, failed };

// Mounts that complete together.
class MountGroup {
 public:
   explicit MountGroup( EntityManager& manager ) : manager_( manager ) {}
   void doMount( const std::string& path, const std::string& typeName, const std::string& mode );
   // Ends the declaration: mounts everything; while it does, starting() of the manager is true.
   // What can't be mounted is said in the log, and fails the manager's mount status.
   void doClose();

 private:
   struct Request {
      std::string path;
      std::string typeName;
      MountMode mode;
   };
   EntityManager& manager_;
   std::vector<Request> requests_;
};

class EntityManager : public Entity {
 public:
   // On a state directory, which is made if it is absent.
   EntityManager( ActivityManager& loop, std::string stateDirectory );
   // In this process alone, on the caller's clock.
   explicit EntityManager( Ptr<Clock> clock );

   const Ptr<Clock>& clock() const { return clock_; }
   bool inMemory() const { return stateDirectory_.empty(); }
   // The file or folder of a path.
   std::string fileOf( const std::string& path ) const { return stateDirectory_ + "/" + path; }
   // Null in memory.
   FileWatcher* fileWatcher() const { return watcher_.get(); }

   // Whether a mount group is being mounted: nobody has met its entities yet, and a binding may
   // take its time to fill them.
   VEXIL_ATTRIBUTE( bool, starting, false )

   std::shared_ptr<MountGroup> mountGroup() { return std::make_shared<MountGroup>( *this ); }
   // Throws TableError.
   void mount( const std::string& path, const std::string& typeName, MountMode mode );
   // Of all mount groups that were closed.
   MountStatus mountStatus() const { return mountStatus_; }
   // The entity mounted at path; null when there is none.
   Ptr<Entity> entity( const std::string& path ) const;
   // Puts an entity of this process at a path, as if it had been mounted.
   void entityIs( const std::string& path, Ptr<Entity> entity );

   // Attaches a shared table. Where a file that this process writes is found to be cut short or
   // overwritten, the log says so and the process ends with status 1, at once: what it takes for
   // written is not there, and the next process puts that right. A table that this process writes
   // is one entity for all of it: asking for it again, in either mode, gives the same one. A reader
   // is a new entity each time and is polled for as long as it is held. Throws TableError.
   template<class Table>
   Ptr<Table> mountTable( const std::string& path, typename Table::Mode mode, uint32_t capacity );

   // Attaches, as its writer, a table whose content this process makes from something else. A file
   // that can't be read (damaged, of another version, no file at all) is set aside under the name
   // with ".unreadable" behind it, and made anew; the log says so.
   template<class Table>
   Ptr<Table> mountDerivedTable( const std::string& path, uint32_t capacity );
   // The same for a table behind an entity, which has the path to itself.
   template<class Table>
   Ptr<Table> makeDerivedTable( const std::string& path, uint32_t capacity );

   // Lets a table that this process writes and that was attached otherwise be kept as the others:
   // its bell is rung with theirs, and its loss ends the process.
   void ringAtEndOfTurn( Ptr<TableBase> table );
   // Wakes the readers of every table written since the last time; the event loop does it at the
   // end of each turn.
   void ringBells();

 private:
   friend MountGroup;
   // Throws the failure again when it is no reason to set the file aside.
   void setAside( const std::string& path, const TableError& failure ) const;

   Ptr<Clock> clock_;
   std::string stateDirectory_; // empty: in memory
   std::unique_ptr<FileWatcher> watcher_;
   std::map<std::string, Mounted> mounted_;
   MountStatus mountStatus_ = MountStatus::success;
   std::vector<Ptr<TableBase>> written_;
   std::shared_ptr<void> bellWork_;
};

template<class Table>
Ptr<Table> EntityManager::mountTable( const std::string& path, typename Table::Mode mode,
                                      uint32_t capacity ) {
   if( const Ptr<Entity> present = entity( path ) ) {
      auto* const table = dynamic_cast<Table*>( present.get() );
      if( !table )
         throw TableError( TableError::mismatch, path + ": another type is mounted here" );
      return table;
   }
   if( inMemory() ) {
      if( mode == Table::Mode::read )
         throw TableError( TableError::absent, path + ": no such table" );
      Ptr<Table> table = makeEntity<Table>( capacity );
      entityIs( path, table );
      return table;
   }
   Ptr<Table> table = makeEntity<Table>( fileOf( path ), mode, capacity );
   if( mode == Table::Mode::write ) {
      entityIs( path, table );
      ringAtEndOfTurn( table );
   } else {
      watcher_->follow( table );
   }
   return table;
}

template<class Table>
Ptr<Table> EntityManager::mountDerivedTable( const std::string& path, uint32_t capacity ) {
   try {
      return mountTable<Table>( path, Table::Mode::write, capacity );
   } catch( const TableError& failure ) {
      setAside( path, failure );
      return mountTable<Table>( path, Table::Mode::write, capacity );
   }
}

template<class Table>
Ptr<Table> EntityManager::makeDerivedTable( const std::string& path, uint32_t capacity ) {
   try {
      return makeEntity<Table>( fileOf( path ), Table::Mode::write, capacity );
   } catch( const TableError& failure ) {
      setAside( path, failure );
      return makeEntity<Table>( fileOf( path ), Table::Mode::write, capacity );
   }
}

} // namespace Vexil
