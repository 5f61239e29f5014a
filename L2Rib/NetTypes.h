// Addresses and numbers of the network: Ethernet and IP addresses, MPLS labels, VLANs, sequence
// numbers, and the MAC/VLAN pair that keys every host.
//
// All are values with the layout of the shared tables. A default-constructed one is all zero bytes.
// Their hashes are part of the table format and may not change.
#pragma once

#include "L2Rib/Wire.h"
#include "runtime/Hash.h"

#include <array>
#include <bit>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Vexil {

// A 48-bit Ethernet address in network order, followed by two bytes that are zero and that no
// operation reads, since another process may have left anything in them.
class alignas( 4 ) EthAddr {
 public:
   constexpr EthAddr() = default;
   explicit constexpr EthAddr( const std::array<uint8_t, 6>& bytes ) : byte_( bytes ) {}
   // The address as number() gives it; bits above the 48th are dropped.
   explicit constexpr EthAddr( uint64_t number ) {
      for( size_t i = byte_.size(); i-- > 0; number >>= 8 )
         byte_[ i ] = static_cast<uint8_t>( number );
   }
   // Six pairs of hexadecimal digits of either case, separated by colons; anything else is nullopt.
   static std::optional<EthAddr> parse( std::string_view text );

   // In network order, as they stand in a frame.
   constexpr const std::array<uint8_t, 6>& bytes() const { return byte_; }
   // The address read as a number, its first byte highest: 0x020000000001 for 02:00:00:00:00:01.
   // The order of addresses is that of these numbers, and so that of their bytes and texts.
   constexpr uint64_t number() const {
      return __builtin_bswap64( std::bit_cast<uint64_t>( *this ) ) >> 16;
   }
   // Multiplicative (Knuth, volume 3, section 6.4): the high bits are good, which is what counts.
   constexpr uint64_t hash() const { return number() * 0x9e3779b97f4a7c15ULL; }
   // "02:00:00:00:00:01", in lower case.
   std::string str() const;

   friend constexpr bool operator==( EthAddr a, EthAddr b ) {
      return ( std::bit_cast<uint64_t>( a ) ^ std::bit_cast<uint64_t>( b ) ) << 16 == 0;
   }
   friend constexpr std::strong_ordering operator<=>( EthAddr a, EthAddr b ) {
      return a.number() <=> b.number();
   }

 private:
   std::array<uint8_t, 6> byte_{};
   [[maybe_unused]] std::array<uint8_t, 2> pad_{};
};

// An IPv4 or IPv6 address, or none. An IPv4 address fills the first four bytes, the others are
// zero. The order is by family first (unset, IPv4, IPv6), then by the bytes.
class IpGenAddr {
 public:
   // The values of the socket address families, which are fixed on this platform.
   static constexpr uint32_t familyUnset = 0;
   static constexpr uint32_t familyIpv4 = 2;
   static constexpr uint32_t familyIpv6 = 10;

   constexpr IpGenAddr() = default;
   constexpr IpGenAddr( uint32_t family, const std::array<uint8_t, 16>& bytes )
      : family_( family ), byte_( bytes ) {}
   // "10.0.0.1" or "2001:db8::1"; anything else is nullopt.
   static std::optional<IpGenAddr> parse( std::string_view text );

   constexpr uint32_t family() const { return family_; }
   constexpr const std::array<uint8_t, 16>& bytes() const { return byte_; }
   // As parse() takes it; "(unset)" when there is none; "(family 2 bytes 0a00...01)" when it is
   // none of these. Different addresses have different texts.
   std::string str() const;
   uint64_t hash() const { return hashBytes( this, sizeof *this ); }

   friend constexpr bool operator==( const IpGenAddr&, const IpGenAddr& ) = default;
   friend constexpr auto operator<=>( const IpGenAddr&, const IpGenAddr& ) = default;

 private:
   uint32_t family_ = familyUnset;
   std::array<uint8_t, 16> byte_{};
};

