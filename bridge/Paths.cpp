#include "bridge/Paths.h"

#include <algorithm>

namespace Bridge {

using namespace L2Rib;

WantedForwarding forwardingOf( const Destination& destination, const Place& place ) {
   WantedForwarding wanted;
   Forwarding& forwarding = wanted.forwarding;
   forwarding.kind = Forwarding::refused;
   forwarding.reason = destination.reason;
   if( destination.kind == Destination::absent )
      forwarding.kind = Forwarding::waiting;
   if( destination.kind == Destination::interface ) {
      const auto port = static_cast<uint32_t>( destination.ifindex );
      if( place.bridge == 0 )
         forwarding.reason = place.fault;
      else if( port != destination.ifindex || !place.ports.contains( port ) )
         forwarding.reason =
            "interface " + std::to_string( destination.ifindex ) + " is no port of the bridge";
      else
         forwarding = { .kind = Forwarding::onPort, .port = port, .remote = {}, .reason = {} };
   }
   if( destination.kind != Destination::remotes )
      return wanted;
   if( place.vxlan == 0 ) {
      forwarding.reason = place.fault;
      return wanted;
   }
   const bool ownVni = std::all_of(
      destination.vteps.begin(), destination.vteps.end(),
      [ & ]( const Remote& remote ) { return remote.vni == 0 || remote.vni == place.vni; } );
   if( ownVni ) {
      forwarding = { .kind = Forwarding::viaGroup, .remote = {}, .reason = {} };
      for( const Remote& remote : destination.vteps )
         wanted.vteps.push_back( remote.vtep );
      wanted.vteps.erase( std::unique( wanted.vteps.begin(), wanted.vteps.end() ),
                          wanted.vteps.end() );
   } else if( destination.vteps.size() == 1 ) {
      forwarding = { .kind = Forwarding::viaVtep, .remote = destination.vteps[ 0 ], .reason = {} };
   } else {
      forwarding.reason = "a group with a VNI other than that of " + place.vxlanName;
   }
   return wanted;
}

Paths::Paths( NexthopSet& nexthops, OutputObjects objects ) : nexthops_( nexthops ) {
   objects_.dest = [ this, dest = std::move( objects.dest ) ]( DestId id ) {
      visited_->push_back( ObjTuple( id ) );
      return dest( id );
   };
   objects_.group = [ this, group = std::move( objects.group ) ]( LoadBalanceId id ) {
      visited_->push_back( ObjTuple( id ) );
      return group( id );
   };
}

Paths::Index Paths::pathOf( const Host& host ) {
   const Key key{ host.next(), host.ciDest() };
   const auto [ found, fresh ] = byKey_.try_emplace( key, none );
   if( fresh ) {
      if( free_.empty() ) {
         free_.push_back( static_cast<Index>( paths_.size() ) );
         paths_.emplace_back();
      }
      found->second = free_.back();
      free_.pop_back();
      paths_[ found->second ] = { key, 0, {}, {} };
      WantedForwarding wanted = resolve( found->second );
      if( wanted.forwarding.kind == Forwarding::viaGroup )
         wanted.forwarding.group = nexthops_.groupIs( wanted.vteps );
      paths_[ found->second ].forwarding = std::move( wanted.forwarding );
   }
   ++paths_[ found->second ].users;
   return found->second;
}

void Paths::release( Index index ) {
   Path& path = paths_[ index ];
   if( --path.users > 0 )
      return;
   notThrough( index );
   if( path.forwarding.kind == Forwarding::viaGroup )
      nexthops_.release( path.forwarding.group );
   byKey_.erase( path.key );
   dirty_.erase( index );
   changed_.erase( index );
   path = Path();
   free_.push_back( index );
}

void Paths::notThrough( Index index ) {
   for( const ObjTuple& object : paths_[ index ].through )
      if( std::set<Index>* const users = users_.find( object ) ) {
         users->erase( index );
         if( users->empty() )
            users_.erase( object );
      }
   paths_[ index ].through.clear();
}

WantedForwarding Paths::resolve( Index index ) {
   notThrough( index );
   Path& path = paths_[ index ];
   visited_ = &path.through;
   const Destination destination = path.key.next == Util::objTupleInvalid()
                                      ? destinationOf( path.key.ciDest )
                                      : destinationOf( path.key.next, objects_ );
   visited_ = nullptr;
   for( const ObjTuple& object : path.through )
      users_.emplace( object ).first->insert( index );
   return forwardingOf( destination, place_ );
}

void Paths::placeIs( const Place& place ) {
   place_ = place;
   for( const auto& [ key, index ] : byKey_ )
      dirty_.insert( index );
}

void Paths::objectChanged( const ObjTuple& object ) {
   if( const std::set<Index>* const users = users_.find( object ) )
      dirty_.insert( users->begin(), users->end() );
}

void Paths::groupChanged( NexthopSet::Group group ) {
   for( const auto& [ key, index ] : byKey_ )
      if( paths_[ index ].forwarding.kind == Forwarding::viaGroup &&
          paths_[ index ].forwarding.group == group )
         changed_.insert( index );
}

void Paths::update() {
   for( const Index index : std::exchange( dirty_, {} ) ) {
      WantedForwarding wanted = resolve( index );
      const Forwarding& now = paths_[ index ].forwarding;
      if( now.kind == Forwarding::viaGroup && wanted.forwarding.kind == Forwarding::viaGroup ) {
         if( nexthops_.vteps( now.group ) != wanted.vteps )
            groupChanges_.push_back( { index, now.group, std::move( wanted.vteps ) } );
         continue;
      }
      take( index, std::move( wanted ) );
   }
}

void Paths::take( Index index, WantedForwarding wanted ) {
   Forwarding& now = paths_[ index ].forwarding;
   const Forwarding before = now;
   now = std::move( wanted.forwarding );
   if( now.kind == Forwarding::waiting && before.kind != Forwarding::refused ) {
      now = before; // until the object is back, or the host changes
      return;
   }
   if( now.kind == Forwarding::viaGroup )
      now.group = nexthops_.groupIs( wanted.vteps );
   if( before.kind == Forwarding::viaGroup )
      nexthops_.release( before.group );
   if( now != before )
      changed_.insert( index );
}

// A group moves with all its paths when they all go to one set, for which there is no group. Else
// each path goes to the group of its own new set.
void Paths::moveGroups( NexthopSet& nexthops, const std::vector<Paths*>& all ) {
   struct Leaving {
      size_t paths = 0;
      const NexthopSet::Vteps* to = nullptr;
      bool together = true;
   };
   std::map<NexthopSet::Group, Leaving> leaving;
   for( const Paths* const paths : all )
      for( const GroupChange& change : paths->groupChanges_ ) {
         Leaving& group = leaving[ change.from ];
         group.together = group.together && ( !group.to || *group.to == change.to );
         group.to = &change.to;
         ++group.paths;
      }
   std::vector<NexthopSet::Move> moves;
   std::set<NexthopSet::Group> moved;
   std::set<NexthopSet::Vteps> targets;
   for( const auto& [ group, change ] : leaving )
      if( change.together && change.paths == nexthops.users( group ) &&
          !nexthops.known( *change.to ) && targets.insert( *change.to ).second ) {
         moves.push_back( { group, *change.to } );
         moved.insert( group );
      }
   nexthops.moveAll( moves );
   for( Paths* const paths : all )
      for( GroupChange& change : std::exchange( paths->groupChanges_, {} ) )
         if( !moved.contains( change.from ) ) {
            Forwarding forwarding;
            forwarding.kind = Forwarding::viaGroup;
            paths->take( change.path, { std::move( forwarding ), std::move( change.to ) } );
         }
}

} // namespace Bridge
