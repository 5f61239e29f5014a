#include "client/SourcePublisher.h"

#include <algorithm>
#include <filesystem>

namespace L2Rib::Client {

using Vexil::makeEntity;

namespace {

// What the tables' files are called in the source's folder.
constexpr const char* hostFile = "hostInput";
constexpr const char* lbFile = "loadBalanceTable";
constexpr const char* labelFile = "labelTable";
constexpr const char* destFile = "destTable";
constexpr const char* floodFile = "floodSets";

} // namespace

// --- publishing

SourcePublisher::SourcePublisher( const SourceOptions& options )
   : options_( options ), folder_( options.stateDirectory ) {
   requireUsable();
   const SourceFolder::Lock lock( folder_ );
   requireFree();
   if( !folder_.published( options_.name ) )
      folder_.remove( options_.name ); // what a withdrawal that was cut short left of the tables
   folder_.removeUnpublished( options_.name );
   const SourceEntryRecord wanted = wantedRecord();
   bool complete = true; // all tables were there: whoever reads them still reads the same files
   for( const TablePath& path :
        { wanted.hostPath, wanted.lbPath, wanted.labelPath, wanted.destPath, wanted.floodPath } )
      complete = complete && std::filesystem::exists( folder_.fileOf( path.str() ) );
   openTables();
   openEntry( complete );
   noteFloodTypes();
}

void SourcePublisher::requireUsable() const {
   const auto refuse = []( const std::string& text ) {
      throw PublishRefused( PublishRefused::unusable, text );
   };
   if( options_.stateDirectory.empty() ) // it would be the root of the file system
      refuse( "the state directory has no name: expected a path such as /run/l2rib" );
   const std::string& name = options_.name;
   const auto control = []( char c ) { return static_cast<unsigned char>( c ) < ' ' || c == 0x7f; };
   if( name.empty() || !SourceName::of( name ) )
      refuse( "a source's name has 1 to 63 characters, not " + std::to_string( name.size() ) );
   if( name == "static" )
      refuse( "the name \"static\" is that of the static configuration: choose another" );
   if( name[ 0 ] == '.' || name.find( '/' ) != name.npos ||
       std::any_of( name.begin(), name.end(), control ) )
      refuse( "a source's name neither begins with '.' nor holds '/' or control characters" );
   if( !isSingleBit( options_.value ) )
      refuse( "value " + sourceStr( options_.value ) +
              " is no single bit: expected 0x1, 0x2, 0x4, 0x8, 0x20 and so on" );
   if( options_.value == sourceStatic_ )
      refuse( "value 0x10 is that of the static configuration: choose another" );
   if( options_.hostCapacity == 0 || options_.objectCapacity == 0 || options_.floodCapacity == 0 )
      refuse( "a table's capacity is at least 1" );
   const uint32_t largest =
      std::max( { options_.hostCapacity, options_.objectCapacity, options_.floodCapacity } );
   if( largest > Vexil::maxCapacity || options_.capacityMax > Vexil::maxCapacity )
      refuse( "a table's capacity is at most " + std::to_string( Vexil::maxCapacity ) );
}

void SourcePublisher::requireFree() const {
   if( folder_.running( options_.name ) )
      throw PublishRefused( PublishRefused::taken,
                            "source " + options_.name +
                               " is being run by another process: end that one, or choose "
                               "another name" );
   for( const auto& [ name, other ] : folder_.sources() )
      if( name != options_.name && other.record.source == options_.value )
         throw PublishRefused( PublishRefused::taken, "value " + sourceStr( options_.value ) +
                                                         " is that of source " + name +
                                                         ": choose another" );
}

SourceEntryRecord SourcePublisher::wantedRecord() const {
   const auto path = [ this ]( const char* table ) {
      return TablePath::of( SourceFolder::tablePath( options_.name, table ) ).value();
   };
   SourceEntryRecord record;
   record.name = SourceName::of( options_.name ).value();
   record.source = options_.value;
   record.hostPath = path( hostFile );
   record.hostLen = options_.hostCapacity;
   if( options_.hostOnly )
      return record;
   record.lbPath = path( lbFile );
   record.labelPath = path( labelFile );
   record.destPath = path( destFile );
   record.floodPath = path( floodFile );
   record.lbLen = record.labelLen = record.destLen = options_.objectCapacity;
   return record;
}

template<class Table, class Key>
void SourcePublisher::open( Owned<Table, Key>& owned, const TablePath& path, uint32_t capacity,
                            uint32_t capacityBefore ) {
   if( path.view().empty() )
      return;
   owned.table = makeEntity<Table>( folder_.fileOf( path.str() ), Table::Mode::write, capacity );
   if( capacityBefore != 0 && capacityBefore != capacity )
      owned.table->capacityIs( capacity );
   owned.table->capacityMaxIs( options_.capacityMax );
}

// What the entry says that is there; with no capacities when there is none.
SourceEntryRecord SourcePublisher::keptRecord() const {
   if( !folder_.published( options_.name ) )
      return {};
   return SourceEntryTable( folder_.entryFile( options_.name ), SourceEntryTable::Mode::read )
      .get( wantedRecord().name );
}

void SourcePublisher::openTables() {
   const SourceEntryRecord wanted = wantedRecord();
   const SourceEntryRecord kept = keptRecord();
   open( hosts_, wanted.hostPath, options_.hostCapacity, kept.hostLen );
   open( labels_, wanted.labelPath, options_.objectCapacity, kept.labelLen );
   open( lbs_, wanted.lbPath, options_.objectCapacity, kept.lbLen );
   open( dests_, wanted.destPath, options_.objectCapacity, kept.destLen );
   open( flood_, wanted.floodPath, options_.floodCapacity, 0 ); // the entry doesn't say it
}

// Goes on with the kept entry when it says what is wanted; else publishes a new one in its place,
// and the agent meets a new source. With the tables as they were, the new one begins initialized if
// the old one was: its content is as complete as it was before.
void SourcePublisher::openEntry( bool tablesComplete ) {
   const std::string file = folder_.entryFile( options_.name );
   SourceEntryRecord wanted = wantedRecord();
   if( folder_.published( options_.name ) ) {
      auto kept = makeEntity<SourceEntryTable>( file, SourceEntryTable::Mode::write, 1u );
      const SourceEntryRecord found = kept->get( wanted.name );
      if( tablesComplete && found.source == wanted.source && found.lbPath == wanted.lbPath )
         wanted.initialized = found.initialized;
      if( tablesComplete && found == wanted ) {
         entry_ = kept;
         return;
      }
   }
   if( options_.hostOnly )
      eraseHostsOnObjects(); // their objects go below
   entry_ = makeEntity<SourceEntryTable>( file, 1u, wanted );
   if( options_.hostOnly )
      for( const char* table : { lbFile, labelFile, destFile, floodFile } )
         std::filesystem::remove(
            folder_.fileOf( SourceFolder::tablePath( options_.name, table ) ) );
}

void SourcePublisher::eraseHostsOnObjects() {
   hosts_.table->forEach( [ this ]( const Host& host ) {
      if( host.next() != Util::objTupleInvalid() )
         hosts_.table->erase( host.key() );
   } );
}

template<class Each>
void SourcePublisher::forEachOwned( Each each ) {
   each( hosts_ );
   each( labels_ );
   each( lbs_ );
   each( dests_ );
   each( flood_ );
}

void SourcePublisher::flush() {
   forEachOwned( []( auto& owned ) {
      if( owned.table )
         owned.table->ring();
   } );
   entry_->ring();
}

void SourcePublisher::withdraw() {
   const SourceFolder::Lock lock( folder_ );
   folder_.remove( options_.name );
}

void SourcePublisher::initializedIs( bool initialized ) {
   SourceEntryRecord record = entry_->get( wantedRecord().name );
   if( ( record.initialized != 0 ) == initialized )
      return;
   record.initialized = initialized;
   VEXIL_ASSERT( entry_->set( record ) ); // the record that is there is replaced
}

// --- content

template<class Table, class Key>
Rejection SourcePublisher::missing( const Owned<Table, Key>& owned ) const {
   if( owned.table )
      return {};
   return std::string( "a host-only source has no " ) + owned.content +
          ": its hosts have inline destinations";
}

// Why a record could not be written.
template<class Table, class Key>
Rejection SourcePublisher::noRoom( const Owned<Table, Key>& owned ) {
   const std::string table = std::string( "the table of " ) + owned.content;
   switch( owned.table->makeRoom() ) {
   case Vexil::Room::full:
      return table + " is full: it has room for " + std::to_string( owned.table->capacity() );
   case Vexil::Room::noMemory:
      return table + " takes nothing more: the state directory has no memory for it";
   case Vexil::Room::yes:
      break;
   }
   return table + " takes nothing any more: its file was cut short";
}

template<class Table, class Key, class Record>
Rejection SourcePublisher::write( Owned<Table, Key>& owned, const Rejection& bad, const Key& key,
                                  const Record& record ) {
   if( const Rejection none = missing( owned ) )
      return none;
   if( bad )
      return bad;
   Table& table = *owned.table;
   if( Record present; !table.get( key, present ) || present != record )
      if( !table.set( record ) )
         return noRoom( owned );
   if( begun_ )
      owned.named.emplace( key );
   return {};
}

template<class Table, class Key>
Rejection SourcePublisher::erase( Owned<Table, Key>& owned, const Rejection& bad, const Key& key ) {
   if( const Rejection none = missing( owned ) )
      return none;
   if( bad )
      return bad;
   owned.table->erase( key );
   owned.named.erase( key );
   return {};
}

Rejection SourcePublisher::hostIs( Host host ) {
   if( host.next() != Util::objTupleInvalid() )
      if( const Rejection none = missing( dests_ ) )
         return none;
   Host present;
   const bool known = hosts_.table->get( host.key(), present );
   host.updateTimeIs( present.updateTime() );
   if( !known || present != host )
      host.updateTimeIs( clock_.now() );
   return write( hosts_, checked( host ), host.key(), host );
}

Rejection SourcePublisher::destIs( const Dest& dest ) {
   return write( dests_, checked( dest ), dest.key(), dest );
}

Rejection SourcePublisher::lbIs( const LoadBalance& lb ) {
   return write( lbs_, checked( lb ), lb.key(), lb );
}

Rejection SourcePublisher::labelIs( const Label& label ) {
   return write( labels_, checked( label ), label.key(), label );
}

Rejection SourcePublisher::floodIs( const FloodMember& member ) {
   if( const Rejection bad = write( flood_, checked( member ), member.triple, member ) )
      return bad;
   const std::pair set( member.triple.vlan(), member.triple.mac() );
   const auto [ known, fresh ] = floodTypes_.emplace( set, member.floodSetType );
   if( fresh || known->second == member.floodSetType )
      return {};
   known->second = member.floodSetType;
   flood_.table->forEach( [ & ]( FloodMember other ) {
      if( std::pair( other.triple.vlan(), other.triple.mac() ) != set )
         return;
      other.floodSetType = member.floodSetType;
      VEXIL_ASSERT( flood_.table->set( other ) ); // the record that is there is replaced
   } );
   return {};
}

void SourcePublisher::noteFloodTypes() {
   if( flood_.table )
      flood_.table->forEach( [ this ]( const FloodMember& member ) {
         floodTypes_[ { member.triple.vlan(), member.triple.mac() } ] = member.floodSetType;
      } );
}

Rejection SourcePublisher::hostDel( const Bridging::MacVlanPair& key ) {
   return erase( hosts_, checked( key ), key );
}

Rejection SourcePublisher::destDel( DestId id ) {
   return erase( dests_, checked( ObjTuple( id ) ), id );
}

Rejection SourcePublisher::lbDel( LoadBalanceId id ) {
   return erase( lbs_, checked( ObjTuple( id ) ), id );
}

Rejection SourcePublisher::labelDel( LabelId id ) {
   return erase( labels_, checked( ObjTuple( id ) ), id );
}

Rejection SourcePublisher::floodDel( const FloodSetTriple& triple ) {
   const Rejection bad = checked( FloodMember{ triple, floodSetTypeAny_ } ); // whatever its type
   return erase( flood_, bad, FloodMemberKey( triple ) );
}

void SourcePublisher::clear() {
   forEachOwned( []( auto& owned ) {
      owned.named.clear();
      if( owned.table )
         owned.table->eraseAll();
   } );
}

std::optional<Host> SourcePublisher::host( const Bridging::MacVlanPair& key ) const {
   Host present;
   if( hosts_.table->get( key, present ) )
      return present;
   return {};
}

ReadMark SourcePublisher::hostMark() const {
   return { hosts_.table->tableId(), hosts_.table->journalHead() };
}

Rejection SourcePublisher::begin() {
   if( begun_ )
      return "begin within begin: end the first one before";
   begun_ = true;
   return {};
}

Rejection SourcePublisher::end() {
   if( !begun_ )
      return "end without begin";
   begun_ = false;
   forEachOwned( []( auto& owned ) { eraseUnnamed( owned ); } );
   return {};
}

template<class Table, class Key>
void SourcePublisher::eraseUnnamed( Owned<Table, Key>& owned ) {
   if( owned.table )
      owned.table->forEach( [ & ]<class Record>( const Record& record ) {
         const Key& key = Vexil::TableView<Key, Record>::keyOf( record );
         if( !owned.named.contains( key ) )
            owned.table->erase( key );
      } );
   owned.named.clear();
}

} // namespace L2Rib::Client
