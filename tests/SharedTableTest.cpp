// Shared tables within one process: the content against a ledger, readers that follow, and files
// that somebody has damaged, cut short, or made for something else.
#include "tests/TestTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

namespace TestTable {
namespace {

using TestSupport::bytesOf;
using TestSupport::replace;
using TestSupport::TemporaryFolder;

struct Number {
   uint32_t number;
   uint32_t value;
};
class NumberTable : public NamedTable<NumberTable, uint32_t, Number> {
 public:
   using NamedTable::NamedTable;
   static constexpr const char* typeName = "TestNumber";
   static constexpr const char* collection = "number";
};
// Follows a table of numbers and counts what it is told.
class NumberMirror : public Reactor<NumberTable> {
 public:
   explicit NumberMirror( const Ptr<NumberTable>& table ) : Reactor<NumberTable>( table ) {}
   void handleEntry( const uint32_t& number ) override {
      ++told;
      contents[ number ] = notifier()->get( number ).value;
   }
   std::map<uint32_t, uint32_t> contents;
   uint32_t told = 0;
};

// Overwrites part of a file that others may have mapped.
void overwrite( const std::string& path, uint64_t offset, const void* data, size_t size ) {
   const int fd = open( path.c_str(), O_WRONLY );
   ASSERT_EQ( pwrite( fd, data, size, static_cast<off_t>( offset ) ),
              static_cast<ssize_t>( size ) );
   close( fd );
}

TableError::Kind refusal( const std::string& path, Table::Mode mode, TableSpec asked = spec ) {
   try {
      Table( asked, path, mode, 100 );
   } catch( const TableError& failure ) {
      EXPECT_NE( std::string( failure.what() ).find( path ), std::string::npos ) << failure.what();
      return failure.kind();
   }
   ADD_FAILURE() << "attached";
   return TableError::system;
}

// Random operations, many on a full table, which grows by itself to some limit; the writer leaves
// and comes back with other capacities, smaller than its content too, and a reader that attached
// once follows it to each new file.
TEST( SharedTable, MatchesTheModelAndFollowsItsWriter ) {
   const TemporaryFolder folder;
   const std::string path = folder.file( "a/b/table" ); // folders are made
   Random random;
   Ledger ledger;
   Ptr<Table> writer = written( path, 150 );
   Mirror mirror( read( path ) );
   const Table& reader = *mirror.notifier();
   EXPECT_FALSE( reader.writable() );
   unsigned full = 0, grown = 0;
   for( int life = 0; life < 60; ++life ) {
      Mirror own( writer ); // is told at the time of the change
      for( int step = 0; step < 600; ++step ) {
         const uint64_t told = writer->journalHead() - own.told;
         const uint32_t capacity = writer->capacity();
         ASSERT_TRUE( ledger.operate( *writer, random.below( Ledger::keys ), random ) );
         ASSERT_EQ( writer->journalHead() - own.told, told );
         full += writer->count() == writer->capacity();
         grown += writer->capacity() > capacity;
         if( random.percent( 1 ) )
            mirror.follow();
      }
      mirror.follow();
      ASSERT_EQ( ledger.wrongIn( reader ), "" );
      ASSERT_EQ( reader.count(), own.contents.size() );
      ASSERT_EQ( contentsOf( reader ), own.contents );
      ASSERT_EQ( mirror.contents, own.contents );
      ASSERT_EQ( refusal( path, Table::Mode::write ), TableError::busy );
      ASSERT_TRUE( tableHasWriter( path ) );
      own.notifierIs( nullptr );
      writer = nullptr;
      ASSERT_FALSE( tableHasWriter( path ) );
      const uint32_t asked = random.percent( 30 ) ? reader.capacity() : 20 + random.below( 300 );
      writer = written( path, random.percent( 50 ) ? asked : 1 );
      writer->capacityIs( asked );
      ASSERT_EQ( writer->capacity(), std::max( asked, reader.count() ) );
      ledger.capacityMax = random.percent( 70 ) ? random.below( 500 ) : 0;
      writer->capacityMaxIs( ledger.capacityMax );
      ASSERT_EQ( ledger.wrongIn( *writer ), "" );
   }
   EXPECT_GT( full, 300u );
   EXPECT_GT( grown, 3u );
   writer->eraseAll();
   mirror.follow();
   EXPECT_TRUE( mirror.contents.empty() );
   EXPECT_EQ( reader.tableId(), writer->tableId() );
   EXPECT_EQ( reader.corruptions(), 0u );
}

TEST( SharedTable, RefusesWhatIsNotItsFile ) {
   const TemporaryFolder folder;
   const std::string path = folder.file( "table" );
   EXPECT_EQ( refusal( path, Table::Mode::read ), TableError::absent );
   ASSERT_TRUE( written( path, 100 )->set( Record::of( 7, 7 ) ) );
   const std::string good = bytesOf( path );
   for( const TableSpec& other :
        { TableSpec{ "Other", "record", sizeof( Key ), sizeof( Record ) },
          TableSpec{ "TestRecord", "other", sizeof( Key ), sizeof( Record ) },
          TableSpec{ "TestRecord", "record", 8, sizeof( Record ) },
          TableSpec{ "TestRecord", "record", sizeof( Key ), 72 },
          TableSpec{ "TestRecord", "record", sizeof( Key ), sizeof( Record ), nullptr, 1 } } ) {
      EXPECT_EQ( refusal( path, Table::Mode::read, other ), TableError::mismatch );
      EXPECT_EQ( refusal( path, Table::Mode::write, other ), TableError::mismatch );
   }
   // Every bit of the part that never changes, the check sum included.
   for( size_t bit = 0; bit < 8 * ( offsetof( TableHeader, layoutHash ) + 8 ); ++bit ) {
      std::string bad = good;
      bad[ bit / 8 ] = static_cast<char>( bad[ bit / 8 ] ^ ( 1 << bit % 8 ) );
      replace( path, bad );
      const bool version = bit / 8 >= offsetof( TableHeader, formatVersion ) &&
                           bit / 8 < offsetof( TableHeader, headerSize );
      ASSERT_EQ( refusal( path, Table::Mode::read ),
                 version ? TableError::mismatch : TableError::damaged )
         << "bit " << bit;
      ASSERT_EQ( tableTypeName( path ), "" ) << "bit " << bit;
   }
   replace( path, good );
   EXPECT_EQ( read( path )->get( { 7 } ).serial, 7u );
   // A writer doesn't replace what it can't read.
   replace( path, "no table" );
   EXPECT_EQ( refusal( path, Table::Mode::write ), TableError::damaged );
   EXPECT_EQ( bytesOf( path ), "no table" );
   unlink( path.c_str() );
   ASSERT_EQ( symlink( "nowhere", path.c_str() ), 0 );
   EXPECT_EQ( refusal( path, Table::Mode::write ), TableError::system );
   // A pipe that nobody writes to holds up no reader.
   unlink( path.c_str() );
   ASSERT_EQ( mkfifo( path.c_str(), 0600 ), 0 );
   EXPECT_EQ( refusal( path, Table::Mode::read ), TableError::system );
   EXPECT_FALSE( Vexil::tableHasWriter( path ) );
   EXPECT_EQ( Vexil::tableTypeName( path ), "" );
}

// A table that grows from one row to many: whoever reads at least once from each file is told every
// change once, and a walk by slots in the middle of it meets every row that stays, once.
TEST( SharedTable, GrowsUnderWhoReadsIt ) {
   constexpr uint32_t rows = 200'000; // past the size up to which a table is copied in one go
   const TemporaryFolder folder;
   for( const std::string& path : { folder.file( "table" ), std::string() } ) {
      const Ptr<NumberTable> writer =
         path.empty() ? makeEntity<NumberTable>( 1u )
                      : makeEntity<NumberTable>( path, NumberTable::Mode::write, 1u );
      writer->capacityMaxIs( 1 << 20 );
      const Ptr<NumberTable> reader =
         path.empty() ? writer : makeEntity<NumberTable>( path, NumberTable::Mode::read );
      NumberMirror mirror( reader );
      Random random;
      ManualClock clock;
      const auto poll = [ & ] {
         while( reader != writer && reader->poll( clock, 0 ) ) {
         }
      };
      uint32_t slot = 0, met = 0, changes = 0;
      for( uint32_t number = 0; number < rows; ++number ) {
         const uint32_t capacity = writer->capacity();
         ASSERT_TRUE( number % 2 == 0 || writer->makeRoom( 5 ) == Room::yes );
         ASSERT_TRUE( writer->set( { number, 0 } ) );
         ASSERT_TRUE( writer->set( { random.below( number + 1 ), number } ) );
         changes += 2;
         if( random.percent( 10 ) ) { // a key that the walk does not look for, and its slot
            ASSERT_TRUE( writer->set( { rows + 1, 0 } ) && writer->erase( rows + 1 ) );
            changes += 2;
         }
         if( writer->capacity() != capacity || random.below( 50 ) == 0 )
            poll();
         if( number > rows / 2 ) // slower than the table grows
            if( const auto row = writer->inSlot( slot++ ) )
               met += row->number < rows / 2;
      }
      for( ; slot < writer->slotCount(); ++slot )
         if( const auto row = writer->inSlot( slot ) )
            met += row->number < rows / 2;
      EXPECT_EQ( met, rows / 2 );
      poll();
      EXPECT_EQ( reader->overruns(), 0u );
      EXPECT_EQ( mirror.told, changes );
      EXPECT_EQ( reader->count(), rows );
      EXPECT_EQ( reader->capacity(), 1u << 18 );
      for( uint32_t number = 0; number < rows; ++number )
         ASSERT_EQ( mirror.contents[ number ], writer->get( number ).value );
   }
}

// Bursts larger than the journal, and polls that are cut short after one batch, with more changes
// between the parts of a walk over all keys: in the end nothing is missed, deletions included.
TEST( SharedTable, OvertakenReaderLosesNothing ) {
   constexpr uint32_t keys = 6000;
   const TemporaryFolder folder;
   Random random;
   const Ptr<Table> writer = written( folder.file( "table" ), 20 );
   writer->capacityMaxIs( 3000 );
   const Ptr<Table> reader = read( folder.file( "table" ) );
   Mirror mirror( reader ), truth( writer );
   ManualClock clock;
   clock.tickIs( 1 ); // a deadline is over when it is looked at
   uint64_t cutShort = 0;
   const auto poll = [ & ] {
      const bool more = reader->poll( clock, clock.now() );
      cutShort += more;
      return more;
   };
   for( int round = 0; round < 60; ++round ) {
      const bool burst = round % 2 == 0;
      const unsigned sets = burst ? 30 + random.below( 40 ) : random.below( 101 );
      for( uint32_t left = burst ? 8000 : random.below( 500 ); left > 0; --left ) {
         const uint32_t number = random.below( keys );
         const uint64_t hash = Key{ number }.hash(); // a slot seen before is only a hint
         const uint32_t slot =
            random.percent( 90 ) ? writer->prefetchRecord( hash ) : random.below( 3000 );
         if( random.percent( sets ) )
            (void)writer->set( Record::of( number, left ), hash, slot );
         else
            writer->erase( { number } );
         if( random.below( 2000 ) == 0 )
            poll();
      }
      while( poll() )
         if( random.percent( 20 ) )
            writer->erase( { random.below( keys ) } );
      ASSERT_EQ( mirror.contents, truth.contents ) << "round " << round;
      std::vector<Key> all;
      for( uint32_t number = 0; number < keys; ++number )
         all.push_back( { number } );
      Contents looked;
      reader->getEach( std::span( all ).first( random.below( keys + 1 ) ),
                       [ & ]( const Key& key, const Record& record ) {
                          looked.emplace_hint( looked.end(), key.number, record.serial );
                       } );
      const auto last = looked.empty() ? truth.contents.begin()
                                       : std::next( truth.contents.find( looked.rbegin()->first ) );
      ASSERT_EQ( looked, Contents( truth.contents.begin(), last ) );
   }
   EXPECT_GE( reader->overruns(), 30u );
   EXPECT_GT( cutShort, 5 * reader->overruns() ); // walks over all keys were cut short, too
   EXPECT_EQ( reader->corruptions(), 0u );
}

// Content that was damaged, under a reader and then for the next writer. Whatever it says, the
// reader comes to an end within its mapping, and a writer that accepts the file has a table that
// is sound: all that it lists is found, and it can be filled, emptied and filled again.
class DamagedTable : public testing::Test {
 public:
   DamagedTable() {
      const Ptr<Table> writer = written( path, capacity );
      for( uint32_t step = 0; step < 1500; ++step ) // the journal comes round
         if( random.percent( 60 ) )
            (void)writer->set( Record::of( random.below( keys ), step ) );
         else
            writer->erase( { random.below( keys ) } );
      good = bytesOf( path );
      logSinkIs( []( std::string_view ) {} );
   }
   ~DamagedTable() override { logSinkIs( {} ); }

