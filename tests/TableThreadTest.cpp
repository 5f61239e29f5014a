// Shared tables between threads: one writer, and two readers that hold it to its ledger at each
// look. Made for ThreadSanitizer, which sees a race only between accesses to one address: so the
// readers use the writer's own mapping. In a last test a writer and a reader take turns, which may
// change before each access to the table: so that each order of their accesses comes up, the rare
// ones too.
//
// Each access calls a hook where this macro is set, so this file is a program of its own.
#define VEXIL_TEST_HOOKS
#include "tests/TestTable.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <ucontext.h>
#include <utility>
#include <vector>

namespace TestTable {
namespace {

// Two courses of one thread: the one that makes this, and another. Each has its turn for a random
// number of accesses to tables, from one to many operations.
class Turns {
 public:
   explicit Turns( std::function<void( const bool& done )> other ) : other_( std::move( other ) ) {
      getcontext( &contexts_[ 1 ] );
      contexts_[ 1 ].uc_stack.ss_sp = stack_.data();
      contexts_[ 1 ].uc_stack.ss_size = stack_.size();
      contexts_[ 1 ].uc_link = &contexts_[ 0 ];
      current = this;
      makecontext(
         &contexts_[ 1 ], [] { current->runOther(); }, 0 );
   }
   // Lets the other course come to its end.
   void end() {
      done_ = true;
      while( !ended_ )
         pass();
      current = nullptr;
   }
   static void access() {
      if( current && current->left_-- == 0 )
         current->pass();
   }

 private:
   void runOther() {
      other_( done_ );
      ended_ = true;
      turn_ = 0;
   }
   void pass() {
      left_ = random_.below( 1 << random_.below( random_.percent( 5 ) ? 17 : 7 ) );
      turn_ = 1 - turn_;
      swapcontext( &contexts_[ 1 - turn_ ], &contexts_[ turn_ ] );
   }

   static inline Turns* current = nullptr;
   std::function<void( const bool& )> other_;
   std::vector<char> stack_ = std::vector<char>( 1 << 20 );
   ucontext_t contexts_[ 2 ];
   int turn_ = 0;
   uint32_t left_ = 0;
   Random random_{ 7 };
   bool done_ = false, ended_ = false;
};

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
TEST( TableBetweenThreads, ReadersFollowTheirWriter ) {
   const auto mapping = TableMapping::anonymous( spec, capacity );
   auto ledger = std::make_unique<Ledger>();
   auto log = std::make_unique<ChangeLog>();
   TableWriter<Key, Record> writer( *mapping );
   Reader readers[] = { { *mapping, *log }, { *mapping, *log } };
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

#ifndef __SANITIZE_THREAD__ // it knows nothing of contexts

TEST( TableBetweenTurns, AtEveryAccess ) {
   const auto mapping = TableMapping::anonymous( spec, capacity );
   TableWriter<Key, Record> writer( *mapping );
   Ledger ledger;
   ChangeLog log;
   Reader reader( *mapping, log );
   Random random, writersRandom( 1 );
   // Multiples of 8 have five hashes: they meet in the index and follow each other in a slot.
   const auto randomKey = []( Random& choices ) { return 8 * choices.below( Ledger::keys / 8 ); };
   std::string wrong;
   unsigned overtaken = 0;
   Turns turns( [ & ]( const bool& done ) {
      while( wrong.empty() && !done ) {
         wrong = random.percent( 2 ) ? ledger.wrongInWalk( reader )
                                     : ledger.wrongAt( reader, randomKey( random ) );
         const uint64_t head = reader.journalHead();
         uint64_t cursor = head - std::min<uint64_t>( head, random.below( 1024 ) );
         overtaken += reader.readChecked( cursor, []( uint32_t ) {} ) == Reader::Journal::overtaken;
         if( random.percent( 10 ) )
            reader.follow();
      }
   } );
   bool right = true;
   for( uint32_t i = 0; right && wrong.empty() && i < 2 * operations; ++i ) {
      const uint32_t number = randomKey( writersRandom );
      log.note( writer.journalHead(), number );
      right = ledger.operate( writer, number, writersRandom );
   }
   turns.end();
   while( reader.follow() ) {
   }
   EXPECT_TRUE( right );
   EXPECT_GT( overtaken, 0u );
   EXPECT_EQ( wrong + ledger.wrongIn( reader ), "" );
   EXPECT_EQ( reader.followed, contentsOf( reader ) );
}

#endif

} // namespace
} // namespace TestTable

void Vexil::beforeLoad() { TestTable::Turns::access(); }
void Vexil::beforeStore() { TestTable::Turns::access(); }
