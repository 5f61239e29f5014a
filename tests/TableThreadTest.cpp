// Shared tables between threads: one writer, and two readers that hold it to its ledger at each
// look. Made for ThreadSanitizer, which sees a race only between accesses to one address: so the
// readers use the writer's own mapping, and then each one of its own, as they do in real use.
#include "tests/TestTable.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <string>
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
   // Whether the writer is about to overtake it: the best moment to follow, for a test.
   bool isLate() const { return journalHead() - cursor_ + 8 >= geometry_.journalSize; }
   // Follows the journal a little; whether there is more.
   bool follow() {
      uint64_t change = cursor_;
      const auto found = readJournal( cursor_, 64, [ & ]( const Key& key ) {
         EXPECT_TRUE( log_.agrees( change++, key.number ) );
         refresh( followed, *this, key.number );
      } );
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
         if( reader.isLate() )
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

} // namespace
} // namespace TestTable
