// l2ribctl show: what its subcommands share.
#include "tools/Show.h"

#include "tools/SourceTables.h"

namespace Tools {

using namespace L2Rib;
using Client::OutputReader;

SourceNames::SourceNames( const Context& context ) : names_{ { sourceStatic_, "static" } } {
   for( const auto& [ name, source ] : context.sources().allSources() )
      if( source.readable )
         names_[ source.record.source ] = name;
}

Json SourceNames::of( Source source ) const {
   const auto found = names_.find( source );
   return found == names_.end() ? Json() : Json( found->second );
}

std::string SourceNames::text( Source source ) const {
   const auto found = names_.find( source );
   return found == names_.end() ? sourceStr( source ) : found->second;
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

AgentStatusRecord agentStatus( const Context& context ) {
   const AgentStatusTable table( context.fileOf( Path::agentStatus ),
                                 AgentStatusTable::Mode::read );
   return table.get( SingleKey() );
}

bool agentRuns( const Context& context ) {
   return Vexil::tableHasWriter( context.fileOf( Path::agentStatus ) );
}

void requireTables( const OutputReader& output, const Context& context ) {
   if( !output.complete() )
      throw Vexil::TableError( Vexil::TableError::absent,
                               context.stateDirectory +
                                  ": no agent has run here: start l2ribd, or say which "
                                  "--state-dir it runs on" );
}

void requireOutput( const OutputReader& output, const Context& context ) {
   requireTables( output, context );
   mentionStoppedAgent( context );
}

void mentionStoppedAgent( const Context& context ) {
   const auto status = readable<AgentStatusTable>( context.fileOf( Path::agentStatus ) );
   if( status && !agentRuns( context ) )
      std::cerr << "agent stopped since "
                << clockText( status->get( SingleKey() ).lastSign.value() )
                << "; showing its last output\n";
}

void addShow( CLI::App& app, Context& context ) {
   CLI::App* const command = app.add_subcommand( "show", "the output, the sources, the status" );
   command->require_subcommand( 1 );
   addShowHosts( *command, context );
   addShowMoves( *command, context );
   addShowObjects( *command, context );
   addShowFlood( *command, context );
   addShowSources( *command, context );
   addShowStatus( *command, context );
   addShowFailed( *command, context );
   addShowBridge( *command, context );
   addShowEvpn( *command, context );
}

} // namespace Tools
