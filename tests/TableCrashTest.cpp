// Shared tables between processes, one of which is killed: at random moments while others read, and
// once before each single store of every operation, of the recovery from it, and of a change of
// capacity.
//
// Each store calls beforeStore() where this macro is set, so this file is a program of its own.
#define VEXIL_TEST_HOOKS
#include "tests/TestTable.h"

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <initializer_list>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
int64_t storesToLive = -1; // -1: no end is set
}

void Vexil::beforeLoad() {}
void Vexil::beforeStore() {
   if( storesToLive >= 0 && storesToLive-- == 0 )
      raise( SIGKILL );
}

namespace TestTable {
namespace {

using TestSupport::TemporaryFolder;
using TestSupport::waitFor;

// A child process that runs work() and then exits with 0; killed and reaped when it goes.
class Process {
 public:
   explicit Process( const std::function<void()>& work ) : id_( fork() ) {
      if( id_ != 0 )
         return;
      prctl( PR_SET_PDEATHSIG, SIGKILL );
      alarm( 120 );                   // whatever hangs is a failure, not a hanging test
      [ & ]() noexcept { work(); }(); // what it throws is not for the test framework
      _exit( 0 );
   }
   ~Process() {
      if( id_ > 0 ) {
         kill();
         ended();
      }
   }
   void kill() const { ::kill( id_, SIGKILL ); }
   // Waits for its end: what waitpid() says of it.
   int ended() {
      int status = -1;
      waitpid( id_, &status, 0 );
      id_ = -1;
      return status;
   }

