#include "evpn/Publisher.h"

#include "runtime/Hash.h"
#include "runtime/Trace.h"

namespace Evpn {

using namespace L2Rib;

namespace {

// An IPv4 VTEP and a VNI fill 56 bits; of an IPv6 one the hash is taken.
uint64_t idFor( const Hop& hop ) {
   if( hop.vtep.family() != IpGenAddr::familyIpv4 )
      return hop.hash();
   uint64_t address = 0;
   for( size_t i = 0; i < 4; ++i )
      address = address << 8 | hop.vtep.bytes()[ i ];
   return address << 24 | hop.vni;
}

uint64_t idFor( const GroupKey& group ) { return group.hash(); }

FloodMember floodMember( uint16_t vlan, const Hop& hop ) {
   Dest dest( Util::destIdNotInTarn() );
   dest.vxlanIs( { hop.vtep, hop.vni } );
   const EthAddr broadcast( uint64_t( 0xffffffffffff ) );
   return { FloodSetTriple( Bridging::VlanId( vlan ), broadcast, dest ), floodSetTypeVxlan_ };
}

// 0 is no id, and the highest one is kept for the dests of flood sets.
uint64_t usable( uint64_t id ) { return id == 0 || id == UINT64_MAX ? 1 : id; }

} // namespace

template<class Key>
uint64_t Publisher::Ids<Key>::of( const Key& key ) {
   const auto [ at, fresh ] = ids.try_emplace( key, usable( idFor( key ) ) );
   while( fresh && !taken.insert( at->second ).second )
      at->second = usable( at->second + 1 );
   return at->second;
}

template<class Key>
void Publisher::Ids<Key>::release( const Key& key ) {
   if( const auto found = ids.find( key ); found != ids.end() ) {
      taken.erase( found->second );
      ids.erase( found );
   }
}

bool Publisher::accepted( const Client::Rejection& rejection ) {
   if( !rejection )
      return true;
   if( refusal_ != *rejection )
      Vexil::log( "not published for now: " + *rejection );
   refusal_ = *rejection;
   return false;
}

bool Publisher::use( const Hop& hop ) {
   if( size_t* const uses = uses_.find( hop ) ) {
      ++*uses;
      return true;
   }
   Dest dest{ DestId( destIds_.of( hop ) ) };
   dest.vxlanIs( { hop.vtep, hop.vni } );
   if( !accepted( source_.destIs( dest ) ) ) {
      destIds_.release( hop );
      return false;
   }
   *uses_.emplace( hop ).first = 1;
   return true;
}

void Publisher::release( const Hop& hop ) {
   size_t* const uses = uses_.find( hop );
   if( !uses || --*uses > 0 )
      return;
   uses_.erase( hop );
   [[maybe_unused]] const auto never = source_.destDel( destOf( hop ) );
   destIds_.release( hop );
}

bool Publisher::hostIs( const MacVlanPair& key, const HostGoal& goal, const HostGoal* before ) {
   if( !goal.segment && !use( goal.hop ) )
      return false;
   const auto vlan = static_cast<uint16_t>( key.vlan().value() );
   Host host( key );
   host.prefIs( goal.sticky ? pref_ + 1 : pref_ );
   host.seqNoIs( Vexil::Seqno32( goal.seqNo ) );
   host.entryTypeIs( goal.sticky ? entryTypeSticky : entryTypeLearned );
   host.nextIs( goal.segment ? ObjTuple( LoadBalanceId( groupIds_.of( { *goal.segment, vlan } ) ) )
                             : ObjTuple( destOf( goal.hop ) ) );
   const bool published = accepted( source_.hostIs( host ) );
   if( !published && !goal.segment )
      release( goal.hop );
   if( published && before && !before->segment )
      release( before->hop );
   return published;
}

void Publisher::hostDel( const MacVlanPair& key, const HostGoal& before ) {
   [[maybe_unused]] const auto never = source_.hostDel( key );
   if( !before.segment )
      release( before.hop );
}

bool Publisher::groupIs( const GroupKey& key, const std::vector<Hop>& hops,
                         const std::vector<Hop>& before ) {
   LoadBalance group{ LoadBalanceId( groupIds_.of( key ) ) };
   size_t used = 0;
   while( used < hops.size() && use( hops[ used ] ) )
      ++used;
   for( uint32_t i = 0; i < used; ++i )
      group.nextIs( EcmpIndex( i ), ObjTuple( destOf( hops[ i ] ) ) );
   const bool published = used == hops.size() && accepted( source_.lbIs( group ) );
   if( published )
      for( const Hop& hop : before )
         release( hop );
   else
      while( used > 0 )
         release( hops[ --used ] );
   if( !published && before.empty() )
      groupIds_.release( key );
   return published;
}

void Publisher::groupDel( const GroupKey& key, const std::vector<Hop>& before ) {
   [[maybe_unused]] const auto never = source_.lbDel( LoadBalanceId( groupIds_.of( key ) ) );
   groupIds_.release( key );
   for( const Hop& hop : before )
      release( hop );
}

bool Publisher::memberIs( uint16_t vlan, const Hop& hop ) {
   return accepted( source_.floodIs( floodMember( vlan, hop ) ) );
}

void Publisher::memberDel( uint16_t vlan, const Hop& hop ) {
   [[maybe_unused]] const auto never = source_.floodDel( floodMember( vlan, hop ).triple );
}

} // namespace Evpn
