#include "evpn/Import.h"

#include "L2Rib/EvpnStatus.h"

#include <algorithm>

namespace Evpn {

static_assert( static_cast<size_t>( NotTaken::count ) == L2Rib::evpnReasons );

Import::Import( const IpGenAddr& vtep, const std::map<uint32_t, VlanOptions>& vlans,
                const Speaker& speaker )
   : vtep_( vtep ) {
   for( const auto& [ vlan, options ] : vlans ) {
      Vlan& made = vlans_[ vlan ];
      made.vni = options.vni;
      made.rd = options.rd.value_or( rdOf( speaker.routerId, static_cast<uint16_t>( vlan ) ) );
      made.targets = options.targets;
      if( made.targets.empty() )
         made.targets.push_back( targetOf( speaker.as, options.vni ) );
      std::sort( made.targets.begin(), made.targets.end() );
      for( const uint64_t target : made.targets )
         byTarget_.emplace( target, static_cast<uint16_t>( vlan ) );
   }
}

NotTaken Import::judge( const Route& route, std::vector<uint16_t>& vlans ) const {
   vlans.clear();
   const RouteKey& key = route.key;
   if( route.nextHop == vtep_ )
      return NotTaken::own;
   for( const uint64_t target : route.targets ) {
      const auto [ from, to ] = byTarget_.equal_range( target );
      for( auto at = from; at != to; ++at )
         if( std::find( vlans.begin(), vlans.end(), at->second ) == vlans.end() )
            vlans.push_back( at->second );
   }
   if( vlans.empty() )
      return NotTaken::target;
   const bool perSegment = key.type == RouteType::ethernetAd && key.tag == tagOfSegment;
   if( key.tag != 0 && !perSegment )
      return NotTaken::tag;
   if( route.foreignEncapsulation )
      return NotTaken::encapsulation;
   if( key.type == RouteType::multicast && !route.ingressReplication )
      return NotTaken::tunnel;
   if( route.nextHop.family() != vtep_.family() )
      return NotTaken::nextHop;
   if( !perSegment && ( route.vni == 0 || route.vni > maxVni ) )
      return NotTaken::vni;
   if( key.type == RouteType::macIp &&
       ( key.mac == EthAddr() || ( key.mac.bytes()[ 0 ] & 1 ) != 0 ) )
      return NotTaken::mac;
   if( key.type == RouteType::ethernetAd && !route.esi.named() )
      return NotTaken::unreadable;
   return NotTaken::taken;
}

bool Import::announcedByUs( const Route& route ) const {
   return route.own && route.key.type != RouteType::ethernetAd &&
          ( route.nextHop == vtep_ ||
            std::any_of( vlans_.begin(), vlans_.end(),
                         [ & ]( const auto& entry ) { return entry.second.rd == route.key.rd; } ) );
}

} // namespace Evpn
