#include "engine/OutputSweep.h"

#include "engine/L2RibPolicySm.h"
#include "engine/SliceWalk.h"

#include <algorithm>

namespace L2Rib {

void OutputSweep::request() {
   if( stage_ == Stage::idle )
      stage_ = Stage::hosts;
   else
      again_ = true;
}

bool OutputSweep::work( Vexil::Seconds deadline ) {
   if( stage_ == Stage::hosts && queueHosts( deadline ) )
      stage_ = Stage::floodMembers;
   if( stage_ == Stage::floodMembers && queueFloodMembers( deadline ) )
      stage_ = Stage::mappings;
   if( stage_ == Stage::mappings && forgetMappings( deadline ) ) {
      stage_ = again_ ? Stage::hosts : Stage::idle;
      again_ = false;
   }
   return stage_ != Stage::idle;
}

uint64_t OutputSweep::left() const {
   if( stage_ == Stage::idle )
      return 0;
   const uint64_t slots = engine_.hostOutput()->slotCount();
   const uint64_t aRound = slots + engine_.floodSet()->vlanFloodSet().size() + 1;
   const uint64_t done = stage_ == Stage::hosts ? std::min<uint64_t>( slot_, slots ) : slots;
   return aRound - done + ( again_ ? aRound : 0 );
}

// Returns, like the two below, whether it is at its end.
bool OutputSweep::queueHosts( Vexil::Seconds deadline ) {
   constexpr uint32_t step = 256; // slots between two looks at the clock
   const HostOutput& table = *engine_.hostOutput();
   if( tableId_ != table.tableId() ) { // another file: its rows stand in other slots
      tableId_ = table.tableId();
      slot_ = 0;
   }
   while( slot_ < table.slotCount() ) {
      const auto row = table.inSlot( slot_++ );
      if( row && !engine_.vanishedSources().keepsHost( row->source() ) )
         engine_.handleHost( row->key() );
      if( slot_ % step == 0 && engine_.clock()->now() > deadline )
         return false;
   }
   slot_ = 0;
   return true;
}

bool OutputSweep::queueFloodMembers( Vexil::Seconds deadline ) {
   constexpr uint32_t step = 64; // members between two looks at the clock
   uint32_t looked = 0;
   const auto& vlans = engine_.floodSet()->vlanFloodSet();
   const FloodSetTriple from = member_;
   const bool resumed = from != FloodSetTriple();
   engine_.setFloodSetTimer();
   for( auto vlan = resumed ? vlans.from( from.vlan() ) : vlans.begin(); vlan != vlans.end();
        ++vlan ) {
      const bool sameVlan = resumed && vlan->key == from.vlan();
      const auto& sets = vlan->value->floodSet();
      for( auto set = sameVlan ? sets.from( from.mac() ) : sets.begin(); set != sets.end();
           ++set ) {
         const bool sameSet = sameVlan && set->key == from.mac();
         const auto& dests = set->value->destSet();
         for( auto dest = sameSet ? dests.from( from.dest() ) : dests.begin(); dest != dests.end();
              ++dest ) {
            const FloodSetTriple member( vlan->key, set->key, dest->key );
            if( ++looked % step == 0 && engine_.clock()->now() > deadline ) {
               member_ = member;
               return false;
            }
            if( !engine_.vanishedSources().keepsMember( member ) )
               engine_.floodSetBacklogIs( member, true );
         }
      }
   }
   member_ = FloodSetTriple();
   return true;
}

bool OutputSweep::forgetMappings( Vexil::Seconds deadline ) {
   constexpr TableType types[] = { tableTypeLoadBalance_, tableTypeLabel_, tableTypeDest_ };
   for( const TableType type : types ) {
      if( mapping_ != ObjTupleAndSource() && mapping_.tableType() != type )
         continue; // done in an earlier slice
      const auto slice =
         walkSlice( engine_.tupleManager( type )->inputToOutput(), mapping_, *engine_.clock(),
                    deadline, [ this ]( const ObjTupleAndSource& otas ) {
                       if( !engine_.sourceSmByEnum( otas.source() ) )
                          engine_.forgetUnwritten( otas );
                    } );
      mapping_ = slice.bookmark;
      if( !slice.atEnd )
         return false;
   }
   return true;
}

} // namespace L2Rib
