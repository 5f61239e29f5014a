#include "bridge/FloodList.h"

#include <cerrno>

namespace Bridge {

using namespace L2Rib;

namespace {

constexpr EthAddr broadcast( 0xffffffffffff );

}

// --- what is wanted

FloodList::Member FloodList::judged( const FloodSetTriple& triple ) const {
   if( triple.mac() != broadcast )
      return { {}, "a flood address other than ff:ff:ff:ff:ff:ff" };
   const Destination destination = destinationOf( triple.dest() );
   WantedForwarding wanted = forwardingOf( destination, place_ );
   switch( wanted.forwarding.kind ) {
   case Forwarding::viaGroup:
      return { { { wanted.vteps[ 0 ], 0 } }, {} };
   case Forwarding::viaVtep:
      return { { wanted.forwarding.remote }, {} };
   case Forwarding::onPort: // the bridge floods to all its ports
      return {};
   default:
      return { {}, wanted.forwarding.reason };
   }
}

void FloodList::changed() {
   dirty_ = true;
   ++version_;
}

void FloodList::memberIs( const FloodSetTriple& member ) {
   members_[ member ] = judged( member );
   changed();
}

void FloodList::memberDel( const FloodSetTriple& member ) {
   members_.erase( member );
   changed();
}

void FloodList::placeIs( const Place& place ) {
   if( place.vxlan != place_.vxlan ) {
      there_.clear();
      added_.clear();
   }
   place_ = place;
   retries_.clear();
   for( auto& [ triple, member ] : members_ )
      member = judged( triple );
   changed();
}

// --- what is there

Remote FloodList::remoteOf( const FdbEntry& entry ) const {
   return { entry.vtep, entry.vni == place_.vni ? 0 : entry.vni };
}

void FloodList::entryIs( const FdbEntry& entry ) {
   const Remote remote = remoteOf( entry );
   unseen_.erase( remote );
   const auto [ found, fresh ] = there_.try_emplace( remote, entry.external );
   if( !fresh && found->second == entry.external )
      return;
   for( auto& [ ignored, external ] : there_ ) // the mark is that of the whole list
      external = entry.external;
   changed();
}

void FloodList::entryDel( const FdbEntry& entry ) {
   if( there_.erase( remoteOf( entry ) ) > 0 )
      changed();
}

void FloodList::dumpEnded() {
   for( const auto& [ remote, ignored ] : std::exchange( unseen_, {} ) )
      there_.erase( remote );
   changed();
}

// --- the difference

void FloodList::reconcile( Kernel& kernel, Vexil::Seconds now, bool mayRemove ) {
   if( ( !dirty_ && nextRetry() > now ) || place_.vxlan == 0 )
      return;
   dirty_ = false;
   std::set<Remote> wanted;
   for( const auto& [ triple, member ] : members_ )
      wanted.insert( member.remotes.begin(), member.remotes.end() );
   std::erase_if( retries_, [ & ]( const auto& entry ) {
      return !wanted.contains( entry.first ) || there_.contains( entry.first );
   } );
   std::vector<Write> writes;
   const auto add = [ & ]( Write::Kind kind, const Remote& remote ) {
      writes.push_back(
         { .kind = kind, .device = place_.vxlan, .vni = remote.vni, .vtep = remote.vtep } );
   };
   for( const Remote& remote : wanted ) {
      const auto retry = retries_.find( remote );
      if( !there_.contains( remote ) && ( retry == retries_.end() || !retry->second.waits( now ) ) )
         add( Write::floodIs, remote );
   }
   for( const auto& [ remote, external ] : there_ )
      if( !wanted.contains( remote ) && ( external || added_.contains( remote ) ) ) {
         if( mayRemove )
            add( Write::floodDel, remote );
         else
            dirty_ = true;
      }
   if( !writes.empty() )
      carryOut( kernel, now, writes );
}

void FloodList::carryOut( Kernel& kernel, Vexil::Seconds now, const std::vector<Write>& writes ) {
   const auto outcomes = kernel.apply( writes );
   for( size_t i = 0; i < writes.size(); ++i ) {
      const Remote remote{ writes[ i ].vtep, writes[ i ].vni };
      const int error = outcomes[ i ].error;
      if( writes[ i ].kind == Write::floodDel ) {
         if( error == 0 || error == ENOENT ) {
            there_.erase( remote );
            added_.erase( remote );
         }
      } else if( error == 0 ) {
         repaired_ += !added_.insert( remote ).second;
         there_.emplace( remote, true );
         unseen_.erase( remote );
         retries_.erase( remote );
      } else {
         retries_[ remote ].refused( now, outcomes[ i ].text );
      }
   }
   ++version_;
}

Vexil::Seconds FloodList::nextRetry() const {
   Vexil::Seconds next = Vexil::never;
   for( const auto& [ remote, retry ] : retries_ )
      next = std::min( next, retry.due );
   return next;
}

size_t FloodList::programmed() const { return members_.size() - refused().size(); }

std::map<FloodSetTriple, std::string> FloodList::refused() const {
   std::map<FloodSetTriple, std::string> all;
   for( const auto& [ triple, member ] : members_ ) {
      if( !member.reason.empty() )
         all[ triple ] = member.reason;
      for( const Remote& remote : member.remotes )
         if( const auto retry = retries_.find( remote ); retry != retries_.end() )
            all[ triple ] = retry->second.text;
   }
   return all;
}

} // namespace Bridge
