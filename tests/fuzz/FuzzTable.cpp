// A table file of any record type that somebody has written into, attached by a reader and by the
// next writer: both come to an end, and neither hands out a record whose format is broken, or one
// under another key.
#include "tests/Records.h"
#include "tests/fuzz/FuzzSupport.h"

#include "L2Rib/ConfigRecords.h"
#include "L2Rib/Parked.h"
#include "L2Rib/SourceDir.h"
#include "L2Rib/Status.h"

using namespace L2Rib;
using namespace L2Rib::Test;
using namespace Vexil;
using Fuzz::require;

namespace {

// --- sound records, from which the files are made

const ObjTupleAndSource input( const ObjTuple& ot ) { return { ot, sourceBit6_ }; }

template<class Record>
Record sample( uint32_t number ) { // those without rules need no more than a key
   Record record;
   std::memcpy( static_cast<void*>( &record ), &number, sizeof number );
   return record;
}
// A table of one record has one key.
template<>
FloodSourceRecord sample<FloodSourceRecord>( uint32_t number ) {
   return { .source = 1u << number };
}
template<>
PolicySmStatusRecord sample<PolicySmStatusRecord>( uint32_t number ) {
   return { SingleKey(), DestId( number ), LoadBalanceId( number ), LabelId( number ) };
}
template<>
AgentStatusRecord sample<AgentStatusRecord>( uint32_t number ) {
   AgentStatusRecord record;
   record.processId = number;
   return record;
}
template<>
Host sample<Host>( uint32_t number ) {
   return number % 2 ? objectHost( mvp( number ), dest( number ) ) : vtepHost( mvp( number ), {} );
}
template<>
LoadBalance sample<LoadBalance>( uint32_t number ) {
   return group( number, std::vector<ObjTuple>( 1 + number % 16, dest( 1 ) ) );
}
template<>
Dest sample<Dest>( uint32_t number ) {
   return intfDest( number, number );
}
template<>
HostAndSource sample<HostAndSource>( uint32_t number ) {
   return { mvp( number ), sample<Host>( number ), sourceBit6_ };
}
template<>
DestAndSource sample<DestAndSource>( uint32_t number ) {
   return { sample<Dest>( number ), input( dest( number ) ) };
}
template<>
LoadBalanceAndSource sample<LoadBalanceAndSource>( uint32_t number ) {
   return { sample<LoadBalance>( number ), input( lb( number ) ) };
}
template<>
LabelAndSource sample<LabelAndSource>( uint32_t number ) {
   return { sample<Label>( number ), input( label( number ) ) };
}
template<>
FloodMember sample<FloodMember>( uint32_t number ) {
   return floodMember( 10, 1, number );
}

template<class Record>
bool isSound( const Record& record ) {
   if constexpr( requires { formatFaultIn( record ); } )
      return !formatFaultIn( record );
   return true;
}

// --- damage

// A word written over the file: where, in which part of it, and how much of the word.
struct Patch {
   uint8_t part;
   uint8_t size;
   uint16_t offset;
   uint64_t word;
};

uint64_t partOf( const TableGeometry& geometry, uint8_t part ) {
   const uint64_t starts[] = { 0,
                               offsetof( TableHeader, superseded ),
                               offsetof( TableHeader, operation ),
                               geometry.indexOffset,
                               geometry.slotOffset,
                               geometry.journalOffset };
   return starts[ part % std::size( starts ) ];
}

void apply( Fuzz::Input& from, const TableGeometry& geometry, std::string& file ) {
   const auto flags = from.take<uint8_t>();
   while( !from.empty() ) {
      const auto patch = from.take<Patch>();
      const uint64_t at = partOf( geometry, patch.part ) + patch.offset;
      const size_t size = 1 + patch.size % 8;
      if( at + size <= file.size() )
         std::memcpy( file.data() + at, &patch.word, size );
   }
   if( flags & 1 ) { // so that what stands behind the check sum is reached too
      TableHeader header;
      std::memcpy( static_cast<void*>( &header ), file.data(), sizeof header );
      header.layoutHash = hashBytes( &header, offsetof( TableHeader, layoutHash ) );
      std::memcpy( file.data(), &header, sizeof header );
   }
   if( flags & 2 )
      file.resize( file.size() / 256 * ( flags >> 2 ) * 4 );
}

// --- what must hold of any file

template<class Table, class Key, class Record>
class Trial {
 public:
   static void run( Fuzz::Input& from ) {
      static const std::string sound = soundFile();
      const std::string path = Fuzz::folder().file( "table" );
      std::string damaged = sound;
      apply( from, TableGeometry( Table::spec(), capacity ), damaged );
      TestSupport::replace( path, damaged );
      const auto reader = attach( path, Table::Mode::read );
      if( reader )
         read( *reader );
      if( const auto writer = attach( path, Table::Mode::write ) )
         write( *writer );
      if( reader )
         read( *reader );
   }

