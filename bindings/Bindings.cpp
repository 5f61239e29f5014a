#include "bindings/Bindings.h"

#include "L2Rib/SourceDir.h"
#include "L2Rib/Status.h"
#include "bindings/ConfigBinding.h"
#include "bindings/FloodBinding.h"
#include "bindings/SourceEntryBinding.h"
#include "runtime/StateDb.h"

#include <filesystem>
#include <map>
#include <system_error>

namespace L2Rib {

namespace {

using Vexil::EntityManager;
using Vexil::makeEntity;
using Vexil::Mounted;
using Vexil::MountMode;
using Vexil::Ptr;

// Writes the entries of the sources inside the agent to files as external sources have them, which
// the sources' tools read. Nothing is read back.
class AgentSourceDirBinding : public Vexil::Reactor<AgentSourceDir> {
 public:
   AgentSourceDirBinding( EntityManager& manager, std::string path, Ptr<AgentSourceDir> directory )
      : Reactor( directory ), manager_( manager ), path_( std::move( path ) ) {
      const std::filesystem::path folder = manager_.fileOf( path_ );
      Vexil::makeFoldersFor( folder / "" );
      std::error_code error; // what stays in spite of it is written over by the entry of its name
      for( const auto& left : std::filesystem::directory_iterator( folder, error ) ) {
         if( Vexil::tableHasWriter( left.path() ) )
            throw Vexil::TableError( Vexil::TableError::busy,
                                     left.path().string() + ": another process writes this table" );
         std::filesystem::remove( left, error );
      }
   }
   void handleSource( const std::string& name ) override {
      const std::string path = path_ + "/" + name;
      entries_.erase( name );
      if( const Ptr<SourceDirEntry> entry = notifier()->source( name ) )
         entries_[ name ] = std::make_unique<EntryFile>( manager_, path, entry );
      else if( std::error_code error; !std::filesystem::remove( manager_.fileOf( path ), error ) )
         Vexil::log( path + ": removing: " + error.message() );
   }

 private:
   // Appears when the entry is initialized for the first time: then it says where the tables are.
   class EntryFile : public Vexil::Reactor<SourceDirEntry> {
    public:
      EntryFile( EntityManager& manager, std::string path, Ptr<SourceDirEntry> entry )
         : Reactor( entry ), manager_( manager ), path_( std::move( path ) ) {}
      void handleInitialized() override {
         const SourceEntryRecord record = recordOf( *notifier() );
         if( !table_ ) {
            table_ = makeEntity<SourceEntryTable>( manager_.fileOf( path_ ), 1u, record );
            manager_.ringAtEndOfTurn( table_ );
         }
         [[maybe_unused]] const bool written = table_->set( record ); // its one record
      }

    private:
      EntityManager& manager_;
      std::string path_;
      Ptr<SourceEntryTable> table_;
   };

   static SourceEntryRecord recordOf( const SourceDirEntry& entry ) {
      const auto path = []( const std::string& text ) {
         return TablePath::of( text ).value_or( TablePath() );
      };
      SourceEntryRecord record;
      record.name = SourceName::of( entry.name() ).value_or( SourceName() );
      record.source = entry.source();
      record.initialized = entry.initialized();
      record.hostPath = path( entry.hostTableTarnPath() );
      record.lbPath = path( entry.lbTableTarnPath() );
      record.labelPath = path( entry.labelTableTarnPath() );
      record.destPath = path( entry.destTableTarnPath() );
      record.hostLen = entry.hostTableLen();
      record.lbLen = entry.lbTableLen();
      record.labelLen = entry.labelTableLen();
      record.destLen = entry.destTableLen();
      return record;
   }

   EntityManager& manager_;
   std::string path_; // of the folder, in the state database
   std::map<std::string, std::unique_ptr<EntryFile>> entries_;
};

// Follows the entries that another process, the agent, has there.
class AgentSourceDirReader : public Vexil::Reactor<Vexil::Directory> {
 public:
   AgentSourceDirReader( Mounted folder, Ptr<AgentSourceDir> directory )
      : Reactor( static_cast<Vexil::Directory*>( folder.entity.get() ) ),
        binding_( std::move( folder.binding ) ), directory_( std::move( directory ) ) {
      for( const auto& entry : notifier()->entry() )
         handleEntry( entry.key );
   }
   void handleEntry( const std::string& name ) override {
      directory_->sourceDel( name );
      const Ptr<Vexil::Entity> found = notifier()->entry( name );
      if( auto* const entry = dynamic_cast<SourceDirEntry*>( found.get() ) )
         directory_->sourceIs( name, entry );
   }

