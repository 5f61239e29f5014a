// l2ribctl show: the output tables, the sources and the agent's status.
#include "tools/Show.h"

#include "L2Rib/Status.h"
#include "engine/RestartState.h"
#include "tools/SourceTables.h"
#include "tools/TextTable.h"

#include <algorithm>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <optional>

namespace Tools {

using namespace L2Rib;
using Client::OutputReader;

// --- what other commands use too

SourceNames::SourceNames( const Context& context ) : names_{ { sourceStatic_, "static" } } {
   for( const auto& [ name, source ] : context.sources().allSources() )
      if( source.readable )
         names_[ source.record.source ] = name;
}

Json SourceNames::of( Source source ) const {
   const auto found = names_.find( source );
   return found == names_.end() ? Json() : Json( found->second );
}

Source SourceNames::valueOf( const std::string& name ) const {
   for( const auto& [ source, known ] : names_ )
      if( known == name )
         return source;
   if( name.starts_with( "0x" ) ) {
      const uint64_t value = numberOf( Json( name ), "--source" );
      if( value > UINT32_MAX )
         throw BadInput( "--source " + name + " has more than the 32 bits of a source's value" );
      return static_cast<Source>( value );
   }
   throw std::runtime_error( "no source named " + name +
                             "; 'l2ribctl source list' shows those that there are" );
}

Json toJson( const HostAndSource& row, const SourceNames& names ) {
   Json json = toJson( row.key() );
   json[ "source" ] = sourceStr( row.source() );
   json[ "sourceName" ] = names.of( row.source() );
   json.update( toJson( row.host() ) );
   return json;
}

void requireOutput( const OutputReader& output, const Context& context ) {
   if( !output.complete() )
      throw Vexil::TableError( Vexil::TableError::absent,
                               context.stateDirectory +
                                  ": no agent has run here: start l2ribd, or say which "
                                  "--state-dir it runs on" );
}

namespace {

AgentStatusRecord agentStatus( const Context& context ) {
   const AgentStatusTable table( context.fileOf( Path::agentStatus ),
                                 AgentStatusTable::Mode::read );
   return table.get( SingleKey() );
}

bool agentRuns( const Context& context ) {
   return Vexil::tableHasWriter( context.fileOf( Path::agentStatus ) );
}

} // namespace

std::string timeText( double seconds ) {
   const auto whole = static_cast<time_t>( seconds );
   tm parts{};
   char buffer[ 32 ];
   if( !localtime_r( &whole, &parts ) )
      return "unknown";
   return std::string( buffer, strftime( buffer, sizeof buffer, "%F %T", &parts ) );
}

void mentionStoppedAgent( const Context& context ) {
   if( !agentRuns( context ) )
      std::cerr << "(the agent is stopped since "
                << timeText( agentStatus( context ).lastSign.value() )
                << "; this is what it left)\n";
}

namespace {

struct Filters {
   std::optional<uint32_t> vlan;
   std::string mac;
   std::string source;
};

// --- one list a kind

Json hostList( const OutputReader& output, const Filters& filters, const SourceNames& names ) {
   const auto mac = Vexil::EthAddr::parse( filters.mac ); // none when there is no filter
   std::optional<Source> source;
   if( !filters.source.empty() )
      source = names.valueOf( filters.source );
   Json all = Json::array();
   for( const HostAndSource& row : output.hosts.list() )
      if( ( !filters.vlan || row.key().vlan().value() == *filters.vlan ) &&
          ( !mac || row.key().mac() == *mac ) && ( !source || row.source() == *source ) )
         all.push_back( toJson( row, names ) );
   return all;
}

Json floodJson( const OutputReader& output, const Filters& filters ) {
   const auto mac = Vexil::EthAddr::parse( filters.mac ); // none when there is no filter
   std::map<Bridging::MacVlanPair, FloodSetRow> sets;
   for( const FloodMember& member : output.flood.list() ) {
      const FloodSetTriple& triple = member.triple;
      if( ( filters.vlan && triple.vlan().value() != *filters.vlan ) ||
          ( mac && triple.mac() != *mac ) )
         continue;
      FloodSetRow& set = sets[ { triple.mac(), triple.vlan() } ];
      set.type = member.floodSetType;
      set.dests.insert( triple.dest() );
   }
   Json vlans = Json::array();
   for( const auto& [ key, set ] : sets ) {
      if( vlans.empty() || vlans.back()[ "vlan" ] != key.vlan().value() )
         vlans.push_back( { { "vlan", key.vlan().value() }, { "sets", Json::array() } } );
      Json row = { { "mac", key.mac().str() } };
      row.update( toJson( set ) );
      vlans.back()[ "sets" ].push_back( row );
   }
   const uint32_t mask = output.floodSource.get( 1 ).value_or( FloodSourceRecord() ).source;
   return { { "source", sourceStr( static_cast<Source>( mask ) ) }, { "vlans", vlans } };
}

template<class Rows>
Json objectList( const Rows& rows, const Filters& filters, const SourceNames& names ) {
   std::optional<Source> source;
   if( !filters.source.empty() )
      source = names.valueOf( filters.source );
   Json all = Json::array();
   for( const auto& row : rows.list() )
      if( !source || row.sourceOtas().source() == *source )
         all.push_back( toJson( row ) );
   return all;
}

// A list in one document, or with the members of each row that have no columns of their own in a
// last column.
int print( const Context& context, const Json& rows, std::vector<std::string> columns ) {
   if( context.json ) {
      std::cout << text( rows ) << '\n';
      return done;
   }
   Json lines = Json::array();
   for( Json row : rows ) {
      std::string rest;
      for( const auto& [ key, value ] : row.items() )
         if( std::find( columns.begin(), columns.end(), key ) == columns.end() && !value.is_null() )
            rest += ( rest.empty() ? "" : " " ) + key + " " + text( value );
      row[ "leads to" ] = rest;
      lines.push_back( row );
   }
   columns.push_back( "leads to" );
   printTable( lines, columns );
   mentionStoppedAgent( context );
   return done;
}

// A line a member.
int printFlood( const Context& context, const Json& flood ) {
   if( context.json ) {
      std::cout << text( flood ) << '\n';
      return done;
   }
   Json lines = Json::array();
   for( const Json& vlan : flood[ "vlans" ] )
      for( const Json& set : vlan[ "sets" ] )
         for( const Json& dest : set[ "dests" ] )
            lines.push_back( { { "vlan", vlan[ "vlan" ] },
                               { "mac", set[ "mac" ] },
                               { "type", set[ "type" ] },
                               { "flooded to", dest } } );
   printTable( lines, { "vlan", "mac", "type", "flooded to" } );
   std::cout << "merged from the sources " << flood[ "source" ].get<std::string>() << '\n';
   mentionStoppedAgent( context );
   return done;
}

// --- sources and status

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

int printSources( const Context& context, const Filters& filters, const SourceNames& names ) {
   Json sources = sourceList( context );
   if( !filters.source.empty() )
      sources = ofSource( sources, filters.source, names );
   if( context.json ) {
      std::cout << text( sources ) << '\n';
      return done;
   }
   printTable( sources,
               { "name", "source", "initialized", "ready", "running", "hosts", "reason" } );
   mentionStoppedAgent( context );
   return done;
}

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

int printStatus( const Context& context, Json status ) {
   if( context.json ) {
      std::cout << text( status ) << '\n';
      return done;
   }
   status[ "since" ] = timeText( status[ "since" ].get<double>() );
   Json rows = Json::array();
   for( const auto& [ key, value ] : status.items() )
      rows.push_back( { { "what", key }, { "value", value } } );
   printTable( rows, { "what", "value" } );
   return done;
}

int show( const Context& context, const std::string& what, const Filters& filters ) {
   const OutputReader output( context.stateDirectory );
   requireOutput( output, context );
   const SourceNames names( context );
   if( what == "hosts" )
      return print(
         context, hostList( output, filters, names ),
         { "vlan", "mac", "source", "sourceName", "pref", "seqNo", "updateTime", "entryType" } );
   if( what == "dests" )
      return print( context, objectList( output.dests, filters, names ), { "id" } );
   if( what == "groups" )
      return print( context, objectList( output.groups, filters, names ), { "id" } );
   if( what == "labels" )
      return print( context, objectList( output.labels, filters, names ), { "id", "label" } );
   if( what == "flood" )
      return printFlood( context, floodJson( output, filters ) );
   if( what == "status" )
      return printStatus( context, statusJson( context, output ) );
   return printSources( context, filters, names );
}

} // namespace

void addShow( CLI::App& app, Context& context ) {
   CLI::App* const command = app.add_subcommand( "show", "the output, the sources, the status" );
   command->require_subcommand( 1 );
   const auto filters = std::make_shared<Filters>();
   const auto add = [ & ]( const char* what, const char* help ) {
      CLI::App* const kind = command->add_subcommand( what, help );
      addJsonFlag( *kind, context );
      kind->callback( [ &context, filters, what ] {
         context.command = [ &context, filters, what ] { return show( context, what, *filters ); };
      } );
      return kind;
   };
   CLI::App* const hosts = add( "hosts", "the hosts, ordered by VLAN, then MAC" );
   CLI::App* const flood = add( "flood", "the flood sets, ordered by VLAN, then MAC" );
   for( CLI::App* const kind : { hosts, flood } ) {
      kind->add_option( "--vlan", filters->vlan, "only of this VLAN" );
      kind->add_option( "--mac", filters->mac, "only with this MAC address" )->check( checkMac );
   }
   CLI::App* const dests = add( "dests", "the destinations" );
   CLI::App* const groups = add( "groups", "the load-balance groups" );
   CLI::App* const labels = add( "labels", "the label pushes" );
   CLI::App* const sources = add( "sources", "the sources, as the agent sees them" );
   for( CLI::App* const kind : { hosts, dests, groups, labels, sources } )
      kind->add_option( "--source", filters->source, "only from the source of this name" );
   add( "status", "what the agent has in hand" );
   addShowFailed( *command, context );
   addShowBridge( *command, context );
   addShowEvpn( *command, context );
}

} // namespace Tools
