#include "bridge/NexthopSet.h"

#include <algorithm>
#include <cerrno>

namespace Bridge {

namespace {

// Ours begin behind this one, out of the way of people's and of those that the kernel numbers.
constexpr uint32_t firstId = 7600000;

template<class Item>
bool contains( const std::vector<Item>& sorted, const Item& item ) {
   return std::binary_search( sorted.begin(), sorted.end(), item );
}

} // namespace

// --- what is wanted

uint32_t NexthopSet::newId() {
   lastId_ = std::max( lastId_, firstId );
   do
      ++lastId_;
   while( there_.contains( lastId_ ) || own_.contains( lastId_ ) );
   return lastId_;
}

void NexthopSet::enter( Group group, const Vteps& vteps ) {
   groups_[ group ].vteps = vteps;
   bySet_[ vteps ] = group;
   for( const IpGenAddr& vtep : vteps ) {
      VtepState& state = vteps_[ vtep ];
      if( state.id == 0 )
         own_.insert( state.id = newId() );
      ++state.groups;
   }
   dirty_ = true;
}

void NexthopSet::leave( Group group ) {
   bySet_.erase( groups_[ group ].vteps );
   for( const IpGenAddr& vtep : groups_[ group ].vteps )
      --vteps_.at( vtep ).groups;
   sweepDue_ = true;
}

NexthopSet::Group NexthopSet::newGroup( const Vteps& vteps, uint32_t id ) {
   const auto free = std::find_if( groups_.begin(), groups_.end(),
                                   []( const GroupState& state ) { return state.id == 0; } );
   const auto group = static_cast<Group>( free - groups_.begin() );
   if( free == groups_.end() )
      groups_.emplace_back();
   groups_[ group ] = GroupState();
   groups_[ group ].id = id;
   own_.insert( id );
   enter( group, vteps );
   return group;
}

NexthopSet::Group NexthopSet::groupIs( const Vteps& vteps ) {
   const auto found = bySet_.find( vteps );
   const Group group = found == bySet_.end() ? newGroup( vteps, newId() ) : found->second;
   if( groups_[ group ].users++ == 0 )
      dirty_ = true;
   return group;
}

void NexthopSet::release( Group group ) {
   if( --groups_[ group ].users == 0 )
      sweepDue_ = true;
}

// Exchanges the VTEP within its nexthop where that does for all of its groups.
void NexthopSet::moveAll( const std::vector<Move>& moves ) {
   std::map<std::pair<IpGenAddr, IpGenAddr>, size_t> exchanges;
   std::set<IpGenAddr> targets;
   for( const auto& [ group, to ] : moves ) {
      const Vteps& from = vteps( group );
      Vteps gone;
      Vteps come;
      std::set_difference( from.begin(), from.end(), to.begin(), to.end(),
                           std::back_inserter( gone ) );
      std::set_difference( to.begin(), to.end(), from.begin(), from.end(),
                           std::back_inserter( come ) );
      if( gone.size() == 1 && come.size() == 1 )
         ++exchanges[ { gone[ 0 ], come[ 0 ] } ];
   }
   for( const auto& [ group, to ] : moves )
      bySet_.erase( vteps( group ) );
   for( const auto& [ exchange, count ] : exchanges ) {
      const auto& [ gone, come ] = exchange;
      if( vteps_.at( gone ).groups != count || vteps_.contains( come ) )
         continue;
      auto node = vteps_.extract( gone );
      node.key() = come;
      vteps_.insert( std::move( node ) );
      vteps_.at( come ).done = false;
      for( const auto& [ group, to ] : moves ) {
         Vteps& now = groups_[ group ].vteps;
         if( contains( now, gone ) ) {
            std::replace( now.begin(), now.end(), gone, come );
            std::sort( now.begin(), now.end() );
         }
      }
   }
   for( const auto& [ group, to ] : moves ) {
      leave( group );
      enter( group, to );
      groups_[ group ].ready = false;
      groups_[ group ].retry = Retry();
   }
}

std::string NexthopSet::refusal( Group group ) const {
   if( groups_[ group ].retry.tries > 0 )
      return "nexthop group: " + groups_[ group ].retry.text;
   for( const IpGenAddr& vtep : groups_[ group ].vteps )
      if( const Retry& retry = vteps_.at( vtep ).retry; retry.tries > 0 )
         return "nexthop " + vtep.str() + ": " + retry.text;
   return {};
}

// --- what is there

void NexthopSet::nexthopIs( const Nexthop& nexthop ) {
   unseen_.erase( nexthop.id );
   Nexthop& known = there_[ nexthop.id ];
   Nexthop sorted = nexthop;
   std::sort( sorted.members.begin(), sorted.members.end() );
   if( known == sorted )
      return;
   known = std::move( sorted );
   dirty_ = true;
}

void NexthopSet::nexthopDel( uint32_t id ) {
   if( there_.erase( id ) == 0 )
      return;
   dirty_ = true;
   if( uses_.contains( id ) )
      deleted_.insert( id );
}

void NexthopSet::dumpBegins() {
   unseen_.clear();
   for( const auto& [ id, ignored ] : there_ )
      unseen_.insert( id );
}

void NexthopSet::dumpEnded() {
   for( const uint32_t id : std::exchange( unseen_, {} ) )
      nexthopDel( id );
   adopt();
   sweepDue_ = true;
}

void NexthopSet::adopt() {
   std::map<uint32_t, IpGenAddr> found;
   for( const auto& [ id, nexthop ] : there_ ) {
      if( nexthop.protocol != nexthopProtocol || nexthop.vtep == IpGenAddr() )
         continue;
      if( !own_.contains( id ) && !vteps_.contains( nexthop.vtep ) ) {
         vteps_[ nexthop.vtep ].id = id;
         own_.insert( id );
      }
      found[ id ] = nexthop.vtep;
   }
   for( const auto& [ id, nexthop ] : there_ ) {
      if( nexthop.protocol != nexthopProtocol || nexthop.members.empty() || own_.contains( id ) )
         continue;
      Vteps vteps;
      bool ours = true;
      for( const uint32_t member : nexthop.members ) {
         const auto at = found.find( member );
         ours = ours && at != found.end() && vteps_.at( at->second ).id == member;
         if( ours )
            vteps.push_back( at->second );
      }
      std::sort( vteps.begin(), vteps.end() );
      if( ours && !bySet_.contains( vteps ) )
         newGroup( vteps, id );
   }
}

void NexthopSet::entriesUse( uint32_t id, int change ) {
   if( id == 0 )
      return;
   int64_t& uses = uses_[ id ];
   uses += change;
   if( uses == 0 ) {
      uses_.erase( id );
      sweepDue_ = true;
   }
}

// --- the difference

std::vector<uint32_t> NexthopSet::memberIds( const Vteps& vteps ) const {
   std::vector<uint32_t> ids;
   for( const IpGenAddr& vtep : vteps )
      ids.push_back( vteps_.at( vtep ).id );
   std::sort( ids.begin(), ids.end() );
   return ids;
}

bool NexthopSet::isThere( const IpGenAddr& vtep, const VtepState& state ) const {
   const auto found = there_.find( state.id );
   return found != there_.end() && found->second.vtep == vtep;
}

bool NexthopSet::isThere( const GroupState& group ) const {
   const auto found = there_.find( group.id );
   return found != there_.end() && found->second.members == memberIds( group.vteps );
}

void NexthopSet::reconcile( Kernel& kernel, Vexil::Seconds now ) {
   if( !dirty_ && nextRetry() > now )
      return;
   dirty_ = false;
   writeVteps( kernel, now );
   writeGroups( kernel, now );
   noteReady();
}

void NexthopSet::writeVteps( Kernel& kernel, Vexil::Seconds now ) {
   std::vector<Write> writes;
   std::vector<VtepState*> states;
   for( auto& [ vtep, state ] : vteps_ ) {
      if( state.groups == 0 || isThere( vtep, state ) || state.retry.waits( now ) )
         continue;
      const bool isNew = !there_.contains( state.id );
      writes.push_back(
         { .kind = isNew ? Write::newNexthopIs : Write::nexthopIs, .id = state.id, .vtep = vtep } );
      states.push_back( &state );
   }
   if( writes.empty() )
      return;
   const auto outcomes = kernel.apply( writes );
   for( size_t i = 0; i < writes.size(); ++i ) {
      VtepState& state = *states[ i ];
      if( outcomes[ i ].error == 0 ) {
         repaired_ += state.done;
         state.retry = Retry();
         nexthopIs( { state.id, nexthopProtocol, writes[ i ].vtep, {} } );
      } else {
         state.retry.refused( now, outcomes[ i ].text );
      }
      if( outcomes[ i ].error == EEXIST ) { // somebody's, of whom we have not heard yet
         own_.erase( state.id );
         own_.insert( state.id = newId() );
      }
   }
}

void NexthopSet::writeGroups( Kernel& kernel, Vexil::Seconds now ) {
   std::vector<Write> writes;
   std::vector<GroupState*> states;
   for( GroupState& group : groups_ ) {
      if( group.users == 0 || isThere( group ) || group.retry.waits( now ) )
         continue;
      if( std::any_of( group.vteps.begin(), group.vteps.end(), [ & ]( const IpGenAddr& vtep ) {
             return !isThere( vtep, vteps_.at( vtep ) );
          } ) ) {
         group.retry = Retry(); // it is the VTEP that is tried again
         continue;
      }
      const bool isNew = !there_.contains( group.id );
      writes.push_back( { .kind = isNew ? Write::newGroupIs : Write::groupIs,
                          .id = group.id,
                          .members = memberIds( group.vteps ) } );
      states.push_back( &group );
   }
   if( writes.empty() )
      return;
   const auto outcomes = kernel.apply( writes );
   for( size_t i = 0; i < writes.size(); ++i ) {
      GroupState& group = *states[ i ];
      if( outcomes[ i ].error == 0 ) {
         repaired_ += group.ready;
         group.retry = Retry();
         nexthopIs( { group.id, nexthopProtocol, {}, writes[ i ].members } );
      } else {
         group.retry.refused( now, outcomes[ i ].text );
      }
      if( outcomes[ i ].error == EEXIST ) {
         own_.erase( group.id );
         own_.insert( group.id = newId() );
      }
   }
}

void NexthopSet::noteReady() {
   for( auto& [ vtep, state ] : vteps_ )
      state.done = isThere( vtep, state );
   for( Group group = 0; group < groups_.size(); ++group ) {
      GroupState& state = groups_[ group ];
      const bool ready =
         state.id != 0 && isThere( state ) &&
         std::all_of( state.vteps.begin(), state.vteps.end(),
                      [ & ]( const IpGenAddr& vtep ) { return vteps_.at( vtep ).done; } );
      if( ready != state.ready ) {
         changed_.insert( group );
         ++version_;
      }
      state.ready = ready;
   }
   dirty_ = false; // what the writes themselves have told
}

void NexthopSet::sweep( Kernel& kernel ) {
   if( !sweepDue_ )
      return;
   const bool groups = sweepGroups( kernel );
   const bool vteps = sweepVteps( kernel );
   sweepDue_ = !groups || !vteps;
}

bool NexthopSet::remove( Kernel& kernel, const std::vector<uint32_t>& ids ) {
   std::vector<Write> writes;
   for( const uint32_t id : ids )
      if( there_.contains( id ) )
         writes.push_back( { .kind = Write::nexthopDel, .id = id } );
   if( writes.empty() )
      return true;
   bool all = true;
   const auto outcomes = kernel.apply( writes );
   for( size_t i = 0; i < writes.size(); ++i )
      if( outcomes[ i ].error == 0 || outcomes[ i ].error == ENOENT )
         there_.erase( writes[ i ].id );
      else
         all = false; // nobody owns it any more: the next time it goes as a leftover
   return all;
}

bool NexthopSet::sweepGroups( Kernel& kernel ) {
   std::vector<uint32_t> ids;
   for( Group group = 0; group < groups_.size(); ++group ) {
      GroupState& state = groups_[ group ];
      if( state.id == 0 || state.users > 0 || uses_.contains( state.id ) )
         continue;
      leave( group );
      ids.push_back( state.id );
      own_.erase( state.id );
      state = GroupState();
      ++version_;
   }
   for( const auto& [ id, nexthop ] : there_ ) // that nobody adopted
      if( nexthop.protocol == nexthopProtocol && !nexthop.members.empty() && !own_.contains( id ) &&
          !uses_.contains( id ) )
         ids.push_back( id );
   return remove( kernel, ids );
}

bool NexthopSet::sweepVteps( Kernel& kernel ) {
   std::set<uint32_t> members; // of groups that are there, whoever made them
   for( const auto& [ id, nexthop ] : there_ )
      members.insert( nexthop.members.begin(), nexthop.members.end() );
   std::vector<uint32_t> ids;
   for( auto at = vteps_.begin(); at != vteps_.end(); ) {
      if( at->second.groups > 0 || members.contains( at->second.id ) ) {
         ++at;
         continue;
      }
      own_.erase( at->second.id );
      at = vteps_.erase( at );
   }
   for( const auto& [ id, nexthop ] : there_ )
      if( nexthop.protocol == nexthopProtocol && nexthop.members.empty() && !own_.contains( id ) &&
          !members.contains( id ) )
         ids.push_back( id );
   return remove( kernel, ids );
}

Vexil::Seconds NexthopSet::nextRetry() const {
   Vexil::Seconds next = Vexil::never;
   for( const auto& [ vtep, state ] : vteps_ )
      if( state.retry.tries > 0 && state.groups > 0 )
         next = std::min( next, state.retry.due );
   for( const GroupState& group : groups_ )
      if( group.retry.tries > 0 && group.users > 0 )
         next = std::min( next, group.retry.due );
   return next;
}

std::map<uint32_t, NexthopSet::Vteps> NexthopSet::readyGroups() const {
   std::map<uint32_t, Vteps> all;
   for( const GroupState& group : groups_ )
      if( group.ready )
         all[ group.id ] = group.vteps;
   return all;
}

} // namespace Bridge
