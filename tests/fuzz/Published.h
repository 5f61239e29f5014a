// A source as the fuzz targets drive it, and its tables as the agent has them.
#pragma once

#include "client/SourcePublisher.h"
#include "tests/fuzz/FuzzSupport.h"

namespace Fuzz {

struct Published {
   L2Rib::Client::SourcePublisher source{ { .stateDirectory = folder().file( "state" ),
                                            .name = "fuzz",
                                            .value = L2Rib::sourceBit6_,
                                            .hostCapacity = 4,
                                            .objectCapacity = 4,
                                            .floodCapacity = 4 } };
   const L2Rib::HostInput hosts = table<L2Rib::HostInput>( "hostInput" );
   const L2Rib::LoadBalanceTable lbs = table<L2Rib::LoadBalanceTable>( "loadBalanceTable" );
   const L2Rib::LabelTable labels = table<L2Rib::LabelTable>( "labelTable" );
   const L2Rib::DestTable dests = table<L2Rib::DestTable>( "destTable" );
   const L2Rib::FloodMemberTable floods = table<L2Rib::FloodMemberTable>( "floodSets" );

   template<class Table>
   static Table table( const std::string& name ) {
      return Table(
         folder().file( "state/" + L2Rib::Client::SourceFolder::tablePath( "fuzz", name ) ),
         Table::Mode::read );
   }
   void requireSound() const {
      const auto check = []( const auto& record ) {
         require( !faultIn( record ), "what is accepted is sound" );
      };
      hosts.forEach( check );
      lbs.forEach( check );
      labels.forEach( check );
      dests.forEach( check );
      floods.forEach( check );
   }
};

} // namespace Fuzz
