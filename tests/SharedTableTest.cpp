// Shared tables within one process: the content against a model, readers that follow, and files
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

// Overwrites part of a file that others may have mapped.
void overwrite( const std::string& path, uint64_t offset, const void* data, size_t size ) {
   const int fd = open( path.c_str(), O_WRONLY );
   ASSERT_EQ( pwrite( fd, data, size, static_cast<off_t>( offset ) ), static_cast<ssize_t>( size ) );
   close( fd );
}

// The table holds exactly that, however it is looked at.
void expectContents( const Table& table, const Contents& expected ) {
   Contents met;
   unsigned visits = 0;
   table.forEach( [ & ]( const Record& record ) {
      EXPECT_TRUE( record.whole() );
      met[ record.key.number ] = record.serial;
      ++visits;
   } );
   ASSERT_EQ( met, expected );
   ASSERT_EQ( visits, expected.size() );
   ASSERT_EQ( table.count(), expected.size() );
   for( uint32_t number = 0; number < 2 * table.capacity(); ++number ) {
      Record record;
      const auto found = expected.find( number );
      ASSERT_EQ( table.get( { number }, record ), found != expected.end() ) << number;
      ASSERT_TRUE( found == expected.end() || record.serial == found->second ) << number;
   }
}

TableError::Kind refusal( const std::function<void()>& attach, const std::string& path ) {
   try {
      attach();
   } catch( const TableError& failure ) {
      EXPECT_NE( std::string( failure.what() ).find( path ), std::string::npos ) << failure.what();
      return failure.kind();
   }
   ADD_FAILURE() << "attached";
   return TableError::system;
}

// Sets and erases at random until a table that is too small for all keys has been full many times;
// its writer leaves and comes back with other capacities, and a reader attached once follows.
TEST( SharedTable, MatchesTheModelAndFollowsItsWriter ) {
   const TemporaryFolder folder;
   const std::string path = folder.file( "a/b/table" ); // folders are made
   Random random;
   Contents model;
   uint32_t serial = 0, refused = 0;
   uint32_t capacity = 150;
   Ptr<Table> writer = written( path, capacity );
   Mirror mirror( read( path ) );
   const Table& reader = *mirror.notifier();
   EXPECT_FALSE( makeEntity<Table>( spec, path, Table::Mode::read )->writable() );
   for( int life = 0; life < 60; ++life ) {
      Mirror own( writer ); // is told at the time of the change
      for( int step = 0; step < 400; ++step ) {
         const uint32_t number = random.below( capacity * 5 / 4 );
         const uint64_t toldBefore = own.told;
         bool done = false;
         if( random.percent( 65 ) ) {
            const bool fits = model.contains( number ) || model.size() < capacity;
            done = writer->set( Record::of( number, ++serial ) );
            ASSERT_EQ( done, fits );
            if( done )
               model[ number ] = serial;
            else
               ++refused;
         } else {
            done = writer->erase( { number } );
            ASSERT_EQ( done, model.erase( number ) == 1 );
         }
         ASSERT_EQ( own.told, toldBefore + done );
         if( random.percent( 1 ) )
            mirror.follow();
      }
      ASSERT_EQ( own.contents, model );
      mirror.follow();
      ASSERT_EQ( mirror.contents, model );
      ASSERT_NO_FATAL_FAILURE( expectContents( reader, model ) );
      ASSERT_EQ( refusal( [ & ] { written( path, capacity ); }, path ), TableError::busy );
      ASSERT_TRUE( tableHasWriter( path ) );
      own.notifierIs( nullptr );
      writer = nullptr;
      ASSERT_FALSE( tableHasWriter( path ) );
      const uint32_t asked = random.percent( 50 ) ? capacity : 20 + random.below( 300 );
      writer = written( path, asked );
      capacity = writer->capacity();
      ASSERT_EQ( capacity, std::max( asked, writer->count() ) );
      ASSERT_NO_FATAL_FAILURE( expectContents( *writer, model ) );
      mirror.follow();
      ASSERT_EQ( reader.tableId(), writer->tableId() );
      ASSERT_EQ( mirror.contents, model );
   }
   EXPECT_GT( refused, 0u );
   writer->eraseAll();
   mirror.follow();
   EXPECT_TRUE( mirror.contents.empty() );
   EXPECT_EQ( reader.corruptions(), 0u );
}

