#include "tools/OutputGraph.h"

namespace Tools {

using namespace L2Rib;

OutputGraph::OutputGraph( const Client::OutputReader& output ) {
   const auto changes = [ & ] {
      return output.hosts.table()->journalHead() + output.dests.table()->journalHead() +
             output.groups.table()->journalHead() + output.labels.table()->journalHead() +
             output.flood.table()->journalHead();
   };
   constexpr int attempts = 20;
   for( int attempt = 0; attempt < attempts && !stoodStill; ++attempt ) {
      const uint64_t before = changes();
      hosts = output.hosts.list();
      dests.clear();
      for( const auto& row : output.dests.list() )
         dests[ row.key() ] = row;
      groups.clear();
      for( const auto& row : output.groups.list() )
         groups[ row.key() ] = row;
      labels.clear();
      for( const auto& row : output.labels.list() )
         labels[ row.key() ] = row;
      flood = output.flood.list();
      stoodStill = changes() == before;
   }
}

bool OutputGraph::has( const ObjTuple& object ) const {
   switch( object.tableType() ) {
   case tableTypeLoadBalance_:
      return groups.contains( object.lbId() );
   case tableTypeLabel_:
      return labels.contains( object.labelId() );
   case tableTypeDest_:
      return dests.contains( object.destId() );
   default:
      return false;
   }
}

Source OutputGraph::sourceOf( const ObjTuple& object ) const {
   switch( object.tableType() ) {
   case tableTypeLoadBalance_:
      return groups.at( object.lbId() ).sourceOtas().source();
   case tableTypeLabel_:
      return labels.at( object.labelId() ).sourceOtas().source();
   default:
      return dests.at( object.destId() ).sourceOtas().source();
   }
}

std::vector<ObjTuple> OutputGraph::nextsOf( const ObjTuple& object ) const {
   if( !has( object ) || object.tableType() == tableTypeDest_ )
      return {};
   if( object.tableType() == tableTypeLabel_ )
      return { labels.at( object.labelId() ).label().next() };
   const auto nexts = groups.at( object.lbId() ).lb().used();
   return { nexts.begin(), nexts.end() };
}

std::set<ObjTuple> OutputGraph::reachedFrom( std::vector<ObjTuple> starts ) const {
   std::set<ObjTuple> reached;
   while( !starts.empty() ) {
      const ObjTuple object = starts.back();
      starts.pop_back();
      if( object == Util::objTupleInvalid() || !reached.insert( object ).second )
         continue;
      for( const ObjTuple& next : nextsOf( object ) )
         starts.push_back( next );
   }
   return reached;
}

} // namespace Tools