 private:
   std::shared_ptr<void> binding_; // of the folder
   Ptr<AgentSourceDir> directory_;
};

Mounted mountAgentSourceDir( EntityManager& manager, const std::string& path, MountMode mode ) {
   const auto directory = makeEntity<AgentSourceDir>();
   if( manager.inMemory() )
      return { directory, nullptr };
   if( mode != MountMode::write )
      return { directory,
               std::make_shared<AgentSourceDirReader>(
                  Vexil::registeredType( "Vexil::Directory" )->mount( manager, path, mode ),
                  directory ) };
   return { directory, std::make_shared<AgentSourceDirBinding>( manager, path, directory ) };
}

void copyTo( PolicySmStatus& status, const PolicySmStatusTable& table ) {
   PolicySmStatusRecord found;
   if( !table.get( SingleKey(), found ) )
      return;
   status.maxDestIdIs( found.maxDestId );
   status.maxLbIdIs( found.maxLbId );
   status.maxLabelIdIs( found.maxLabelId );
}

// Writes each new highest id through to the file.
class PolicySmStatusBinding : public Vexil::Reactor<PolicySmStatus> {
 public:
   PolicySmStatusBinding( Ptr<PolicySmStatusTable> table, Ptr<PolicySmStatus> status )
      : Reactor( nullptr ), table_( std::move( table ) ) {
      copyTo( *status, *table_ );
      notifierIs( status ); // from here on changes go the other way
   }
   void handleMaxIds() override {
      const bool written = table_->set( { SingleKey(), notifier()->maxDestId(),
                                          notifier()->maxLbId(), notifier()->maxLabelId() } );
      VEXIL_ASSERT( written ); // a table of one record has room for it
   }

 private:
   Ptr<PolicySmStatusTable> table_;
};

// Follows the file that another process writes.
class PolicySmStatusReader : public Vexil::Reactor<PolicySmStatusTable> {
 public:
   PolicySmStatusReader( const Ptr<PolicySmStatusTable>& table, Ptr<PolicySmStatus> status )
      : Reactor( table ), table_( table ), status_( std::move( status ) ) {
      handleEntry( SingleKey() );
   }
   void handleEntry( const SingleKey& ) override { copyTo( *status_, *table_ ); }

 private:
   Ptr<PolicySmStatusTable> table_;
   Ptr<PolicySmStatus> status_;
};

Mounted mountPolicySmStatus( EntityManager& manager, const std::string& path, MountMode mode ) {
   const auto status = makeEntity<PolicySmStatus>();
   if( manager.inMemory() )
      return { status, nullptr };
   // Attached beside the manager's own tables, because the path stands for the entity.
   if( mode != MountMode::write ) {
      const auto table =
         makeEntity<PolicySmStatusTable>( manager.fileOf( path ), PolicySmStatusTable::Mode::read );
      manager.fileWatcher()->follow( table );
      return { status, std::make_shared<PolicySmStatusReader>( table, status ) };
   }
   const auto table = manager.makeDerivedTable<PolicySmStatusTable>( path, 1u );
   manager.ringAtEndOfTurn( table );
   return { status, std::make_shared<PolicySmStatusBinding>( table, status ) };
}

} // namespace

void registerEntityTypes() {
   Vexil::registerType( "L2Rib::SourceDirEntry", { mountSourceEntry, nullptr } );
   Vexil::registerType( "L2Rib::PolicySmStatus", { mountPolicySmStatus, nullptr } );
   Vexil::registerType( "L2Rib::AgentSourceDir", { mountAgentSourceDir, nullptr } );
   Vexil::registerType( "L2Rib::FloodSetOutput", { mountFloodOutput, nullptr } );
   Vexil::registerType( "Bridging::Config", { Bridging::mountConfig, nullptr } );
}

} // namespace L2Rib
