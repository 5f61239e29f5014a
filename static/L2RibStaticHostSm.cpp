#include "static/L2RibStaticHostSm.h"

#include "runtime/Failure.h"
#include "runtime/Trace.h"

#include <algorithm>
#include <string>

namespace L2Rib {

namespace {

Vexil::TraceHandle& trace = Vexil::traceHandle( "L2RibStaticHostSm" );

constexpr const char* sourceName = "static";
constexpr const char* hostPath = "bridging/l2Rib/static/hostInput";
constexpr const char* lbPath = "bridging/l2Rib/static/loadBalanceTable";
constexpr const char* labelPath = "bridging/l2Rib/static/labelTable";
constexpr const char* destPath = "bridging/l2Rib/static/destTable";
// How often it is seen whether there is memory again for hosts that wait, in seconds.
constexpr Vexil::Seconds memoryInterval = 1;

// Where the tables begin.
constexpr uint32_t hostCapacity = 65536;
constexpr uint32_t objectCapacity = 1024; // of each of the other three

constexpr uint32_t staticSeqNo = 1;
constexpr uint32_t staticPref = 64;

CiDest ciDestOf( const Bridging::IntfId& intf ) {
   CiDest ciDest( destTypeDefault_ );
   ciDest.payloadIs( intf.id() );
   return ciDest;
}

// What all static hosts have in common.
Host emptyHost( const Bridging::MacVlanPair& mvp ) {
   Host host( mvp );
   host.seqNoIs( Vexil::Seqno32( staticSeqNo ) );
   host.prefIs( staticPref );
   host.entryTypeIs( entryTypeStatic_ );
   return host;
}

template<class Table>
bool hasRoom( Table& table ) {
   return table.makeRoom() == Vexil::Room::yes;
}

} // namespace

class StaticHostSm::BridgingConfigReactor : public Vexil::Reactor<Bridging::Config> {
 public:
   BridgingConfigReactor( Vexil::Ptr<const Bridging::Config> config, StaticHostSm& sm )
      : Reactor( std::move( config ) ), sm_( sm ) {}
   void handleFdbConfig( const Bridging::Fid& fid ) override { sm_.handleFdbConfig( fid ); }
   void handleTunnel( const Bridging::TunnelId& tunnel ) override { sm_.handleTunnel( tunnel ); }

 private:
   StaticHostSm& sm_;
};

// --- one forwarding database

StaticHostSm::FdbConfigReactor::FdbConfigReactor( Vexil::Ptr<const Bridging::FdbConfig> fdbConfig,
                                                  Bridging::Fid fid, StaticHostSm& sm )
   : Reactor( std::move( fdbConfig ) ), fid_( fid ), sm_( sm ) {}

void StaticHostSm::FdbConfigReactor::handleInitialized() {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << fid_ );
   VEXIL_ASSERT( !initialized() );
   initialized_ = true;
   handleConfiguredHost();
}

void StaticHostSm::FdbConfigReactor::handleConfiguredHost() {
   for( const auto& host : notifier()->configuredHost() )
      handleConfiguredHost( host.key );
}

void StaticHostSm::FdbConfigReactor::handleConfiguredHost( const Vexil::EthAddr& mac ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << mac << " in " << fid_ );
   sm_.handleHost( Bridging::MacVlanPair( mac, fid_.vlan() ) );
}

void StaticHostSm::FdbConfigReactor::handleDelete() {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << fid_ );
   sm_.handleHost();
}

// --- construction

StaticHostSm::StaticHostSm( Vexil::Ptr<Vexil::EntityManager> entityManager,
                            Vexil::Ptr<AgentSourceDir> agentSourceDir,
                            Vexil::Ptr<const Bridging::Config> bridgingConfig )
   : entityManager_( std::move( entityManager ) ), agentSourceDir_( std::move( agentSourceDir ) ),
     bridgingConfig_( std::move( bridgingConfig ) ),
     configReactor_( std::make_unique<BridgingConfigReactor>( bridgingConfig_, *this ) ) {
   for( const auto& entry : bridgingConfig_->fdbConfig() )
      handleFdbConfig( entry.key );
   handleInitialized();
}

