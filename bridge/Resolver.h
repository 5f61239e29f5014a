// Where an output host leads: follows its next through groups to destinations, or takes what it
// carries inline. Knows nothing of devices; VNIs stay as they are.
#pragma once

#include "L2Rib/L2Rib.h"
#include "bridge/Kernel.h"

#include <compare>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace Bridge {

// A VTEP and the VNI to send to it in; 0: that of the device, as with inline destinations.
struct Remote {
   IpGenAddr vtep;
   uint32_t vni = 0;
   friend auto operator<=>( const Remote&, const Remote& ) = default;
};

// Where something leads. In the output a next always exists; a reader that looks between two writes
// may find it gone all the same, and is told of the change in a moment.
struct Destination {
   enum Kind {
      absent,      // an object is not there (any more): reason says which
      remotes,     // VTEPs, ascending, at least one
      interface,   // that ifindex
      unsupported, // reason says what
   };
   Kind kind = absent;
   std::vector<Remote> vteps;
   uint64_t ifindex = 0;
   std::string reason;

   friend bool operator==( const Destination&, const Destination& ) = default;
};

// How the objects of the output are looked up.
struct OutputObjects {
   std::function<std::optional<L2Rib::DestAndSource>( L2Rib::DestId )> dest;
   std::function<std::optional<L2Rib::LoadBalanceAndSource>( L2Rib::LoadBalanceId )> group;
};

Destination destinationOf( const L2Rib::ObjTuple& next, const OutputObjects& objects );
Destination destinationOf( const L2Rib::CiDest& ciDest );
Destination destinationOf( const L2Rib::Dest& dest );

} // namespace Bridge
