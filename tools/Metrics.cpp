// l2ribctl metrics: counters and gauges in the Prometheus text format, read from the tables,
// whether an agent runs or not.
//
// No address and no VLAN is ever a label: there may be a million of them. What a counter counts
// starts anew with each agent, as Prometheus expects it of a process.
#include "L2Rib/RestartState.h"
#include "L2Rib/Status.h"
#include "tools/Bridge.h"
#include "tools/Evpn.h"
#include "tools/Parked.h"
#include "tools/SourceTables.h"

#include <array>
#include <initializer_list>
#include <iostream>
#include <sstream>
#include <utility>

namespace Tools {

using namespace L2Rib;
using Client::OutputReader;

namespace {

using Labels = std::initializer_list<std::pair<const char*, std::string>>;

// Within a quoted label value. Names are somebody else's bytes: what is no UTF-8 is replaced.
std::string quoted( const std::string& value ) {
   const Json readable = Json::parse( text( Json( value ) ) );
   std::string out;
   for( const char c : readable.get<std::string>() )
      switch( c ) {
      case '\\':
         out += "\\\\";
         break;
      case '"':
         out += "\\\"";
         break;
      case '\n':
         out += "\\n";
         break;
      default:
         out += c;
      }
   return '"' + out + '"';
}

class Exposition {
 public:
   Exposition() { out_.precision( 17 ); }

   // The samples that follow belong to this metric.
   Exposition& metric( const char* name, const char* type, const char* help ) {
      name_ = name;
      out_ << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
      return *this;
   }
   template<class Value>
   Exposition& sample( Value value, Labels labels = {} ) {
      out_ << name_;
      const char* separator = "{";
      for( const auto& [ label, text ] : labels ) {
         out_ << separator << label << '=' << quoted( text );
         separator = ",";
      }
      out_ << ( labels.size() ? "} " : " " ) << value << '\n';
      return *this;
   }
   std::string text() const { return out_.str(); }

