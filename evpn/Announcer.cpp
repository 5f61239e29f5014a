#include "evpn/Announcer.h"

#include "runtime/Hash.h"

#include <algorithm>

namespace Evpn {

namespace {

constexpr size_t batch = 2000;
constexpr Vexil::Seconds firstInterval = 0.1;
constexpr Vexil::Seconds longestInterval = 60;
constexpr Vexil::Seconds longestWord = 1; // from the speaker, on a change of its table

uint64_t digestOf( const Route& route ) {
   uint64_t all = Vexil::hashCombine( route.key.hash(), route.nextHop.hash() );
   all = Vexil::hashCombine( all, uint64_t( route.vni ) << 32 | route.seqNo );
   all = Vexil::hashCombine( all, route.sticky | route.foreignEncapsulation << 1 |
                                     route.ingressReplication << 2 | route.esi.named() << 3 );
   for( const uint64_t target : route.targets )
      all = Vexil::hashCombine( all, target );
   return all;
}

} // namespace

// --- what is wanted

std::optional<RouteKey> Announcer::keyOf( const MacVlanPair& host ) const {
   const auto vlan = import_->vlans().find( host.vlan().value() );
   if( vlan == import_->vlans().end() )
      return {};
   RouteKey key;
   key.rd = vlan->second.rd;
   key.mac = host.mac();
   return key;
}

void Announcer::touch( const MacVlanPair& host ) {
   if( !present_ )
      return;
   if( const auto key = keyOf( host ) )
      dirty_.emplace( *key );
}

void Announcer::hostIs( const MacVlanPair& host, const Local& local ) {
   const auto [ at, fresh ] = hosts_.emplace( host );
   if( !fresh && *at == local )
      return;
   *at = local;
   touch( host );
}

void Announcer::hostDel( const MacVlanPair& host ) {
   if( hosts_.erase( host ) )
      touch( host );
}

// The route that is to be there under that key.
std::optional<Route> Announcer::wanted( const RouteKey& key ) const {
   const auto rd = vlanOfRd_.find( key.rd );
   if( rd == vlanOfRd_.end() || key.tag != 0 )
      return {};
   const Import::Vlan& vlan = import_->vlans().at( rd->second );
   Route route;
   route.key = key;
   route.nextHop = import_->vtep();
   route.vni = vlan.vni;
   route.targets = vlan.targets;
   if( key.type == RouteType::multicast ) {
      if( key.ip != import_->vtep() )
         return {};
      route.ingressReplication = true;
      return route;
   }
   const Local* const local = hosts_.find( MacVlanPair( key.mac, Bridging::VlanId( rd->second ) ) );
   if( !local || key.ip != IpGenAddr() )
      return {};
   route.seqNo = local->seqNo;
   route.sticky = local->sticky;
   return route;
}

// --- what is there

void Announcer::sessionBegins( std::shared_ptr<const Import> import ) {
   sessionEnds();
   import_ = std::move( import );
   vlanOfRd_.clear();
   for( const auto& [ vlan, said ] : import_->vlans() )
      vlanOfRd_[ said.rd ] = static_cast<uint16_t>( vlan );
}

void Announcer::sessionEnds() {
   present_ = false;
   there_.clear();
   counts_ = {};
   dirty_.clear();
   underWay_.clear();
   suspects_.clear();
   nextTry_ = Vexil::never;
   interval_ = 0;
}

void Announcer::set( const RouteKey& key, std::optional<uint64_t> digest ) {
   size_t& count = counts_[ static_cast<size_t>( key.type ) ];
   if( !digest ) {
      count -= there_.erase( key );
      return;
   }
   const auto [ at, fresh ] = there_.emplace( key );
   *at = *digest;
   count += fresh;
}

std::optional<uint64_t> Announcer::believed( const RouteKey& key ) const {
   const uint64_t* const there = there_.find( key );
   return there ? std::optional( *there ) : std::nullopt;
}

void Announcer::told( const RouteKey& key, std::optional<uint64_t> digest, Vexil::Seconds now ) {
   if( !present_ )
      set( key, digest );
   else if( believed( key ) == digest )
      suspects_.erase( key );
   else
      *suspects_.emplace( key ).first = { digest, now + longestWord };
}

void Announcer::thereIs( const Route& route, Vexil::Seconds now ) {
   told( route.key, digestOf( route ), now );
}

void Announcer::goneIs( const RouteKey& key, Vexil::Seconds now ) { told( key, {}, now ); }

void Announcer::lookAtSuspects( Vexil::Seconds now ) {
   for( auto at = suspects_.begin(); at != suspects_.end(); ++at ) {
      if( at->value.due > now )
         continue;
      const RouteKey key = at->key;
      const Suspect suspect = at->value;
      suspects_.erase( key );
      set( key, suspect.digest );
      dirty_.emplace( key );
   }
}

void Announcer::present() {
   present_ = true;
   for( auto at = hosts_.begin(); at != hosts_.end(); ++at )
      touch( at->key );
   for( const auto& [ rd, vlan ] : vlanOfRd_ ) {
      RouteKey key;
      key.type = RouteType::multicast;
      key.rd = rd;
      key.ip = import_->vtep();
      dirty_.emplace( key );
   }
   for( auto at = there_.begin(); at != there_.end(); ++at )
      dirty_.emplace( at->key );
}

Vexil::Seconds Announcer::nextTry() const {
   Vexil::Seconds next = nextTry_;
   for( auto at = suspects_.begin(); at != suspects_.end(); ++at )
      next = std::min( next, at->value.due );
   return next;
}

// --- the difference

std::vector<Announcement> Announcer::take( bool mayWithdraw, Vexil::Seconds now ) {
   std::vector<Announcement> all;
   if( !present_ || !underWay_.empty() || ( nextTry_ != Vexil::never && now < nextTry_ ) )
      return all;
   nextTry_ = Vexil::never;
   lookAtSuspects( now );
   for( auto at = dirty_.begin(); at != dirty_.end() && all.size() < batch; ++at ) {
      const RouteKey key = at->key;
      const std::optional<Route> route = wanted( key );
      const uint64_t* const there = there_.find( key );
      const std::optional<uint64_t> goal =
         route ? std::optional( digestOf( *route ) ) : std::nullopt;
      if( !route && there && !mayWithdraw )
         continue; // stays to be looked at
      dirty_.erase( key );
      if( route ? there && *there == *goal : !there )
         continue;
      *underWay_.emplace( key ).first = goal;
      Announcement one{ !route, route.value_or( Route() ) };
      if( !route ) {
         one.route.key = key;
         one.route.nextHop = import_->vtep();
      }
      all.push_back( std::move( one ) );
   }
   return all;
}

void Announcer::written( const RouteKey& key ) {
   if( const auto* const goal = underWay_.find( key ) ) {
      set( key, *goal );
      underWay_.erase( key );
   }
   interval_ = 0;
   if( underWay_.empty() )
      refusal_.clear();
}

void Announcer::refused( const RouteKey& key, const std::string& reason, Vexil::Seconds now ) {
   if( !underWay_.erase( key ) )
      return;
   dirty_.emplace( key );
   refusal_ = reason;
   interval_ = std::clamp( 2 * interval_, firstInterval, longestInterval );
   nextTry_ = now + interval_;
}

} // namespace Evpn
