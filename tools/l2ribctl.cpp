// l2ribctl: publishes sources, shows and explains the output of the agent, and checks it.
#include "tools/Commands.h"
#include "tools/Json.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <grp.h>
#include <iostream>
#include <sys/stat.h>
#include <unistd.h>

namespace Tools {

namespace {

// A stream that the caller has closed gets a descriptor on which it fails: else a table that is
// opened later would take its number, and be read as input or written to as output.
void occupyStandardStreams() {
   for( const int fd : { STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO } )
      if( fcntl( fd, F_GETFD ) < 0 && // then it is the lowest number that is free
          open( "/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY ) != fd )
         std::abort();
}

// "show hosts: "
std::string commandName( const CLI::App& app ) {
   const auto chosen = app.get_subcommands();
   return chosen.empty()
             ? ""
             : chosen[ 0 ]->get_name() + ( chosen[ 0 ]->get_subcommands().empty() ? ": " : " " ) +
                  commandName( *chosen[ 0 ] );
}

// A directory that this user may not look into would read as an empty one.
void requireAccess( const std::string& directory ) {
   struct stat status {};
   if( access( directory.c_str(), R_OK | X_OK ) == 0 || errno != EACCES )
      return; // whether it must be there is the command's own question
   std::string who;
   if( stat( directory.c_str(), &status ) == 0 && ( status.st_mode & S_IRGRP ) ) {
      const group* const entry = getgrgid( status.st_gid );
      who = std::string( "; members of the group " ) +
            ( entry ? entry->gr_name : std::to_string( status.st_gid ) ) + " may";
   }
   throw std::runtime_error( directory + ": you may not read it" + who );
}

// An answer that did not arrive is none: whoever put it into a file must not rely on that.
int delivered( int status ) {
   errno = 0;
   if( std::cout.flush() )
      return status;
   complain( std::string( "standard output can't be written" ) +
             ( errno ? std::string( ": " ) + std::strerror( errno ) : "" ) );
   return answerIsNo;
}

} // namespace

} // namespace Tools

int main( int argc, char** argv ) {
   Tools::occupyStandardStreams();
   Tools::Context context;
   const char* const environment = std::getenv( "L2RIB_STATE_DIR" );
   context.stateDirectory = environment ? environment : "/run/l2rib";

   CLI::App app( "Works with the layer-2 RIB agent: its sources, its output, its state.",
                 "l2ribctl" );
   app.require_subcommand( 1 );
   app.fallthrough(); // --state-dir may also stand behind the command
   app.set_version_flag( "--version", std::string( "l2ribctl " ) + L2RIB_VERSION );
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
   Tools::addWeb( app, context );
   Tools::addConfigCommands( app, context );
   try {
      app.parse( argc, argv );
   } catch( const CLI::Success& answer ) { // --help, --version
      return app.exit( answer );
   } catch( const CLI::ExtrasError& ) {
      std::string words;
      for( const std::string& word : app.remaining( true ) )
         words += " " + word;
      Tools::complain( "unexpected argument:" + words + " (l2ribctl --help says what there is)" );
      return Tools::badUsage;
   } catch( const CLI::RequiredError& error ) {
      // What was given in place of it says more than what is missing.
      std::string unknown;
      for( const std::string& word : app.remaining( true ) )
         unknown += ( unknown.empty() ? "; not understood: " : " " ) + word;
      Tools::complain( error.what() + unknown + " (l2ribctl --help says what there is)" );
      return Tools::badUsage;
   } catch( const CLI::ParseError& error ) {
      Tools::complain( std::string( error.what() ) + " (l2ribctl --help says what there is)" );
      return Tools::badUsage;
   }
   try {
      Tools::requireAccess( context.stateDirectory );
      return Tools::delivered( context.command() );
   } catch( const Tools::BadInput& wrong ) {
      Tools::complain( Tools::commandName( app ) + wrong.what() );
      return Tools::badUsage;
   } catch( const std::exception& failure ) {
      Tools::complain( failure.what() );
      return Tools::answerIsNo;
   }
}
