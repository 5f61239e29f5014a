// The agent process is killed in each single write that it makes to a shared table, whichever it
// is, and started again: whatever it left, the next run ends with what the sources say.
//
// The agent runs in a child process on a state directory of its own, turn by turn on a clock that
// stands still, so that every run makes the same writes in the same order. Each store to a shared
// table calls beforeStore() where VEXIL_TEST_HOOKS is set, so this program has an agent of its own.
// A write takes at least a dozen stores, so a kill at every few of them meets each write: before
// the store that makes it valid, then it is as if it had not been, or after. Every run of the test
// begins at another store.
#include "agent/L2RibAgent.h"
#include "client/SourcePublisher.h"
#include "tests/Records.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace L2Rib::Test {
namespace {

namespace fs = std::filesystem;
using Client::SourcePublisher;

// --- counting the agent's stores ---------------------------------------------------------------

struct Fuse {
   bool lit = false;
   int64_t stores = 0;
   int64_t limit = -1; // the process ends at that store; -1: never
};
Fuse fuse; // of the child
constexpr int64_t step = 7;
double now = 1000; // each run has a time of its own

// --- the agent in a process of its own ---------------------------------------------------------

class AgentRun {
 public:
   explicit AgentRun( const std::string& stateDirectory )
      : loop_( makeEntity<Vexil::ManualClock>( now ) ),
        manager_( makeEntity<Vexil::EntityManager>( loop_, stateDirectory ) ) {
      agent_.entityManagerIs( manager_ );
      agent_.activityManagerIs( &loop_ );
      agent_.settingsIs( { { "output-capacity", "64" } } );
      agent_.doInit();
      agent_.doMountsComplete( Vexil::MountStatus::success, manager_ );
   }

   // Turns until there is nothing left to do at this time.
   void settle() {
      for( int quiet = 0; quiet < 3; ) {
         const int64_t before = fuse.stores;
         loop_.turn( 0 );
         const bool busy = loop_.clock()->nextWake() <= 0 || fuse.stores != before;
         quiet = busy ? 0 : quiet + 1;
      }
      if( agent_.policySm()->restartState() != running_ )
         abort();
   }

 private:
   Vexil::ActivityManager loop_;
   Ptr<Vexil::EntityManager> manager_;
   Agent agent_{ "L2Rib" };
};

// Starts the agent, and when it has settled lets work() change what it reads. The process ends at
// store `limit` of the agent, counted from its start or from the end of work(). Says whether it
// came through.
bool runAgent( const std::string& state, int64_t limit, bool countFromWork = false,
               const std::function<void()>& work = {} ) {
   ++now;
   const pid_t child = fork();
   if( child == 0 ) {
      prctl( PR_SET_PDEATHSIG, SIGKILL );
      alarm( 60 );
      fuse = { true, 0, countFromWork ? -1 : limit };
      AgentRun agent( state );
      agent.settle();
      if( work ) {
         fuse.lit = false;
         work();
         fuse = { true, 0, limit };
         agent.settle();
      }
      _exit( 0 );
   }
   int status = 0;
   waitpid( child, &status, 0 );
   EXPECT_TRUE( status == 0 || ( WIFSIGNALED( status ) && WTERMSIG( status ) == SIGKILL ) )
      << "status " << status;
   return status == 0;
}

// --- what the output says ----------------------------------------------------------------------

class Output {
 public:
   explicit Output( const std::string& state ) {
      const OutputFiles tables( state );
      tables.host->forEach( [ & ]( const HostAndSource& row ) {
         const std::string text = resolved( tables, row, &reached );
         whole = whole && text != "dangling";
         sorted.insert( mvpStr( row.key() ) + " from " + sourceStr( row.source() ) + ": " + text );
      } );
      tables.flood->forEach( [ & ]( const FloodMember& member ) {
         sorted.insert( "flood " + member.triple.str() + " type " +
                        std::to_string( member.floodSetType ) );
      } );
      const auto note = [ & ]( const auto& row ) {
         inputOf[ ObjTuple( row.key() ) ] = row.sourceOtas();
      };
      tables.dest->forEach( note );
      tables.label->forEach( note );
      tables.lb->forEach( note );
      writes = tables.writes();
   }
   // No row is missing, none is too many.
   bool sound() const { return whole && reached.size() == inputOf.size(); }