// A 20-bit MPLS label in a 32-bit slot. The default is label 0, which is a valid label: where there
// may be no label, say MplsLabel::none.
class MplsLabel {
 public:
   static const MplsLabel none; // 0x100000, the first value past the valid ones

   constexpr MplsLabel() = default;
   explicit constexpr MplsLabel( uint32_t value ) : value_( value ) {}

   constexpr uint32_t value() const { return value_; }
   // Whether it fits the 20 bits, and so is a label at all.
   constexpr bool valid() const { return value_ < 0x100000; }
   constexpr uint64_t hash() const { return mix64( value_ ); }
   // The number in decimal; "none" for none.
   std::string str() const;

   friend constexpr bool operator==( MplsLabel, MplsLabel ) = default;
   friend constexpr auto operator<=>( MplsLabel, MplsLabel ) = default;

 private:
   uint32_t value_ = 0;
};
inline constexpr MplsLabel MplsLabel::none{ 0x100000 };

// A sequence number that wraps around, in the serial-number order of RFC 1982: a < b when b is at
// most 2^31 - 1 steps ahead of a, so that 1 is newer than 0xffffffff. Two numbers exactly 2^31
// apart are unequal, yet neither is less. The order is not transitive over the whole circle: it
// ranks two numbers and must not be used to sort many.
class Seqno32 {
 public:
   constexpr Seqno32() = default;
   explicit constexpr Seqno32( uint32_t value ) : value_( value ) {}

   constexpr uint32_t value() const { return value_; }
   std::string str() const { return std::to_string( value_ ); }

   friend constexpr bool operator==( Seqno32, Seqno32 ) = default;
   friend constexpr bool operator<( Seqno32 a, Seqno32 b ) {
      const uint32_t ahead = b.value_ - a.value_;
      return ahead > 0 && ahead < 0x80000000;
   }

 private:
   uint32_t value_ = 0;
};

} // namespace Vexil

using Vexil::Seqno32;

namespace Bridging {

using Vexil::operator<<;

// A VLAN number. 0 is no VLAN; nothing here bounds it, what enters from outside is checked there.
class VlanId {
 public:
   constexpr VlanId() = default;
   explicit constexpr VlanId( uint32_t value ) : value_( value ) {}

   constexpr uint32_t value() const { return value_; }
   constexpr uint64_t hash() const { return value_ * 0xd6e8feb86659fd93ULL; }
   std::string str() const { return std::to_string( value_ ); }

   friend constexpr bool operator==( VlanId, VlanId ) = default;
   friend constexpr auto operator<=>( VlanId, VlanId ) = default;

 private:
   uint32_t value_ = 0;
};

// The key of a host: a MAC address in a VLAN. All zero is the invalid pair. Ordered by VLAN, then
// by MAC, the way in which people read a table of hosts.
class MacVlanPair {
 public:
   constexpr MacVlanPair() = default;
   constexpr MacVlanPair( Vexil::EthAddr mac, VlanId vlan ) : mac_( mac ), vlan_( vlan ) {}

   constexpr Vexil::EthAddr mac() const { return mac_; }
   constexpr VlanId vlan() const { return vlan_; }
   // Computed some times for every host that is decided, so one round of mixing has to do.
   constexpr uint64_t hash() const { return Vexil::mix64( mac_.hash() ^ vlan_.hash() ); }
   // "(02:00:00:00:00:01/10)"; "(MVP INVALID)" for the invalid pair.
   std::string str() const;

   friend constexpr bool operator==( const MacVlanPair&, const MacVlanPair& ) = default;
   friend constexpr std::strong_ordering operator<=>( const MacVlanPair& a, const MacVlanPair& b ) {
      const std::strong_ordering byVlan = a.vlan_ <=> b.vlan_;
      return byVlan != 0 ? byVlan : a.mac_ <=> b.mac_;
   }

 private:
   friend L2Rib::RecordLayout;
   Vexil::EthAddr mac_;
   VlanId vlan_;
};

} // namespace Bridging
