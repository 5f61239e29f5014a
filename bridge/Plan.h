// One MAC address: what the kernel has of it, what it should have, and the writes in between.
//
// A host behind VTEPs takes two entries: the bridge's, which leads to the VXLAN device, and the
// device's own, which leads on. A change replaces; nothing is deleted that is made again, but for
// one case that the kernel has no other way for: between a group and a VTEP with a VNI of its own.
#pragma once

#include "bridge/Kernel.h"

#include <string>
#include <vector>

namespace Bridge {

struct There {
   // In the bridge.
   enum Entry : uint8_t {
      noEntry,
      dynamic,  // learned by the bridge
      external, // learned elsewhere; on the VXLAN port it is ours
      marked,   // static, and ours
      fixed,    // static, somebody's
      permanent // of the system itself
   };
   Entry entry = noEntry;
   // On the VXLAN device itself.
   enum Remote : uint8_t {
      noRemote,
      viaGroup,
      viaVtep,
      several // VTEPs, which no program of ours makes
   };
   Remote remote = noRemote;
   bool remoteForeign = false; // not ours
   bool remoteLearned = false; // nor made by a person: it may be replaced
   uint32_t port = 0;          // of the bridge's entry
   uint32_t group = 0;
   uint32_t vni = 0;
   IpGenAddr vtep;

   friend bool operator==( const There&, const There& ) = default;
};

// What the entries of a message make of it: the bridge's, or the device's own.
There::Entry entryKind( const FdbEntry& entry, uint32_t vxlan );
void remoteFrom( There& there, const FdbEntry& entry, uint32_t deviceVni );

struct Goal {
   enum Kind : uint8_t {
      nothing,
      viaGroup, // the VXLAN device, with the nexthop group of that id
      viaVtep,  // the VXLAN device, with vtep and vni
      onPort,   // static on that port
      local,    // learned here: whatever the bridge has
   };
   Kind kind = nothing;
   uint32_t id = 0;
   uint32_t vni = 0;
   IpGenAddr vtep;
   uint32_t port = 0;
};

// Appends the writes that lead from what is there to the goal, none when it is reached. Returns why
// that can't be, in words, when something of somebody else's is in the way; else an empty text.
std::string plan( const There& there, const Goal& goal, EthAddr mac, uint32_t vxlan,
                  std::vector<Write>& writes );
// What is there after the write.
void carryOut( There& there, const Write& write );
// What is there when the goal is reached.
There reachedGoal( const Goal& goal, uint32_t vxlan );
// Whether anything there is ours.
bool hasOurs( const There& there, uint32_t vxlan );

} // namespace Bridge
