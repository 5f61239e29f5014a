// l2ribctl watch: each change of the output as it happens, after the present content.
#include "tools/Show.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <memory>
#include <optional>
#include <vector>

namespace Tools {

using namespace L2Rib;
using Client::OutputReader;

namespace {

class Watch {
 public:
   Watch( const Context& context, std::vector<std::string> tables )
      : context_( context ), tables_( std::move( tables ) ), output_( context.stateDirectory ) {
      follow( "hosts", output_.hosts,
              [ this ]( const HostAndSource& row ) { return toJson( row, names() ); } );
      const auto plain = []( const auto& row ) { return toJson( row ); };
      follow( "dests", output_.dests, plain );
      follow( "groups", output_.groups, plain );
      follow( "labels", output_.labels, plain );
      output_.inSyncIs( [ this ] {
         print( context_.json ? text( { { "event", "inSync" } } ) : "(up to date)" );
      } );
   }

   void run() {
      Vexil::ActivityManager loop;
      for( const int signal : { SIGINT, SIGTERM } )
         loop.signalIs( signal, [ & ] { loop.stop(); } );
      loop.watch( output_.fd(), [ & ] {
         output_.process();
         names_.reset();
         if( !std::cout.flush() )
            loop.stop(); // nobody listens any more
      } );
      loop.run();
   }

 private:
   template<class Rows, class Convert>
   void follow( const std::string& table, Rows& rows, Convert convert ) {
      if( std::find( tables_.begin(), tables_.end(), table ) == tables_.end() )
         return;
      rows.follow( [ this, table, convert ]( const auto& key, const auto* row ) {
         const char* const event = row ? "set" : "del";
         const Json value = row ? convert( *row ) : Json();
         if( context_.json )
            print( text( { { "table", table },
                           { "event", event },
                           { "key", toJson( key ) },
                           { "value", value } } ) );
         else
            print( table + " " + event + " " + text( row ? value : toJson( key ) ) );
      } );
   }

   // Looked up at most once a batch of changes.
   const SourceNames& names() {
      if( !names_ )
         names_.emplace( context_ );
      return *names_;
   }
   static void print( const std::string& line ) { std::cout << line << '\n'; }

   const Context& context_;
   std::vector<std::string> tables_;
   OutputReader output_;
   std::optional<SourceNames> names_;
};

} // namespace

void addWatch( CLI::App& app, Context& context ) {
   const std::vector<std::string> all{ "hosts", "dests", "groups", "labels" };
   const auto tables = std::make_shared<std::vector<std::string>>();
   CLI::App* const command =
      app.add_subcommand( "watch", "each change of the output, until SIGINT" );
   command->add_option( "TABLE", *tables, "hosts, dests, groups, labels; all of them if none" )
      ->check( CLI::IsMember( all ) );
   command->add_flag( "--json", context.json, "print one JSON object a line" );
   command->callback( [ &context, tables, all ] {
      context.command = [ &context, tables, all ] {
         Watch( context, tables->empty() ? all : *tables ).run();
         return done;
      };
   } );
}

} // namespace Tools