 private:
   pid_t id_;
};

bool wasKilled( int status ) { return WIFSIGNALED( status ) && WTERMSIG( status ) == SIGKILL; }
bool succeeded( int status ) { return WIFEXITED( status ) && WEXITSTATUS( status ) == 0; }

// An object in memory that parent and children share, until they end.
template<class T>
T& shared() {
   void* const memory =
      mmap( nullptr, sizeof( T ), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
   return *new( memory ) T;
}

// --- killed before every store -------------------------------------------------------------

enum class Action { set, erase, resize };
struct Scenario {
   const char* name;
   unsigned history; // random changes before
   unsigned records; // then as many are set: in new slots if there was no history
   Action action;
   uint32_t operand; // the key, or the new capacity
   bool present;     // whether the key is there before
   uint32_t capacity = 64;
   uint32_t capacityMax = 0;

   friend void PrintTo( const Scenario& scenario, std::ostream* out ) { *out << scenario.name; }
};
// The keys are multiples of 8, so they have five hashes and stand in long runs of the index. That
// of hash ~0, to which key 0 belongs, passes the index's end.
constexpr uint32_t spacing = 8;
constexpr uint32_t keysUsed = Ledger::keys / spacing;
const Scenario scenarios[] = {
   { "InsertIntoNewSlot", 0, 20, Action::set, 31 * spacing, false },
   { "InsertIntoFreedSlot", 0, 20, Action::set, 1 * spacing, false },
   { "Update", 0, 20, Action::set, 11 * spacing, true },
   { "UpdateAtTheEndOfTheJournal", 1022, 0, Action::set, 2 * spacing, true },
   { "EraseAcrossTheEndOfTheIndex", 0, keysUsed, Action::erase, 0, true },
   { "EraseInARun", 1500, keysUsed, Action::erase, 1 * spacing, true },
   { "InsertIntoAFullTable", 0, 20, Action::set, 31 * spacing, false, 20, 40 },
   { "Grow", 0, 9, Action::resize, 80, false },
   { "Shrink", 0, 6, Action::resize, 3, false },
};

class KilledBeforeEveryStore : public testing::TestWithParam<Scenario> {
 public:
   KilledBeforeEveryStore() {
      const Ptr<Table> writer = written( path, scenario.capacity );
      while( writer->journalHead() < scenario.history )
         EXPECT_TRUE( ledger.operate( *writer, spacing * random.below( keysUsed ), random ) );
      for( uint32_t i = 0; i < scenario.records; ++i )
         EXPECT_TRUE( ledger.set( *writer, spacing * i ) );
      if( scenario.action == Action::resize )
         return;
      const bool set = scenario.present || scenario.operand < spacing * scenario.records;
      EXPECT_TRUE( !set || ledger.set( *writer, scenario.operand ) );
      if( !scenario.present )
         ledger.erase( *writer, scenario.operand ); // its slot is the next to be used
      EXPECT_TRUE( !scenario.capacityMax || writer->makeRoom() == Room::full );
      ledger.announce( scenario.operand, scenario.action == Action::erase );
   }

   Ptr<Table> attached() const {
      const Ptr<Table> writer = written( path, scenario.capacity );
      if( scenario.action == Action::resize )
         writer->capacityIs( scenario.operand );
      writer->capacityMaxIs( scenario.capacityMax );
      return writer;
   }
   // Runs in a process of its own, which dies before that store of the operation.
   void operate( int64_t store ) const {
      if( scenario.action == Action::resize ) {
         storesToLive = store;
         attached();
         return;
      }
      const Ptr<Table> writer = attached();
      storesToLive = store;
      const bool done = scenario.action == Action::erase
                           ? writer->erase( { scenario.operand } )
                           : writer->set( Record::of( scenario.operand, ledger.operations() ) );
      if( !done )
         _exit( 1 );
   }
   // As a dead writer left it, to a reader that was there before and to one that comes now; what
   // was not under way is all there, and no look takes longer than it should.
   void expectReadable( const Table& reader ) const {
      ASSERT_EQ( ledger.wrongIn( reader ), "" );
      ASSERT_EQ( ledger.wrongIn( *read( path ) ), "" );
      ASSERT_EQ( reader.corruptions(), 0u );
   }
   // Then to the next writer, which finds every slot that holds no record free, and no more index
   // words than records; and readers have been told of whatever has changed.
   void expectRecovered( std::initializer_list<Mirror*> mirrors ) const {
      const Ptr<Table> writer = attached();
      const std::filesystem::directory_iterator files( folder.file( "" ) );
      ASSERT_EQ( std::distance( begin( files ), end( files ) ), 1 ) << "an unfinished file stays";
      Contents contents = contentsOf( *writer );
      ASSERT_NO_FATAL_FAILURE( expectReadable( *writer ) );
      ASSERT_EQ( writer->count(), contents.size() );
      const auto expectFollowed = [ & ] {
         for( Mirror* mirror : mirrors ) {
            mirror->follow();
            ASSERT_EQ( mirror->notifier()->tableId(), writer->tableId() );
            ASSERT_EQ( mirror->contents, contents );
            ASSERT_EQ( mirror->notifier()->corruptions(), 0u );
         }
      };
      ASSERT_NO_FATAL_FAILURE( expectFollowed() );
      for( uint32_t number = 1000; writer->set( Record::of( number, 1 ) ); ++number )
         contents[ number ] = 1;
      ASSERT_EQ( contents.size(), writer->capacity() );
      ASSERT_GE( writer->capacity(), scenario.capacityMax );
      ASSERT_NO_FATAL_FAILURE( expectFollowed() );
      writer->eraseAll();
      const TableGeometry geometry( spec, writer->capacity() );
      const std::string bytes = TestSupport::bytesOf( path );
      ASSERT_GE( bytes.find_first_not_of( '\0', geometry.indexOffset ), geometry.slotOffset );
   }

   const Scenario& scenario = GetParam();
   const TemporaryFolder folder;
   const std::string path = folder.file( "table" );
   Random random;
   Ledger ledger;
};

INSTANTIATE_TEST_SUITE_P( Table, KilledBeforeEveryStore, testing::ValuesIn( scenarios ),
                          []( const auto& info ) { return info.param.name; } );

// Whether a process that runs work() is killed in it; else it must succeed.
bool dies( const std::function<void()>& work ) {
   const int status = Process( work ).ended();
   EXPECT_TRUE( wasKilled( status ) || succeeded( status ) ) << "status " << status;
   return wasKilled( status );
}

TEST_P( KilledBeforeEveryStore, LosesNothing ) {
   const std::string before = TestSupport::bytesOf( path );
   int64_t store = 0;
   for( bool died = true; died; ++store ) {
      SCOPED_TRACE( "store " + std::to_string( store ) );
      TestSupport::replace( path, before );
      Mirror mirror( read( path ) ), sleeper( read( path ) );
      died = dies( [ & ] { operate( store ); } );
      ASSERT_NO_FATAL_FAILURE( expectReadable( *mirror.notifier() ) );
      mirror.follow();
      const std::string after = TestSupport::bytesOf( path );
      ASSERT_NO_FATAL_FAILURE( expectRecovered( { &mirror, &sleeper } ) );
      if( !died )
         break;
      // The next writer dies too, in its recovery.
      bool diedAgain = scenario.action != Action::resize;
      for( int64_t second = 0; diedAgain; ++second ) {
         SCOPED_TRACE( "store " + std::to_string( second ) + " of the recovery" );
         TestSupport::replace( path, after );
         Mirror again( read( path ) );
         diedAgain = dies( [ & ] {
            storesToLive = second;
            attached();
         } );
         ASSERT_NO_FATAL_FAILURE( expectReadable( *again.notifier() ) );
         again.follow();
         ASSERT_NO_FATAL_FAILURE( expectRecovered( { &again } ) );
      }
   }
   EXPECT_GT( store, 10 );
}

// --- killed at random ----------------------------------------------------------------------

struct Board {
   Ledger ledger;
   std::atomic<bool> done{ false };
   std::atomic<uint64_t> looks[ 2 ]{};
   char wrong[ 2 ][ 200 ]{};
};

// A reader: looks, follows and compares until the board says that it is done.
void keepReading( const std::string& path, Board& board, unsigned self ) {
   const Ptr<Table> reader = read( path );
   Mirror mirror( reader );
   Random random( 1000 + self );
   std::string wrong;
   while( wrong.empty() && !board.done ) {
      const uint64_t file = reader->tableId();
      wrong = random.percent( 1 ) ? board.ledger.wrongInWalk( *reader )
                                  : board.ledger.wrongAt( *reader, random.below( Ledger::keys ) );
      if( random.percent( 1 ) || !wrong.empty() )
         mirror.follow();
      if( reader->tableId() != file )
         wrong.clear(); // the writer had gone over to another file before the look, or in it
      if( reader->corruptions() > 0 )
         wrong = "corruption";
      ++board.looks[ self ];
   }
   mirror.follow();
   if( wrong.empty() && mirror.contents != contentsOf( *reader ) )
      wrong = "the mirror differs";
   wrong.copy( board.wrong[ self ], sizeof board.wrong[ self ] - 1 );
}

TEST( TableBetweenProcesses, SurvivesKillsAtRandomWhileOthersRead ) {
   constexpr int kills = 350;
   const TemporaryFolder folder;
   const std::string path = folder.file( "table" );
   Board& board = shared<Board>();
   Random random;
   // Too few for all keys: sets are refused, too. Begun anew from what is there, a few slots at a
   // time or all at once.
   board.ledger.capacityMax = 200;
   const auto growing = [ & ] {
      const Ptr<Table> table = written( path, 1 );
      table->capacityIs( 1 );
      table->capacityMaxIs( board.ledger.capacityMax );
      return table;
   };
   growing();
   Process first( [ & ] { keepReading( path, board, 0 ); } );
   Process second( [ & ] { keepReading( path, board, 1 ); } );
   const auto looks = [ & ]( uint64_t atLeast ) {
      const uint64_t seen[] = { board.looks[ 0 ], board.looks[ 1 ] };
      return waitFor(
         [ & ] {
            return board.looks[ 0 ] - seen[ 0 ] >= atLeast &&
                   board.looks[ 1 ] - seen[ 1 ] >= atLeast;
         },
         20 );
   };
   for( int kill = 0; kill < kills; ++kill ) {
      const uint64_t operationsBefore = board.ledger.operations();
      Process writer( [ & ] {
         Random choices( 2000 + static_cast<uint64_t>( kill ) );
         slotsCopiedAtOnce = choices.percent( 70 ) ? 8 : 1000;
         const Ptr<Table> table = growing();
         while( board.ledger.operate( *table, choices.below( Ledger::keys ), choices ) )
            table->ring();
      } );
      if( random.percent( 80 ) ) { // else it may be in its attach, or not yet there
         const uint64_t some = random.below( 200 );
         ASSERT_TRUE(
            waitFor( [ & ] { return board.ledger.operations() > operationsBefore + some; }, 20 ) );
      }
      waitFor( [] { return false; }, 1e-6 * random.below( 500 ) );
      writer.kill();
      ASSERT_TRUE( wasKilled( writer.ended() ) );
      ASSERT_TRUE( !random.percent( 30 ) || looks( 20 ) ) << board.wrong[ 0 ] << board.wrong[ 1 ];
      const Ptr<Table> next = written( path, 1 );
      ASSERT_EQ( board.ledger.wrongIn( *next ), "" ) << "kill " << kill;
      ASSERT_EQ( next->count(), contentsOf( *next ).size() );
      board.ledger.settleAs( *next );
   }
   EXPECT_TRUE( looks( 100 ) );
   board.done = true;
   EXPECT_TRUE( succeeded( first.ended() ) && succeeded( second.ended() ) );
   EXPECT_STREQ( board.wrong[ 0 ], "" );
   EXPECT_STREQ( board.wrong[ 1 ], "" );
}

} // namespace
} // namespace TestTable