TEST( SharedTable, RefusesWhatIsNotItsFile ) {
   const TemporaryFolder folder;
   const std::string path = folder.file( "table" );
   const auto reads = [ & ]( TableSpec asked = spec ) {
      return refusal( [ & ] { Table( asked, path, Table::Mode::read ); }, path );
   };
   EXPECT_EQ( reads(), TableError::absent );
   ASSERT_TRUE( written( path, 100 )->set( Record::of( 7, 7 ) ) );
   const std::string good = bytesOf( path );

   TableSpec other = spec;
   other.typeName = "OtherRecord";
   EXPECT_EQ( reads( other ), TableError::mismatch );
   EXPECT_EQ( refusal( [ & ] { Table( other, path, Table::Mode::write, 100 ); }, path ),
              TableError::mismatch );
   other = spec;
   other.collection = "other";
   EXPECT_EQ( reads( other ), TableError::mismatch );
   other = spec;
   other.recordSize += 4;
   EXPECT_EQ( reads( other ), TableError::mismatch );
   other = spec;
   other.keySize += 4;
   EXPECT_EQ( reads( other ), TableError::mismatch );

   // Every bit of the part that never changes.
   for( uint32_t bit = 0; bit < 8 * offsetof( TableHeader, superseded ); ++bit ) {
      const uint32_t offset = bit / 8;
      if( offset >= offsetof( TableHeader, layoutHash ) + sizeof( TableHeader::layoutHash ) )
         break;
      std::string bad = good;
      bad[ offset ] = static_cast<char>( bad[ offset ] ^ ( 1 << bit % 8 ) );
      replace( path, bad );
      const bool version = offset >= offsetof( TableHeader, formatVersion ) &&
                           offset < offsetof( TableHeader, headerSize );
      ASSERT_EQ( reads(), version ? TableError::mismatch : TableError::damaged ) << "bit " << bit;
   }
   replace( path, good );
   EXPECT_EQ( read( path )->get( { 7 } ).serial, 7u );
   // A writer doesn't replace what it can't read.
   replace( path, "no table" );
   EXPECT_EQ( refusal( [ & ] { written( path, 100 ); }, path ), TableError::damaged );
   EXPECT_EQ( bytesOf( path ), "no table" );
}

