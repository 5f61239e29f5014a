// l2ribctl show status: how the agent is.
#include "tools/Status.h"

#include "L2Rib/RestartState.h"
#include "tools/TextTable.h"

namespace Tools {

using namespace L2Rib;
using Client::OutputReader;

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

namespace {

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

} // namespace

std::vector<std::vector<std::string>> statusLines( const Json& status, const Json& sources ) {
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
   size_t ready = 0;
   for( const Json& source : sources )
      ready += source[ "ready" ].get<bool>();
   return {
      { "agent", agentText( status ) },
      { "output", std::string( orNothing( output, "empty" ) ) + "; room for " +
                     text( status[ "hostCapacity" ] ) + " hosts before it grows" },
      { "work", ( queued.empty() ? "nothing queued" : queued + " queued" ) +
                   ( parked.empty() ? std::string() : "; " + parked + " parked" ) +
                   "; longest hold of the loop " + hold },
      { "sources", std::to_string( sources.size() ) + ": " + std::to_string( ready ) + " ready" } };
}

namespace {

int showStatus( const Context& context ) {
   const OutputReader output( context.stateDirectory );
   requireOutput( output, context );
   const Json status = statusJson( context, output );
   if( context.json )
      std::cout << text( status ) << '\n';
   else
      printColumns( statusLines( status, sourceList( context ) ) );
   return done;
}

} // namespace

void addShowStatus( CLI::App& showing, Context& context ) {
   CLI::App* const command =
      showing.add_subcommand( "status", "the agent's status and its work queues" );
   addJsonFlag( *command, context );
   command->callback(
      [ &context ] { context.command = [ &context ] { return showStatus( context ); }; } );
}

} // namespace Tools
