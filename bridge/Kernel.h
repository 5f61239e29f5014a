// What the kernel holds and takes: links, forwarding entries and nexthops as values, the writes
// that change them, and who carries those out.
//
// Everything that decides works on these values. Netlink is behind the class Kernel, so a test can
// put a model in its place.
#pragma once

#include "L2Rib/NetTypes.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Bridge {

using Vexil::EthAddr;
using Vexil::IpGenAddr;

// An interface. Numbers are ifindexes; 0 is none.
struct Link {
   uint32_t index = 0;
   uint32_t master = 0; // the bridge that it is a port of
   std::string name;
   bool isBridge = false;
   bool vlanFiltering = false; // of a bridge
   bool isVxlan = false;
   bool external = false; // of a VXLAN device: it has no VNI of its own
   uint32_t vni = 0;
   IpGenAddr local; // unset when the device has no address of its own

   friend bool operator==( const Link&, const Link& ) = default;
};

// A forwarding entry, either of a bridge or of a VXLAN device itself.
struct FdbEntry {
   uint32_t device = 0; // the port, or the VXLAN device
   uint32_t bridge = 0; // whose entry it is; 0: the device's own
   EthAddr mac;
   bool external = false;  // NTF_EXT_LEARNED
   bool permanent = false; // NUD_PERMANENT: an address of the system itself, in a bridge
   bool fixed = false;     // NUD_NOARP, what people call static
   bool marked = false;    // a fixed entry that this program made
   // Of a VXLAN device's own entry: where it leads.
   IpGenAddr vtep;
   uint32_t vni = 0;     // 0: the device's own
   uint32_t nexthop = 0; // of a group; 0: none
};

// A nexthop for forwarding entries: one VTEP, or a group of such nexthops.
struct Nexthop {
   uint32_t id = 0;
   uint8_t protocol = 0;
   IpGenAddr vtep;                // unset for a group
   std::vector<uint32_t> members; // of a group, ascending; empty for a VTEP

   friend bool operator==( const Nexthop&, const Nexthop& ) = default;
};

// The number by which this program knows its nexthops again (rtm_protocol; those below 5 are
// reserved in linux/rtnetlink.h, the others are for their users to agree on; docs/bridge.md
// registers this one).
constexpr uint8_t nexthopProtocol = 76;

// One change. All but the deletions make what is not there and replace what is.
struct Write {
   enum Kind : uint8_t {
      nexthopIs,    // id leads to vtep
      newNexthopIs, // the same, refused when anybody has that id
      groupIs,      // id is a group of members
      newGroupIs,
      nexthopDel, // of a VTEP or a group
      remoteIs,   // mac on the VXLAN device leads to the group id or, without one, to vtep and vni
      remoteDel,  // all of mac on the VXLAN device
      floodIs,    // vtep and vni added to the device's flood list
      floodDel,   // taken from it
      externalIs, // mac of the device's bridge leads to the device, as learned elsewhere
      fixedIs,    // the same, static and marked as ours
      dynamicIs,  // the same, as learned by the bridge: it ages
      entryDel,   // mac of the device's bridge, if it leads to the device
   };
   Kind kind;
   uint32_t device = 0;
   uint32_t id = 0;
   EthAddr mac{};
   uint32_t vni = 0; // 0: the device's own
   IpGenAddr vtep{};
   std::vector<uint32_t> members{};
};

// What became of a write. The error is the kernel's errno; 0 says that it was carried out.
struct Outcome {
   int error = 0;
   std::string text; // the kernel's words, or those of the errno; empty without an error
};

class Kernel {
 public:
   virtual ~Kernel() = default;
   // Carries the writes out in their order; one outcome each. A refused one holds up none behind
   // it. Throws std::system_error when the kernel does not answer as it should: what was carried
   // out is then unknown.
   virtual std::vector<Outcome> apply( const std::vector<Write>& writes ) = 0;
   // Tells the entries of these addresses that are there: the bridge's, and the VXLAN device's own
   // (not when that is 0).
   using Found = std::function<void( const FdbEntry& entry )>;
   virtual void lookUp( uint32_t bridge, uint32_t vxlan, const std::vector<EthAddr>& macs,
                        const Found& found ) = 0;
};

// Who hears what is there, from a dump or as it changes.
class KernelListener {
 public:
   virtual ~KernelListener() = default;
   virtual void linkIs( const Link& link ) = 0;
   virtual void linkDel( uint32_t index ) = 0;
   virtual void entryIs( const FdbEntry& entry ) = 0;
   virtual void entryDel( const FdbEntry& entry ) = 0;
   virtual void nexthopIs( const Nexthop& nexthop ) = 0;
   virtual void nexthopDel( uint32_t id ) = 0;
};

} // namespace Bridge
