// l2ribctl show dests, groups, labels: the objects of the output, where they lead and who uses
// them.
#include "tools/Filter.h"
#include "tools/TextTable.h"

#include <memory>
#include <type_traits>

namespace Tools {

using namespace L2Rib;
using Client::OutputReader;

namespace {

// Who points to each object.
class Users {
 public:
   explicit Users( const OutputReader& output ) {
      output.hosts.table()->forEach( [ this ]( const HostAndSource& row ) {
         if( row.next() != Util::objTupleInvalid() )
            ++of_[ row.next() ].hosts;
      } );
      for( const LoadBalanceAndSource& row : output.groups.list() )
         for( const ObjTuple& next : row.lb().used() )
            of_[ next ].objects.insert( "group " + row.key().str() );
      for( const LabelAndSource& row : output.labels.list() )
         of_[ row.label().next() ].objects.insert( "label " + row.key().str() );
   }
   uint64_t hostsOf( const ObjTuple& object ) const {
      const auto found = of_.find( object );
      return found == of_.end() ? 0 : found->second.hosts;
   }
   // "1 host, group 1, label 1"; of many objects the first few.
   std::string text( const ObjTuple& object, size_t most ) const {
      const auto found = of_.find( object );
      if( found == of_.end() )
         return "nobody";
      std::vector<std::string> all;
      if( found->second.hosts != 0 )
         all.push_back( countText( found->second.hosts, "host" ) );
      size_t named = 0;
      for( const std::string& user : found->second.objects )
         if( ++named <= most )
            all.push_back( user );
      if( named > most )
         all.push_back( std::to_string( named - most ) + " more" );
      return joined( all, ", " );
   }

 private:
   struct Of {
      uint64_t hosts = 0;
      std::set<std::string> objects;
   };
   std::map<ObjTuple, Of> of_;
};

struct Asked {
   const Context& context;
   RowFilter& filter;
   std::optional<uint64_t> id;
};

// "evpn dest 1"
std::string fromText( const ObjTupleAndSource& input, const SourceNames& names ) {
   const char* const kind = input.tableType() == tableTypeLoadBalance_ ? "group"
                            : input.tableType() == tableTypeLabel_     ? "label"
                                                                       : "dest";
   return names.text( input.source() ) + " " + kind + " " + input.objId().str();
}

// The paths of a group, each with the object that it is.
std::string pathsText( const LoadBalance& group, Vias& vias ) {
   std::vector<std::string> paths;
   for( const ObjTuple& next : group.used() ) {
      paths.push_back( next.tableType() == tableTypeDest_
                          ? "dest " + next.objId().str() + " " + vias.brief( next )
                       : next.tableType() == tableTypeLoadBalance_ ? "group " + next.objId().str()
                                                                   : vias.brief( next ) );
   }
   return joined( paths, ", " );
}

// kind is "dest", "group" or "label".
template<class Rows>
int showObjects( const Asked& asked, const std::string& kind, Rows OutputReader::*member ) {
   const OutputReader output( asked.context.stateDirectory );
   requireOutput( output, asked.context );
   const SourceNames names( asked.context );
   asked.filter.resolve( names );
   Vias vias( output );
   auto rows = ( output.*member ).list();
   std::erase_if( rows, [ & ]( const auto& row ) {
      return ( asked.id && row.key().value() != *asked.id ) ||
             !asked.filter.wants( row.sourceOtas().source() ) ||
             !asked.filter.wants( vias.leaves( ObjTuple( row.key() ) ) );
   } );
   if( asked.id && rows.empty() )
      throw std::runtime_error( "there is no " + kind + " " + std::to_string( *asked.id ) +
                                " in the output, or it is filtered out" );
   if( asked.context.json ) {
      printJsonList( rows, []( const auto& row ) { return toJson( row ); } );
      return done;
   }
   const Users users( output );
   const size_t most = asked.id ? SIZE_MAX : 4; // users by name
   std::vector<std::vector<std::string>> lines;
   for( const auto& row : rows ) {
      const ObjTuple object( row.key() );
      std::string leadsTo = vias.text( object );
      if constexpr( std::is_same_v<std::decay_t<decltype( row )>, LoadBalanceAndSource> )
         leadsTo = pathsText( row.lb(), vias );
      lines.push_back( { row.key().str(), leadsTo, users.text( object, most ),
                         fromText( row.sourceOtas(), names ), "" } );
   }
   printLines( { { "ID", Heading::right },
                 { kind == "group" ? "PATHS" : "VIA" },
                 { "USED BY" },
                 { "FROM" },
                 { "" } },
               std::move( lines ) );
   return done;
}

} // namespace

void addShowObjects( CLI::App& showing, Context& context ) {
   struct Given {
      RowFilter filter;
      std::optional<uint64_t> id;
   };
   const auto add = [ & ]( const std::string& kind, const char* help, auto member ) {
      const auto given = std::make_shared<Given>();
      CLI::App* const command = showing.add_subcommand( kind + "s", help );
      addJsonFlag( *command, context );
      command->add_option( "ID", given->id, "only this one, with all its users" );
      given->filter.addOptions( *command, RowFilter::source | RowFilter::via | RowFilter::vni );
      command->footer( "Example: l2ribctl show " + kind + "s 1" );
      command->callback( [ &context, given, kind, member ] {
         context.command = [ &context, given, kind, member ] {
            return showObjects( { context, given->filter, given->id }, kind, member );
         };
      } );
   };
   add( "dest", "the destinations", &OutputReader::dests );
   add( "group", "the load-balance groups", &OutputReader::groups );
   add( "label", "the label pushes", &OutputReader::labels );
}

} // namespace Tools
