// Shared tables between threads: one writer, and two readers that hold it to its ledger at each
// look. Made for ThreadSanitizer, which sees a race only between accesses to one address: so the
// readers use the writer's own mapping, and then each one of its own, as they do in real use. In a
// last test the writer works in a signal handler: between any two instructions of the reader.
#include "tests/TestTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <sys/time.h>
#include <thread>

namespace TestTable {
namespace {

constexpr uint32_t capacity = 250; // too few for all keys: sets are refused, too
constexpr uint32_t operations = 400000;

// The key of each of the latest changes, by what the writer knows.
class ChangeLog {
 public:
   void note( uint64_t change, uint32_t number ) {
      noted_[ change % noted_.size() ] = change << 32 | number;
   }
   bool agrees( uint64_t change, uint32_t number ) const {
      const uint64_t noted = noted_[ change % noted_.size() ];
      return noted >> 32 != change || static_cast<uint32_t>( noted ) == number;
   }

 private:
   std::array<std::atomic<uint64_t>, 4096> noted_{};
};

class Reader : public TableView<Key, Record> {
 public:
   Reader( const TableMapping& mapping, const ChangeLog& log )
      : TableView<Key, Record>( mapping ), log_( log ) {}
   template<class Each>
   void forEach( Each each ) const {
      Record record;
      for( uint32_t slot = 0; slot < highWater(); ++slot )
         if( readSlot( slot, record ) )
            each( record );
   }
   // Reads some of the journal and holds it to the log.
   template<class Each>
   Journal readChecked( uint64_t& cursor, Each each ) const {
      uint64_t change = cursor;
      return readJournal( cursor, 64, [ & ]( const Key& key ) {
         EXPECT_TRUE( log_.agrees( change++, key.number ) );
         each( key.number );
      } );
   }
   // Follows the journal a little; whether there is more.
   bool follow() {
      const Journal found =
         readChecked( cursor_, [ & ]( uint32_t number ) { refresh( followed, *this, number ); } );
      if( found == Journal::overtaken ) {
         cursor_ = journalHead();
         for( uint32_t number = 0; number < Ledger::keys; ++number )
            refresh( followed, *this, number );
      }
      return found != Journal::drained;
   }

   Contents followed;

 private:
   const ChangeLog& log_;
   uint64_t cursor_ = 0;
};

// The writer works while the readers look; what they have followed is in the end what is there.
void runTogether( const TableMapping& written, const TableMapping& first,
                  const TableMapping& second ) {
   auto ledger = std::make_unique<Ledger>();
   auto log = std::make_unique<ChangeLog>();
   TableWriter<Key, Record> writer( written );
   Reader readers[] = { { first, *log }, { second, *log } };
   std::atomic<uint64_t> looks[ 2 ]{};
   std::string wrong[ 2 ];
   std::atomic<bool> done{ false };
   const auto read = [ & ]( size_t self ) {
      Reader& reader = readers[ self ];
      Random random( 100 + self );
      for( ; wrong[ self ].empty() && !done; ++looks[ self ] ) {
         wrong[ self ] = random.percent( 1 )
                            ? ledger->wrongInWalk( reader )
                            : ledger->wrongAt( reader, random.below( Ledger::keys ) );
         if( random.percent( 2 ) )
            reader.follow();
      }
      while( reader.follow() ) {
      }
   };
   std::thread threads[] = { std::thread( read, 0 ), std::thread( read, 1 ) };
   const auto looked = [ & ] { return looks[ 0 ] > 1000 && looks[ 1 ] > 1000; };
   Random random;
   bool right = true;
   for( uint32_t i = 0; right && ( i < operations || ( i < 50 * operations && !looked() ) ); ++i ) {
      const uint32_t number = random.below( Ledger::keys );
      log->note( writer.journalHead(), number );
      right = ledger->operate( writer, number, random );
   }
   EXPECT_TRUE( right && looked() );
   done = true;
   for( size_t i = 0; i < 2; ++i ) {
      threads[ i ].join();
      EXPECT_EQ( wrong[ i ] + ledger->wrongIn( readers[ i ] ), "" );
      EXPECT_EQ( readers[ i ].followed, contentsOf( readers[ i ] ) );
   }
}

TEST( TableBetweenThreads, OnOneMapping ) {
   const auto mapping = TableMapping::anonymous( spec, capacity );
   runTogether( *mapping, *mapping, *mapping );
}

TEST( TableBetweenThreads, OnAMappingForEach ) {
   const TestSupport::TemporaryFolder folder;
   const std::string path = folder.file( "table" );
   const auto writing = TableMapping::forWriting( path, spec, capacity );
   const auto first = TableMapping::forReading( path, spec );
   const auto second = TableMapping::forReading( path, spec );
   runTogether( *writing, *first, *second );
}

std::function<void()> interruption;

TEST( TableBetweenThreads, InterruptedByTheWriter ) {
   const auto mapping = TableMapping::anonymous( spec, capacity );
   TableWriter<Key, Record> writer( *mapping );
   Ledger ledger;
   ChangeLog log;
   const Reader reader( *mapping, log );
   Random random, writersRandom( 1 );
   bool right = true;
   volatile bool interrupted = false;
   interruption = [ & ] {
      for( uint32_t left = writersRandom.below( 1500 ); right && left > 0; --left ) {
         const uint32_t number = writersRandom.below( Ledger::keys );
         log.note( writer.journalHead(), number );
         right = ledger.operate( writer, number, writersRandom );
      }
      interrupted = true;
   };
   for( uint32_t number = 0; number < capacity; ++number )
      ASSERT_TRUE( ledger.set( writer, number ) );
   for( uint32_t number = 0; number < capacity; ++number ) // its free list has its final size now
      ASSERT_TRUE( ledger.erase( writer, number ) );
   interruption();
   struct sigaction action {};
   action.sa_handler = []( int ) { interruption(); };
   sigaction( SIGALRM, &action, nullptr );
   unsigned overtaken = 0;
   for( int time = 0; time < 3000; ++time ) {
      interrupted = false;
      itimerval timer{};
      timer.it_value.tv_usec = 1 + random.below( 20 );
      setitimer( ITIMER_REAL, &timer, nullptr );
      while( !interrupted ) {
         uint64_t cursor = writer.journalHead() - std::min<uint64_t>( 1000, writer.journalHead() );
         overtaken += reader.readChecked( cursor, []( uint32_t ) {} ) == Reader::Journal::overtaken;
         ASSERT_EQ( ledger.wrongAt( reader, random.below( Ledger::keys ) ), "" );
      }
   }
   signal( SIGALRM, SIG_DFL );
   EXPECT_TRUE( right );
   EXPECT_EQ( ledger.wrongIn( reader ), "" );
   EXPECT_GT( overtaken, 0u );
}

} // namespace
} // namespace TestTable