 private:
   using View = TableView<Key, Record>;
   static constexpr uint32_t capacity = 12;

   static std::string soundFile() {
      const std::string path = Fuzz::folder().file( "sound" );
      {
         Table table( path, Table::Mode::write, capacity );
         require( table.set( sample<Record>( 2 ) ), "a new table takes a record" );
         table.erase( View::keyOf( sample<Record>( 2 ) ) );
         for( const uint32_t number : { 1, 3, 4, 5, 6, 7, 3 } )
            require( table.set( sample<Record>( number ) ), "a new table takes records" );
      }
      std::string bytes = TestSupport::bytesOf( path );
      std::filesystem::remove( path );
      return bytes;
   }

   static Ptr<Table> attach( const std::string& path, typename Table::Mode mode ) {
      try {
         return makeEntity<Table>( path, mode, capacity );
      } catch( const TableError& ) {
         return nullptr;
      }
   }

   static void check( const Table& table, const Record& record ) {
      require( isSound( record ), "what is read has its format" );
      if( !table.writable() )
         return;
      Record found;
      require( table.get( View::keyOf( record ), found ) &&
                  std::memcmp( &found, &record, sizeof found ) == 0,
               "what a writer has recovered is found under its key" );
   }

   static void read( Table& table ) {
      for( uint32_t number = 0; number < 9; ++number ) {
         const Key key = View::keyOf( sample<Record>( number ) );
         Record record;
         if( !table.get( key, record ) )
            continue;
         require( View::keyOf( record ) == key, "a lookup finds its key" );
         require( isSound( record ), "what is looked up has its format" );
      }
      table.forEach( [ & ]( const Record& record ) { check( table, record ); } );
      table.forEachKey( []( const Key& ) {} );
      const ManualClock clock;
      int polls = 0;
      while( table.poll( clock, 0 ) )
         require( ++polls < 1000, "a poll comes to an end" );
   }

   static void write( Table& table ) {
      const uint64_t found = table.corruptions();
      uint32_t count = 0;
      table.forEach( [ & ]( const Record& record ) {
         ++count;
         check( table, record );
      } );
      require( count == table.count(), "the count is that of the records" );
      require( table.corruptions() == found, "nothing broken is left after recovery" );
      for( int time = 0; time < 2; ++time ) {
         table.eraseAll();
         require( table.count() == 0, "nothing is left when all was erased" );
         for( uint32_t number = 8; number < 8 + capacity; ++number ) {
            const Record added = sample<Record>( number );
            Record found;
            require( !isSound( added ) ||
                        ( table.set( added ) && table.get( View::keyOf( added ), found ) ),
                     "what was written is there, up to the last slot" );
         }
      }
   }
};

using Run = void ( * )( Fuzz::Input& );
constexpr Run trials[] = {
   Trial<HostInput, Bridging::MacVlanPair, Host>::run,
   Trial<LoadBalanceTable, LoadBalanceId, LoadBalance>::run,
   Trial<LabelTable, LabelId, Label>::run,
   Trial<DestTable, DestId, Dest>::run,
   Trial<HostOutput, Bridging::MacVlanPair, HostAndSource>::run,
   Trial<LoadBalanceOutput, LoadBalanceId, LoadBalanceAndSource>::run,
   Trial<LabelOutput, LabelId, LabelAndSource>::run,
   Trial<DestOutput, DestId, DestAndSource>::run,
   Trial<FloodMemberTable, FloodMemberKey, FloodMember>::run,
   Trial<FloodSourceTable, uint32_t, FloodSourceRecord>::run,
   Trial<SourceEntryTable, SourceName, SourceEntryRecord>::run,
   Trial<PolicySmStatusTable, SingleKey, PolicySmStatusRecord>::run,
   Trial<AgentStatusTable, SingleKey, AgentStatusRecord>::run,
   Trial<SourceStatusTable, SourceName, SourceStatusRecord>::run,
   Trial<ParkedTable, ParkedKey, ParkedRecord>::run,
   Trial<Bridging::ConfiguredHostTable, Bridging::MacVlanPair, Bridging::ConfiguredHostRecord>::run,
   Trial<Bridging::TunnelTable, Bridging::TunnelId, Bridging::TunnelRecord>::run,
};

} // namespace

std::vector<std::string> Fuzz::seeds() {
   std::vector<std::string> all;
   for( uint8_t type = 0; type < std::size( trials ); ++type ) {
      const uint8_t flags = 0;
      all.push_back( bytes( type, flags ) );
      for( uint8_t part = 0; part < 6; ++part )
         all.push_back( bytes( type, flags, Patch{ part, 7, 8, 0x0300000011ull } ) );
   }
   return all;
}

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
   Fuzz::Input from( data, size );
   trials[ from.take<uint8_t>() % std::size( trials ) ]( from );
   return 0;
}