 private:
   std::ostringstream out_;
   const char* name_ = "";
};

struct NamedTable {
   const char* name;
   Vexil::Ptr<Vexil::TableBase> table; // may be null
};

void agentMetrics( Exposition& out, const AgentStatusRecord& status, bool runs ) {
   out.metric( "l2rib_agent_up", "gauge", "Whether an agent runs on these tables." )
      .sample( runs ? 1 : 0 );
   out.metric( "l2rib_agent_start_time_seconds", "gauge",
               "When the agent that runs, or ran last, started, in seconds since 1970." )
      .sample( status.since.value() );
   out.metric( "l2rib_restart_state", "gauge", "1 for the restart state that the agent is in." );
   for( uint32_t state = init_; state <= running_; ++state )
      out.sample( runs && state == status.restartState ? 1 : 0,
                  { { "state", restartStateStr( static_cast<PolicySmRestartState>( state ) ) } } );
   out.metric( "l2rib_restart_duration_seconds", "gauge",
               "How long the restart has taken, until now or in all." )
      .sample( status.restartDuration.value() );
   out.metric( "l2rib_restart_entries_left", "gauge",
               "Entries that the present restart state has still to look at." )
      .sample( status.restartEntriesLeft.value() );
   out.metric( "l2rib_loop_hold_max_seconds", "gauge",
               "The longest time that the event loop was held by one turn." )
      .sample( status.longestHold.value() );
   out.metric( "l2rib_journal_overruns_total", "counter",
               "How often a source's table was read so late that all of it had to be read again." )
      .sample( status.journalOverruns.value() );
}

void workMetrics( Exposition& out, const AgentStatusRecord& status ) {
   out.metric( "l2rib_list_entries", "gauge", "Entries on the work lists." )
      .sample( status.hostList.value(), { { "list", "hostList" } } )
      .sample( status.otasList.value(), { { "list", "otasList" } } )
      .sample( status.floodSetBacklog.value(), { { "list", "floodSetBacklog" } } )
      .sample( status.withdrawalChecks.value(), { { "list", "withdrawalChecks" } } );
   out.metric( "l2rib_failures_parked", "gauge", "Entries that can't be programmed at present." )
      .sample( status.failedHost.value(), { { "list", "failedHost" } } )
      .sample( status.failedOtas.value(), { { "list", "failedOtas" } } )
      .sample( status.failedFlood.value(), { { "list", "failedFlood" } } );
   out.metric( "l2rib_parked", "gauge", "Entries that can't be programmed at present, by reason." );
   for( uint32_t reason = parkedNone_ + 1; reason < parkedReasons; ++reason )
      out.sample( status.parked[ reason ].value(),
                  { { "reason", reasonName( static_cast<ParkedReason>( reason ) ) } } );
   const double since = status.failingSince.value();
   out.metric( "l2rib_failure_oldest_age_seconds", "gauge",
               "For how long the oldest of them has been failing, retries included; 0 if none." )
      .sample( since > 0 ? std::max( 0.0, Vexil::SystemClock().now() - since ) : 0 );
   out.metric( "l2rib_retries_total", "counter", "Parked entries that were tried again." )
      .sample( status.retries.value() );
   out.metric( "l2rib_users", "gauge",
               "Relations between a host or object of the output and the object that it uses." )
      .sample( status.users.value() );
}

void outputMetrics( Exposition& out, const Context& context, const OutputReader& output ) {
   const SourceNames names( context );
   std::map<Source, std::array<uint64_t, 2>> hosts; // inline, object
   output.hosts.table()->forEach( [ & ]( const HostAndSource& row ) {
      ++hosts[ row.source() ][ row.host().next() == Util::objTupleInvalid() ? 0 : 1 ];
   } );
   out.metric( "l2rib_hosts", "gauge", "Hosts of the output, by the source that won them." );
   for( const auto& [ source, counts ] : hosts ) {
      const Json name = names.of( source );
      const std::string label = name.is_null() ? sourceStr( source ) : name.get<std::string>();
      out.sample( counts[ 0 ], { { "source", label }, { "kind", "inline" } } )
         .sample( counts[ 1 ], { { "source", label }, { "kind", "object" } } );
   }
   out.metric( "l2rib_objects", "gauge", "Forwarding objects of the output." )
      .sample( output.dests.table()->count(), { { "type", "dest" } } )
      .sample( output.groups.table()->count(), { { "type", "group" } } )
      .sample( output.labels.table()->count(), { { "type", "label" } } );
   const NamedTable tables[] = {
      { "hostOutput", output.hosts.table() },
      { "lbOutput", output.groups.table() },
      { "labelOutput", output.labels.table() },
      { "destOutput", output.dests.table() },
      { "floodOutput", readable<FloodMemberTable>( context.fileOf( Path::floodOutput ) ) } };
   out.metric( "l2rib_table_entries", "gauge", "Records in an output table." );
   for( const NamedTable& table : tables )
      if( table.table )
         out.sample( table.table->count(), { { "table", table.name } } );
   out.metric( "l2rib_table_capacity_entries", "gauge",
               "Records that an output table has room for." );
   for( const NamedTable& table : tables )
      if( table.table )
         out.sample( table.table->capacity(), { { "table", table.name } } );
}

// The sources as the agent sees them, and the tables of those that are published.
void sourceMetrics( Exposition& out, const Context& context, const AgentStatusRecord& status ) {
   out.metric( "l2rib_sources", "gauge", "Sources that the agent knows." ).sample( status.sources );
   out.metric( "l2rib_source_ready", "gauge", "Whether a source takes part in the selection." );
   const bool runs = agentRuns( context );
   const SourceStatusTable statuses( context.fileOf( Path::sourceStatus ),
                                     SourceStatusTable::Mode::read );
   statuses.forEach( [ & ]( const SourceStatusRecord& source ) {
      out.sample( runs && source.ready ? 1 : 0, { { "source", source.name.str() } } );
   } );
   out.metric( "l2rib_source_running", "gauge", "Whether a process runs the source." );
   for( const auto& [ name, source ] : context.sources().allSources() )
      out.sample( context.sources().running( name ) ? 1 : 0, { { "source", name } } );
   out.metric( "l2rib_source_corruptions_total", "counter",
               "How often the agent read what no honest writer leaves in a source's tables." );
   statuses.forEach( [ & ]( const SourceStatusRecord& source ) {
      out.sample( source.corruptions.value(), { { "source", source.name.str() } } );
   } );
   std::vector<std::pair<std::string, NamedTable>> tables;
   for( const auto& [ name, source ] : context.sources().allSources() ) {
      const SourceTables found( context, source.record );
      for( const NamedTable& table : { NamedTable{ "host", found.host },
                                       { "lb", found.lb },
                                       { "label", found.label },
                                       { "dest", found.dest },
                                       { "flood", found.flood } } )
         if( table.table )
            tables.emplace_back( name, table );
   }
   out.metric( "l2rib_source_table_entries", "gauge", "Records in an input table of a source." );
   for( const auto& [ source, table ] : tables )
      out.sample( table.table->count(), { { "source", source }, { "table", table.name } } );
   out.metric( "l2rib_source_table_capacity_entries", "gauge",
               "Records that an input table of a source has room for." );
   for( const auto& [ source, table ] : tables )
      out.sample( table.table->capacity(), { { "source", source }, { "table", table.name } } );
}

// Of l2rib-bridge; none where it never ran.
void bridgeMetrics( Exposition& out, const Context& context ) {
   const std::optional<BridgeProgram> program = bridgeProgram( context );
   if( !program )
      return;
   const BridgeProgramRecord& record = program->record;
   out.metric( "l2rib_bridge_up", "gauge", "Whether l2rib-bridge runs on these tables." )
      .sample( program->runs ? 1 : 0 );
   out.metric( "l2rib_bridge_in_sync", "gauge",
               "1 once it has written what differed, 2 once it has compared with a whole dump." )
      .sample( record.inSync );
   out.metric( "l2rib_bridge_kernel_writes_total", "counter", "Changes asked of the kernel." )
      .sample( record.writes.value() );
   out.metric( "l2rib_bridge_audits_total", "counter", "Comparisons with a whole dump." )
      .sample( record.audits.value() );
   out.metric( "l2rib_bridge_notifications_lost_total", "counter",
               "Times that notifications of the kernel were lost." )
      .sample( record.lost.value() );
   out.metric( "l2rib_bridge_nexthops_repaired_total", "counter",
               "Nexthops that were written again because they had gone or changed." )
      .sample( record.nexthopsRepaired.value() );
   const std::vector<BridgeRecord> rows = bridgeRecords( context );
   const auto each = [ & ]( const char* name, const char* type, const char* help, auto field ) {
      out.metric( name, type, help );
      for( const BridgeRecord& row : rows )
         out.sample( ( row.*field ).value(), { { "bridge", row.bridge.str() } } );
   };
   each( "l2rib_bridge_wanted_entries", "gauge", "Hosts and flood members to be programmed.",
         &BridgeRecord::wanted );
   each( "l2rib_bridge_programmed_entries", "gauge", "Those that the kernel has.",
         &BridgeRecord::programmed );
   each( "l2rib_bridge_refused_entries", "gauge", "Those that it can't have at present.",
         &BridgeRecord::refused );
   each( "l2rib_bridge_learned_hosts", "gauge", "Hosts that the bridge has learned.",
         &BridgeRecord::learned );
   each( "l2rib_bridge_repaired_total", "counter",
         "Entries that were written again because they had gone or changed.",
         &BridgeRecord::repaired );
}

// Of l2rib-evpn; none where it never ran.
void evpnMetrics( Exposition& out, const Context& context ) {
   const std::optional<EvpnProgram> program = evpnProgram( context );
   if( !program )
      return;
   const EvpnProgramRecord& record = program->record;
   out.metric( "l2rib_evpn_up", "gauge", "Whether l2rib-evpn runs on these tables." )
      .sample( program->runs ? 1 : 0 );
   out.metric( "l2rib_evpn_in_sync", "gauge",
               "Whether it has all that the BGP speaker and its peers tell." )
      .sample( program->runs && record.phase == evpnComplete_ ? 1 : 0 );
   out.metric( "l2rib_evpn_routes", "gauge", "Routes that are taken, by their type." );
   for( size_t type = 1; type < record.taken.size(); ++type )
      out.sample( record.taken[ type ].value(), { { "type", std::to_string( type ) } } );
   out.metric( "l2rib_evpn_stale_routes", "gauge",
               "Those of them that the speaker has not told again since it was lost." )
      .sample( record.stale.value() );
   out.metric( "l2rib_evpn_announced_routes", "gauge", "Routes that the speaker has from here." );
   for( size_t type = 2; type < record.announced.size(); ++type )
      out.sample( record.announced[ type ].value(), { { "type", std::to_string( type ) } } );
   out.metric( "l2rib_evpn_unannounced_routes", "gauge",
               "Announcements and withdrawals that the speaker has not taken yet." )
      .sample( record.toAnnounce.value() );
   out.metric( "l2rib_evpn_not_taken_total", "counter",
               "Routes that were told and not taken, by reason." );
   for( size_t reason = 1; reason < evpnReasons; ++reason )
      out.sample( record.notTaken[ reason ].value(),
                  { { "reason", evpnReasonNames[ reason ].label } } );
   out.metric( "l2rib_evpn_unresolved_hosts", "gauge", "Hosts on segments that no PE announces." )
      .sample( record.unresolved.value() );
   out.metric( "l2rib_evpn_refused_entries", "gauge",
               "Hosts, groups and flood members for which the source's tables have no room." )
      .sample( record.refused.value() );
   out.metric( "l2rib_evpn_writes_total", "counter", "Routes written to the speaker." )
      .sample( record.writes.value() );
   out.metric( "l2rib_evpn_writes_refused_total", "counter", "Routes that it refused." )
      .sample( record.writesRefused.value() );
   out.metric( "l2rib_evpn_sessions_total", "counter", "Sessions with the speaker." )
      .sample( record.sessions.value() );
   out.metric( "l2rib_evpn_peer_up", "gauge", "Whether a peer's session is established." );
   for( const EvpnPeerRecord& peer : evpnPeers( context ) )
      out.sample( peer.established, { { "peer", peer.address.str() } } );
}

int printMetrics( const Context& context ) {
   const OutputReader output( context.stateDirectory );
   requireOutput( output, context );
   const std::string statusFile = context.fileOf( Path::agentStatus );
   const AgentStatusRecord status =
      AgentStatusTable( statusFile, AgentStatusTable::Mode::read ).get( SingleKey() );
   Exposition out;
   agentMetrics( out, status, Vexil::tableHasWriter( statusFile ) );
   workMetrics( out, status );
   sourceMetrics( out, context, status );
   outputMetrics( out, context, output );
   bridgeMetrics( out, context );
   evpnMetrics( out, context );
   std::cout << out.text();
   return done;
}

} // namespace

void addMetrics( CLI::App& app, Context& context ) {
   app.add_subcommand( "metrics", "counters and gauges in the Prometheus text format" )
      ->callback(
         [ &context ] { context.command = [ &context ] { return printMetrics( context ); }; } );
}

} // namespace Tools