   std::set<std::string> sorted;                  // the content, output ids left out
   std::map<ObjTuple, ObjTupleAndSource> inputOf; // of each output object, the input object
   std::vector<uint64_t> writes;

 private:
   bool whole = true;
   std::set<ObjTuple> reached;
};

// --- the script --------------------------------------------------------------------------------

// A member of the set of all hosts.
FloodMember flood( uint32_t vlan, uint64_t interface, FloodSetType type = floodSetTypeAny_ ) {
   return floodMember( vlan, 0xffffffffffff, interface, type );
}

class Kill : public ::testing::Test {
 protected:
   using Content = std::function<void( SourcePublisher& red, SourcePublisher& blue )>;

   // Both sources say this and nothing else; both stay when their process has gone.
   static void publish( const std::string& state, const Content& content ) {
      const auto options = [ & ]( const char* name, uint32_t value ) {
         return Client::SourceOptions{ state, name, Source( value ), 64, 64, 64, false };
      };
      SourcePublisher red( options( "red", 0x40 ) ), blue( options( "blue", 0x100 ) );
      for( SourcePublisher* source : { &red, &blue } )
         take( source->begin() );
      content( red, blue );
      for( SourcePublisher* source : { &red, &blue } ) {
         take( source->end() );
         source->initializedIs( true );
         source->flush();
      }
   }
   static void take( const Client::Rejection& rejection ) {
      ASSERT_FALSE( rejection ) << *rejection;
   }
   static void config( const std::string& state, const std::string& words ) {
      const std::string command =
         std::string( L2RIBCTL_PATH ) + " --state-dir " + state + " config " + words;
      ASSERT_EQ( 0, std::system( command.c_str() ) ) << command;
   }

   static void before( SourcePublisher& red, SourcePublisher& blue ) {
      for( uint64_t id = 1; id <= 3; ++id )
         take( red.destIs( intfDest( id, id ) ) );
      take( red.labelIs( push( 1, 7, dest( 1 ) ) ) );
      take( red.lbIs( group( 1, { label( 1 ), dest( 2 ) } ) ) );
      take( red.hostIs( objectHost( mvp( 1 ), lb( 1 ), 100 ) ) );
      take( red.hostIs( objectHost( mvp( 2 ), label( 1 ), 100 ) ) );
      take( red.hostIs( inlineHost( mvp( 3 ), 3, 100 ) ) );
      take( red.floodIs( flood( 10, 1 ) ) );
      take( blue.destIs( intfDest( 1, 91 ) ) );
      take( blue.hostIs( inlineHost( mvp( 3 ), 4, 50 ) ) );
      take( blue.hostIs( objectHost( mvp( 4 ), dest( 1 ), 50 ) ) );
      take( blue.floodIs( flood( 10, 1 ) ) );
      take( blue.floodIs( flood( 20, 2 ) ) );
   }
   // A member of the group is exchanged and another one added, a label moves, hosts move between
   // sources and between kinds, objects come and go, flood members too, one set
   // changes its type.
   static void after( SourcePublisher& red, SourcePublisher& blue ) {
      for( uint64_t id = 2; id <= 4; ++id )
         take( red.destIs( intfDest( id, id == 3 ? 33 : id ) ) );
      take( red.labelIs( push( 1, 8, dest( 3 ) ) ) );
      take( red.lbIs( group( 1, { label( 1 ), dest( 3 ), dest( 4 ) } ) ) );
      take( red.hostIs( objectHost( mvp( 1 ), lb( 1 ), 100 ) ) );
      take( red.hostIs( inlineHost( mvp( 2 ), 22, 100 ) ) );
      take( red.hostIs( objectHost( mvp( 5 ), label( 1 ), 100 ) ) );
      take( red.floodIs( flood( 10, 3 ) ) );
      take( blue.destIs( intfDest( 2, 92 ) ) );
      take( blue.lbIs( group( 9, { dest( 2 ) } ) ) );
      take( blue.hostIs( objectHost( mvp( 3 ), lb( 9 ), 50 ) ) );
      take( blue.floodIs( flood( 20, 2, floodSetTypeVxlan_ ) ) );
      take( blue.floodIs( flood( 20, 4, floodSetTypeVxlan_ ) ) );
      take( blue.floodIs( flood( 30, 2 ) ) );
   }

