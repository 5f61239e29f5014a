// l2ribd as a service: what it tells the service manager, whom it lets at its files, what it
// refuses, and its metrics.
#include "tests/MetricsText.h"
#include "tests/ProcessSupport.h"

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

using namespace ProcessSupport;
using TestSupport::MetricsText;

using OperationTest = ProcessTest;

// The service manager's end of the protocol.
class Manager {
 public:
   explicit Manager( const std::string& name ) : fd_( socket( AF_UNIX, SOCK_DGRAM, 0 ) ) {
      address_.sun_family = AF_UNIX;
      name.copy( address_.sun_path, sizeof address_.sun_path - 1 );
      if( name[ 0 ] == '@' )
         address_.sun_path[ 0 ] = '\0';
      size_ = static_cast<socklen_t>( offsetof( sockaddr_un, sun_path ) + name.size() );
      EXPECT_EQ( bind( fd_, reinterpret_cast<sockaddr*>( &address_ ), size_ ), 0 );
   }
   ~Manager() { close( fd_ ); }

   // The next lines, or "" when there are none for that long.
   std::string next( double seconds = patience ) {
      pollfd ready{ fd_, POLLIN, 0 };
      char lines[ 4096 ];
      if( poll( &ready, 1, static_cast<int>( seconds * 1000 ) ) != 1 )
         return "";
      const ssize_t size = recv( fd_, lines, sizeof lines, 0 );
      return size > 0 ? std::string( lines, static_cast<size_t>( size ) ) : "";
   }
   // What comes until those lines do, themselves included.
   std::vector<std::string> until( const std::string& lines ) {
      std::vector<std::string> all;
      do
         all.push_back( next() );
      while( !all.back().empty() && !all.back().starts_with( lines ) );
      EXPECT_TRUE( all.back().starts_with( lines ) ) << lines << " did not come";
      return all;
   }
   // Leaves no room for anybody's lines.
   void fill() {
      const int other = socket( AF_UNIX, SOCK_DGRAM, 0 );
      while( sendto( other, "X", 1, MSG_DONTWAIT, reinterpret_cast<sockaddr*>( &address_ ),
                     size_ ) == 1 )
         ;
      EXPECT_EQ( errno, EAGAIN );
      close( other );
   }

 private:
   int fd_;
   sockaddr_un address_{};
   socklen_t size_ = 0;
};

TEST_F( OperationTest, ServiceManagerIsTold ) {
   const std::string hostOutput = state + "/bridging/l2Rib/hostOutput";
   for( const bool abstract : { false, true } ) {
      const std::string name =
         abstract ? "@l2rib-test-" + std::to_string( getpid() ) : folder.file( "notify" );
      Manager manager( name );
      std::filesystem::remove_all( state );
      setenv( "NOTIFY_SOCKET", name.c_str(), 1 );
      setenv( "WATCHDOG_USEC", "20000", 1 );
      setenv( "WATCHDOG_PID", "1", 1 ); // meant for another process, the first time
      if( abstract )
         unsetenv( "WATCHDOG_PID" );
      startAgent();
      for( const char* variable : { "NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID" } )
         unsetenv( variable );
      EXPECT_EQ( manager.next(), "READY=1" );
      EXPECT_TRUE( std::filesystem::exists( hostOutput ) ) << "ready before its tables are";
      EXPECT_EQ( manager.next(), "STATUS=hostSourceCheck, 0 entries left" );
      manager.until( "STATUS=running, restarted in " );
      for( int fed = 0; abstract && fed < 5; ++fed )
         manager.until( "WATCHDOG=1" );
      agent->signal( SIGTERM );
      const auto last = manager.until( "STOPPING=1" );
      if( !abstract ) {
         EXPECT_EQ( last.size(), 1u ) << "fed a watchdog that is another's";
      }
      EXPECT_EQ( agent->status(), 0 );

      // One that has stopped reading holds up nothing.
      setenv( "NOTIFY_SOCKET", name.c_str(), 1 );
      startAgent();
      unsetenv( "NOTIFY_SOCKET" );
      EXPECT_EQ( manager.next(), "READY=1" );
      manager.fill();
      settle();
      stopAgent();
   }
}

