#include "evpn/Route.h"

#include "runtime/Hash.h"

#include <algorithm>
#include <charconv>

namespace Evpn {

namespace {

constexpr uint64_t targetSubType = uint64_t( 0x02 ) << 48;

// The 8 bytes of administrator and number: type 0 (2 + 4 bytes), 1 (IPv4 + 2), 2 (4 + 2).
std::optional<uint64_t> packed( std::string_view text ) {
   const size_t colon = text.rfind( ':' );
   if( colon == text.npos )
      return {};
   const auto number = []( std::string_view digits ) -> std::optional<uint32_t> {
      uint32_t value = 0;
      const auto [ at, error ] =
         std::from_chars( digits.data(), digits.data() + digits.size(), value );
      if( error != std::errc() || at != digits.data() + digits.size() )
         return {};
      return value;
   };
   const auto assigned = number( text.substr( colon + 1 ) );
   if( !assigned )
      return {};
   const std::string_view admin = text.substr( 0, colon );
   if( const auto address = IpGenAddr::parse( admin ) ) {
      if( address->family() != IpGenAddr::familyIpv4 || *assigned > 0xffff )
         return {};
      return rdOf( *address, static_cast<uint16_t>( *assigned ) );
   }
   const auto as = number( admin );
   if( !as )
      return {};
   if( *as <= 0xffff )
      return uint64_t( *as ) << 32 | *assigned;
   if( *assigned > 0xffff )
      return {};
   return uint64_t( 2 ) << 48 | uint64_t( *as ) << 16 | *assigned;
}

std::string unpacked( uint64_t type, uint64_t value ) {
   if( type == 0 )
      return std::to_string( value >> 32 & 0xffff ) + ":" + std::to_string( value & 0xffffffff );
   const uint64_t admin = value >> 16 & 0xffffffff;
   std::string text = std::to_string( admin );
   if( type == 1 ) {
      text.clear();
      for( int shift = 24; shift >= 0; shift -= 8 )
         text += ( text.empty() ? "" : "." ) + std::to_string( admin >> shift & 0xff );
   }
   return text + ":" + std::to_string( value & 0xffff );
}

std::string hex( const uint8_t* bytes, size_t count ) {
   static constexpr char digits[] = "0123456789abcdef";
   std::string text;
   for( size_t i = 0; i < count; ++i ) {
      text += i > 0 ? ":" : "";
      text += digits[ bytes[ i ] >> 4 ];
      text += digits[ bytes[ i ] & 15 ];
   }
   return text;
}

} // namespace

bool Esi::named() const {
   const auto all = [ this ]( uint8_t value ) {
      return std::all_of( bytes.begin(), bytes.end(),
                          [ value ]( uint8_t byte ) { return byte == value; } );
   };
   return !all( 0 ) && !all( 0xff );
}

uint64_t RouteKey::hash() const {
   uint64_t all = Vexil::hashCombine( rd, static_cast<uint64_t>( type ) << 32 | tag );
   all = Vexil::hashCombine( all, mac.number() );
   all = Vexil::hashCombine( all, ip.hash() );
   return Vexil::hashCombine( all, Vexil::hashBytes( esi.bytes.data(), esi.bytes.size() ) );
}

std::string RouteKey::str() const {
   std::string text =
      "type " + std::to_string( static_cast<uint32_t>( type ) ) + " rd " + rdStr( rd );
   if( type == RouteType::ethernetAd )
      text += " esi " + hex( esi.bytes.data(), esi.bytes.size() );
   if( type == RouteType::macIp )
      text += " " + mac.str();
   if( ip != IpGenAddr() )
      text += " " + ip.str();
   if( tag != 0 )
      text += " tag " + std::to_string( tag );
   return text;
}

std::optional<uint64_t> parsedRd( std::string_view text ) { return packed( text ); }

std::optional<uint64_t> parsedTarget( std::string_view text ) {
   const auto value = packed( text );
   if( !value )
      return {};
   return *value >> 48 << 56 | targetSubType | ( *value & 0xffffffffffff );
}

std::string rdStr( uint64_t rd ) { return unpacked( rd >> 48, rd ); }

std::string targetStr( uint64_t target ) { return unpacked( target >> 56, target ); }

uint64_t rdOf( const IpGenAddr& router, uint16_t number ) {
   uint64_t admin = 0;
   for( size_t i = 0; i < 4; ++i )
      admin = admin << 8 | router.bytes()[ i ];
   return uint64_t( 1 ) << 48 | admin << 16 | number;
}

uint64_t targetOf( uint32_t as, uint32_t vni ) {
   return targetSubType | uint64_t( as & 0xffff ) << 32 | vni;
}

bool isTarget( uint64_t community ) {
   return ( community >> 48 & 0xff ) == 0x02 && community >> 56 <= 2;
}

} // namespace Evpn
