// l2ribctl watch: each change of the output as it happens, after the present content.
//
// The rows of the flood output are single members; what is printed is the whole set that a member
// came to or left, once for all that are told together.
#include "tools/Show.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
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
      if( wanted( "flood" ) )
         output_.flood.follow( [ this ]( const FloodSetTriple& key, const FloodMember* member ) {
            noteMember( key, member );
         } );
      output_.inSyncIs( [ this ] {
         printFloodSets();
         print( context_.json ? text( { { "event", "inSync" } } ) : "(up to date)" );
      } );
   }

   void run() {
      Vexil::ActivityManager loop;
      for( const int signal : { SIGINT, SIGTERM } )
         loop.signalIs( signal, [ & ] { loop.stop(); } );
      loop.watch( output_.fd(), [ & ] {
         output_.process();
         printFloodSets();
         names_.reset();
         if( !std::cout.flush() )
            loop.stop(); // nobody listens any more
      } );
      loop.run();
   }

 private:
   bool wanted( const std::string& table ) const {
      return std::find( tables_.begin(), tables_.end(), table ) != tables_.end();
   }
   template<class Rows, class Convert>
   void follow( const std::string& table, Rows& rows, Convert convert ) {
      if( wanted( table ) )
         rows.follow( [ this, table, convert ]( const auto& key, const auto* row ) {
            printChange( table, toJson( key ), row ? convert( *row ) : Json() );
         } );
   }
   // The row as it is now; null when it has gone.
   void printChange( const std::string& table, const Json& key, const Json& value ) {
      const char* const event = value.is_null() ? "del" : "set";
      if( context_.json )
         print( text(
            { { "table", table }, { "event", event }, { "key", key }, { "value", value } } ) );
      else
         print( table + " " + event + " " + text( value.is_null() ? key : value ) );
   }

   void noteMember( const FloodSetTriple& key, const FloodMember* member ) {
      const Bridging::MacVlanPair set( key.mac(), key.vlan() );
      changedSets_.insert( set );
      FloodSetRow& row = floodSets_[ set ];
      if( member ) {
         row.type = member->floodSetType;
         row.dests.insert( key.dest() );
      } else {
         row.dests.erase( key.dest() );
      }
   }
   void printFloodSets() {
      for( const Bridging::MacVlanPair& key : std::exchange( changedSets_, {} ) ) {
         const auto set = floodSets_.find( key );
         Json value;
         if( set->second.dests.empty() ) {
            floodSets_.erase( set );
         } else {
            value = toJson( key );
            value.update( toJson( set->second ) );
         }
         printChange( "flood", toJson( key ), value );
      }
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
   std::map<Bridging::MacVlanPair, FloodSetRow> floodSets_; // as they have been told
   std::set<Bridging::MacVlanPair> changedSets_;            // and not been printed since
};

} // namespace

void addWatch( CLI::App& app, Context& context ) {
   const std::vector<std::string> all{ "hosts", "dests", "groups", "labels", "flood" };
   const auto tables = std::make_shared<std::vector<std::string>>();
   CLI::App* const command =
      app.add_subcommand( "watch", "each change of the output, until SIGINT" );
   command
      ->add_option( "TABLE", *tables, "hosts, dests, groups, labels, flood; all of them if none" )
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