StaticHostSm::~StaticHostSm() = default;

void StaticHostSm::handleInitialized() {
   TRACE( 0, __PRETTY_FUNCTION__ );
   VEXIL_ASSERT( entityManager() );
   tryAgain_ = std::make_unique<Vexil::TimerReactor>( entityManager_->clock(),
                                                      [ this ] { admitWaiting(); } );
   tryAgain_->timeMinIs( Vexil::never );
   attachTables();
   publishEntry();
   noteFoundIds();
   discardChanged();
   staticSde_->initializedIs( true );
   initialized_ = true;
   handleHost();
}

// The counters are specified to begin at 0 in each run. They depart from that and go on above the
// highest id that is found: a restart keeps the output, where a row may still stand for an id of an
// earlier run. Given again, the id would lead the readers of that row into another host's tunnel
// until its own host is decided anew.
void StaticHostSm::noteFoundIds() {
   constexpr uint64_t highest = 0xFFFFFFFFFFFF0000; // a damaged id above it is none of ours
   const auto note = []( uint64_t& last, uint64_t found ) {
      if( found <= highest )
         last = std::max( last, found );
   };
   staticLabelTable_->forEachKey( [ & ]( LabelId id ) { note( currLabelId_, id.value() ); } );
   staticDestTable_->forEachKey( [ & ]( DestId id ) { note( currDestId_, id.value() ); } );
   const auto noteOutput = [ & ]( const auto* output, uint64_t& last ) {
      if( output ) // there is none where the source is alone
         output->forEach( [ & ]( const auto& row ) {
            if( row.sourceOtas().source() == sourceStatic_ )
               note( last, row.sourceOtas().objId().value() );
         } );
   };
   const Vexil::EntityManager& em = *entityManager_;
   noteOutput( dynamic_cast<LabelOutput*>( em.entity( Path::labelOutput ).get() ), currLabelId_ );
   noteOutput( dynamic_cast<DestOutput*>( em.entity( Path::destOutput ).get() ), currDestId_ );
}

// Takes out what an earlier run left, but for the hosts that are still configured as they were:
// these keep their update times and, with their labels and dests, their ids. They are not even for
// a moment out of the tables: whenever an agent is killed, the next one finds them here and its
// readers see no change, and no id comes to stand for another host while the old one is in use.
void StaticHostSm::discardChanged() {
   Vexil::KeySet<LabelId> labels;
   Vexil::KeySet<DestId> dests;
   staticInputTable_->forEach( [ & ]( const Host& host ) {
      if( !isAsConfigured( host ) ) {
         staticInputTable_->hostDel( host.key() );
      } else if( host.next() != Util::objTupleInvalid() ) {
         const Label label = staticLabelTable_->label( host.next().labelId() );
         labels.emplace( label.key() );
         dests.emplace( label.next().destId() );
      }
   } );
   staticLoadBalanceTable_->lbDelAll();
   staticLabelTable_->forEachKey( [ & ]( LabelId id ) {
      if( !labels.contains( id ) )
         staticLabelTable_->labelDel( id );
   } );
   staticDestTable_->forEachKey( [ & ]( DestId id ) {
      if( !dests.contains( id ) )
         staticDestTable_->destDel( id );
   } );
}

// Whether a host that an earlier run left is what the configuration says.
bool StaticHostSm::isAsConfigured( const Host& host ) const {
   const Bridging::ConfiguredHost* const configured = configuredHost( host.key() );
   if( !configured )
      return false;
   Host wanted = emptyHost( host.key() );
   wanted.updateTimeIs( host.updateTime() );
   if( !configured->isLabelHost() ) {
      wanted.ciDestIs( ciDestOf( configured->intf ) );
      return host == wanted;
   }
   wanted.nextIs( host.next() );
   const DestDataTunnel* const tunnel = bridgingConfig_->tunnel( configured->intf.tunnel() );
   return host == wanted && tunnel && labelHostIntact( host, configured->mplsLabel, *tunnel );
}