TEST_F( OperationTest, ModesAreTheSameWhateverTheUmask ) {
   constexpr gid_t readers = 12345;
   for( const mode_t mask : { 0, 022, 077 } ) {
      std::filesystem::remove_all( state );
      const bool ownGroup = mask == 077 && geteuid() == 0; // giving a file away takes the root user
      if( ownGroup ) {
         ASSERT_EQ( mkdir( state.c_str(), 0750 ), 0 );
         ASSERT_EQ( chown( state.c_str(), 0, readers ), 0 );
         ASSERT_EQ( chmod( state.c_str(), 02750 ), 0 );
      }
      const mode_t before = umask( mask );
      startAgent();
      keep( "evpn", "0x40", objects + host( 1, 100, group ) + initialized( true ) );
      EXPECT_EQ( ctl( { "config", "set", "10", mac( 2 ), "--interface", "7" } ).status, 0 );
      umask( before );
      settle();
      size_t files = 0;
      for( const auto& file : std::filesystem::recursive_directory_iterator( state ) ) {
         struct stat status {};
         ASSERT_EQ( lstat( file.path().c_str(), &status ), 0 );
         if( S_ISLNK( status.st_mode ) )
            continue; // which has no mode of its own
         ++files;
         EXPECT_EQ( status.st_mode & 07777,
                    S_ISDIR( status.st_mode ) ? ownGroup ? 02750u : 0750u : 0640u )
            << file.path();
         if( ownGroup ) {
            EXPECT_EQ( status.st_gid, readers ) << file.path();
         }
      }
      EXPECT_GT( files, 15u );
      stopAgent();
   }
}

TEST_F( OperationTest, WhatCantBeIsRefusedInOneLine ) {
   struct Refusal {
      std::function<void()> prepare;
      Words words;
      int status;
      std::string text;
   };
   const auto makeState = [ this ]( mode_t mode ) {
      std::filesystem::create_directory( state );
      chmod( state.c_str(), mode );
   };
   std::vector<Refusal> refusals{
      { [ & ] { makeState( 0770 ); }, {}, 1, "other users may write it (mode 0770)" },
      { [ & ] { makeState( 0757 ); }, {}, 1, "other users may write it (mode 0757)" },
      { [ & ] { TestSupport::replace( state, "" ); }, {}, 1, "it is no directory" },
      { {}, { "--agent-lib", "/absent.so" }, 1, "/absent.so: cannot open" },
      { {}, { "--plugin-dir", "/absent" }, 2, "/absent" },
      { {}, { "--output-capacity", "0" }, 2, "a whole number from 1 to 1073741824" },
      { {},
        { "--output-capacity", "20", "--output-capacity-max", "10" },
        2,
        "--output-capacity 20 is more than --output-capacity-max 10" },
      { {}, { "--review-quantum", "0" }, 2, "a number from 0.0001 to 1000000000" },
      { {}, { "--source-hold", "nan" }, 2, "a number from 0 to 1000000000" },
      { {}, { "--flood-review-quantum", "-1" }, 2, "a number from 0 to 1000000000" },
      { {}, { "--hammer-interval", "0" }, 2, "a number from 0.001 to 1000000000" },
      { {}, { "--trace", "L2RibAgent=17" }, 2, "L2RibAgent=17" },
      { {}, { "--absent" }, 2, "--absent" } };
   if( geteuid() == 0 )
      refusals.push_back( { [ & ] {
                              makeState( 0750 );
                              EXPECT_EQ( chown( state.c_str(), 4321, 0 ), 0 );
                           },
                            {},
                            1,
                            "it belongs to user 4321" } );
   for( const Refusal& refusal : refusals ) {
      std::filesystem::remove_all( state );
      if( refusal.prepare )
         refusal.prepare();
      startAgent( refusal.words );
      EXPECT_EQ( agent->status(), refusal.status ) << refusal.text;
      const std::string said = agent->err();
      EXPECT_TRUE( said.starts_with( "l2ribd: " ) ) << said;
      expectIn( said, refusal.text );
      EXPECT_EQ( std::count( said.begin(), said.end(), '\n' ), 1 ) << said;
   }

   std::filesystem::remove_all( state );
   startAgent();
   settle();
   Program second = start( L2RIBD_PATH, {} );
   EXPECT_EQ( second.status(), 1 );
   expectIn( second.err(), "agent PID " + std::to_string( agent->id() ) + " runs here" );
   EXPECT_EQ( ctl( { "settle" } ).status, 0 ) << "the first one is not disturbed";
}

