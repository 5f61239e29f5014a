// Which routes are taken, and for which VLANs; what is not taken is told by reason.
//
// Built once the BGP speaker has said its AS and router id, on which the defaults of route targets
// and route distinguishers rest. Never changes then, so any thread may ask.
#pragma once

#include "evpn/Route.h"

#include <map>

namespace Evpn {

// What is said of a VLAN on the command line.
struct VlanOptions {
   uint32_t vni = 0;
   std::vector<uint64_t> targets; // empty: AS:VNI
   std::optional<uint64_t> rd;    // none: router-id:VLAN
};

// The BGP speaker of this machine.
struct Speaker {
   uint32_t as = 0;
   IpGenAddr routerId;

   friend bool operator==( const Speaker&, const Speaker& ) = default;
};

// Their names are in L2Rib/EvpnStatus.h.
enum class NotTaken : uint32_t {
   taken,         // it is
   target,        // no imported route target
   own,           // its next hop is our VTEP
   type,          // neither of types 1 to 3
   tag,           // a VLAN-aware bundle's Ethernet tag
   encapsulation, // not VXLAN
   tunnel,        // a type 3 without ingress replication
   vni,           // none, or none that fits 24 bits
   nextHop,       // none, or a VTEP of the other address family
   mac,           // a group address, or none
   unreadable,    // not as the API has it
   count
};

class Import {
 public:
   Import( const IpGenAddr& vtep, const std::map<uint32_t, VlanOptions>& vlans,
           const Speaker& speaker );

   // The VLANs that take the route; at least one when the reason is taken.
   NotTaken judge( const Route& route, std::vector<uint16_t>& vlans ) const;

   struct Vlan {
      uint32_t vni = 0;
      uint64_t rd = 0;
      std::vector<uint64_t> targets; // ascending
   };
   const std::map<uint32_t, Vlan>& vlans() const { return vlans_; }
   const IpGenAddr& vtep() const { return vtep_; }
   // Whether this program has announced it, in this life or an earlier one: the speaker has it from
   // no peer, and it leads here or has a route distinguisher of ours.
   bool announcedByUs( const Route& route ) const;

 private:
   IpGenAddr vtep_;
   std::map<uint32_t, Vlan> vlans_;
   std::multimap<uint64_t, uint16_t> byTarget_;
};

} // namespace Evpn