   void expectSound( const std::function<void()>& damage ) {
      replace( path, good );
      Mirror mirror( read( path ) );
      const Table& reader = *mirror.notifier();
      damage();
      mirror.follow();
      for( uint32_t number = 0; number < keys; ++number ) {
         Record record;
         reader.prefetchRecord( Key{ number }.hash() );
         ASSERT_TRUE( !reader.get( { number }, record ) || record.key.number == number );
      }
      reader.forEach( []( const Record& ) {} );
      try {
         const Ptr<Table> writer = written( path, capacity );
         ++accepted;
         Contents listed;
         writer->forEach( [ & ]( const Record& record ) {
            ASSERT_EQ( writer->get( record.key ).serial, record.serial );
            ASSERT_TRUE( listed.emplace( record.key.number, record.serial ).second );
         } );
         ASSERT_EQ( writer->count(), listed.size() );
         ASSERT_FALSE( bytesOf( path )[ offsetof( TableHeader, superseded ) ] );
         found = listed;
         for( int time = 0; time < 2; ++time ) {
            for( uint32_t number = 1000; writer->set( Record::of( number, 1 ) ); ++number )
               listed[ number ] = 1;
            ASSERT_EQ( listed.size(), capacity );
            for( const auto& [ number, serial ] : listed ) {
               ASSERT_EQ( writer->get( { number } ).serial, serial );
               ASSERT_TRUE( writer->erase( { number } ) );
            }
            listed.clear();
         }
         mirror.follow(); // nothing keeps the reader from it
         ASSERT_EQ( reader.journalCursor(), writer->journalHead() );
         ASSERT_TRUE( contentsOf( reader ).empty() && reader.count() == 0 );
      } catch( const TableError& ) {
         ++refused;
      }
   }

