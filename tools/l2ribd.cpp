// l2ribd: the agent framework's host process. Loads the agent library, takes the agent through its
// stages, and turns the event loop until it is told to end.
#include "runtime/Agent.h"
#include "runtime/Trace.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

// The sd_notify protocol: a datagram to the socket that systemd names, if it does.
void notifySystemd( const std::string& state ) {
   const char* const name = std::getenv( "NOTIFY_SOCKET" );
   sockaddr_un address{};
   if( !name || std::strlen( name ) >= sizeof address.sun_path )
      return;
   address.sun_family = AF_UNIX;
   std::strcpy( address.sun_path, name );
   if( name[ 0 ] == '@' )
      address.sun_path[ 0 ] = '\0'; // the abstract namespace
   const int fd = socket( AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0 );
   if( fd < 0 )
      return;
   const auto size =
      static_cast<socklen_t>( offsetof( sockaddr_un, sun_path ) + std::strlen( name ) );
   sendto( fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>( &address ),
           size );
   close( fd );
}

// The agent library as it lies beside this program, built or installed.
std::string defaultLibrary() {
   const auto here = std::filesystem::read_symlink( "/proc/self/exe" ).parent_path();
   const auto beside = here.parent_path() / "lib" / "libL2Rib.so";
   return std::filesystem::exists( beside ) ? beside.string() : "libL2Rib.so";
}

int runAgent( const std::string& stateDirectory, const std::string& library,
              Vexil::AgentSettings settings ) {
   Vexil::ActivityManager loop;
   loop.signalIs( SIGTERM, [ & ] { loop.stop(); } );
   loop.signalIs( SIGINT, [ & ] { loop.stop(); } );
   auto manager = Vexil::makeEntity<Vexil::EntityManager>( loop, stateDirectory );
   auto agent =
      Vexil::startAgent( library, "L2Rib::Agent", "L2Rib", loop, manager, std::move( settings ) );
   Vexil::log( "running on " + stateDirectory );
   notifySystemd( "READY=1" );
   loop.run();
   notifySystemd( "STOPPING=1" );
   agent = nullptr;
   manager->ringBells();
   Vexil::log( "ended in order" );
   return 0;
}

} // namespace

int main( int argc, char** argv ) {
   CLI::App app( "The layer-2 RIB agent: merges what the sources publish into one output." );
   const char* const environment = std::getenv( "L2RIB_STATE_DIR" );
   std::string stateDirectory = environment ? environment : "/run/l2rib";
   std::string library = defaultLibrary();
   std::vector<std::string> traces;
   std::string pluginDirectory;
   bool testPlugins = false;
   app.add_option( "--state-dir", stateDirectory, "where the tables are" )->capture_default_str();
   app.add_option( "--agent-lib", library, "the agent library" )->capture_default_str();
   app.add_option( "--plugin-dir", pluginDirectory, "where plug-ins are looked for" );
   app.add_flag( "--test-plugins", testPlugins,
                 "load the test plug-ins instead of the normal ones" );
   app.add_option( "--trace", traces, "HANDLE=LEVELS, LEVELS a list such as 0-3,8" );

   // Handed to the agent as they are, once they are known to be numbers.
   Vexil::AgentSettings settings;
   const auto number = [ & ]( const char* name, const char* help, const CLI::Validator& range ) {
      app.add_option_function<std::string>(
            std::string( "--" ) + name,
            [ &settings, name ]( const std::string& value ) { settings[ name ] = value; }, help )
         ->check( CLI::Number )
         ->check( range );
   };
   const CLI::Range seconds( 0.0, 1e9 );
   number( "output-capacity", "records per output table (16384)", CLI::Range( 1, 1 << 30 ) );
   number( "review-quantum", "seconds that a review slice may take (0.05)", seconds );
   number( "flood-review-quantum", "seconds that a flood slice may take (0.05)", seconds );
   number( "hammer-interval", "seconds between retries of what failed (10)", seconds );
   number( "source-hold", "seconds that a vanished source's hosts stay unexamined (30)", seconds );
   try {
      app.parse( argc, argv );
      for( const std::string& setting : traces )
         Vexil::traceSettingIs( setting );
   } catch( const CLI::ParseError& error ) {
      return app.exit( error ) == 0 ? 0 : 2;
   } catch( const std::invalid_argument& error ) {
      std::cerr << "l2ribd: " << error.what() << '\n';
      return 2;
   }
   settings[ "plugin-dir" ] = pluginDirectory;
   settings[ "test-plugins" ] = testPlugins ? "1" : "0";
   try {
      return runAgent( stateDirectory, library, std::move( settings ) );
   } catch( const std::runtime_error& failure ) { // TableError too
      std::cerr << "l2ribd: " << failure.what() << '\n';
      return 1;
   }
}
