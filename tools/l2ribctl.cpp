// l2ribctl: publishes sources, shows and explains the output of the agent, and checks it.
#include "tools/Commands.h"
#include "tools/Json.h"

#include <cstdlib>
#include <exception>
#include <iostream>

namespace Tools {

void complain( const std::string& text ) { std::cerr << "l2ribctl: " << text << std::endl; }

std::string checkMac( const std::string& text ) {
   return Vexil::EthAddr::parse( text ) ? "" : text + "; right would be such as 02:00:00:00:00:01";
}

void addJsonFlag( CLI::App& command, Context& context ) {
   command.add_flag( "--json", context.json, "print JSON instead of a table" );
}

} // namespace Tools

int main( int argc, char** argv ) {
   Tools::Context context;
   const char* const environment = std::getenv( "L2RIB_STATE_DIR" );
   context.stateDirectory = environment ? environment : "/run/l2rib";

   CLI::App app( "Works with the layer-2 RIB agent: its sources, its output, its state.",
                 "l2ribctl" );
   app.require_subcommand( 1 );
   app.fallthrough(); // --state-dir may also stand behind the command
   app.add_option( "--state-dir", context.stateDirectory, "where the tables are" )
      ->capture_default_str();
   Tools::addSourceCommands( app, context );
   Tools::addShow( app, context );
   Tools::addWatch( app, context );
   Tools::addExplain( app, context );
   Tools::addCheck( app, context );
   Tools::addGraph( app, context );
   Tools::addSettle( app, context );
   Tools::addMetrics( app, context );
   Tools::addConfigCommands( app, context );
   try {
      app.parse( argc, argv );
   } catch( const CLI::CallForHelp& help ) {
      return app.exit( help );
   } catch( const CLI::ParseError& error ) {
      Tools::complain( std::string( error.what() ) + " (l2ribctl --help says what there is)" );
      return Tools::badUsage;
   }
   try {
      return context.command();
   } catch( const Tools::BadInput& wrong ) {
      Tools::complain( wrong.what() );
      return Tools::badUsage;
   } catch( const std::exception& failure ) {
      Tools::complain( failure.what() );
      return Tools::answerIsNo;
   }
}