void StaticHostSm::attachTables() {
   Vexil::EntityManager& em = *entityManager_;
   staticInputTable_ = em.mountDerivedTable<HostInput>( hostPath, hostCapacity );
   staticLoadBalanceTable_ = em.mountDerivedTable<LoadBalanceTable>( lbPath, objectCapacity );
   staticLabelTable_ = em.mountDerivedTable<LabelTable>( labelPath, objectCapacity );
   staticDestTable_ = em.mountDerivedTable<DestTable>( destPath, objectCapacity );
   staticInputTable_->capacityMaxIs( defaultCapacityMax );
   staticLabelTable_->capacityMaxIs( defaultCapacityMax );
   staticDestTable_->capacityMaxIs( defaultCapacityMax );
}

void StaticHostSm::publishEntry() {
   staticSde_ = agentSourceDir_->sourceIs( sourceName );
   staticSde_->hostTableTarnPathIs( hostPath );
   staticSde_->hostTableLenIs( hostCapacity );
   staticSde_->lbTableTarnPathIs( lbPath );
   staticSde_->lbTableLenIs( objectCapacity );
   staticSde_->labelTableTarnPathIs( labelPath );
   staticSde_->labelTableLenIs( objectCapacity );
   staticSde_->destTableTarnPathIs( destPath );
   staticSde_->destTableLenIs( objectCapacity );
   staticSde_->sourceIs( sourceStatic_ );
}

// --- what changes in the configuration

void StaticHostSm::handleFdbConfig( const Bridging::Fid& fid ) {
   const Vexil::Ptr<const Bridging::FdbConfig> configured = bridgingConfig_->fdbConfig( fid );
   auto* const present = fdbConfig_.find( fid );
   if( present && ( *present )->notifier() != configured ) {
      const std::unique_ptr<FdbConfigReactor> leaving = std::move( *present );
      fdbConfig_.erase( fid );
      leaving->handleDelete();
   }
   if( configured && !fdbConfig_.contains( fid ) )
      ( *fdbConfig_.emplace( fid, std::make_unique<FdbConfigReactor>( configured, fid, *this ) )
            .first )
         ->handleInitialized();
}

// Each label host on the tunnel gets a new label and dest, as when its own data changes.
void StaticHostSm::handleTunnel( const Bridging::TunnelId& tunnel ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << tunnel );
   for( const Bridging::MacVlanPair& mvp : tunnelHosts_.hostsOn( tunnel ) )
      handleHost( mvp );
}

// --- hosts

void StaticHostSm::handleHost() {
   TRACE( 0, __PRETTY_FUNCTION__ );
   if( !initialized_ ) {
      TRACE( 0, "handleHost not init yet!" );
      return;
   }
   for( const auto& reactor : fdbConfig_ )
      for( const auto& host : reactor.value->notifier()->configuredHost() )
         handleHost( Bridging::MacVlanPair( host.key, reactor.key.vlan() ) );
   staticInputTable_->forEach( [ this ]( const Host& host ) { handleHost( host.key() ); } );
}

void StaticHostSm::handleHost( const Bridging::MacVlanPair& mvp ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << mvpStr( mvp ) );
   if( !initialized_ ) {
      TRACE( 0, "handleHost not init yet!" );
      return;
   }
   waitingForHostRoom_.erase( mvp );
   waitingForObjectRoom_.erase( mvp );
   const Bridging::ConfiguredHost* const configured = configuredHost( mvp );
   const bool isLabelHost = configured && configured->isLabelHost();
   const DestDataTunnel* tunnel = nullptr;
   if( isLabelHost ) {
      tunnelHosts_.hostIs( mvp, configured->intf.tunnel() );
      tunnel = bridgingConfig_->tunnel( configured->intf.tunnel() );
      if( !tunnel )
         TRACE( 2, "handleHost " << configured->intf.str() << " is not configured" );
   } else {
      tunnelHosts_.hostDel( mvp );
   }

   if( configured && ( tunnel || !isLabelHost ) ) {
      Host host = emptyHost( mvp );
      host.updateTimeIs( entityManager_->clock()->now() );
      TRACE( 2, "handleHost host entry " << host );
      if( isLabelHost )
         programLabelHost( host, configured->mplsLabel, *tunnel );
      else
         programInterfaceHost( host, configured->intf );
   } else {
      removeHost( mvp );
   }
   admitWaiting();
}

