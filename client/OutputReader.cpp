#include "client/OutputReader.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace L2Rib::Client {

// What a follower was told last, so that it hears of net changes alone. Reacts to one table file.
template<class Table, class Key, class Record>
class OutputTable<Table, Key, Record>::Mirror : public Vexil::Reactor<Table> {
 public:
   explicit Mirror( const Changed& changed )
      : Vexil::Reactor<Table>( nullptr ), changed_( changed ) {}

   // Goes over to this file and tells how its content differs from what was told.
   void tableIs( Vexil::Ptr<Table> table ) {
      this->notifierIs( table );
      handleOvertaken();
      told_.reserve( table->count() );
      table->forEach( [ this ]( const Record& row ) {
         handleEntry( Vexil::TableView<Key, Record>::keyOf( row ) );
      } );
   }
   void handleEntry( const Key& key ) override {
      Record row;
      if( !this->notifier()->get( key, row ) ) {
         if( told_.erase( key ) )
            changed_( key, nullptr );
         return;
      }
      const auto [ known, fresh ] = told_.emplace( key );
      if( !fresh && *known == row )
         return;
      *known = row;
      changed_( key, &row );
   }
   // Rows may have gone without a word; those that are there follow.
   void handleOvertaken() override {
      for( auto at = told_.begin(); at != told_.end(); ++at )
         if( const Key key = at->key; !this->notifier()->get( key, lookedUp_ ) )
            handleEntry( key );
   }

 private:
   const Changed& changed_;
   Vexil::HashMap<Key, Record> told_;
   Record lookedUp_;
};

template<class Table, class Key, class Record>
OutputTable<Table, Key, Record>::OutputTable( std::string file ) : file_( std::move( file ) ) {}

template<class Table, class Key, class Record>
OutputTable<Table, Key, Record>::~OutputTable() = default;

template<class Table, class Key, class Record>
std::optional<Record> OutputTable<Table, Key, Record>::get( const Key& key ) const {
   Record row;
   if( table_ && table_->get( key, row ) )
      return row;
   return std::nullopt;
}

template<class Table, class Key, class Record>
std::vector<Record> OutputTable<Table, Key, Record>::list() const {
   std::vector<Record> rows;
   if( table_ )
      table_->forEach( [ & ]( const Record& row ) { rows.push_back( row ); } );
   std::sort( rows.begin(), rows.end(), []( const Record& a, const Record& b ) {
      return Vexil::TableView<Key, Record>::keyOf( a ) < Vexil::TableView<Key, Record>::keyOf( b );
   } );
   return rows;
}

template<class Table, class Key, class Record>
void OutputTable<Table, Key, Record>::attach( Vexil::FileWatcher& watcher ) {
   try {
      const auto found = Vexil::makeEntity<Table>( file_, Table::Mode::read );
      if( table_ && found->tableId() == table_->tableId() )
         return;
      table_ = found;
      watcher.follow( table_ );
   } catch( const Vexil::TableError& failure ) {
      if( failure.kind() != Vexil::TableError::absent )
         throw;
   }
}

template<class Table, class Key, class Record>
void OutputTable<Table, Key, Record>::tell() {
   if( !table_ || !changed_ )
      return;
   if( !mirror_ )
      mirror_ = std::make_unique<Mirror>( changed_ );
   if( mirror_->notifier() != table_ )
      mirror_->tableIs( table_ );
}

template class OutputTable<HostOutput, Bridging::MacVlanPair, HostAndSource>;
template class OutputTable<DestOutput, DestId, DestAndSource>;
template class OutputTable<LoadBalanceOutput, LoadBalanceId, LoadBalanceAndSource>;
template class OutputTable<LabelOutput, LabelId, LabelAndSource>;
template class OutputTable<FloodMemberTable, FloodMemberKey, FloodMember>;
template class OutputTable<FloodSourceTable, uint32_t, FloodSourceRecord>;

OutputReader::OutputReader( const std::string& stateDirectory )
   : hosts( stateDirectory + "/" + Path::hostOutput ),
     dests( stateDirectory + "/" + Path::destOutput ),
     groups( stateDirectory + "/" + Path::lbOutput ),
     labels( stateDirectory + "/" + Path::labelOutput ),
     flood( stateDirectory + "/" + Path::floodOutput ),
     floodSource( stateDirectory + "/" + Path::floodOutputSource ), watcher_( loop_ ) {
   if( !std::filesystem::exists( stateDirectory ) )
      throw Vexil::TableError( Vexil::TableError::absent,
                               stateDirectory + ": there is no such state directory" );
   folder_.emplace( watcher_, std::filesystem::path( hosts.file_ ).parent_path(), [ this ] {
      try {
         attachAll();
      } catch( const Vexil::TableError& failure ) {
         Vexil::log( failure.what() );
      }
   } );
   attachAll();
   more_ = eventfd( 1, EFD_NONBLOCK | EFD_CLOEXEC );
   if( more_ < 0 )
      throw std::system_error( errno, std::generic_category(), "eventfd" );
   loop_.watch( more_, [ this ] {
      eventfd_t ignored;
      eventfd_read( more_, &ignored );
   } );
}

OutputReader::~OutputReader() { close( more_ ); }

template<class Use>
void OutputReader::forEachTable( Use use ) {
   use( hosts );
   use( dests );
   use( groups );
   use( labels );
   use( flood );
   use( floodSource );
}

void OutputReader::attachAll() {
   forEachTable( [ this ]( auto& table ) { table.attach( watcher_ ); } );
}

bool OutputReader::complete() const {
   return hosts.table() && dests.table() && groups.table() && labels.table() && flood.table() &&
          floodSource.table();
}

void OutputReader::process() {
   loop_.turn( 0 );
   forEachTable( []( auto& table ) { table.tell(); } );
   if( complete() && inSync_ )
      std::exchange( inSync_, nullptr )();
   if( loop_.clock()->nextWake() <= loop_.clock()->now() )
      eventfd_write( more_, 1 );
}

} // namespace L2Rib::Client
