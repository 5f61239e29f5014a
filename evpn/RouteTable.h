// What the routes come to: hosts, groups of VTEPs, flood members.
//
// Takes routes as they come and go, in any order, and tells the listener the net changes since the
// last time. Of several routes for one address in a VLAN the best one counts: a sticky one, then
// the highest mobility number, then the lowest next hop (RFC 7432, section 15). What this machine
// has itself takes part in that: where ours is the best, there is no host. So of two leaves that
// have an address at once, one gives way.
//
// A host on a segment leads to the segment's group: the PEs that announce it per EVI while they
// announce it per ES (RFC 7432, sections 8.2 and 8.4). A group that loses its last PE goes, and the
// hosts on it are gone until there is one again. In a single-active segment there is no sharing:
// the host leads to the PE that announces it, while that one announces the segment per ES.
//
// Pure: no clock, no tables, no BGP. Cost: a route that changes costs its own candidates, a PE that
// leaves a segment costs the segment's groups.
#pragma once

#include "evpn/Route.h"
#include "runtime/HashMap.h"

#include <map>
#include <set>
#include <unordered_map>

namespace Evpn {

// One VTEP with the VNI that it wants to see.
struct Hop {
   IpGenAddr vtep;
   uint32_t vni = 0;

   uint64_t hash() const;
   friend bool operator==( const Hop&, const Hop& ) = default;
   friend auto operator<=>( const Hop&, const Hop& ) = default;
};

// The PEs of a segment, as one VLAN reaches them.
struct GroupKey {
   Esi esi;
   uint16_t vlan = 0;

   uint64_t hash() const;
   friend bool operator==( const GroupKey&, const GroupKey& ) = default;
   friend auto operator<=>( const GroupKey&, const GroupKey& ) = default;
};

struct HostGoal {
   uint32_t seqNo = 0;
   bool sticky = false;
   std::optional<Esi> segment; // then by the group of the host's VLAN, else by the hop
   Hop hop;

   friend bool operator==( const HostGoal&, const HostGoal& ) = default;
};

// Who carries the changes out. What is refused (false) counts as it was before, and is told again
// when that is asked for. A group is told before hosts that lead to it, and its end after them.
class RouteListener {
 public:
   virtual ~RouteListener() = default;
   // before is null for a new one.
   virtual bool hostIs( const MacVlanPair& host, const HostGoal& goal, const HostGoal* before ) = 0;
   virtual void hostDel( const MacVlanPair& host, const HostGoal& before ) = 0;
   // Ascending, at least one.
   virtual bool groupIs( const GroupKey& group, const std::vector<Hop>& hops,
                         const std::vector<Hop>& before ) = 0;
   virtual void groupDel( const GroupKey& group, const std::vector<Hop>& before ) = 0;
   virtual bool memberIs( uint16_t vlan, const Hop& hop ) = 0;
   virtual void memberDel( uint16_t vlan, const Hop& hop ) = 0;
};

class RouteTable {
 public:
   // The route, new or changed, for these VLANs. One that is not taken any more is deleted.
   void routeIs( const Route& route, const std::vector<uint16_t>& vlans );
   void routeDel( const RouteKey& key );
   // What this machine announces of the address.
   void ownIs( const MacVlanPair& host, uint32_t seqNo, bool sticky );
   void ownDel( const MacVlanPair& host );
   void vtepIs( const IpGenAddr& vtep ) { vtep_ = vtep; }

   // All routes are stale until they are told again.
   void markStale();
   // Those that were not told again go.
   void sweepStale();

   // Tells the changes, at most that many hosts. Returns whether there are more.
   bool tell( RouteListener& listener, size_t most = SIZE_MAX );
   // What was refused is told again by the next tell().
   void retryRefused();
   size_t refused() const {
      return refused_.size() + refusedGroups_.size() + refusedMembers_.size();
   }

   size_t routes( RouteType type ) const { return counts_[ static_cast<size_t>( type ) ]; }
   size_t stale() const;
   size_t hosts() const { return told_.size(); }
   size_t groups() const { return toldGroups_.size(); }
   size_t members() const { return toldMembers_.size(); }
   // Hosts that the best route would make, if their segments had PEs.
   size_t unresolved() const { return unresolved_.size(); }

 private:
   struct Entry {
      Route route;
      std::vector<uint16_t> vlans;
      uint64_t generation = 0;
   };
   struct Own {
      uint32_t seqNo = 0;
      bool sticky = false;
   };
   struct Segment {
      std::map<IpGenAddr, std::set<RouteKey>> perSegment; // by PE
      std::set<RouteKey> singleActive;                    // those of them that say so
      std::map<GroupKey, std::map<Hop, std::set<RouteKey>>> perEvi;
      std::map<uint16_t, Vexil::KeySet<MacVlanPair>> hosts; // whose best route is on it, by VLAN
   };

   void enter( const Entry& entry );
   void leave( const Entry& entry );
   void touchSegment( const Esi& esi, bool hostsToo );
   const Entry* best( const MacVlanPair& host ) const;
   std::optional<HostGoal> goalOf( const MacVlanPair& host );
   std::vector<Hop> hopsOf( const GroupKey& group ) const;
   void follow( const MacVlanPair& host, const Esi& esi );
   void tellGroups( RouteListener& listener, std::vector<GroupKey>& leaving );
   void tellHost( RouteListener& listener, const MacVlanPair& host );
   void tellMembers( RouteListener& listener );

   IpGenAddr vtep_;
   std::unordered_map<RouteKey, Entry> routes_; // the entries stay where they are
   std::array<size_t, 4> counts_{};
   uint64_t generation_ = 1;
   size_t fresh_ = 0; // routes of this generation
   Vexil::HashMap<MacVlanPair, std::vector<const Entry*>> candidates_;
   Vexil::HashMap<MacVlanPair, Own> own_;
   std::map<Esi, Segment> segments_;
   Vexil::HashMap<MacVlanPair, Esi> onSegment_; // the segment that has the host among its own
   std::map<std::pair<uint16_t, Hop>, std::set<RouteKey>> members_;

   Vexil::KeySet<MacVlanPair> dirty_;
   std::set<GroupKey> dirtyGroups_;
   std::set<std::pair<uint16_t, Hop>> dirtyMembers_;
   std::set<Esi> touched_; // segments that may be of no more use
   Vexil::KeySet<MacVlanPair> refused_;
   std::set<GroupKey> refusedGroups_;
   std::set<std::pair<uint16_t, Hop>> refusedMembers_;
   Vexil::KeySet<MacVlanPair> unresolved_;

   Vexil::HashMap<MacVlanPair, HostGoal> told_;
   std::map<GroupKey, std::vector<Hop>> toldGroups_;
   std::set<std::pair<uint16_t, Hop>> toldMembers_;
};

} // namespace Evpn
