// Which bridge, VXLAN device and ports serve a VLAN, as the links are at present.
#pragma once

#include "bridge/Kernel.h"

#include <map>
#include <set>
#include <string>

namespace Bridge {

// What a VLAN has to forward with. Without a VXLAN device nothing is programmed; with a bridge,
// what it learns is published all the same.
struct Place {
   uint32_t bridge = 0; // ifindex; 0: there is none that will do
   uint32_t vxlan = 0;  // its port of kind vxlan; 0: there is none that will do
   std::string vxlanName;
   uint32_t vni = 0;
   IpGenAddr local;
   std::set<uint32_t> ports; // all others
   std::string fault;        // what is missing, in a few words; empty: nothing

   friend bool operator==( const Place&, const Place& ) = default;
};

class Topology {
 public:
   // Return whether anything changed.
   bool linkIs( const Link& link );
   bool linkDel( uint32_t index );
   // Links that are not told between these two are gone.
   void dumpBegins() { unseen_ = links_; }
   bool dumpEnded();

   Place placeOf( const std::string& bridgeName ) const;
   // "interface 7" when there is none of that number.
   std::string nameOf( uint32_t index ) const;

 private:
   std::map<uint32_t, Link> links_;
   std::map<uint32_t, Link> unseen_;
};

} // namespace Bridge
