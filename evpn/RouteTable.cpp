#include "evpn/RouteTable.h"

#include "L2Rib/Identifiers.h"
#include "runtime/Hash.h"

#include <algorithm>
#include <tuple>

namespace Evpn {

namespace {

constexpr size_t maxHops = L2Rib::EcmpIndex::max + 1;

// Greater is better; the key makes the order total.
auto rankOf( const Route& route ) { return std::tuple( route.sticky, route.seqNo ); }

bool better( const Route& a, const Route& b ) {
   if( rankOf( a ) != rankOf( b ) )
      return rankOf( a ) > rankOf( b );
   return std::tie( a.nextHop, a.key ) < std::tie( b.nextHop, b.key );
}

bool isPerSegment( const Route& route ) {
   return route.key.type == RouteType::ethernetAd && route.key.tag == tagOfSegment;
}

} // namespace

uint64_t Hop::hash() const { return Vexil::hashCombine( vtep.hash(), vni ); }

uint64_t GroupKey::hash() const {
   return Vexil::hashCombine( Vexil::hashBytes( esi.bytes.data(), esi.bytes.size() ), vlan );
}

// --- routes

void RouteTable::routeIs( const Route& route, const std::vector<uint16_t>& vlans ) {
   const auto [ at, fresh ] = routes_.try_emplace( route.key );
   Entry& entry = at->second;
   if( !fresh && entry.generation != generation_ )
      ++fresh_;
   entry.generation = generation_;
   if( !fresh && entry.route == route && entry.vlans == vlans )
      return;
   if( fresh ) {
      ++counts_[ static_cast<size_t>( route.key.type ) ];
      ++fresh_;
   } else {
      leave( entry );
   }
   entry.route = route;
   entry.vlans = vlans;
   enter( entry );
}

void RouteTable::routeDel( const RouteKey& key ) {
   const auto at = routes_.find( key );
   if( at == routes_.end() )
      return;
   leave( at->second );
   fresh_ -= at->second.generation == generation_;
   --counts_[ static_cast<size_t>( key.type ) ];
   routes_.erase( at );
}

void RouteTable::enter( const Entry& entry ) {
   const Route& route = entry.route;
   if( isPerSegment( route ) ) {
      Segment& segment = segments_[ route.esi ];
      const bool shared = segment.singleActive.empty();
      if( route.singleActive )
         segment.singleActive.insert( route.key );
      segment.perSegment[ route.nextHop ].insert( route.key );
      touchSegment( route.esi, shared != segment.singleActive.empty() || !shared );
      return;
   }
   for( const uint16_t vlan : entry.vlans ) {
      if( route.key.type == RouteType::ethernetAd ) {
         const GroupKey group{ route.esi, vlan };
         segments_[ route.esi ].perEvi[ group ][ { route.nextHop, route.vni } ].insert( route.key );
         dirtyGroups_.insert( group );
      } else if( route.key.type == RouteType::multicast ) {
         const std::pair member( vlan, Hop{ route.nextHop, route.vni } );
         members_[ member ].insert( route.key );
         dirtyMembers_.insert( member );
      } else {
         const MacVlanPair host( route.key.mac, Bridging::VlanId( vlan ) );
         candidates_.emplace( host ).first->push_back( &entry );
         dirty_.emplace( host );
      }
   }
}

void RouteTable::leave( const Entry& entry ) {
   const Route& route = entry.route;
   if( isPerSegment( route ) ) {
      Segment& segment = segments_[ route.esi ];
      const bool shared = segment.singleActive.empty();
      segment.singleActive.erase( route.key );
      auto& routes = segment.perSegment[ route.nextHop ];
      routes.erase( route.key );
      if( routes.empty() )
         segment.perSegment.erase( route.nextHop );
      touchSegment( route.esi, !shared );
      return;
   }
   for( const uint16_t vlan : entry.vlans ) {
      if( route.key.type == RouteType::ethernetAd ) {
         const GroupKey group{ route.esi, vlan };
         auto& hops = segments_[ route.esi ].perEvi[ group ];
         const Hop hop{ route.nextHop, route.vni };
         hops[ hop ].erase( route.key );
         if( hops[ hop ].empty() )
            hops.erase( hop );
         dirtyGroups_.insert( group );
      } else if( route.key.type == RouteType::multicast ) {
         const std::pair member( vlan, Hop{ route.nextHop, route.vni } );
         members_[ member ].erase( route.key );
         dirtyMembers_.insert( member );
      } else {
         const MacVlanPair host( route.key.mac, Bridging::VlanId( vlan ) );
         auto* const routes = candidates_.find( host );
         std::erase( *routes, &entry );
         if( routes->empty() )
            candidates_.erase( host );
         dirty_.emplace( host );
      }
   }
}

// The groups of the segment, and its hosts where they lead to a PE and not to a group.
void RouteTable::touchSegment( const Esi& esi, bool hostsToo ) {
   const Segment& segment = segments_[ esi ];
   touched_.insert( esi );
   for( const auto& [ group, hops ] : segment.perEvi )
      dirtyGroups_.insert( group );
   if( !hostsToo )
      return;
   for( const auto& [ vlan, hosts ] : segment.hosts )
      for( auto at = hosts.begin(); at != hosts.end(); ++at )
         dirty_.emplace( at->key );
}

// --- what this machine has

void RouteTable::ownIs( const MacVlanPair& host, uint32_t seqNo, bool sticky ) {
   *own_.emplace( host ).first = { seqNo, sticky };
   if( candidates_.contains( host ) )
      dirty_.emplace( host );
}

void RouteTable::ownDel( const MacVlanPair& host ) {
   if( own_.erase( host ) && candidates_.contains( host ) )
      dirty_.emplace( host );
}

// --- stale routes

void RouteTable::markStale() {
   ++generation_;
   fresh_ = 0;
}

size_t RouteTable::stale() const { return routes_.size() - fresh_; }

void RouteTable::sweepStale() {
   std::vector<RouteKey> gone;
   for( const auto& [ key, entry ] : routes_ )
      if( entry.generation != generation_ )
         gone.push_back( key );
   for( const RouteKey& key : gone )
      routeDel( key );
}

// --- what they come to

const RouteTable::Entry* RouteTable::best( const MacVlanPair& host ) const {
   const auto* const routes = candidates_.find( host );
   if( !routes )
      return nullptr;
   const Entry* first = routes->front();
   for( const Entry* const entry : *routes )
      if( better( entry->route, first->route ) )
         first = entry;
   if( const Own* const own = own_.find( host ) ) {
      const std::tuple ours( own->sticky, own->seqNo );
      if( ours > rankOf( first->route ) ||
          ( ours == rankOf( first->route ) && vtep_ < first->route.nextHop ) )
         return nullptr;
   }
   return first;
}

std::vector<Hop> RouteTable::hopsOf( const GroupKey& group ) const {
   std::vector<Hop> hops;
   const auto segment = segments_.find( group.esi );
   if( segment == segments_.end() )
      return hops;
   const auto found = segment->second.perEvi.find( group );
   if( found == segment->second.perEvi.end() )
      return hops;
   for( const auto& [ hop, routes ] : found->second )
      if( segment->second.perSegment.contains( hop.vtep ) && hops.size() < maxHops )
         hops.push_back( hop );
   return hops;
}

// Files the host under the segment that its best route is on.
void RouteTable::follow( const MacVlanPair& host, const Esi& esi ) {
   const auto vlan = static_cast<uint16_t>( host.vlan().value() );
   const Esi* const known = onSegment_.find( host );
   if( known && *known == esi )
      return;
   if( known ) {
      Segment& left = segments_[ *known ];
      touched_.insert( *known );
      left.hosts[ vlan ].erase( host );
      if( left.hosts[ vlan ].empty() )
         left.hosts.erase( vlan );
      onSegment_.erase( host );
   }
   if( !esi.named() )
      return;
   *onSegment_.emplace( host ).first = esi;
   segments_[ esi ].hosts[ vlan ].emplace( host );
}

std::optional<HostGoal> RouteTable::goalOf( const MacVlanPair& host ) {
   const Entry* const entry = best( host );
   unresolved_.erase( host );
   follow( host, entry ? entry->route.esi : Esi() );
   if( !entry )
      return {};
   const Route& route = entry->route;
   HostGoal goal{ route.seqNo, route.sticky, {}, { route.nextHop, route.vni } };
   if( !route.esi.named() )
      return goal;
   const Segment& segment = segments_[ route.esi ];
   const bool single = !segment.singleActive.empty();
   const GroupKey group{ route.esi, static_cast<uint16_t>( host.vlan().value() ) };
   if( single ? segment.perSegment.contains( route.nextHop ) : toldGroups_.contains( group ) ) {
      if( !single ) {
         goal.segment = route.esi;
         goal.hop = {};
      }
      return goal;
   }
   unresolved_.emplace( host );
   return {};
}

// --- telling

void RouteTable::tellGroups( RouteListener& listener, std::vector<GroupKey>& leaving ) {
   static const std::vector<Hop> none;
   for( const GroupKey& group : std::exchange( dirtyGroups_, {} ) ) {
      touched_.insert( group.esi );
      Segment& segment = segments_[ group.esi ];
      const std::vector<Hop> hops =
         segment.singleActive.empty() ? hopsOf( group ) : std::vector<Hop>();
      const auto told = toldGroups_.find( group );
      const bool known = told != toldGroups_.end();
      if( const auto found = segment.perEvi.find( group );
          found != segment.perEvi.end() && found->second.empty() )
         segment.perEvi.erase( found );
      if( known ? told->second == hops : hops.empty() )
         continue;
      if( !hops.empty() && !listener.groupIs( group, hops, known ? told->second : none ) ) {
         refusedGroups_.insert( group );
         continue;
      }
      if( !known || hops.empty() ) { // its hosts begin or cease to lead there
         if( const auto hosts = segment.hosts.find( group.vlan ); hosts != segment.hosts.end() )
            for( auto at = hosts->second.begin(); at != hosts->second.end(); ++at )
               dirty_.emplace( at->key );
      }
      if( hops.empty() )
         leaving.push_back( group );
      else
         toldGroups_[ group ] = hops;
   }
}

void RouteTable::tellHost( RouteListener& listener, const MacVlanPair& host ) {
   const std::optional<HostGoal> goal = goalOf( host );
   const HostGoal* const told = told_.find( host );
   if( goal ? told && *told == *goal : !told )
      return;
   if( !goal ) {
      const HostGoal before = *told;
      told_.erase( host );
      listener.hostDel( host, before );
   } else if( listener.hostIs( host, *goal, told ) ) {
      *told_.emplace( host ).first = *goal;
   } else {
      refused_.emplace( host );
      // It stays as it was told, unless there is nothing left that this leads to.
      if( told && told->segment &&
          !toldGroups_.contains(
             { *told->segment, static_cast<uint16_t>( host.vlan().value() ) } ) ) {
         const HostGoal before = *told;
         told_.erase( host );
         listener.hostDel( host, before );
      }
   }
}

void RouteTable::tellMembers( RouteListener& listener ) {
   for( const auto& member : std::exchange( dirtyMembers_, {} ) ) {
      const auto found = members_.find( member );
      const bool wanted = found != members_.end() && !found->second.empty();
      if( found != members_.end() && !wanted )
         members_.erase( found );
      if( wanted == toldMembers_.contains( member ) )
         continue;
      if( !wanted ) {
         listener.memberDel( member.first, member.second );
         toldMembers_.erase( member );
      } else if( listener.memberIs( member.first, member.second ) ) {
         toldMembers_.insert( member );
      } else {
         refusedMembers_.insert( member );
      }
   }
}

bool RouteTable::tell( RouteListener& listener, size_t most ) {
   std::vector<GroupKey> leaving;
   std::map<GroupKey, std::vector<Hop>> ended;
   tellMembers( listener );
   tellGroups( listener, leaving );
   for( const GroupKey& group : leaving )
      ended.insert( toldGroups_.extract( group ) ); // no host leads there any more
   if( !ended.empty() ) {
      most = SIZE_MAX; // they go when their hosts have gone
      for( auto at = refused_.begin(); at != refused_.end(); ++at )
         dirty_.emplace( at->key ); // what was told of them may lead there still
   }
   for( auto at = dirty_.begin(); at != dirty_.end() && most > 0; ++at, --most ) {
      const MacVlanPair host = at->key;
      dirty_.erase( host );
      refused_.erase( host );
      tellHost( listener, host );
   }
   for( const auto& [ group, before ] : ended )
      listener.groupDel( group, before );
   for( const Esi& esi : std::exchange( touched_, {} ) )
      if( const Segment& segment = segments_[ esi ];
          segment.perSegment.empty() && segment.perEvi.empty() && segment.hosts.empty() )
         segments_.erase( esi );
   return !dirty_.empty();
}

void RouteTable::retryRefused() {
   for( auto at = refused_.begin(); at != refused_.end(); ++at )
      dirty_.emplace( at->key );
   refused_.clear();
   dirtyGroups_.merge( refusedGroups_ );
   refusedGroups_.clear();
   dirtyMembers_.merge( refusedMembers_ );
   refusedMembers_.clear();
}

} // namespace Evpn
