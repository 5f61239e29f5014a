#include "bridge/Topology.h"

namespace Bridge {

bool Topology::linkIs( const Link& link ) {
   unseen_.erase( link.index );
   Link& known = links_[ link.index ];
   if( known == link )
      return false;
   known = link;
   return true;
}

bool Topology::linkDel( uint32_t index ) { return links_.erase( index ) > 0; }

bool Topology::dumpEnded() {
   const bool any = !unseen_.empty();
   for( const auto& [ index, ignored ] : unseen_ )
      links_.erase( index );
   unseen_.clear();
   return any;
}

Place Topology::placeOf( const std::string& bridgeName ) const {
   Place place;
   const Link* bridge = nullptr;
   for( const auto& [ index, link ] : links_ )
      if( link.name == bridgeName )
         bridge = &link;
   if( !bridge || !bridge->isBridge ) {
      place.fault = bridge ? bridgeName + " is no bridge" : "no bridge " + bridgeName;
      return place;
   }
   if( bridge->vlanFiltering ) {
      place.fault = "vlan_filtering is on, which is not supported";
      return place;
   }
   place.bridge = bridge->index;
   const Link* vxlan = nullptr;
   bool several = false;
   for( const auto& [ index, link ] : links_ ) {
      if( link.master != bridge->index )
         continue;
      if( !link.isVxlan ) {
         place.ports.insert( index );
         continue;
      }
      several = vxlan != nullptr;
      vxlan = &link;
   }
   if( !vxlan )
      place.fault = "no VXLAN port";
   else if( several )
      place.fault = "more than one VXLAN port, one is supported";
   else if( vxlan->external )
      place.fault = vxlan->name + " is in external mode, which is not supported";
   if( !place.fault.empty() )
      return place;
   place.vxlan = vxlan->index;
   place.vxlanName = vxlan->name;
   place.vni = vxlan->vni;
   place.local = vxlan->local;
   return place;
}

std::string Topology::nameOf( uint32_t index ) const {
   const auto found = links_.find( index );
   return found == links_.end() ? "interface " + std::to_string( index ) : found->second.name;
}

} // namespace Bridge
