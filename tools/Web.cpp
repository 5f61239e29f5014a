// l2ribctl web: starts l2ribctl-web in its own place.
#include "tools/Show.h"
#include "tools/WebPlace.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <unistd.h>

namespace Tools {

namespace {

// Beside this program as it is built, or where it is installed. Returns only when it can't be had.
int becomeServer( const Context& context, const char* how, const std::string& where ) {
   std::error_code none;
   const auto folder = std::filesystem::read_symlink( "/proc/self/exe", none ).parent_path();
   for( const char* const path : { "l2ribctl-web", "../lib/l2rib/l2ribctl-web" } ) {
      const std::string program = folder / path;
      execl( program.c_str(), program.c_str(), context.stateDirectory.c_str(), how, where.c_str(),
             nullptr );
      if( errno != ENOENT )
         throw std::runtime_error( program + ": " + std::strerror( errno ) );
   }
   throw std::runtime_error( "l2ribctl-web is not installed: the package l2rib-web has it" );
}

} // namespace

void addWeb( CLI::App& app, Context& context ) {
   struct Given {
      std::string listen = "127.0.0.1:" + std::to_string( webPort );
      std::string socket;
   };
   const auto given = std::make_shared<Given>();
   CLI::App* const command =
      app.add_subcommand( "web", "a page for a browser on this machine: sources, hosts, changes" );
   CLI::Option* const listen =
      command->add_option( "--listen", given->listen, "ADDRESS:PORT, of loopback; port 0: any" )
         ->capture_default_str();
   command->add_option( "--socket", given->socket, "a Unix socket in place of an address" )
      ->excludes( listen );
   command->footer(
      "Whoever can connect may read all: on an address every user of this machine, on "
      "a socket its\nowner and group. From elsewhere: ssh -L 8179:localhost:8179 "
      "SWITCH.\nExample: l2ribctl web" );
   command->callback( [ &context, given ] {
      context.command = [ &context, given ] {
         if( given->socket.empty() )
            placeFor( given->listen ); // or what is wrong with it
         const L2Rib::Client::OutputReader thereIsOne( context.stateDirectory ); // or an error now
         mentionStoppedAgent( context );
         return becomeServer( context, given->socket.empty() ? "--listen" : "--socket",
                              given->socket.empty() ? given->listen : given->socket );
      };
   } );
}

} // namespace Tools