const Bridging::ConfiguredHost*
StaticHostSm::configuredHost( const Bridging::MacVlanPair& mvp ) const {
   const auto fdb = bridgingConfig_->fdbConfig( Bridging::Fid( mvp.vlan().value() ) );
   if( !fdb ) {
      TRACE( 2, "handleHost no fdbConfig for vlan " << mvp.vlan() );
      return nullptr;
   }
   const Bridging::ConfiguredHost* const host = fdb->configuredHost( mvp.mac() );
   if( !host )
      TRACE( 2, "handleHost did not find host in fdb" );
   return host;
}

void StaticHostSm::programLabelHost( Host host, Vexil::MplsLabel label,
                                     const DestDataTunnel& tunnel ) {
   const Host stored = staticInputTable_->host( host.key() );
   if( labelHostIntact( stored, label, tunnel ) ) {
      TRACE( 8, "handleHost label and tunnel intact" );
      return;
   }
   if( !hasRoomFor( host.key(), stored ) )
      return waitForRoom( waitingForHostRoom_, host.key() );
   cleanupLabelDestEntries( stored );
   const LabelId labelId = addLabelAndDest( label, tunnel );
   if( labelId == Util::labelIdInvalid() ) {
      if( stored.next().tableType() == tableTypeLabel_ ) // leads nowhere by now
         staticInputTable_->hostDel( host.key() );
      return waitForRoom( waitingForObjectRoom_, host.key() );
   }
   host.nextIs( ObjTuple( labelId ) );
   if( !writeHost( stored, host ) )
      cleanupLabelDestEntries( host );
}

void StaticHostSm::programInterfaceHost( Host host, const Bridging::IntfId& intf ) {
   const Host stored = staticInputTable_->host( host.key() );
   if( !hasRoomFor( host.key(), stored ) )
      return waitForRoom( waitingForHostRoom_, host.key() );
   host.ciDestIs( ciDestOf( intf ) );
   if( writeHost( stored, host ) && stored.next().tableType() == tableTypeLabel_ )
      cleanupLabelDestEntries( stored ); // nothing points to them any more
}

// Writes the host, unless it differs from the stored one in nothing but the time: that says when
// the entry last really changed. False when it can't be written.
bool StaticHostSm::writeHost( const Host& stored, Host host ) {
   Host unchanged = host;
   unchanged.updateTimeIs( stored.updateTime() );
   if( stored == unchanged )
      return true;
   TRACE( 2, "handleHost host has changed, reprogramming" );
   if( staticInputTable_->hostIs( host ) )
      return true;
   waitForRoom( waitingForHostRoom_, host.key() );
   return false;
}

void StaticHostSm::removeHost( const Bridging::MacVlanPair& mvp ) {
   const Host stored = staticInputTable_->host( mvp );
   if( stored.key() != mvp )
      return;
   TRACE( 0, "handleHost deleting host " << mvpStr( mvp ) << " from L2Rib input" );
   staticInputTable_->hostDel( mvp );
   cleanupLabelDestEntries( stored );
}

// --- labels and dests

bool StaticHostSm::labelHostIntact( const Host& host, Vexil::MplsLabel label,
                                    const DestDataTunnel& tunnel ) const {
   TRACE( 0, __PRETTY_FUNCTION__ );
   if( host.next().tableType() != tableTypeLabel_ ) {
      TRACE( 2, "Not a label host" );
      return false;
   }
   const LabelId labelId = host.next().labelId();
   const Label entry = staticLabelTable_->label( labelId );
   if( entry.key() != labelId || entry.label() != label ) // the empty entry has no label to compare
      return false;
   const Dest dest = staticDestTable_->dest( entry.next().destId() );
   return dest.destType() == objDestTypeTunnel_ && dest.tunnel() == tunnel;
}

