#include "tools/HostList.h"

#include "tools/Bridge.h"
#include "tools/Parked.h"

#include <algorithm>

namespace Tools {

using namespace L2Rib;
using Client::OutputReader;

HostSelection selectHosts( const OutputReader& output, const RowFilter& filter, Vias& vias,
                           size_t most ) {
   const auto before = []( const HostAndSource& a, const HostAndSource& b ) {
      return a.key() < b.key();
   };
   HostSelection found;
   std::vector<HostAndSource>& rows = found.rows;
   output.hosts.table()->forEach( [ & ]( const HostAndSource& row ) {
      if( !filter.wants( row.key() ) || !filter.wants( row.source() ) ||
          ( filter.asksForLeaves() && !filter.wants( vias.leaves( row.host() ) ) ) )
         return;
      ++found.matched;
      rows.push_back( row );
      // Twice as many as are kept, so that each row is sorted out once on average.
      if( rows.size() / 2 >= most ) {
         std::nth_element( rows.begin(), rows.begin() + static_cast<long>( most ), rows.end(),
                           before );
         rows.resize( most );
      }
   } );
   std::sort( rows.begin(), rows.end(), before );
   rows.resize( std::min( rows.size(), most ) );
   return found;
}

std::string hostAge( const HostAndSource& row ) {
   const double updated = row.host().updateTime();
   return updated > 0 ? ageText( Vexil::SystemClock().now() - updated ) : "-";
}

HostStates::HostStates( const Context& context )
   : names( context ), refused_( hostsRefused( context ) ) {
   const ParkedEntries entries( context );
   for( const ParkedEntry& parked : entries.all() )
      if( parked.key.kind == parkedHost_ )
         parked_.emplace( parked.key.mvp, reasonText( parked, names ) );
}

std::string HostStates::of( const HostAndSource& row ) const {
   if( const auto parked = parked_.find( row.key() ); parked != parked_.end() )
      return "a newer one is parked: " + parked->second;
   if( !names.known( row.source() ) )
      return "held, its source has left";
   if( const auto refused = refused_.find( row.key() ); refused != refused_.end() )
      return "kernel: " + refused->second;
   return "";
}

size_t HostStates::parkedWithoutRow( const OutputReader& output, const RowFilter& filter ) const {
   return static_cast<size_t>(
      std::count_if( parked_.begin(), parked_.end(), [ & ]( const auto& parked ) {
         return filter.wants( parked.first ) && !output.hosts.get( parked.first );
      } ) );
}

} // namespace Tools