 protected:
   static constexpr uint32_t capacity = 64, keys = 100;
   const TemporaryFolder folder;
   const std::string path = folder.file( "table" );
   const TableGeometry geometry{ spec, capacity };
   Random random;
   std::string good; // the file before any damage
   Contents found;   // by the last writer
   unsigned refused = 0, accepted = 0;
};

// Each number that the reader and the next writer go by, with values near every border; and whole
// parts of the file.
TEST_F( DamagedTable, WrongNumbers ) {
   const uint64_t end = offsetof( TableHeader, image );
   for( uint64_t offset = offsetof( TableHeader, superseded ); offset < end; offset += 8 )
      for( const uint64_t value : { 0ull, 1ull, 2ull, 3ull, 20ull, capacity - 1ull, capacity + 0ull,
                                    capacity + 1ull, 1000000ull, 1ull << 63, ~0ull } )
         ASSERT_NO_FATAL_FAILURE(
            expectSound( [ & ] { overwrite( path, offset, &value, sizeof value ); } ) )
            << value << " at " << offset;
   ASSERT_NO_FATAL_FAILURE( expectSound( [] {} ) );
   const Contents all = found;
   const uint64_t borders[] = { geometry.indexOffset, geometry.slotOffset, geometry.journalOffset,
                                geometry.fileSize };
   for( const char value : { 0, 7, -1 } )
      for( size_t part = 0; part < 3; ++part ) {
         const std::string bytes( borders[ part + 1 ] - borders[ part ], value );
         ASSERT_NO_FATAL_FAILURE( expectSound(
            [ & ] { overwrite( path, borders[ part ], bytes.data(), bytes.size() ); } ) );
         ASSERT_TRUE( found == all || part == 1 ); // the slots tell all that the index did
      }
   EXPECT_EQ( refused, 0u );
}

// A file that is cut short: before it is attached that is an error; under a reader or a writer each
// way of use goes on without a crash. Where whole pages are gone, whoever does not get what was
// there is told of corruption. (A page that is cut in the middle is filled up with zeros by the
// system, and what it held reads as absent.)
TEST_F( DamagedTable, CutShort ) {
   unsigned noticed = 0;
   for( int round = 0; round < 300; ++round ) {
      const bool pages = random.percent( 70 );
      const uint64_t length = pages ? 4096 * random.below( geometry.fileSize / 4096 )
                                    : random.below( geometry.fileSize );
      SCOPED_TRACE( "cut to " + std::to_string( length ) );
      replace( path, good.substr( 0, length ) );
      ASSERT_EQ( refusal( path, Table::Mode::read ), TableError::damaged );
      ASSERT_EQ( refusal( path, Table::Mode::write ), TableError::damaged );

      replace( path, good );
      const Ptr<Table> writer = written( path, capacity ), getting = read( path ),
                       walking = read( path ), polling = read( path );
      Mirror mirror( polling );
      Contents present = contentsOf( *writer );
      for( int changes = 0; changes < 5; ++changes ) {
         ASSERT_TRUE( writer->erase( { present.begin()->first } ) );
         present.erase( present.begin() );
      }
      ASSERT_EQ( truncate( path.c_str(), static_cast<off_t>( length ) ), 0 );
      const auto expectTold = [ & ]( bool right, const Table& table ) {
         EXPECT_TRUE( right || !pages || table.corruptions() > 0 );
         noticed += table.corruptions() > 0;
      };
      Contents got = present;
      for( const auto& [ number, serial ] : present )
         refresh( got, *getting, number );
      expectTold( got == present, *getting );
      expectTold( contentsOf( *walking ) == present, *walking );
      mirror.follow();
      expectTold( mirror.contents == present, *polling );
      const Record last = Record::of( 0, 77 );
      const bool accepted = writer->set( last );
      const std::string_view bytes( reinterpret_cast<const char*>( &last ), sizeof last );
      expectTold( accepted && bytesOf( path ).find( bytes ) != std::string::npos, *writer );
      // A writer never finds what it could not write: it would take it for written.
      Record found;
      EXPECT_EQ( writer->get( { 0 }, found ), accepted );
      EXPECT_TRUE( accepted || !writer->set( last ) );
      ASSERT_FALSE( HasFailure() );
   }
   EXPECT_GT( noticed, 200u );
}

// A key written over another one: whoever looks for either, or walks, finds corruption, not
// absence.
TEST_F( DamagedTable, AnotherKeyInASlot ) {
   replace( path, good );
   const Ptr<Table> reader = read( path );
   uint32_t slot = 0;
   while( !reader->inSlot( slot ) )
      ++slot;
   const Record first = *reader->inSlot( slot );
   const uint64_t at = geometry.slotOffset + slot * geometry.slotStride + 8;
   const Key other{ first.key.number + 5001 };
   overwrite( path, at, &other, sizeof other );
   Record found;
   EXPECT_FALSE( reader->get( first.key, found ) );
   EXPECT_EQ( reader->corruptions(), 1u );
   EXPECT_NE( reader->lastCorruption().find( "another key" ), std::string::npos );
   unsigned named = 0;
   reader->forEachKey( [ & ]( const Key& key ) { named += key.number == other.number; } );
   EXPECT_EQ( reader->corruptions(), 2u );
   EXPECT_EQ( named, 0u );
   Mirror mirror( reader );
   reader->walkAll();
   mirror.follow();
   EXPECT_EQ( reader->corruptions(), 3u );
}

} // namespace
} // namespace TestTable
