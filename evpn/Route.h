// EVPN routes (RFC 7432, RFC 8365) as values, in terms of this program alone.
//
// Route distinguishers and route targets are the 8 bytes that go over the wire, read as a number,
// the first byte highest (RFC 4364, section 4.2; RFC 4360). A route is known by its key: those
// fields of its NLRI that RFC 7432, section 7 makes part of the prefix. Labels are VNIs, 24 bits.
#pragma once

#include "L2Rib/NetTypes.h"

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Evpn {

using Bridging::MacVlanPair;
using Vexil::EthAddr;
using Vexil::IpGenAddr;

// An Ethernet segment identifier; all zeros for a host on one PE alone.
struct Esi {
   std::array<uint8_t, 10> bytes{};

   // Names a segment: neither all zeros nor all ones (RFC 7432, section 5).
   bool named() const;
   friend bool operator==( const Esi&, const Esi& ) = default;
   friend auto operator<=>( const Esi&, const Esi& ) = default;
};

enum class RouteType : uint32_t { ethernetAd = 1, macIp = 2, multicast = 3 };

// The Ethernet tag of an A-D route per ES (RFC 7432, section 8.2.1).
constexpr uint32_t tagOfSegment = 0xffffffff;
constexpr uint32_t maxVni = 0xffffff;

struct RouteKey {
   RouteType type = RouteType::macIp;
   uint32_t tag = 0;
   uint64_t rd = 0;
   Esi esi{};      // of type 1 alone
   EthAddr mac{};  // of type 2 alone
   IpGenAddr ip{}; // of type 2, where it has one; of type 3 the originator

   uint64_t hash() const;
   std::string str() const;
   friend bool operator==( const RouteKey&, const RouteKey& ) = default;
   friend auto operator<=>( const RouteKey&, const RouteKey& ) = default;
};

struct Route {
   RouteKey key;
   IpGenAddr nextHop;
   Esi esi{};                 // of types 1 and 2
   uint32_t vni = 0;          // its label
   uint32_t seqNo = 0;        // MAC mobility (RFC 7432, section 7.7)
   bool sticky = false;       // its static flag
   bool singleActive = false; // of the segment (RFC 7432, section 7.5)
   bool foreignEncapsulation =
      false;                        // it names tunnels, VXLAN not among them (RFC 9012, section 4)
   bool ingressReplication = false; // of type 3
   bool own = false;                // the BGP speaker has it from this machine, from no peer
   std::vector<uint64_t> targets;   // ascending

   friend bool operator==( const Route&, const Route& ) = default;
};

// "65000:10010", "192.0.2.1:10", "4200000000:10". Nothing for anything else, and for numbers that
// do not fit.
std::optional<uint64_t> parsedRd( std::string_view text );
std::optional<uint64_t> parsedTarget( std::string_view text );
std::string rdStr( uint64_t rd );
std::string targetStr( uint64_t target );

// Route distinguisher of type 1: an IPv4 address and a number.
uint64_t rdOf( const IpGenAddr& router, uint16_t number );
// Route target of type 0: the lower 16 bits of the AS, and the VNI (RFC 8365, section 5.1.2.1, has
// further bits in it; what FRR and others derive is this).
uint64_t targetOf( uint32_t as, uint32_t vni );
// Whether the 8 bytes are a route target at all (RFC 4360, section 4; RFC 5668).
bool isTarget( uint64_t community );

} // namespace Evpn

template<>
struct std::hash<Evpn::RouteKey> {
   size_t operator()( const Evpn::RouteKey& key ) const { return key.hash(); }
};
