// The ways that hosts of one bridge take: each next and each inline destination of the output once,
// with what it means for this bridge, however many hosts share it.
//
// A path knows the objects that it leads through, so a change of one finds its paths without a look
// at the hosts. A path whose VTEPs change asks for a new group; whether that is another group or
// the old one with another content is decided over all bridges at once (moveGroups()).
#pragma once

#include "bridge/NexthopSet.h"
#include "bridge/Resolver.h"
#include "bridge/Topology.h"
#include "runtime/HashMap.h"

#include <set>
#include <unordered_map>

namespace Bridge {

// What a path means for its bridge.
struct Forwarding {
   enum Kind : uint8_t {
      waiting, // an object is not there for the moment: what the kernel has stays
      refused,
      viaGroup,
      viaVtep,
      onPort,
   };
   Kind kind = waiting;
   NexthopSet::Group group = NexthopSet::none; // of kind viaGroup
   uint32_t port = 0;
   Remote remote;
   std::string reason;

   friend bool operator==( const Forwarding&, const Forwarding& ) = default;
};
// With the VTEPs in place of the group.
struct WantedForwarding {
   Forwarding forwarding;
   NexthopSet::Vteps vteps;
};
WantedForwarding forwardingOf( const Destination& destination, const Place& place );

class Paths {
 public:
   using Index = uint32_t;
   static constexpr Index none = UINT32_MAX;

   Paths( NexthopSet& nexthops, OutputObjects objects );
   Paths( const Paths& ) = delete; // what it looks objects up with calls back here
   Paths& operator=( const Paths& ) = delete;

   // The path of the host, which is one more user of it.
   Index pathOf( const L2Rib::Host& host );
   void release( Index path );
   const Forwarding& at( Index path ) const { return paths_[ path ].forwarding; }

   // All paths are looked at again by the next update.
   void placeIs( const Place& place );
   // Those that lead through the object are.
   void objectChanged( const L2Rib::ObjTuple& object );
   // Paths with that group.
   void groupChanged( NexthopSet::Group group );

   // Looks at the paths that have to be looked at. Then moveGroups() over the Paths of all bridges
   // decides about groups, and takeChanged() says which paths forward in another way than before.
   void update();
   static void moveGroups( NexthopSet& nexthops, const std::vector<Paths*>& all );
   std::set<Index> takeChanged() { return std::exchange( changed_, {} ); }

 private:
   struct Key {
      L2Rib::ObjTuple next;
      L2Rib::CiDest ciDest;
      bool operator==( const Key& ) const = default;
   };
   struct KeyHash {
      size_t operator()( const Key& key ) const { return Vexil::hashBytes( &key, sizeof key ); }
   };
   struct Path {
      Key key;
      size_t users = 0;
      Forwarding forwarding;
      std::vector<L2Rib::ObjTuple> through;
   };
   struct GroupChange {
      Index path;
      NexthopSet::Group from;
      NexthopSet::Vteps to;
   };

   WantedForwarding resolve( Index path );
   void notThrough( Index path );
   void take( Index path, WantedForwarding wanted );

   NexthopSet& nexthops_;
   OutputObjects objects_;
   Place place_;
   std::vector<Path> paths_;
   std::vector<Index> free_;
   std::unordered_map<Key, Index, KeyHash> byKey_;
   Vexil::HashMap<L2Rib::ObjTuple, std::set<Index>> users_; // of objects
   std::vector<L2Rib::ObjTuple>* visited_ = nullptr;        // while a path is resolved
   std::set<Index> dirty_;
   std::set<Index> changed_;
   std::vector<GroupChange> groupChanges_;
};

} // namespace Bridge
