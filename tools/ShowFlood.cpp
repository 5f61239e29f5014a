// l2ribctl show flood: where frames to broadcast and other flood addresses are copied to.
#include "tools/Filter.h"
#include "tools/TextTable.h"

#include <memory>

namespace Tools {

using namespace L2Rib;
using Client::OutputReader;

namespace {

using Sets = std::map<Bridging::MacVlanPair, FloodSetRow>; // by VLAN, then address

Sets wantedSets( const OutputReader& output, const RowFilter& filter ) {
   Sets sets;
   output.flood.table()->forEach( [ & ]( const FloodMember& member ) {
      const FloodSetTriple& triple = member.triple;
      const Bridging::MacVlanPair key( triple.mac(), triple.vlan() );
      if( !filter.wants( key ) || !filter.wants( Vias::leaves( triple.dest() ) ) )
         return;
      FloodSetRow& set = sets[ key ];
      set.type = member.floodSetType;
      set.dests.insert( triple.dest() );
   } );
   return sets;
}

Json floodJson( const OutputReader& output, const Sets& sets ) {
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

// "192.0.2.11, 192.0.2.12 vni 10010, eth3".
std::string destsText( const std::set<Dest>& dests ) {
   std::map<uint32_t, std::vector<std::string>> vteps; // by VNI
   std::vector<std::string> parts;
   for( const Dest& dest : dests )
      if( dest.destType() == objDestTypeVxlan_ )
         vteps[ dest.vxlan().vni ].push_back( dest.vxlan().vtep.str() );
   for( const auto& [ vni, addresses ] : vteps )
      parts.push_back( joined( addresses, ", " ) + " vni " + std::to_string( vni ) );
   for( const Dest& dest : dests )
      if( dest.destType() != objDestTypeVxlan_ )
         parts.push_back( Vias::text( dest ) );
   return joined( parts, ", " );
}

int showFlood( const Context& context, RowFilter& filter ) {
   const OutputReader output( context.stateDirectory );
   requireOutput( output, context );
   filter.resolve( SourceNames( context ) );
   const Sets sets = wantedSets( output, filter );
   if( context.json ) {
      std::cout << text( floodJson( output, sets ) ) << '\n';
      return done;
   }
   std::vector<std::vector<std::string>> lines;
   for( const auto& [ key, set ] : sets )
      lines.push_back( { key.vlan().str(),
                         key.mac().number() == 0xffffffffffff ? "broadcast" : key.mac().str(),
                         destsText( set.dests ), "" } );
   printLines( { { "VLAN" }, { "ADDRESS" }, { "TO" }, { "" } }, std::move( lines ) );
   return done;
}

} // namespace

void addShowFlood( CLI::App& showing, Context& context ) {
   const auto filter = std::make_shared<RowFilter>();
   CLI::App* const command =
      showing.add_subcommand( "flood", "the flood sets, by VLAN, then address" );
   addJsonFlag( *command, context );
   filter->addOptions( *command,
                       RowFilter::vlan | RowFilter::mac | RowFilter::via | RowFilter::vni );
   command->footer( "Example: l2ribctl show flood --vlan 10" );
   command->callback( [ &context, filter ] {
      context.command = [ &context, filter ] { return showFlood( context, *filter ); };
   } );
}

} // namespace Tools
