#include "bindings/SourceEntryBinding.h"

#include "runtime/Descriptors.h"
#include "runtime/Trace.h"

#include <string_view>
#include <utility>

namespace L2Rib {

using Vexil::EntityManager;
using Vexil::makeEntity;
using Vexil::Ptr;
using Vexil::TableError;

namespace {

constexpr Vexil::Seconds readingSlice = 0.01; // a turn

// The text of a TableError without the folder of the file that it begins with.
std::string shortened( std::string_view text ) {
   const size_t slash = text.substr( 0, text.find( ": " ) ).rfind( '/' );
   return std::string( slash == text.npos ? text : text.substr( slash + 1 ) );
}

} // namespace

SourceEntryBinding::SourceEntryBinding( EntityManager& manager, Ptr<SourceEntryTable> table,
                                        Ptr<SourceDirEntry> entry )
   : Reactor( table ), manager_( manager ), table_( std::move( table ) ),
     entry_( std::move( entry ) ),
     name_( SourceName::of( entry_->name() ).value_or( SourceName() ) ),
     retry_( manager.clock(), [ this ] { copyRecord(); } ),
     readFlood_( manager.clock(), [ this ] { copyRecord(); } ) {
   readFlood_.timeMinIs( Vexil::never );
   copyRecord();
}

SourceEntryBinding::~SourceEntryBinding() {
   SourceEntryRecord record;
   if( entry_->initialized() && table_->get( name_, record ) && !record.initialized )
      entry_->initializedIs( false );
}

void SourceEntryBinding::handleEntry( const SourceName& ) {
   if( flood_ )
      flood_->requireAllSoFar();
   copyRecord();
}

void SourceEntryBinding::copyRecord() {
   SourceEntryRecord record;
   const bool found = table_->get( name_, record );
   if( found && !settled_ )
      copyIdentity( record );
   if( !found || !record.initialized ) {
      retry_.succeeded();
      entry_->notReadyReasonIs( "" );
      return entry_->initializedIs( false );
   }
   settled_ = true;
   if( entry_->initialized() || !attachTables( record ) )
      return;
   const Vexil::Seconds until =
      manager_.starting() ? Vexil::never : manager_.clock()->now() + readingSlice;
   if( flood_ && !flood_->readOn( *manager_.clock(), until ) )
      return readFlood_.timeMinIs( 0 );
   entry_->initializedIs( true );
}

void SourceEntryBinding::copyIdentity( const SourceEntryRecord& record ) {
   entry_->sourceIs( record.source );
   entry_->hostTableTarnPathIs( record.hostPath.str() );
   entry_->lbTableTarnPathIs( record.lbPath.str() );
   entry_->labelTableTarnPathIs( record.labelPath.str() );
   entry_->destTableTarnPathIs( record.destPath.str() );
   entry_->hostTableLenIs( record.hostLen );
   entry_->lbTableLenIs( record.lbLen );
   entry_->labelTableLenIs( record.labelLen );
   entry_->destTableLenIs( record.destLen );
}

// Attaches all tables, once; returns whether they are. None is kept when one fails: descriptors
// that are scarce go to a source that can be complete.
bool SourceEntryBinding::attachTables( const SourceEntryRecord& record ) {
   if( entry_->tables() )
      return true;
   if( entry_->hostTableTarnPath().empty() ) {
      notReady( "its entry names no host table" );
      return false;
   }
   try {
      const auto tables = attached();
      if( const std::string path = record.floodPath.str(); !path.empty() ) {
         Vexil::requireSpareDescriptor( manager_.fileOf( path ) );
         const auto flood =
            manager_.mountTable<FloodMemberTable>( path, FloodMemberTable::Mode::read, 0 );
         flood_ = std::make_unique<SourceFloodBinding>( manager_.clock(), flood, entry_ );
         entry_->floodTableIs( flood );
      }
      entry_->tablesIs( tables );
   } catch( const TableError& failure ) {
      notReady( shortened( failure.what() ) );
      retry_.failed();
      return false;
   }
   if( !entry_->notReadyReason().empty() )
      Vexil::log( "source " + entry_->name() + ": all its tables are attached now" );
   entry_->notReadyReasonIs( "" );
   retry_.succeeded();
   return true;
}

std::shared_ptr<const AttachedTables> SourceEntryBinding::attached() const {
   const auto made = std::make_shared<AttachedTables>();
   made->host = attached<HostInput>( entry_->hostTableTarnPath() );
   if( !entry_->lbTableTarnPath().empty() ) {
      made->label = attached<LabelTable>( entry_->labelTableTarnPath() );
      made->lb = attached<LoadBalanceTable>( entry_->lbTableTarnPath() );
      made->dest = attached<DestTable>( entry_->destTableTarnPath() );
   }
   return made;
}

// Null when the file holds a table of another type.
template<class Table>
Ptr<Table> SourceEntryBinding::attached( const std::string& path ) const {
   const std::string file = manager_.fileOf( path );
   Vexil::requireSpareDescriptor( file );
   try {
      return manager_.mountTable<Table>( path, Table::Mode::read, 0 );
   } catch( const TableError& failure ) {
      const std::string typeName =
         failure.kind() == TableError::mismatch ? Vexil::tableTypeName( file ) : "";
      if( typeName.empty() || typeName == Table::typeName )
         throw;
      Vexil::log( "source " + entry_->name() + ": " + failure.what() );
      return nullptr;
   }
}

void SourceEntryBinding::notReady( const std::string& why ) {
   if( why != entry_->notReadyReason() )
      Vexil::log( "source " + entry_->name() + " is not ready: " + why );
   entry_->notReadyReasonIs( why );
}

Vexil::Mounted mountSourceEntry( EntityManager& manager, const std::string& path,
                                 Vexil::MountMode ) {
   const auto table = manager.mountTable<SourceEntryTable>( path, SourceEntryTable::Mode::read, 1 );
   const auto entry = makeEntity<SourceDirEntry>( path.substr( path.rfind( '/' ) + 1 ) );
   return { entry, std::make_shared<SourceEntryBinding>( manager, table, entry ) };
}

} // namespace L2Rib
