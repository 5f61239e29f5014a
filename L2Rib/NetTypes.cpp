#include "L2Rib/NetTypes.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstdio>
#include <cstring>

namespace Vexil {

static_assert( IpGenAddr::familyIpv4 == AF_INET && IpGenAddr::familyIpv6 == AF_INET6 );

std::optional<EthAddr> EthAddr::parse( std::string_view text ) {
   std::array<uint8_t, 6> bytes{};
   if( text.size() != 3 * bytes.size() - 1 )
      return std::nullopt;
   for( size_t i = 0; i < bytes.size(); ++i ) {
      const char* pair = text.data() + 3 * i;
      if( i > 0 && pair[ -1 ] != ':' )
         return std::nullopt;
      const auto [ end, error ] = std::from_chars( pair, pair + 2, bytes[ i ], 16 );
      if( error != std::errc() || end != pair + 2 )
         return std::nullopt;
   }
   return EthAddr( bytes );
}

std::string EthAddr::str() const {
   char text[ 18 ];
   std::snprintf( text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", byte_[ 0 ], byte_[ 1 ],
                  byte_[ 2 ], byte_[ 3 ], byte_[ 4 ], byte_[ 5 ] );
   return text;
}

std::optional<IpGenAddr> IpGenAddr::parse( std::string_view text ) {
   char terminated[ INET6_ADDRSTRLEN ];
   if( text.size() >= sizeof terminated || text.find( '\0' ) != text.npos )
      return std::nullopt;
   terminated[ text.copy( terminated, text.size() ) ] = '\0';
   for( const uint32_t family : { familyIpv4, familyIpv6 } ) {
      std::array<uint8_t, 16> bytes{};
      if( inet_pton( static_cast<int>( family ), terminated, bytes.data() ) == 1 )
         return IpGenAddr( family, bytes );
   }
   return std::nullopt;
}

std::string IpGenAddr::str() const {
   if( *this == IpGenAddr() )
      return "(unset)";
   const auto isRest = []( uint8_t byte ) { return byte == 0; };
   char text[ INET6_ADDRSTRLEN ];
   if( family_ == familyIpv6 ||
       ( family_ == familyIpv4 && std::all_of( byte_.begin() + 4, byte_.end(), isRest ) ) )
      return inet_ntop( static_cast<int>( family_ ), byte_.data(), text, sizeof text );
   std::string odd = "(family " + std::to_string( family_ ) + " bytes ";
   for( const uint8_t byte : byte_ )
      odd += { "0123456789abcdef"[ byte >> 4 ], "0123456789abcdef"[ byte & 15 ] };
   return odd + ")";
}

std::string MplsLabel::str() const { return *this == none ? "none" : std::to_string( value_ ); }

} // namespace Vexil

namespace Bridging {

std::string MacVlanPair::str() const {
   if( *this == MacVlanPair() )
      return "(MVP INVALID)";
   return "(" + mac_.str() + "/" + vlan_.str() + ")";
}

} // namespace Bridging
