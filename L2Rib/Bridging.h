// The bridging configuration, as far as the RIB reads it: per forwarding database (one a VLAN) the
// statically configured hosts, and the dynamic tunnel interfaces that hosts may be behind.
//
// Entities of one process; ConfigBinding.h keeps them in step with the files of the state database,
// of which they know nothing but which tables there are. Whoever writes them may name a tunnel that
// is not configured, or keeps a host on it when it goes: readers must expect both. Every write that
// changes something is notified at once, per key; the value is read from the entity.
#pragma once

#include "L2Rib/Identifiers.h"
#include "L2Rib/NetTypes.h"
#include "L2Rib/Objects.h"
#include "runtime/Entity.h"
#include "runtime/HashMap.h"
#include "runtime/SharedTable.h"

#include <cstdint>
#include <string>

namespace Bridging {

// The number of a forwarding database. There is one for each VLAN, under the VLAN's number.
class Fid {
 public:
   constexpr Fid() = default;
   explicit constexpr Fid( uint32_t value ) : value_( value ) {}

   constexpr uint32_t value() const { return value_; }
   constexpr VlanId vlan() const { return VlanId( value_ ); }
   constexpr uint64_t hash() const { return Vexil::mix64( value_ ); }
   std::string str() const { return std::to_string( value_ ); }

   friend constexpr bool operator==( Fid, Fid ) = default;
   friend constexpr auto operator<=>( Fid, Fid ) = default;

 private:
   uint32_t value_ = 0;
};

// The number of a dynamic tunnel interface; 0 is none.
using TunnelId = L2Rib::ObjectId<struct TunnelIdTag>;

// The interface that a host is configured on: a plain one, or a dynamic tunnel interface. The two
// kinds have numbers of their own. Number 0 is no interface.
class IntfId {
 public:
   constexpr IntfId() = default;
   explicit constexpr IntfId( uint64_t id ) : id_( id ) {}
   explicit constexpr IntfId( TunnelId tunnel ) : id_( tunnel.value() ), dynamicTunnel_( true ) {}

   constexpr uint64_t id() const { return id_; }
   constexpr bool isDynamicTunnel() const { return dynamicTunnel_; }
   // Of a dynamic tunnel interface only.
   constexpr TunnelId tunnel() const {
      VEXIL_ASSERT( isDynamicTunnel() );
      return TunnelId( id_ );
   }
   // "intf 12", "tunnel 5".
   std::string str() const {
      return ( dynamicTunnel_ ? "tunnel " : "intf " ) + std::to_string( id_ );
   }

   friend constexpr bool operator==( IntfId, IntfId ) = default;

 private:
   uint64_t id_ = 0;
   bool dynamicTunnel_ = false;
};

// A statically configured host. With a label and a dynamic tunnel interface it is reached through
// the tunnel under that label; else it is on the interface, and a label says nothing.
struct ConfiguredHost {
   Vexil::EthAddr mac; // the key
   IntfId intf;
   Vexil::MplsLabel mplsLabel = Vexil::MplsLabel::none;

   bool isLabelHost() const { return mplsLabel.valid() && intf.isDynamicTunnel(); }

   friend bool operator==( const ConfiguredHost&, const ConfiguredHost& ) = default;
};

// The configured hosts of one forwarding database.
class FdbConfig : public Vexil::Entity {
 public:
   struct Handlers {
      virtual void handleConfiguredHost( const Vexil::EthAddr& ) {}
   };
   Vexil::Notifiees<Handlers> notifiees;

   const Vexil::HashMap<Vexil::EthAddr, ConfiguredHost>& configuredHost() const {
      return configuredHost_;
   }
   // Null when there is none with that MAC address; else valid until the next change.
   const ConfiguredHost* configuredHost( Vexil::EthAddr mac ) const {
      return configuredHost_.find( mac );
   }
   // Enters the host, or replaces the one with its MAC address.
   void configuredHostIs( const ConfiguredHost& host ) {
      const auto [ present, isNew ] = configuredHost_.emplace( host.mac, host );
      if( !isNew && *present == host )
         return;
      *present = host;
      notifiees.notify( &Handlers::handleConfiguredHost, host.mac );
   }
   void configuredHostDel( Vexil::EthAddr mac ) {
      if( configuredHost_.erase( mac ) )
         notifiees.notify( &Handlers::handleConfiguredHost, mac );
   }
   VEXIL_DELETE_ALL( configuredHost )

 private:
   Vexil::HashMap<Vexil::EthAddr, ConfiguredHost> configuredHost_;
};

class Config : public Vexil::Entity {
 public:
   struct Handlers {
      // The forwarding database appeared or went.
      virtual void handleFdbConfig( const Fid& ) {}
      // The tunnel appeared, has other data, or went.
      virtual void handleTunnel( const TunnelId& ) {}
   };
   Vexil::Notifiees<Handlers> notifiees;

   // The tables that this is filled from, for whoever reports how far they have been read; null
   // while there are none.
   VEXIL_ATTRIBUTE( Vexil::Ptr<const Vexil::TableBase>, hostTable )
   VEXIL_ATTRIBUTE( Vexil::Ptr<const Vexil::TableBase>, tunnelTable )

   const Vexil::HashMap<Fid, Vexil::Ptr<FdbConfig>>& fdbConfig() const { return fdbConfig_; }
   // Null when there is none.
   Vexil::Ptr<FdbConfig> fdbConfig( Fid fid ) const {
      const Vexil::Ptr<FdbConfig>* const found = fdbConfig_.find( fid );
      return found ? *found : nullptr;
   }
   // Makes it, or returns the one that is there.
   Vexil::Ptr<FdbConfig> fdbConfigIs( Fid fid ) {
      if( const Vexil::Ptr<FdbConfig> present = fdbConfig( fid ) )
         return present;
      const auto made = Vexil::makeEntity<FdbConfig>();
      fdbConfig_.emplace( fid, made );
      notifiees.notify( &Handlers::handleFdbConfig, fid );
      return made;
   }
   // Its hosts go with it; they are not notified one by one.
   void fdbConfigDel( Fid fid ) {
      if( fdbConfig_.erase( fid ) )
         notifiees.notify( &Handlers::handleFdbConfig, fid );
   }
   VEXIL_DELETE_ALL( fdbConfig )

   // What a packet into each dynamic tunnel interface is wrapped in.
   const Vexil::HashMap<TunnelId, L2Rib::DestDataTunnel>& tunnel() const { return tunnel_; }
   // Null when it is not configured; else valid until the next change.
   const L2Rib::DestDataTunnel* tunnel( TunnelId id ) const { return tunnel_.find( id ); }
   void tunnelIs( TunnelId id, const L2Rib::DestDataTunnel& data ) {
      const auto [ present, isNew ] = tunnel_.emplace( id, data );
      if( !isNew && *present == data )
         return;
      *present = data;
      notifiees.notify( &Handlers::handleTunnel, id );
   }
   void tunnelDel( TunnelId id ) {
      if( tunnel_.erase( id ) )
         notifiees.notify( &Handlers::handleTunnel, id );
   }
   VEXIL_DELETE_ALL( tunnel )

 private:
   Vexil::HashMap<Fid, Vexil::Ptr<FdbConfig>> fdbConfig_;
   Vexil::HashMap<TunnelId, L2Rib::DestDataTunnel> tunnel_;
};

} // namespace Bridging
