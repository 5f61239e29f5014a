#include "evpn/PathBytes.h"

#include <algorithm>

namespace Evpn {

namespace {

// Path attributes, and the flag of those with a length of two bytes.
constexpr uint8_t attributeNextHop = 3;        // RFC 4271, section 5.1.3
constexpr uint8_t attributeReach = 14;         // RFC 4760, section 3
constexpr uint8_t attributeExtended = 16;      // RFC 4360, section 2
constexpr uint8_t attributeTunnel = 22;        // RFC 6514, section 5
constexpr uint8_t extendedLength = 0x10;       // RFC 4271, section 4.3
constexpr uint8_t tunnelIngressReplicated = 6; // RFC 6514, section 5

// Extended communities: the first two bytes.
constexpr uint16_t communityMobility = 0x0600;      // RFC 7432, section 7.7
constexpr uint16_t communityEsiLabel = 0x0601;      // RFC 7432, section 7.5
constexpr uint16_t communityEncapsulation = 0x030c; // RFC 9012, section 4.1
constexpr uint16_t encapsulationVxlan = 8;          // RFC 8365, section 5.1.2.4

// Takes pieces from the front. What is asked for beyond the end is 0 or empty, and then all has
// failed.
class Bytes {
 public:
   explicit Bytes( std::string_view bytes ) : bytes_( bytes ) {}

   std::string_view take( size_t size ) {
      failed_ = failed_ || size > bytes_.size();
      if( failed_ )
         return {};
      const std::string_view taken = bytes_.substr( 0, size );
      bytes_.remove_prefix( size );
      return taken;
   }
   uint64_t number( size_t size ) {
      uint64_t value = 0;
      for( const char byte : take( size ) )
         value = value << 8 | static_cast<uint8_t>( byte );
      return value;
   }
   // None where that is not the size of an address.
   IpGenAddr address( size_t size ) {
      const std::string_view taken = take( size );
      std::array<uint8_t, 16> bytes{};
      if( taken.size() != 4 && taken.size() != bytes.size() )
         return {};
      std::copy( taken.begin(), taken.end(), bytes.begin() );
      return { taken.size() == 4 ? IpGenAddr::familyIpv4 : IpGenAddr::familyIpv6, bytes };
   }
   Esi esi() {
      Esi esi;
      const std::string_view taken = take( esi.bytes.size() );
      std::copy( taken.begin(), taken.end(), esi.bytes.begin() );
      return esi;
   }
   // An address behind its length in bits.
   IpGenAddr sizedAddress() {
      const uint64_t bits = number( 1 );
      failed_ = failed_ || ( bits != 0 && bits != 32 && bits != 128 );
      return failed_ ? IpGenAddr() : address( bits / 8 );
   }
   size_t size() const { return bytes_.size(); }
   bool failed() const { return failed_; }

 private:
   std::string_view bytes_;
   bool failed_ = false;
};

NotTaken readNlri( Bytes bytes, Route& route ) {
   const uint64_t type = bytes.number( 1 );
   const uint64_t size = bytes.number( 1 );
   Bytes body( bytes.take( size ) );
   if( bytes.failed() || type == 0 )
      return NotTaken::unreadable;
   if( type > static_cast<uint64_t>( RouteType::multicast ) )
      return NotTaken::type;
   RouteKey& key = route.key;
   key.type = static_cast<RouteType>( type );
   key.rd = body.number( 8 );
   if( key.type != RouteType::multicast )
      route.esi = body.esi();
   key.tag = static_cast<uint32_t>( body.number( 4 ) );
   if( key.type == RouteType::macIp ) {
      if( body.number( 1 ) != 48 ) // bits of the MAC address
         return NotTaken::unreadable;
      key.mac = EthAddr( body.number( 6 ) );
   }
   if( key.type == RouteType::ethernetAd )
      key.esi = route.esi;
   else
      key.ip = body.sizedAddress();
   if( key.type != RouteType::multicast )
      route.vni = static_cast<uint32_t>( body.number( 3 ) );
   return body.failed() ? NotTaken::unreadable : NotTaken::taken;
}

// Calls each( its 8 bytes as a number ).
template<class Each>
void eachCommunity( Bytes bytes, Each each ) {
   while( bytes.size() > 0 && !bytes.failed() )
      if( const uint64_t community = bytes.number( 8 ); !bytes.failed() )
         each( community );
}

void readCommunities( Bytes bytes, Route& route ) {
   bool vxlan = false;
   bool other = false;
   eachCommunity( bytes, [ & ]( uint64_t community ) {
      const auto kind = static_cast<uint16_t>( community >> 48 );
      if( isTarget( community ) ) {
         route.targets.push_back( community );
      } else if( kind == communityMobility ) {
         route.sticky = ( community >> 40 & 1 ) != 0;
         route.seqNo = static_cast<uint32_t>( community );
      } else if( kind == communityEsiLabel ) {
         route.singleActive = ( community >> 40 & 1 ) != 0;
      } else if( kind == communityEncapsulation ) {
         ( ( community & 0xffff ) == encapsulationVxlan ? vxlan : other ) = true;
      }
   } );
   route.foreignEncapsulation = other && !vxlan;
   std::sort( route.targets.begin(), route.targets.end() );
}

void readAttribute( Bytes bytes, Route& route ) {
   const uint64_t flags = bytes.number( 1 );
   const uint64_t type = bytes.number( 1 );
   Bytes value( bytes.take( bytes.number( ( flags & extendedLength ) != 0 ? 2 : 1 ) ) );
   if( bytes.failed() )
      return;
   if( type == attributeReach ) {
      value.take( 3 ); // the address family
      Bytes hop( value.take( value.number( 1 ) ) );
      // Of two IPv6 addresses the second is link-local (RFC 2545, section 3).
      route.nextHop = hop.address( hop.size() == 32 ? 16 : hop.size() );
   } else if( type == attributeNextHop && route.nextHop == IpGenAddr() ) {
      route.nextHop = value.address( 4 );
   } else if( type == attributeExtended ) {
      readCommunities( value, route );
   } else if( type == attributeTunnel ) {
      value.take( 1 ); // flags
      route.ingressReplication = value.number( 1 ) == tunnelIngressReplicated;
      const auto label = static_cast<uint32_t>( value.number( 3 ) );
      if( route.key.type == RouteType::multicast )
         route.vni = label;
   }
}

} // namespace

NotTaken readPath( std::string_view nlri, const std::vector<std::string_view>& attributes,
                   Route& route ) {
   const NotTaken reason = readNlri( Bytes( nlri ), route );
   if( reason == NotTaken::taken )
      for( const std::string_view attribute : attributes )
         readAttribute( Bytes( attribute ), route );
   return reason;
}

} // namespace Evpn