   Kill() {
      const std::string fresh = folder.file( "fresh" );
      for( const std::string& state : { original, fresh } ) {
         publish( state, state == fresh ? after : before );
         config( state, "set 10 02:00:00:00:00:21 --interface 7" );
         config( state, "tunnel 1 --source 10.0.0.1 --destination 10.0.0.2" );
         config( state, "set 10 02:00:00:00:00:22 --label 500 --tunnel 1" );
         EXPECT_TRUE( runAgent( state, -1 ) );
         EXPECT_TRUE( Output( state ).sound() );
      }
      expected = Output( fresh ).sorted;
      EXPECT_EQ( 10u, expected.size() );
   }

   void copyOriginal() {
      fs::remove_all( copy );
      fs::copy( original, copy, fs::copy_options::recursive | fs::copy_options::copy_symlinks );
   }
   // An output id stands for the same input object for ever.
   void noteIds( const Output& output ) {
      for( const auto& [ ot, input ] : output.inputOf )
         EXPECT_EQ( input, ids.emplace( ot, input ).first->second ) << ot << " was given twice";
   }
   // The agent dies at the n-th store, the next one too, at some other; the one after that
   // ends with what the sources say.
   void recover( int64_t n ) {
      SCOPED_TRACE( "killed at store " + std::to_string( n ) );
      noteIds( Output( copy ) );
      runAgent( copy, 1 + random.below( 1000 ) );
      noteIds( Output( copy ) );
      ASSERT_TRUE( runAgent( copy, -1 ) );
      const Output output( copy );
      EXPECT_EQ( expected, output.sorted );
      EXPECT_TRUE( output.sound() );
      noteIds( output );
   }

   void killInEveryWrite( bool countFromWork, const std::function<void()>& work ) {
      noteIds( Output( original ) );
      const auto start = ids;
      for( int64_t n = 1 + random.below( step ); !HasFailure(); n += step ) {
         ids = start;
         copyOriginal();
         if( runAgent( copy, n, countFromWork, work ) ) {
            EXPECT_GT( n, 300 ) << "the script has become too short";
            EXPECT_EQ( expected, Output( copy ).sorted );
            return;
         }
         recover( n );
      }
   }

   TestSupport::TemporaryFolder folder;
   const std::string original = folder.file( "original" ), copy = folder.file( "copy" );
   std::set<std::string> expected;
   std::map<ObjTuple, ObjTupleAndSource> ids;
   TestSupport::Random random;
};

// The sources change while no agent runs; the next one is killed while it adopts, checks and
// reconciles.
TEST_F( Kill, InEveryWriteOfARestart ) {
   publish( original, after );
   killInEveryWrite( false, {} );
}

// Nothing changes at all: readers see no write, whenever the agent is killed while it starts.
TEST_F( Kill, InEveryWriteOfARestartWithoutChange ) {
   // The static source's ids are not those that it would give if it began anew.
   EXPECT_TRUE( runAgent( original, -1, true, [ this ] {
      config( original, "set 10 02:00:00:00:00:22 --label 501 --tunnel 1" );
   } ) );
   const auto before = Output( original ).writes;
   bool through = false;
   for( int64_t n = 1 + random.below( step ); !through && !HasFailure(); n += step ) {
      SCOPED_TRACE( "killed at store " + std::to_string( n ) );
      copyOriginal();
      through = runAgent( copy, n );
      EXPECT_TRUE( through || runAgent( copy, -1 ) );
      EXPECT_EQ( before, Output( copy ).writes );
   }
}

// The sources change under a running agent.
TEST_F( Kill, InEveryWriteOfNormalWork ) {
   killInEveryWrite( true, [ this ] { publish( copy, after ); } );
}

} // namespace
} // namespace L2Rib::Test

void Vexil::beforeLoad() {}
void Vexil::beforeStore() {
   using L2Rib::Test::fuse;
   if( fuse.lit && ++fuse.stores == fuse.limit )
      raise( SIGKILL );
}
