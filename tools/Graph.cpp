// l2ribctl graph: the output objects and who points to whom, in the language of Graphviz or as
// JSON.
#include "tools/OutputGraph.h"
#include "tools/Show.h"

#include <algorithm>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>

namespace Tools {

using namespace L2Rib;

namespace {

// What a node of an object says.
std::string labelOf( const OutputGraph& graph, const ObjTuple& object ) {
   std::string label = object.str();
   if( !graph.has( object ) )
      return label + "\\n(not there)";
   if( object.tableType() == tableTypeLabel_ )
      label += "\\npush " + graph.labels.at( object.labelId() ).label().label().str();
   if( object.tableType() == tableTypeDest_ ) {
      const Json dest = toJson( graph.dests.at( object.destId() ).dest() );
      for( const auto& [ kind, data ] : dest.items() ) {
         label += "\\n" + kind;
         if( data.is_object() )
            for( const auto& [ key, value ] : data.items() )
               label += " " + ( value.is_string() ? value.get<std::string>() : text( value ) );
      }
   }
   return label;
}

void printDot( const OutputGraph& graph, const std::vector<HostAndSource>& hosts,
               const std::set<ObjTuple>& objects ) {
   std::cout << "digraph output {\n   rankdir=LR;\n";
   for( const HostAndSource& row : hosts ) {
      const std::string node = "\"" + row.key().str() + "\"";
      const bool isInline = row.next() == Util::objTupleInvalid();
      std::cout << "   " << node << " [shape=box";
      if( isInline )
         std::cout << ",label=\"" << row.key() << "\\n" << row.host().ciDest() << "\"";
      std::cout << "];\n";
      if( !isInline )
         std::cout << "   " << node << " -> \"" << row.next() << "\";\n";
   }
   for( const ObjTuple& object : objects ) {
      std::cout << "   \"" << object << "\" [label=\"" << labelOf( graph, object ) << "\"];\n";
      for( const ObjTuple& next : graph.nextsOf( object ) )
         std::cout << "   \"" << object << "\" -> \"" << next << "\";\n";
   }
   std::cout << "}\n";
}

// {"hosts":[{"mac","vlan","next","inline"}],"objects":[{"type","id",...}]}: each object with its
// row, or with "absent".
Json graphJson( const OutputGraph& graph, const std::vector<HostAndSource>& hosts,
                const std::set<ObjTuple>& objects ) {
   Json json = { { "hosts", Json::array() }, { "objects", Json::array() } };
   for( const HostAndSource& row : hosts ) {
      Json host = toJson( row.key() );
      const bool isInline = row.next() == Util::objTupleInvalid();
      host[ "next" ] = toJson( row.next() );
      host[ "inline" ] = isInline ? toJson( row.host().ciDest() ) : Json();
      json[ "hosts" ].push_back( std::move( host ) );
   }
   for( const ObjTuple& object : objects ) {
      Json node = toJson( object );
      if( !graph.has( object ) )
         node[ "absent" ] = true;
      else if( object.tableType() == tableTypeLoadBalance_ )
         node.update( toJson( graph.groups.at( object.lbId() ) ) );
      else if( object.tableType() == tableTypeLabel_ )
         node.update( toJson( graph.labels.at( object.labelId() ) ) );
      else
         node.update( toJson( graph.dests.at( object.destId() ) ) );
      json[ "objects" ].push_back( std::move( node ) );
   }
   return json;
}

int graph( const Context& context, const std::string& mac, std::optional<uint32_t> vlan ) {
   const auto address = Vexil::EthAddr::parse( mac ); // none when there is no filter
   const Client::OutputReader output( context.stateDirectory );
   requireOutput( output, context );
   const OutputGraph graph( output );
   const auto wanted = [ & ]( const HostAndSource& row ) {
      return ( !address || row.key().mac() == *address ) &&
             ( !vlan || row.key().vlan().value() == *vlan );
   };
   std::vector<HostAndSource> hosts;
   std::copy_if( graph.hosts.begin(), graph.hosts.end(), std::back_inserter( hosts ), wanted );
   std::vector<ObjTuple> starts;
   for( const HostAndSource& row : hosts )
      starts.push_back( row.next() );
   if( !address && !vlan ) { // then those too that no host reaches
      const auto addAll = [ & ]( const auto& objects ) {
         for( const auto& [ id, row ] : objects )
            starts.emplace_back( id );
      };
      addAll( graph.groups );
      addAll( graph.labels );
      addAll( graph.dests );
   }
   const std::set<ObjTuple> objects = graph.reachedFrom( starts );
   if( context.json )
      std::cout << text( graphJson( graph, hosts, objects ) ) << '\n';
   else
      printDot( graph, hosts, objects );
   return done;
}

} // namespace

void addGraph( CLI::App& app, Context& context ) {
   struct Given {
      std::string mac;
      std::optional<uint32_t> vlan;
   };
   const auto given = std::make_shared<Given>();
   CLI::App* const command =
      app.add_subcommand( "graph", "who points to whom in the output, as Graphviz DOT" );
   command->footer( "Example: l2ribctl graph --vlan 10 | dot -Tsvg > output.svg" );
   addJsonFlag( *command, context );
   command->add_option( "--mac", given->mac, "only from hosts with this MAC address" )
      ->check( checkMac );
   command->add_option( "--vlan", given->vlan, "only from hosts of this VLAN" );
   command->callback( [ &context, given ] {
      context.command = [ &context, given ] { return graph( context, given->mac, given->vlan ); };
   } );
}

} // namespace Tools
