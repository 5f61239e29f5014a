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
   L2Rib::HostInput hosts = table<L2Rib::HostInput>( "hostInput" );
   L2Rib::LoadBalanceTable lbs = table<L2Rib::LoadBalanceTable>( "loadBalanceTable" );
   L2Rib::LabelTable labels = table<L2Rib::LabelTable>( "labelTable" );
   L2Rib::DestTable dests = table<L2Rib::DestTable>( "destTable" );
   L2Rib::FloodMemberTable floods = table<L2Rib::FloodMemberTable>( "floodSets" );

   template<class Table>
   static Table table( const std::string& name ) {
      return Table(
         folder().file( "state/" + L2Rib::Client::SourceFolder::tablePath( "fuzz", name ) ),
         Table::Mode::read );
   }
   // Goes over to the table's present file: tables grow.
   static void follow( auto& table ) {
      const Vexil::ManualClock clock;
      while( table.poll( clock, 0 ) ) {
      }
   }
   void requireSound() {
      const auto check = []( const auto& record ) {
         require( !faultIn( record ), "what is accepted is sound" );
      };
      const auto checkAll = [ & ]( auto& table ) {
         follow( table );
         table.forEach( check );
      };
      checkAll( hosts );
      checkAll( lbs );
      checkAll( labels );
      checkAll( dests );
      checkAll( floods );
   }
};

} // namespace Fuzz
