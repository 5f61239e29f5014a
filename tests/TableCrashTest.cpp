// Shared tables between processes, one of which is killed: at random moments while others read, and
// once before each single store of every operation, of the recovery from it, and of a change of
// capacity.
//
// The stores call beforeStore() where this macro is set, so this file is a program of its own.
#define VEXIL_TEST_STORES
#include "tests/TestTable.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <new>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {
int64_t storesToLive = -1; // -1: no end is set
}

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
      alarm( 60 ); // whatever hangs is a failure, not a hanging test
      work();
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


// Memory that parent and children share.
template<class T>
class Shared {
 public:
   Shared()
      : memory_( mmap( nullptr, sizeof( T ), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                       0 ) ) {
      if( memory_ == MAP_FAILED )
         throw std::bad_alloc();
      new( memory_ ) T;
   }
   ~Shared() { munmap( memory_, sizeof( T ) ); }
   T* operator->() const { return static_cast<T*>( memory_ ); }

 private:
   void* memory_;
};

// --- killed before every store -------------------------------------------------------------

enum class Action { set, erase, resize };
struct Scenario {
   const char* name;
   unsigned history; // random changes before
   unsigned records; // then as many are set, in new slots if there was no history
   Action action;
   uint32_t operand; // the key, or the new capacity
   bool present;     // whether the key is there before
};
// The keys are multiples of 8, so they have five hashes and stand in long runs of the index. That
// of hash ~0, to which key 0 belongs, passes the index's end.
constexpr uint32_t spacing = 8;
constexpr uint32_t keysUsed = Ledger::keys / spacing;
const Scenario scenarios[] = {
   { "InsertIntoNewSlot", 0, 20, Action::set, 31 * spacing, false },
   { "InsertIntoFreedSlot", 1500, 0, Action::set, 1 * spacing, false },
   { "Update", 0, 20, Action::set, 11 * spacing, true },
   { "UpdateAtTheJournalsEnd", 1022, 0, Action::set, 2 * spacing, true },
   { "EraseAcrossTheIndexsEnd", 0, 37, Action::erase, 0, true },
   { "EraseInTheMiddleOfARun", 1500, 0, Action::erase, 16 * spacing, true },
   { "Grow", 1100, 0, Action::resize, 80, false },
   { "Shrink", 0, 12, Action::resize, 5, false },
};

class KilledBeforeEveryStore : public testing::TestWithParam<Scenario> {
 public:
   void SetUp() override {
      const Ptr<Table> writer = written( path, capacity );
      while( writer->journalHead() < scenario.history )
         operate( *writer, spacing * random.below( keysUsed ), random );
      for( uint32_t i = 0; i < scenario.records; ++i )
         set( *writer, spacing * i );
      if( scenario.present )
         set( *writer, scenario.operand );
      else if( scenario.action != Action::resize )
         erase
   }
