// l2rib-bridge: makes the bridges and VXLAN devices of this network namespace forward as the output
// says, and publishes what the bridges learn as a source.
#include "bridge/Program.h"
#include "runtime/ServiceNotifier.h"
#include "runtime/StateDirectory.h"
#include "runtime/Trace.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <csignal>
#include <cstdlib>
#include <iostream>

namespace {

// "10=br10"; throws CLI::ValidationError for anything else.
std::map<uint32_t, std::string> parsedBridges( const std::vector<std::string>& words ) {
   std::map<uint32_t, std::string> bridges;
   for( const std::string& word : words ) {
      const auto refuse = [ & ]( const std::string& why ) {
         throw CLI::ValidationError( "--bridge " + word, why );
      };
      const size_t equals = word.find( '=' );
      uint32_t vlan = 0;
      const char* const end = word.data() + std::min( equals, word.size() );
      const auto [ at, error ] = std::from_chars( word.data(), end, vlan );
      if( equals == word.npos || error != std::errc() || at != end || vlan < 1 || vlan > 4094 )
         refuse( "VLAN=NAME is wanted, with a VLAN of 1 to 4094" );
      const std::string name = word.substr( equals + 1 );
      if( !L2Rib::InterfaceName::of( name ) || name.empty() )
         refuse( "an interface's name has 1 to 15 characters" );
      for( const auto& [ other, taken ] : bridges )
         if( taken == name )
            refuse( name + " is the bridge of VLAN " + std::to_string( other ) );
      if( !bridges.emplace( vlan, name ).second )
         refuse( "VLAN " + std::to_string( vlan ) + " has a bridge: one is supported" );
   }
   return bridges;
}

int run( const Bridge::ProgramOptions& options ) {
   Vexil::requireStateDirectory( options.stateDirectory );
   Vexil::ActivityManager loop;
   loop.signalIs( SIGTERM, [ & ] { loop.stop(); } );
   loop.signalIs( SIGINT, [ & ] { loop.stop(); } );
   Vexil::ServiceNotifier service( loop );
   const Bridge::Program program( loop, options );
   Vexil::log( "running on " + options.stateDirectory );
   service.ready( [ & ] { return program.progress(); } );
   loop.run();
   service.stopping();
   Vexil::log( "ended in order; the kernel keeps what it has" );
   return 0;
}

} // namespace

int main( int argc, char** argv ) {
   CLI::App app( "Programs Linux bridges and VXLAN devices from the layer-2 RIB's output, and "
                 "publishes what they learn." );
   const char* const environment = std::getenv( "L2RIB_STATE_DIR" );
   Bridge::ProgramOptions options;
   options.stateDirectory = environment ? environment : "/run/l2rib";
   std::vector<std::string> bridges;
   std::string value = "0x8";
   bool noLearn = false;
   bool noProgram = false;
   app.add_option( "--state-dir", options.stateDirectory, "where the tables are" )
      ->capture_default_str();
   app.add_option( "--bridge", bridges, "VLAN=NAME: the bridge that is this VLAN; any number" )
      ->required();
   app.add_flag( "--no-learn", noLearn, "do not publish what the bridges learn" );
   app.add_flag( "--no-program", noProgram, "do not change the kernel" );
   app.add_option( "--source", options.source, "the source to publish as" )->capture_default_str();
   app.add_option( "--value", value, "its value, a single bit" )->capture_default_str();
   app.add_option( "--pref", options.pref, "the preference of its hosts" )->capture_default_str();
   app.add_option( "--audit", options.audit, "seconds between comparisons of everything" )
      ->check( CLI::Range( 0.1, 1e9 ) )
      ->capture_default_str();
   app.add_option( "--duplicate-moves", options.duplicates.moves,
                   "a host that moves more often is a duplicate" )
      ->check( CLI::Range( 1, 1000 ) )
      ->capture_default_str();
   app.add_option( "--duplicate-time", options.duplicates.within,
                   "seconds within which it does, and for which it is frozen then" )
      ->check( CLI::Range( 0.1, 1e9 ) )
      ->capture_default_str();
   try {
      app.parse( argc, argv );
      options.bridges = parsedBridges( bridges );
      const auto parsed = L2Rib::sourceParse( value );
      if( !parsed )
         throw CLI::ValidationError( "--value " + value, "a single bit is wanted, such as 0x8" );
      options.value = *parsed;
   } catch( const CLI::CallForHelp& help ) {
      return app.exit( help );
   } catch( const CLI::ParseError& error ) {
      std::cerr << "l2rib-bridge: " << error.what()
                << " (l2rib-bridge --help says what there is)\n";
      return 2;
   }
   options.learn = !noLearn;
   options.program = !noProgram;
   try {
      return run( options );
   } catch( const std::runtime_error& failure ) { // TableError, PublishRefused, system_error too
      std::cerr << "l2rib-bridge: " << failure.what() << '\n';
      return 1;
   }
}
