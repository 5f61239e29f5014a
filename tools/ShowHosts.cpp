// l2ribctl show hosts: the hosts of the output, where each leads, and what is not as it should be.
#include "tools/HostList.h"
#include "tools/TextTable.h"

#include <memory>
#include <set>

namespace Tools {

using namespace L2Rib;
using Client::OutputReader;

namespace {

void printCounts( const std::vector<HostAndSource>& rows, const SourceNames& names ) {
   std::map<uint32_t, std::map<std::string, size_t>> counts; // by VLAN, then source
   std::set<std::string> sources;
   for( const HostAndSource& row : rows ) {
      const std::string source = names.text( row.source() );
      ++counts[ row.key().vlan().value() ][ source ];
      sources.insert( source );
   }
   std::vector<Heading> headings{ { "VLAN" }, { "HOSTS", Heading::right } };
   for( const std::string& source : sources )
      headings.push_back( { source.c_str(), Heading::right } );
   headings.push_back( { "" } );
   std::vector<std::vector<std::string>> lines;
   for( const auto& [ vlan, bySource ] : counts ) {
      size_t all = 0;
      for( const auto& [ source, count ] : bySource )
         all += count;
      lines.push_back( { std::to_string( vlan ), std::to_string( all ) } );
      for( const std::string& source : sources ) {
         const auto count = bySource.find( source );
         lines.back().push_back( count == bySource.end() ? "" : std::to_string( count->second ) );
      }
      lines.back().push_back( "" );
   }
   printLines( headings, std::move( lines ) );
}

void printHosts( const std::vector<HostAndSource>& rows, const HostStates& states, Vias& vias ) {
   std::vector<std::vector<std::string>> lines;
   for( const HostAndSource& row : rows ) {
      const Host& host = row.host();
      lines.push_back( { row.key().vlan().str(), row.key().mac().str(),
                         states.names.text( row.source() ), vias.text( host ),
                         std::to_string( host.pref() ), std::to_string( host.seqNo().value() ),
                         hostAge( row ), states.of( row ) } );
   }
   printLines( { { "VLAN" },
                 { "MAC" },
                 { "SOURCE" },
                 { "VIA" },
                 { "PREF", Heading::right },
                 { "SEQ", Heading::right },
                 { "AGE" },
                 { "STATE" } },
               std::move( lines ) );
}

int showHosts( const Context& context, RowFilter& filter, bool counted ) {
   const OutputReader output( context.stateDirectory );
   requireOutput( output, context );
   const HostStates states( context );
   filter.resolve( states.names );
   Vias vias( output );
   const std::vector<HostAndSource> rows = selectHosts( output, filter, vias ).rows;
   if( counted && context.json )
      std::cout << text( { { "hosts", rows.size() } } ) << '\n';
   else if( counted )
      printCounts( rows, states.names );
   else if( context.json )
      printJsonList( rows, [ & ]( const auto& row ) { return toJson( row, states.names ); } );
   else
      printHosts( rows, states, vias );
   if( context.json || counted )
      return done;
   std::cout << countText( rows.size(), "host" );
   if( filter.any() )
      std::cout << " of " << output.hosts.table()->count();
   const size_t parked = states.parkedWithoutRow( output, filter );
   if( parked != 0 )
      std::cout << ". " << parked << ( parked == 1 ? " more is" : " more are" )
                << " parked: l2ribctl show failed";
   std::cout << '\n';
   return done;
}

} // namespace

void addShowHosts( CLI::App& showing, Context& context ) {
   struct Given {
      RowFilter filter;
      bool counted = false;
   };
   const auto given = std::make_shared<Given>();
   CLI::App* const command = showing.add_subcommand( "hosts", "the hosts, by VLAN, then MAC" );
   addJsonFlag( *command, context );
   given->filter.addOptions( *command, RowFilter::vlan | RowFilter::mac | RowFilter::source |
                                          RowFilter::via | RowFilter::vni );
   command->add_flag( "--count", given->counted, "how many there are, by VLAN and source" );
   command->footer( "Example: l2ribctl show hosts --vlan 10,20-29 --via 192.0.2.11" );
   command->callback( [ &context, given ] {
      context.command = [ &context, given ] {
         return showHosts( context, given->filter, given->counted );
      };
   } );
}

} // namespace Tools
