// Which label hosts are configured on which tunnel, so that a change of a tunnel finds its hosts
// without a walk over the configuration.
//
// A host is on one tunnel at a time. That the tunnel itself is configured is not required.
#pragma once

#include "L2Rib/Bridging.h"
#include "runtime/HashMap.h"

#include <vector>

namespace L2Rib {

class TunnelHosts {
 public:
   // Notes that the host is on that tunnel, and no longer on another one.
   void hostIs( const Bridging::MacVlanPair& mvp, Bridging::TunnelId tunnel ) {
      const auto [ known, isNew ] = tunnelOf_.emplace( mvp, tunnel );
      if( !isNew && *known == tunnel )
         return;
      if( !isNew )
         leave( mvp, *known );
      *known = tunnel;
      hostsOn_.emplace( tunnel ).first->emplace( mvp );
   }
   // The host is on no tunnel any more.
   void hostDel( const Bridging::MacVlanPair& mvp ) {
      if( const Bridging::TunnelId* const known = tunnelOf_.find( mvp ) ) {
         leave( mvp, *known );
         tunnelOf_.erase( mvp );
      }
   }
   // A copy, because what is done for the hosts may change who is on the tunnel.
   std::vector<Bridging::MacVlanPair> hostsOn( Bridging::TunnelId tunnel ) const {
      std::vector<Bridging::MacVlanPair> hosts;
      if( const auto* const found = hostsOn_.find( tunnel ) )
         for( const auto& host : *found )
            hosts.push_back( host.key );
      return hosts;
   }

 private:
   void leave( const Bridging::MacVlanPair& mvp, Bridging::TunnelId tunnel ) {
      auto* const hosts = hostsOn_.find( tunnel );
      hosts->erase( mvp );
      if( hosts->empty() )
         hostsOn_.erase( tunnel );
   }

   Vexil::HashMap<Bridging::MacVlanPair, Bridging::TunnelId> tunnelOf_;
   Vexil::HashMap<Bridging::TunnelId, Vexil::KeySet<Bridging::MacVlanPair>> hostsOn_;
};

} // namespace L2Rib