void StaticHostSm::cleanupLabelDestEntries( const Host& host ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << host );
   if( host.next().tableType() != tableTypeLabel_ )
      return;
   const Label label = staticLabelTable_->label( host.next().labelId() );
   if( label.key() != host.next().labelId() )
      return;
   TRACE( 0,
          "cleanupLabelDestEntries deleting label " << label << " entry from L2Rib label input" );
   staticLabelTable_->labelDel( label.key() );
   const DestId destId = label.next().destId();
   TRACE( 0, "cleanupLabelDestEntries deleting dest with id " << destId );
   staticDestTable_->destDel( destId );
}

// The id of the new label; the invalid one, and nothing is changed, when there is no room.
LabelId StaticHostSm::addLabelAndDest( Vexil::MplsLabel label, const DestDataTunnel& tunnel ) {
   if( !hasObjectRoom() )
      return Util::labelIdInvalid();
   Dest dest( DestId( ++currDestId_ ) );
   dest.tunnelIs( tunnel );
   const bool destWritten = staticDestTable_->destIs( dest );
   TRACE( 2, "handleHost add tunnel " << dest << " to the static input tunnel table" );
   const Label entry( LabelId( ++currLabelId_ ), ObjTuple( dest.key() ), label );
   if( destWritten && staticLabelTable_->labelIs( entry ) ) {
      TRACE( 2, "handleHost add label " << entry << " to the static input label table" );
      return entry.key();
   }
   staticDestTable_->destDel( dest.key() ); // a file that has been cut short takes nothing
   return Util::labelIdInvalid();
}

// --- full tables

bool StaticHostSm::hasRoomFor( const Bridging::MacVlanPair& mvp, const Host& stored ) const {
   return stored.key() == mvp || hasRoom( *staticInputTable_ );
}

bool StaticHostSm::hasObjectRoom() const {
   return hasRoom( *staticLabelTable_ ) && hasRoom( *staticDestTable_ );
}

void StaticHostSm::waitForRoom( Vexil::KeySet<Bridging::MacVlanPair>& list,
                                const Bridging::MacVlanPair& mvp ) {
   const char* const what = &list == &waitingForHostRoom_ ? "hosts" : "labels and dests";
   TRACE( 8, "handleHost no room for static " << what << ", " << mvpStr( mvp ) << " waits" );
   if( waiting() == 0 )
      Vexil::log( "static source: no room for " + mvpStr( mvp ) + ", the tables of static " + what +
                  " are full, or there is no memory for more; hosts wait until there is room" );
   list.emplace( mvp );
   if( tryAgain_->timeMin() == Vexil::never )
      tryAgain_->timeMinIs( entityManager_->clock()->now() + memoryInterval );
}

// Brings in the hosts that wait, as far as there is room now; each is tried once at the most, and
// no more of them than a turn of the event loop has time for.
void StaticHostSm::admitWaiting() {
   if( admitting_ || waiting() == 0 )
      return;
   admitting_ = true;
   constexpr size_t most = 10'000;
   for( size_t left = std::min( most, waitingForHostRoom_.size() );
        left > 0 && hasRoom( *staticInputTable_ ); --left )
      handleHost( Bridging::MacVlanPair( waitingForHostRoom_.begin()->key ) );
   for( size_t left = std::min( most, waitingForObjectRoom_.size() ); left > 0 && hasObjectRoom();
        --left )
      handleHost( Bridging::MacVlanPair( waitingForObjectRoom_.begin()->key ) );
   admitting_ = false;
   const Vexil::Seconds now = entityManager_->clock()->now();
   const bool room = hasRoom( *staticInputTable_ ) && hasObjectRoom();
   tryAgain_->timeMinIs( waiting() == 0 ? Vexil::never : room ? now : now + memoryInterval );
}

} // namespace L2Rib
