// l2ribctl show sources: who publishes.
#include "tools/Filter.h"
#include "tools/SourceTables.h"
#include "tools/Status.h"
#include "tools/TextTable.h"

#include <memory>

namespace Tools {

using namespace L2Rib;
using Client::OutputReader;

namespace {

// Why a source is not ready although it is initialized; null when there is nothing to say.
Json reasonOf( bool runs, bool known, const SourceEntryRecord& entry,
               const SourceStatusRecord& status ) {
   if( runs && !known && entry.initialized )
      return "the agent has not attached its entry";
   return !runs || status.reason.view().empty() ? Json() : Json( status.reason.str() );
}

} // namespace

Json sourceList( const Context& context ) {
   const bool runs = agentRuns( context );
   const SourceStatusTable statuses( context.fileOf( Path::sourceStatus ),
                                     SourceStatusTable::Mode::read );
   const auto published = context.sources().allSources();
   Json all = Json::array();
   const auto add = [ & ]( const std::string& name, const SourceEntryRecord& entry ) {
      SourceStatusRecord status;
      const bool known = statuses.get( SourceName::of( name ).value_or( SourceName() ), status );
      const SourceTables tables( context, entry );
      all.push_back( { { "name", name },
                       { "source", sourceStr( known ? status.source : entry.source ) },
                       { "initialized", entry.initialized != 0 },
                       { "ready", runs && known && status.ready != 0 },
                       { "running", context.sources().running( name ) },
                       { "hosts", countOf( tables.host ) },
                       { "dests", countOf( tables.dest ) },
                       { "groups", countOf( tables.lb ) },
                       { "labels", countOf( tables.label ) },
                       { "flood", countOf( tables.flood ) },
                       { "reason", reasonOf( runs, known, entry, status ) } } );
   };
   for( const auto& [ name, source ] : published )
      add( name, source.record );
   statuses.forEach( [ & ]( const SourceStatusRecord& status ) {
      if( !published.contains( status.name.str() ) )
         add( status.name.str(), SourceEntryRecord() );
   } );
   return all;
}

SourceState sourceState( const Json& source, bool agentRunning ) {
   const bool ready = source[ "ready" ].get<bool>();
   const std::string state = ready ? "ready" : agentRunning ? "not ready" : "-";
   std::vector<std::string> faults;
   if( source[ "reason" ].is_string() )
      faults.push_back( source[ "reason" ].get<std::string>() );
   else if( agentRunning && !source[ "initialized" ].get<bool>() && source[ "name" ] != "static" )
      faults.push_back( "it has not said that its tables are complete" );
   if( !source[ "running" ].get<bool>() && source[ "name" ] != "static" )
      faults.push_back( "its process has ended" );
   return { state, joined( faults, "; " ) };
}

namespace {

// The rows of the source of that name, which may have gone and be known to the agent alone, or of
// that value.
Json ofSource( const Json& sources, const std::string& wanted, const SourceNames& names ) {
   const auto only = [ & ]( const char* column, const std::string& value ) {
      Json found = Json::array();
      for( const Json& row : sources )
         if( row[ column ] == value )
            found.push_back( row );
      return found;
   };
   const Json named = only( "name", wanted );
   return named.empty() ? only( "source", sourceStr( names.valueOf( wanted ) ) ) : named;
}

int showSources( const Context& context, const std::string& wanted ) {
   const OutputReader output( context.stateDirectory );
   requireOutput( output, context );
   Json sources = sourceList( context );
   if( !wanted.empty() )
      sources = ofSource( sources, wanted, SourceNames( context ) );
   if( context.json ) {
      std::cout << text( sources ) << '\n';
      return done;
   }
   std::vector<std::vector<std::string>> lines;
   for( const Json& source : sources ) {
      const auto [ state, fault ] = sourceState( source, agentRuns( context ) );
      lines.push_back(
         { source[ "name" ].get<std::string>(), source[ "source" ].get<std::string>(), state } );
      for( const char* table : { "hosts", "dests", "groups", "labels", "flood" } )
         lines.back().push_back( source[ table ] == 0 ? "" : text( source[ table ] ) );
      lines.back().push_back( fault );
   }
   printLines( { { "SOURCE" },
                 { "VALUE" },
                 { "STATE" },
                 { "HOSTS", Heading::right },
                 { "DESTS", Heading::right },
                 { "GROUPS", Heading::right },
                 { "LABELS", Heading::right },
                 { "FLOOD", Heading::right },
                 { "" } },
               std::move( lines ) );
   return done;
}

} // namespace

void addShowSources( CLI::App& showing, Context& context ) {
   const auto wanted = std::make_shared<std::string>();
   CLI::App* const command =
      showing.add_subcommand( "sources", "the sources, as the agent sees them" );
   addJsonFlag( *command, context );
   command->add_option( "--source", *wanted, "only the source of this name" )
      ->check( []( const std::string& name ) {
         return name.empty() ? std::string( "expected a name" ) : std::string();
      } );
   command->callback( [ &context, wanted ] {
      context.command = [ &context, wanted ] { return showSources( context, *wanted ); };
   } );
}

} // namespace Tools
