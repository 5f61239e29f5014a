// l2ribctl show evpn: the BGP speaker and its peers, routes taken, not taken and why, announced.
#include "tools/Evpn.h"

#include "tools/StatusRecords.h"
#include "tools/TextTable.h"

#include <algorithm>
#include <iostream>

namespace Tools {

using namespace L2Rib;

namespace {

std::string phaseText( const EvpnProgramRecord& record ) {
   return Vexil::enumText( static_cast<EvpnPhase>( record.phase ) );
}

Json routesJson( const EvpnProgramRecord& record ) {
   Json routes = Json::array();
   static constexpr const char* contents[] = { "", "segments", "hosts", "flood members" };
   for( size_t type = 1; type < record.taken.size(); ++type )
      routes.push_back( { { "type", type },
                          { "of", contents[ type ] },
                          { "taken", record.taken[ type ].value() },
                          { "announced", record.announced[ type ].value() } } );
   return routes;
}

Json programJson( const EvpnProgram& program ) {
   const EvpnProgramRecord& record = program.record;
   Json notTaken = Json::object();
   for( size_t reason = 1; reason < evpnReasons; ++reason )
      if( record.notTaken[ reason ].value() > 0 )
         notTaken[ evpnReasonNames[ reason ].text ] = record.notTaken[ reason ].value();
   return { { "running", program.runs },
            { "processId", record.processId },
            { "since", program.runs ? record.since.value() : record.lastSign.value() },
            { "speaker", record.speaker.str() },
            { "as", record.as },
            { "routerId", record.routerId.str() },
            { "vtep", record.vtep.str() },
            { "phase", phaseText( record ) },
            { "phaseSince", record.phaseSince.value() },
            { "sessions", record.sessions.value() },
            { "stale", record.stale.value() },
            { "notTaken", notTaken },
            { "toAnnounce", record.toAnnounce.value() },
            { "hosts", record.hosts.value() },
            { "groups", record.groups.value() },
            { "members", record.members.value() },
            { "unresolved", record.unresolved.value() },
            { "refused", record.refused.value() },
            { "writes", record.writes.value() },
            { "writesRefused", record.writesRefused.value() },
            { "fault", record.fault.view().empty() ? Json() : Json( record.fault.str() ) } };
}

Json peerJson( const EvpnPeerRecord& peer ) {
   return { { "peer", peer.address.str() },
            { "as", peer.as },
            { "state", peer.established ? "established"
                       : peer.up        ? "down"
                                        : "shut down" },
            { "endOfRib", peer.endOfRib != 0 },
            { "received", peer.received.value() } };
}

Json vlanJson( const EvpnVlanRecord& vlan ) {
   return { { "vlan", vlan.vlan.value() },
            { "vni", vlan.vni },
            { "rd", vlan.rd.str() },
            { "rt", vlan.targets.str() } };
}

void mentionState( const EvpnProgram& program ) {
   const EvpnProgramRecord& record = program.record;
   if( !program.runs )
      std::cerr << "(l2rib-evpn is stopped since " << timeText( record.lastSign.value() )
                << "; what it published stays)\n";
   else if( record.phase != evpnComplete_ )
      std::cerr << "(" << phaseText( record ) << " since " << timeText( record.phaseSince.value() )
                << ")\n";
}

void printForPeople( const EvpnProgram& program, const Json& answer ) {
   const EvpnProgramRecord& record = program.record;
   std::cout << "speaker " << record.speaker.str() << ", AS " << record.as << ", router id "
             << record.routerId.str() << ", VTEP " << record.vtep.str() << '\n';
   printTable( answer[ "peers" ], { "peer", "as", "state", "endOfRib", "received" } );
   printTable( answer[ "vlans" ], { "vlan", "vni", "rd", "rt" } );
   printTable( answer[ "routes" ], { "type", "of", "taken", "announced" } );
   if( record.stale.value() > 0 )
      std::cout << record.stale.value() << " routes are stale: not told again yet\n";
   if( record.unresolved.value() > 0 )
      std::cout << record.unresolved.value() << " hosts are on segments that no PE announces\n";
   if( record.toAnnounce.value() > 0 )
      std::cout << record.toAnnounce.value() << " routes are still to be announced or withdrawn\n";
   if( record.refused.value() > 0 )
      std::cout << record.refused.value() << " hosts, groups and members found no room\n";
   for( const auto& [ reason, count ] : answer[ "program" ][ "notTaken" ].items() )
      std::cout << "not taken so far: " << text( count ) << ", " << reason << '\n';
   if( !record.fault.view().empty() )
      std::cout << record.fault.str() << '\n';
   mentionState( program );
}

int showEvpn( const Context& context ) {
   const auto program = evpnProgram( context );
   if( !program )
      throw std::runtime_error( context.stateDirectory +
                                ": no l2rib-evpn has run here: start it, or say which "
                                "--state-dir it runs on" );
   mentionStoppedAgent( context );
   Json answer = { { "program", programJson( *program ) },
                   { "peers", Json::array() },
                   { "vlans", Json::array() },
                   { "routes", routesJson( program->record ) } };
   for( const EvpnPeerRecord& peer : evpnPeers( context ) )
      answer[ "peers" ].push_back( peerJson( peer ) );
   for( const auto& vlan :
        recordsOf<EvpnVlanTable, Bridging::VlanId, EvpnVlanRecord>( context, Path::evpnVlans ) )
      answer[ "vlans" ].push_back( vlanJson( vlan ) );
   if( context.json )
      std::cout << text( answer ) << '\n';
   else
      printForPeople( *program, answer );
   return done;
}

} // namespace

std::optional<EvpnProgram> evpnProgram( const Context& context ) {
   const std::string file = context.fileOf( Path::evpnProgram );
   try {
      const EvpnProgramTable table( file, EvpnProgramTable::Mode::read );
      return EvpnProgram{ Vexil::tableHasWriter( file ), table.get( SingleKey() ) };
   } catch( const Vexil::TableError& failure ) {
      if( failure.kind() != Vexil::TableError::absent )
         throw;
   }
   return {};
}

std::vector<EvpnPeerRecord> evpnPeers( const Context& context ) {
   return recordsOf<EvpnPeerTable, Vexil::IpGenAddr, EvpnPeerRecord>( context, Path::evpnPeers );
}

void addShowEvpn( CLI::App& showing, Context& context ) {
   CLI::App* const command =
      showing.add_subcommand( "evpn", "what l2rib-evpn takes from BGP and announces" );
   addJsonFlag( *command, context );
   command->callback(
      [ &context ] { context.command = [ &context ] { return showEvpn( context ); }; } );
}

} // namespace Tools
