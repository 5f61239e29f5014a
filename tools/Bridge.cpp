// l2ribctl show bridge: what l2rib-bridge programs, and what it can't.
#include "tools/Bridge.h"

#include "tools/StatusRecords.h"
#include "tools/TextTable.h"

#include <algorithm>
#include <ctime>
#include <iostream>

namespace Tools {

using namespace L2Rib;
using Bridging::MacVlanPair;

namespace {

template<class Table, class Key>
auto recordIn( const Context& context, const char* path, const Key& key ) {
   return Table( context.fileOf( path ), Table::Mode::read ).get( key );
}

Json textOrNull( const std::string& text ) { return text.empty() ? Json() : Json( text ); }

Json bridgeJson( const BridgeRecord& row ) {
   const bool complete = !row.device.view().empty();
   return { { "vlan", row.vlan.value() },
            { "bridge", row.bridge.str() },
            { "device", textOrNull( row.device.str() ) },
            { "vni", complete ? Json( row.vni ) : Json() },
            { "local", row.local == Vexil::IpGenAddr() ? Json() : Json( row.local.str() ) },
            { "wanted", row.wanted.value() },
            { "programmed", row.programmed.value() },
            { "refused", row.refused.value() },
            { "learned", row.learned.value() },
            { "repaired", row.repaired.value() },
            { "fault", textOrNull( row.fault.str() ) } };
}

const char* kindName( BridgeRefusedKind kind ) {
   return kind == bridgeRefusedFlood_       ? "flood"
          : kind == bridgeRefusedDuplicate_ ? "duplicate"
                                            : "host";
}

Json refusedJson( const BridgeRefusedRecord& row ) {
   Json json = { { "kind", kindName( row.key.kind ) } };
   json.update( toJson( row.key.host ) );
   if( row.key.kind == bridgeRefusedFlood_ )
      json[ "dest" ] = toJson( row.dest );
   json[ "reason" ] = row.reason.str();
   json[ "since" ] = row.since.value();
   json[ "tries" ] = row.tries;
   return json;
}

Json programJson( const std::optional<BridgeProgram>& program ) {
   if( !program )
      return {};
   const BridgeProgramRecord& record = program->record;
   return { { "running", program->runs },
            { "processId", record.processId },
            { "since", program->runs ? record.since.value() : record.lastSign.value() },
            { "inSync", record.inSync != 0 },
            { "syncTime", record.syncTime.value() },
            { "writes", record.writes.value() },
            { "audits", record.audits.value() },
            { "lost", record.lost.value() },
            { "nexthopsRepaired", record.nexthopsRepaired.value() },
            { "unwritten", record.unwritten } };
}

void printForPeople( const Context& context, const Json& answer ) {
   std::vector<std::vector<std::string>> lines{ { "VLAN", "BRIDGE", "DEVICE", "VNI", "LOCAL",
                                                  "WANTED", "PROGRAMMED", "REFUSED", "LEARNED",
                                                  "REPAIRED", "" } };
   const auto cell = []( const Json& value ) {
      return value.is_null() ? "-" : value.is_string() ? value.get<std::string>() : text( value );
   };
   for( const Json& row : answer[ "bridges" ] ) {
      lines.emplace_back();
      for( const auto& [ name, value ] : row.items() )
         lines.back().push_back( name == "fault" && value.is_null() ? "" : cell( value ) );
   }
   printColumns( std::move( lines ) );
   for( const Json& row : answer[ "refused" ] ) {
      std::cout << row[ "kind" ].get<std::string>() << ' ' << row[ "mac" ].get<std::string>()
                << " VLAN " << text( row[ "vlan" ] );
      if( row.contains( "dest" ) )
         std::cout << ' ' << text( row[ "dest" ] );
      std::cout << "  " << row[ "reason" ].get<std::string>();
      if( row[ "tries" ] != 0 )
         std::cout << ", refused " << text( row[ "tries" ] ) << " times";
      std::cout << '\n';
   }
   const std::optional<BridgeProgram> program = bridgeProgram( context );
   if( program && program->runs && !program->record.inSync )
      std::cerr << "(l2rib-bridge has not yet compared all; the figures still change)\n";
   if( program && !program->runs )
      std::cerr << "(l2rib-bridge is stopped since " << timeText( program->record.lastSign.value() )
                << "; the kernel has what it left)\n";
}

int showBridge( const Context& context ) {
   const auto program = bridgeProgram( context );
   if( !program )
      throw std::runtime_error( context.stateDirectory +
                                ": no l2rib-bridge has run here: start it, or say which "
                                "--state-dir it runs on" );
   mentionStoppedAgent( context );
   Json answer = { { "program", programJson( program ) },
                   { "bridges", Json::array() },
                   { "refused", Json::array() } };
   for( const BridgeRecord& row : bridgeRecords( context ) )
      answer[ "bridges" ].push_back( bridgeJson( row ) );
   for( const auto& row : recordsOf<BridgeRefusedTable, BridgeRefusedKey, BridgeRefusedRecord>(
           context, Path::bridgeRefused ) )
      answer[ "refused" ].push_back( refusedJson( row ) );
   if( context.json )
      std::cout << text( answer ) << '\n';
   else
      printForPeople( context, answer );
   return done;
}

} // namespace

std::optional<BridgeProgram> bridgeProgram( const Context& context ) {
   const std::string file = context.fileOf( Path::bridgeProgram );
   try {
      const BridgeProgramTable table( file, BridgeProgramTable::Mode::read );
      return BridgeProgram{ Vexil::tableHasWriter( file ), table.get( SingleKey() ) };
   } catch( const Vexil::TableError& failure ) {
      if( failure.kind() != Vexil::TableError::absent )
         throw;
   }
   return {};
}

std::map<MacVlanPair, std::string> hostsRefused( const Context& context ) {
   std::map<MacVlanPair, std::string> reasons;
   for( const auto& row : recordsOf<BridgeRefusedTable, BridgeRefusedKey, BridgeRefusedRecord>(
           context, Path::bridgeRefused ) )
      if( row.key.kind == bridgeRefusedHost_ )
         reasons[ row.key.host ] = row.reason.str();
   return reasons;
}

std::vector<BridgeRecord> bridgeRecords( const Context& context ) {
   return recordsOf<BridgeTable, Bridging::VlanId, BridgeRecord>( context, Path::bridges );
}

Json kernelJson( const Context& context, const MacVlanPair& key ) {
   if( !bridgeProgram( context ) )
      return {};
   const auto bridge = recordIn<BridgeTable>( context, Path::bridges, key.vlan() );
   if( bridge.vlan != key.vlan() )
      return {};
   Json json = { { "bridge", bridge.bridge.str() },
                 { "device", textOrNull( bridge.device.str() ) } };
   const auto host = recordIn<BridgeHostTable>( context, Path::bridgeHosts, key );
   const auto refused = recordIn<BridgeRefusedTable>(
      context, Path::bridgeRefused, BridgeRefusedKey{ key, bridgeRefusedHost_, 0 } );
   if( refused.key.host == key ) {
      json[ "refused" ] = refused.reason.str();
      return json;
   }
   if( host.key != key )
      return json;
   json[ "since" ] = host.since.value();
   if( host.kind == bridgeHostGroup_ ) {
      const auto group = recordIn<BridgeGroupTable>( context, Path::bridgeGroups, host.id );
      json[ "nexthop" ] = host.id;
      json[ "vteps" ] = Json::array();
      for( uint32_t i = 0; i < std::min<size_t>( group.count, group.vteps.size() ); ++i )
         json[ "vteps" ].push_back( group.vteps[ i ].str() );
   } else if( host.kind == bridgeHostRemote_ ) {
      json[ "vtep" ] = host.vtep.str();
      json[ "vni" ] = host.vni;
   } else {
      json[ "interface" ] = host.id;
   }
   return json;
}

std::string kernelText( const Json& kernel ) {
   std::string line = kernel[ "bridge" ].get<std::string>();
   if( kernel[ "device" ].is_string() )
      line += " " + kernel[ "device" ].get<std::string>();
   if( kernel.contains( "refused" ) )
      return line + ": refused: " + kernel[ "refused" ].get<std::string>();
   if( kernel.contains( "nexthop" ) ) {
      std::string vteps;
      for( const Json& vtep : kernel[ "vteps" ] )
         vteps += ( vteps.empty() ? "" : ", " ) + vtep.get<std::string>();
      line += " nexthop group " + text( kernel[ "nexthop" ] ) + " (" + vteps + ")";
   } else if( kernel.contains( "vtep" ) ) {
      line += " " + kernel[ "vtep" ].get<std::string>() + " vni " + text( kernel[ "vni" ] );
   } else if( kernel.contains( "interface" ) ) {
      line = kernel[ "bridge" ].get<std::string>() + " static on " +
             interfaceText( kernel[ "interface" ].get<uint32_t>() );
   } else {
      return line + ": nothing was given for it";
   }
   return line + ", programmed " +
          ageText( std::max( 0.0, static_cast<double>( std::time( nullptr ) ) -
                                     kernel[ "since" ].get<double>() ) ) +
          " ago";
}

void addShowBridge( CLI::App& showing, Context& context ) {
   CLI::App* const command =
      showing.add_subcommand( "bridge", "what l2rib-bridge programs, and what it can't" );
   addJsonFlag( *command, context );
   command->callback(
      [ &context ] { context.command = [ &context ] { return showBridge( context ); }; } );
}

} // namespace Tools