TEST_F( OperationTest, MetricsTellWhatIsThere ) {
   EXPECT_EQ( ctl( { "metrics" } ).status, 1 ); // no agent ever ran
   startAgent( { "--output-capacity", "100", "--hammer-interval", "0.01" } );
   keep( "evpn", "0x40",
         objects + host( 1, 100, group ) + host( 2, 100, inlineDest ) + host( 3, 1, inlineDest ) +
            initialized( true ) );
   Program awkward = source( "a\"b\\c", "0x80", { "--host-capacity", "77" } );
   publish( awkward, host( 3, 2, inlineDest ) + host( 4, 2, R"("next":{"type":"lb","id":9})" ) +
                        initialized( true ) );
   const auto metrics = [ this ] {
      const Result result = ctl( { "metrics" } );
      EXPECT_EQ( result.status, 0 ) << result.err;
      return MetricsText( result.out );
   };
   EXPECT_TRUE( waitFor( [ & ] { return metrics()[ "l2rib_retries_total" ] > 2; } ) );
   const MetricsText live = metrics();
   const std::map<std::string, double> expected{
      { "l2rib_agent_up", 1 },
      { "l2rib_restart_state{state=\"running\"}", 1 },
      { "l2rib_restart_state{state=\"hostSourceCheck\"}", 0 },
      { "l2rib_restart_entries_left", 0 },
      { "l2rib_journal_overruns_total", 0 },
      { "l2rib_sources", 3 }, // with the static one
      { "l2rib_source_ready{source=\"evpn\"}", 1 },
      { "l2rib_source_ready{source=\"a\\\"b\\\\c\"}", 1 },
      { "l2rib_hosts{source=\"evpn\",kind=\"inline\"}", 1 },
      { "l2rib_hosts{source=\"evpn\",kind=\"object\"}", 1 },
      { "l2rib_hosts{source=\"a\\\"b\\\\c\",kind=\"inline\"}", 1 },
      { "l2rib_objects{type=\"dest\"}", 1 },
      { "l2rib_objects{type=\"group\"}", 1 },
      { "l2rib_objects{type=\"label\"}", 1 },
      { "l2rib_users", 4 }, // host 1, the group's two members, the label's dest
      { "l2rib_failures_parked{list=\"failedOtas\"}", 0 },
      { "l2rib_table_entries{table=\"hostOutput\"}", 3 },
      { "l2rib_table_capacity_entries{table=\"hostOutput\"}", 100 },
      { "l2rib_table_entries{table=\"floodOutput\"}", 0 },
      { "l2rib_source_table_entries{source=\"evpn\",table=\"host\"}", 3 },
      { "l2rib_source_table_entries{source=\"a\\\"b\\\\c\",table=\"host\"}", 2 },
      { "l2rib_source_table_capacity_entries{source=\"a\\\"b\\\\c\",table=\"host\"}", 77 } };
   for( const auto& [ series, value ] : expected )
      EXPECT_EQ( live[ series ], value ) << series;
   EXPECT_GT( live[ "l2rib_failure_oldest_age_seconds" ], 0.0 );
   EXPECT_GT( live[ "l2rib_loop_hold_max_seconds" ], 0.0 );
   EXPECT_EQ( live[ "l2rib_failures_parked{list=\"failedHost\"}" ] +
                 live[ "l2rib_list_entries{list=\"hostList\"}" ],
              1 );
   // Figures that did not all arrive must not replace those before.
   Program full( folder, { "/bin/sh", "-c",
                           L2RIBCTL_PATH " --state-dir '" + state + "' metrics >/dev/full" } );
   EXPECT_EQ( full.status(), 1 );
   expectIn( full.err(), "standard output can't be written" );

   stopAgent( SIGKILL );
   const MetricsText dead = metrics();
   for( const auto& [ series, value ] : expected ) {
      const bool ofTheLiving = series == "l2rib_agent_up" ||
                               series.starts_with( "l2rib_restart_state{" ) ||
                               series.starts_with( "l2rib_source_ready{" );
      EXPECT_EQ( dead[ series ], ofTheLiving ? 0 : value ) << series;
   }
   EXPECT_GE( dead[ "l2rib_failure_oldest_age_seconds" ],
              live[ "l2rib_failure_oldest_age_seconds" ] );
}

} // namespace