// Bursts larger than the journal, and polls that are cut short after one batch, with more changes
// between the parts of a walk over all keys: in the end nothing is missed, deletions included.
TEST( SharedTable, OvertakenReaderLosesNothing ) {
   const TemporaryFolder folder;
   const std::string path = folder.file( "table" );
   constexpr uint32_t capacity = 3000;
   Random random;
   const Ptr<Table> writer = written( path, capacity );
   const Ptr<Table> reader = read( path );
   Mirror mirror( reader ), truth( writer );
   ManualClock clock;
   clock.tickIs( 1 ); // a deadline is over when it is looked at
   uint64_t cutShort = 0;
   for( int round = 0; round < 60; ++round ) {
      const bool burst = round % 2 == 0;
      const unsigned sets = burst ? 30 + random.below( 40 ) : random.below( 101 );
      const uint32_t changes = burst ? 8000 : random.below( 500 );
      const auto poll = [ & ] {
         const bool more = reader->poll( clock, clock.now() );
         cutShort += more;
         return more;
      };
      for( uint32_t change = 0; change < changes; ++change ) {
         const uint32_t number = random.below( capacity * 2 );
         if( random.percent( sets ) )
            (void)writer->set( Record::of( number, writer->journalHead() & 0x7fffffff ) );
         else
            writer->erase( { number } );
         if( random.below( 2000 ) == 0 )
            poll();
      }
      while( poll() )
         if( random.percent( 20 ) )
            writer->erase( { random.below( capacity * 2 ) } );
      ASSERT_EQ( mirror.contents, truth.contents ) << "round " << round;
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
   void SetUp() override {
      writer_ = written( path_, capacity );
      for( int step = 0; step < 1500; ++step ) { // the journal has come round
         const uint32_t number = random_.below( 100 );
         if( random_.percent( 60 ) )
            (void)writer_->set( Record::of( number, static_cast<uint32_t>( step ) ) );
         else
            writer_->erase( { number } );
      }
      writer_ = nullptr;
      good_ = bytesOf( path_ );
      logSinkIs( []( std::string_view ) {} );
   }
   void TearDown() override { logSinkIs( {} ); }

   void expectSound( const std::function<void()>& damage ) {
      replace( path_, good_ );
      const Ptr<Table> reader = read( path_ );
      Mirror mirror( reader );
      damage();
      ManualClock clock;
      for( int turn = 0; turn < 3; ++turn )
         reader->poll( clock, 0 );
      for( uint32_t number = 0; number < 100; ++number ) {
         Record record;
         ASSERT_TRUE( !reader->get( { number }, record ) || record.key.number == number );
         reader->prefetchRecord( { number } );
      }
      uint32_t met = 0;
      reader->forEach( [ & ]( const Record& ) { ++met; } );
      ASSERT_LE( met, capacity );

      try {
         writer_ = written( path_, capacity );
      } catch( const TableError& ) {
         ++refused_;
         return;
      }
      ++accepted_;
      Contents listed;
      writer_->forEach( [ & ]( const Record& record ) {
         Record again;
         ASSERT_TRUE( writer_->get( record.key, again ) );
         ASSERT_EQ( again.serial, record.serial );
         ASSERT_TRUE( listed.emplace( record.key.number, record.serial ).second );
      } );
      ASSERT_EQ( writer_->count(), listed.size() );
      for( int time = 0; time < 2; ++time ) {
         for( uint32_t number = 1000; writer_->set( Record::of( number, 1 ) ); ++number )
            listed[ number ] = 1;
         ASSERT_EQ( listed.size(), capacity );
         for( const auto& [ number, serial ] : listed ) {
            ASSERT_EQ( writer_->get( { number } ).serial, serial );
            ASSERT_TRUE( writer_->erase( { number } ) );
         }
         listed.clear();
         ASSERT_EQ( writer_->count(), 0u );
      }
      mirror.follow();
      ASSERT_EQ( reader->journalCursor(), writer_->journalHead() );
      ASSERT_EQ( reader->count(), 0u );
      reader->forEach( [ & ]( const Record& ) { FAIL(); } );
      writer_ = nullptr;
   }

 protected:
   static constexpr uint32_t capacity = 64;
   const TemporaryFolder folder_;
   const std::string path_ = folder_.file( "table" );
   const TableGeometry geometry_{ spec, capacity };
   Random random_;
   std::string good_; // the file before any damage
   Ptr<Table> writer_;
   unsigned refused_ = 0, accepted_ = 0;
};

TEST_F( DamagedTable, FlippedBits ) {
   const std::pair<uint64_t, uint64_t> parts[] = {
      { 0, geometry_.fileSize },
      { offsetof( TableHeader, superseded ), offsetof( TableHeader, image ) },
      { geometry_.indexOffset, geometry_.indexOffset + geometry_.indexSize * 4 },
      { geometry_.slotOffset, geometry_.slotOffset + capacity * geometry_.slotStride },
      { geometry_.journalOffset, geometry_.fileSize } };
   for( int round = 0; round < 1500; ++round ) {
      ASSERT_NO_FATAL_FAILURE( expectSound( [ & ] {
         for( uint32_t flips = 1 << random_.below( 9 ); flips > 0; --flips ) {
            const auto& [ from, to ] = parts[ random_.below( std::size( parts ) ) ];
            const uint64_t offset = from + random_.below( to - from );
            const char byte = static_cast<char>( good_[ offset ] ^ ( 1 << random_.below( 8 ) ) );
            overwrite( path_, offset, &byte, 1 );
         }
      } ) ) << "round " << round;
   }
   EXPECT_GT( refused_, 50u );
   EXPECT_GT( accepted_, 500u );
}

// Each number that the reader and the next writer go by, with each value that is near a border.
TEST_F( DamagedTable, WrongNumbers ) {
   for( uint64_t offset = offsetof( TableHeader, superseded );
        offset < offsetof( TableHeader, image ); offset += 8 )
      for( const uint64_t value : { 0ull, 1ull, 2ull, 3ull, 20ull, capacity - 1ull, capacity + 0ull,
                                    capacity + 1ull, 1000000ull, 1ull << 63, ~0ull } )
         ASSERT_NO_FATAL_FAILURE(
            expectSound( [ & ] { overwrite( path_, offset, &value, sizeof value ); } ) )
            << value << " at " << offset;
   for( const uint8_t value : { 0x00, 0xff, 0x07 } ) { // whole parts of the file
      for( const auto& [ from, to ] : { std::pair( geometry_.indexOffset, geometry_.slotOffset ),
                                        std::pair( geometry_.slotOffset, geometry_.journalOffset ),
                                        std::pair( geometry_.indexOffset, geometry_.fileSize ) } ) {
         const std::string bytes( to - from, static_cast<char>( value ) );
         ASSERT_NO_FATAL_FAILURE(
            expectSound( [ & ] { overwrite( path_, from, bytes.data(), bytes.size() ); } ) )
            << int( value ) << " from " << from;
      }
   }
   EXPECT_EQ( refused_, 0u );
}

// A file that is cut short: before it is attached that is an error; under a reader or a writer each
// way of use goes on without a crash. Where whole pages are gone, whoever does not get what was
// there is told of corruption. (A page that is cut in the middle is filled up with zeros by the
// system, and what it held reads as absent.)
TEST_F( DamagedTable, CutShort ) {
   replace( path_, good_ );
   Contents model;
   read( path_ )->forEach(
      [ & ]( const Record& record ) { model[ record.key.number ] = record.serial; } );
   unsigned noticed = 0;
   for( int round = 0; round < 300; ++round ) {
      const bool border = random_.percent( 70 );
      const uint64_t length = border ? 4096 * random_.below( geometry_.fileSize / 4096 )
                                     : random_.below( geometry_.fileSize );
      replace( path_, good_.substr( 0, length ) );
      ASSERT_EQ( refusal( [ & ] { read( path_ ); }, path_ ), TableError::damaged );
      ASSERT_EQ( refusal( [ & ] { written( path_, capacity ); }, path_ ), TableError::damaged );

      replace( path_, good_ );
      const Ptr<Table> writer = written( path_, capacity ), getting = read( path_ ),
                       walking = read( path_ ), polling = read( path_ );
      Mirror mirror( polling );
      Contents present = model;
      for( uint32_t number = 0; number < 5; ++number ) {
         writer->erase( { number } );
         present.erase( number );
      }
      ASSERT_EQ( truncate( path_.c_str(), static_cast<off_t>( length ) ), 0 );
      bool missed = false;
      for( const auto& [ number, serial ] : present )
         missed = missed || getting->get( { number } ).serial != serial;
      ASSERT_TRUE( !border || !missed || getting->corruptions() > 0 ) << length;
      Contents met;
      walking->forEach( [ & ]( const Record& r ) { met[ r.key.number ] = r.serial; } );
      ASSERT_TRUE( !border || met == present || walking->corruptions() > 0 ) << length;
      mirror.follow();
      ASSERT_TRUE( !border || mirror.contents == present || polling->corruptions() > 0 ) << length;
      noticed += polling->corruptions() > 0;
      // A set that was accepted is there.
      const bool accepted = writer->set( Record::of( 0, 77 ) );
      ASSERT_TRUE( accepted ? writer->get( { 0 } ).serial == 77u : writer->corruptions() > 0 )
         << length;
      const Record record = Record::of( 0, 77 );
      const std::string_view bytes( reinterpret_cast<const char*>( &record ), sizeof record );
      ASSERT_TRUE( !border || !accepted || bytesOf( path_ ).find( bytes ) != std::string::npos ) << length;
   }
   EXPECT_GT( noticed, 50u );
}

} // namespace
} // namespace TestTable
