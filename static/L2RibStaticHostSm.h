// The static host source: statically configured MAC addresses as one more source of the RIB.
//
// Reads the bridging configuration and writes the tables of the source "static" inside this agent:
// hosts, labels, dests, and a load-balance table that stays empty. It publishes them in the agent's
// own source directory, where the engine finds them like any other source's. It keeps no copy of
// the configuration: whatever changes, the entry of one MAC and VLAN is computed anew from what is
// configured and from what stands in the tables.
//
//    constructed --> initialized: the entry published, the tables rid of what an earlier run left
//                    and is no longer configured so, and filled with the rest
//
// What holds whenever no call is under way: the host table has exactly the configured hosts that
// there is room for, and every label and dest belongs to exactly one of them. Ids are never reused,
// neither within a run nor while something of an earlier one is left. A host is written after the
// label and dest that it points to, and gone before they are; only when a label host changes, its
// old label and dest go first, which makes room for the new ones in full tables.
//
// Two things can keep a configured host out. A label host whose tunnel is not configured is treated
// like one that is not configured itself. A host for which there is no room (a table has grown to
// its limit, or there is no memory for it to grow) is left as it was, and waits: as soon as an
// entry is deleted, or memory is there, it is brought in.
#pragma once

#include "L2Rib/Bridging.h"
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/SourceDir.h"
#include "runtime/StateDb.h"
#include "static/TunnelHosts.h"

#include <memory>

namespace L2Rib {

class StaticHostSm : public Vexil::Entity {
 public:
   class FdbConfigReactor;

   // Publishes the source before it returns. Throws TableError when a table can't be attached.
   StaticHostSm( Vexil::Ptr<Vexil::EntityManager> entityManager,
                 Vexil::Ptr<AgentSourceDir> agentSourceDir,
                 Vexil::Ptr<const Bridging::Config> bridgingConfig );
   ~StaticHostSm() override;

   const Vexil::Ptr<Vexil::EntityManager>& entityManager() const { return entityManager_; }
   const Vexil::Ptr<AgentSourceDir>& agentSourceDir() const { return agentSourceDir_; }
   const Vexil::Ptr<const Bridging::Config>& bridgingConfig() const { return bridgingConfig_; }
   // One reactor for each forwarding database of the configuration.
   const Vexil::HashMap<Bridging::Fid, std::unique_ptr<FdbConfigReactor>>& fdbConfig() const {
      return fdbConfig_;
   }

   const Vexil::Ptr<SourceDirEntry>& staticSde() const { return staticSde_; }
   // Written by this state machine only.
   const Vexil::Ptr<HostInput>& staticInputTable() const { return staticInputTable_; }
   const Vexil::Ptr<LoadBalanceTable>& staticLoadBalanceTable() const {
      return staticLoadBalanceTable_;
   }
   const Vexil::Ptr<LabelTable>& staticLabelTable() const { return staticLabelTable_; }
   const Vexil::Ptr<DestTable>& staticDestTable() const { return staticDestTable_; }

   // The last id given; before the first one, the highest that an earlier run left.
   uint64_t currLabelId() const { return currLabelId_; }
   uint64_t currDestId() const { return currDestId_; }
   bool initialized() const { return initialized_; }
   // Configured hosts for which there was no room.
   size_t waiting() const { return waitingForHostRoom_.size() + waitingForObjectRoom_.size(); }

   // Publishes the source and fills its tables.
   void handleInitialized();
   // Every host that is configured, then every host that is in the table.
   void handleHost();
   // Brings the tables in line with the configuration for one MAC and VLAN.
   void handleHost( const Bridging::MacVlanPair& mvp );

   // Whether the stored host leads, through a label entry with this label, to a dest with this
   // tunnel.
   bool labelHostIntact( const Host& host, Vexil::MplsLabel label,
                         const DestDataTunnel& tunnel ) const;
   // Removes the label and the dest that a host of the table leads to, or led to.
   void cleanupLabelDestEntries( const Host& host );

 private:
   class BridgingConfigReactor;

   void attachTables();
   void publishEntry();
   void noteFoundIds();
   void discardChanged();
   bool isAsConfigured( const Host& host ) const;
   void handleFdbConfig( const Bridging::Fid& fid );
   void handleTunnel( const Bridging::TunnelId& tunnel );

   const Bridging::ConfiguredHost* configuredHost( const Bridging::MacVlanPair& mvp ) const;
   void programLabelHost( Host host, Vexil::MplsLabel label, const DestDataTunnel& tunnel );
   void programInterfaceHost( Host host, const Bridging::IntfId& intf );
   bool writeHost( const Host& stored, Host host );
   bool hasRoomFor( const Bridging::MacVlanPair& mvp, const Host& stored ) const;
   bool hasObjectRoom() const;
   LabelId addLabelAndDest( Vexil::MplsLabel label, const DestDataTunnel& tunnel );
   void removeHost( const Bridging::MacVlanPair& mvp );
   void waitForRoom( Vexil::KeySet<Bridging::MacVlanPair>& list, const Bridging::MacVlanPair& mvp );
   void admitWaiting();

   Vexil::Ptr<Vexil::EntityManager> entityManager_;
   Vexil::Ptr<AgentSourceDir> agentSourceDir_;
   Vexil::Ptr<const Bridging::Config> bridgingConfig_;
   Vexil::HashMap<Bridging::Fid, std::unique_ptr<FdbConfigReactor>> fdbConfig_;
   std::unique_ptr<BridgingConfigReactor> configReactor_;

   Vexil::Ptr<SourceDirEntry> staticSde_;
   Vexil::Ptr<HostInput> staticInputTable_;
   Vexil::Ptr<LoadBalanceTable> staticLoadBalanceTable_;
   Vexil::Ptr<LabelTable> staticLabelTable_;
   Vexil::Ptr<DestTable> staticDestTable_;
   uint64_t currLabelId_ = 0;
   uint64_t currDestId_ = 0;
   bool initialized_ = false;

   TunnelHosts tunnelHosts_; // who must be looked at when a tunnel changes
   Vexil::KeySet<Bridging::MacVlanPair> waitingForHostRoom_;
   Vexil::KeySet<Bridging::MacVlanPair> waitingForObjectRoom_; // of labels and dests
   bool admitting_ = false;
   std::unique_ptr<Vexil::TimerReactor> tryAgain_; // while hosts wait
};

// Follows the configured hosts of one forwarding database.
class StaticHostSm::FdbConfigReactor : public Vexil::Reactor<Bridging::FdbConfig> {
 public:
   FdbConfigReactor( Vexil::Ptr<const Bridging::FdbConfig> fdbConfig, Bridging::Fid fid,
                     StaticHostSm& sm );

   Bridging::Fid fid() const { return fid_; }
   bool initialized() const { return initialized_; }
   // Called once, when the reactor is in the state machine's collection.
   void handleInitialized();
   // Every host of the forwarding database.
   void handleConfiguredHost();
   void handleConfiguredHost( const Vexil::EthAddr& mac ) override;
   // The forwarding database is no longer configured, and the reactor no longer in the collection.
   void handleDelete();

 private:
   Bridging::Fid fid_;
   StaticHostSm& sm_;
   bool initialized_ = false;
};

} // namespace L2Rib
