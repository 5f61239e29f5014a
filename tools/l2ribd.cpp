// l2ribd: the agent framework's host process. Loads the agent library, takes the agent through its
// stages, and turns the event loop until it is told to end.
#include "runtime/Agent.h"
#include "runtime/Descriptors.h"
#include "runtime/ServiceNotifier.h"
#include "runtime/Trace.h"
#include "runtime/TraceHandles.h"
#include "tools/StateDirectory.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Where this program's libraries lie: installed, or as they were built.
std::filesystem::path libraryFolder() {
   const auto here = std::filesystem::read_symlink( "/proc/self/exe" ).parent_path();
   const auto installed = here.parent_path() / "lib" / "l2rib";
   return std::filesystem::exists( installed ) ? installed : here.parent_path() / "lib";
}

// A number as the agent's settings hold it, all of it and within the range.
CLI::Validator numberWithin( double lowest, double highest, bool whole ) {
   const auto check = [ = ]( const std::string& text ) -> std::string {
      char* end = nullptr;
      const double number = std::strtod( text.c_str(), &end );
      const bool good = !text.empty() && *end == '\0' && number >= lowest && number <= highest &&
                        ( !whole || number == std::floor( number ) );
      std::ostringstream wanted;
      wanted.precision( 12 );
      wanted << "a " << ( whole ? "whole " : "" ) << "number from " << lowest << " to " << highest
             << " is wanted, not '" << text << "'";
      return good ? "" : wanted.str();
   };
   return CLI::Validator( check, "NUMBER" );
}

// What each option says alone was checked when it was read.
void requireCapacities( const Vexil::AgentSettings& settings ) {
   const auto first = settings.find( "output-capacity" ),
              most = settings.find( "output-capacity-max" );
   if( first != settings.end() && most != settings.end() &&
       std::stod( first->second ) > std::stod( most->second ) )
      throw std::invalid_argument( "--output-capacity " + first->second +
                                   " is more than --output-capacity-max " + most->second );
}

// An agent that is told to end while it restarts goes on until that is over: what it has not looked
// at yet would contradict what it has changed, and the next start would have to wipe the output. It
// has that many seconds.
constexpr Vexil::Seconds longestEnd = 5;

class OrderlyEnd {
 public:
   OrderlyEnd( Vexil::ActivityManager& loop, Vexil::Ptr<Vexil::BaseAgent>& agent )
      : loop_( loop ), agent_( agent ), timeIsUp_( loop.clock(), [ this ] { loop_.stop(); } ) {
      timeIsUp_.timeMinIs( Vexil::never );
      for( const int signal : { SIGTERM, SIGINT } )
         loop.signalIs( signal, [ this ] { begin(); } );
   }

 private:
   void begin() {
      if( endOfTurnWork_ )
         return;
      timeIsUp_.timeMinIs( loop_.clock()->now() + longestEnd );
      endOfTurnWork_ = loop_.atEndOfTurn( [ this ] {
         if( agent_->progress().complete )
            loop_.stop();
      } );
   }

   Vexil::ActivityManager& loop_;
   Vexil::Ptr<Vexil::BaseAgent>& agent_; // there when the loop runs
   Vexil::TimerReactor timeIsUp_;
   std::shared_ptr<void> endOfTurnWork_; // once it has been told
};

std::string inOneLine( const std::vector<std::string>& names ) {
   std::string all;
   for( const std::string& name : names )
      all += ( all.empty() ? "" : ", " ) + name;
   return all;
}

void requireTraceHandles() {
   const std::vector<std::string> unknown = Vexil::unknownTraceHandles();
   if( !unknown.empty() )
      throw std::runtime_error( "--trace: there is no handle " + inOneLine( unknown ) +
                                "; expected " + inOneLine( Vexil::traceHandles() ) );
}

int runAgent( const std::string& stateDirectory, const std::string& library,
              Vexil::AgentSettings settings ) {
   const Tools::StateDirectory sole( stateDirectory );
   Vexil::raiseDescriptorLimit();
   Vexil::ActivityManager loop;
   Vexil::Ptr<Vexil::BaseAgent> agent;
   const OrderlyEnd end( loop, agent );
   Vexil::ServiceNotifier service( loop );
   auto manager = Vexil::makeEntity<Vexil::EntityManager>( loop, stateDirectory );
   agent =
      Vexil::startAgent( library, "L2Rib::Agent", "L2Rib", loop, manager, std::move( settings ) );
   requireTraceHandles(); // the plug-ins have theirs now
   Vexil::log( "running on " + stateDirectory );
   service.ready( [ & ] { return agent->progress(); } );
   loop.run();
   service.stopping();
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
   std::string library = libraryFolder() / "libL2Rib.so";
   std::string pluginDirectory = libraryFolder() / "plugins";
   std::vector<std::string> traces;
   bool testPlugins = false;
   app.add_option( "--state-dir", stateDirectory, "where the tables are" )->capture_default_str();
   app.add_option( "--agent-lib", library, "the agent library" )->capture_default_str();
   app.add_option( "--plugin-dir", pluginDirectory, "where plug-ins are looked for" )
      ->check( CLI::ExistingDirectory )
      ->capture_default_str();
   app.add_flag( "--test-plugins", testPlugins,
                 "load the test plug-ins instead of the normal ones" );
   app.add_option( "--trace", traces, "HANDLE=LEVELS, LEVELS a list such as 0-3,8" );

   // Handed to the agent as they are, once they are known to be numbers.
   Vexil::AgentSettings settings;
   const auto number = [ & ]( const char* name, const char* help, const CLI::Validator& range ) {
      app.add_option_function<std::string>(
            std::string( "--" ) + name,
            [ &settings, name ]( const std::string& value ) { settings[ name ] = value; }, help )
         ->check( range );
   };
   const CLI::Validator seconds = numberWithin( 0, 1e9, false );
   const CLI::Validator records = numberWithin( 1, 1 << 30, true );
   number( "output-capacity",
           "records per output table at first (16384, those of flood sets 4096); tables that are "
           "there are brought to it, or stay as they are without it",
           records );
   number( "output-capacity-max", "records up to which an output table grows (16777216)", records );
   // One host must fit in: a slice that ends with each host, one of which fails, never gets
   // further.
   number( "review-quantum", "seconds that a review slice may take (0.05)",
           numberWithin( 0.0001, 1e9, false ) );
   number( "flood-review-quantum", "seconds that a flood slice may take (0.05)", seconds );
   number( "hammer-interval", "seconds between retries of what failed (10)",
           numberWithin( 0.001, 1e9, false ) );
   number( "source-hold", "seconds that a vanished source's hosts stay unexamined (30)", seconds );
   try {
      app.parse( argc, argv );
      for( const std::string& setting : traces )
         Vexil::traceSettingIs( setting );
      requireCapacities( settings );
   } catch( const CLI::CallForHelp& help ) {
      if( dlopen( library.c_str(), RTLD_NOW | RTLD_GLOBAL ) ) // its code has the handles
         app.footer( "Trace handles: " + inOneLine( Vexil::traceHandles() ) +
                     ", and those of plug-ins." );
      return app.exit( help );
   } catch( const CLI::ParseError& error ) {
      std::cerr << "l2ribd: " << error.what() << " (l2ribd --help says what there is)\n";
      return 2;
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
