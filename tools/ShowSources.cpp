// l2ribctl show sources, show status: who publishes, and how the agent is.
#include "L2Rib/RestartState.h"
#include "tools/Filter.h"
#include "tools/Parked.h"
#include "tools/SourceTables.h"
#include "tools/TextTable.h"

#include <ctime>
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

// The sources as the agent sees them, those inside the agent too, beside what is published. None is
// ready for an agent that does not run.
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

// "ready", and what is not as it should be.
std::pair<std::string, std::string> stateOf( const Json& source, bool agentRunning ) {
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
      const auto [ state, fault ] = stateOf( source, agentRuns( context ) );
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

// --- status

Json statusJson( const Context& context, const OutputReader& output ) {
   const AgentStatusRecord status = agentStatus( context );
   const PolicySmStatusTable idTable( context.fileOf( Path::policySmStatus ),
                                      PolicySmStatusTable::Mode::read );
   const PolicySmStatusRecord ids = idTable.get( SingleKey() );
   const bool runs = agentRuns( context );
   const auto state = static_cast<PolicySmRestartState>( status.restartState );
   return { { "agent", runs ? "running" : "stopped" },
            { "since", runs ? status.since.value() : status.lastSign.value() },
            { "restartState", state <= running_ ? restartStateStr( state ) : "unknown" },
            { "restartEntriesLeft", status.restartEntriesLeft.value() },
            { "restartDuration", status.restartDuration.value() },
            { "processId", status.processId },
            { "sources", status.sources },
            { "hosts", output.hosts.table()->count() },
            { "dests", output.dests.table()->count() },
            { "groups", output.groups.table()->count() },
            { "labels", output.labels.table()->count() },
            { "flood", output.flood.table()->count() },
            { "hostCapacity", output.hosts.table()->capacity() },
            { "hostList", status.hostList.value() },
            { "otasList", status.otasList.value() },
            { "failedHost", status.failedHost.value() },
            { "failedOtas", status.failedOtas.value() },
            { "failedFlood", status.failedFlood.value() },
            { "floodSetBacklog", status.floodSetBacklog.value() },
            { "withdrawalChecks", status.withdrawalChecks.value() },
            { "longestHold", status.longestHold.value() },
            { "maxDestId", ids.maxDestId.value() },
            { "maxLbId", ids.maxLbId.value() },
            { "maxLabelId", ids.maxLabelId.value() } };
}

// The entries that are not zero: "5 hosts, 2 dests".
std::string countsText( const Json& status,
                        std::initializer_list<std::pair<const char*, const char*>> entries ) {
   std::vector<std::string> parts;
   for( const auto& [ key, what ] : entries )
      if( const uint64_t count = status[ key ].get<uint64_t>(); count != 0 )
         parts.push_back( countText( count, what ) );
   return joined( parts, ", " );
}

std::string agentText( const Json& status ) {
   const bool runs = status[ "agent" ] == "running";
   std::string line = status[ "agent" ].get<std::string>() + " since " +
                      timeText( status[ "since" ].get<double>() );
   if( !runs )
      return line;
   line += " (PID " + text( status[ "processId" ] ) + ")";
   const double restart = status[ "restartDuration" ].get<double>();
   if( status[ "restartState" ] != "running" )
      return line + ", restart under way: " + status[ "restartState" ].get<std::string>() + ", " +
             countText( status[ "restartEntriesLeft" ].get<uint64_t>(), "row" ) + " left";
   char took[ 32 ];
   std::snprintf( took, sizeof took, "%.1f ms", restart * 1e3 );
   return line + ", restart took " + took;
}

void printStatus( const Context& context, const Json& status ) {
   const auto orNothing = []( const std::string& text, const char* nothing ) {
      return text.empty() ? nothing : text;
   };
   const std::string output = countsText( status, { { "hosts", "host" },
                                                    { "dests", "dest" },
                                                    { "groups", "group" },
                                                    { "labels", "label" },
                                                    { "flood", "flood member" } } );
   const std::string queued = countsText( status, { { "hostList", "host" },
                                                    { "otasList", "object" },
                                                    { "floodSetBacklog", "flood member" },
                                                    { "withdrawalChecks", "row" } } );
   const std::string parked = countsText(
      status,
      { { "failedHost", "host" }, { "failedOtas", "object" }, { "failedFlood", "flood member" } } );
   char hold[ 32 ];
   std::snprintf( hold, sizeof hold, "%.1f ms", status[ "longestHold" ].get<double>() * 1e3 );
   size_t ready = 0, all = 0;
   for( const Json& source : sourceList( context ) ) {
      ++all;
      ready += source[ "ready" ].get<bool>();
   }
   printColumns(
      { { "agent", agentText( status ) },
        { "output", std::string( orNothing( output, "empty" ) ) + "; room for " +
                       text( status[ "hostCapacity" ] ) + " hosts before it grows" },
        { "work", ( queued.empty() ? "nothing queued" : queued + " queued" ) +
                     ( parked.empty() ? std::string() : "; " + parked + " parked" ) +
                     "; longest hold of the loop " + hold },
        { "sources", std::to_string( all ) + ": " + std::to_string( ready ) + " ready" } } );
}

int showStatus( const Context& context ) {
   const OutputReader output( context.stateDirectory );
   requireOutput( output, context );
   const Json status = statusJson( context, output );
   if( context.json )
      std::cout << text( status ) << '\n';
   else
      printStatus( context, status );
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

void addShowStatus( CLI::App& showing, Context& context ) {
   CLI::App* const command =
      showing.add_subcommand( "status", "the agent's status and its work queues" );
   addJsonFlag( *command, context );
   command->callback(
      [ &context ] { context.command = [ &context ] { return showStatus( context ); }; } );
}

} // namespace Tools
