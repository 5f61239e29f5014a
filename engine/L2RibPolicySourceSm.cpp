#include "engine/L2RibPolicySourceSm.h"

#include "engine/KeyWalk.h"
#include "engine/L2RibPolicySm.h"
#include "engine/PolicyTrace.h"

namespace L2Rib {

// Forwards each changed key of one of the source's tables.
template<class Table, class Key, void ( PolicySourceSm::*handle )( const Key& )>
class PolicySourceSm::TableReactor : public Vexil::Reactor<Table> {
 public:
   TableReactor( Vexil::Ptr<const Table> table, PolicySourceSm& sm )
      : Vexil::Reactor<Table>( std::move( table ) ), sm_( sm ) {}
   void handleEntry( const Key& key ) override { ( sm_.*handle )( key ); }
   void handleOvertaken() override { sm_.handleOvertaken(); }

 private:
   PolicySourceSm& sm_;
};

class PolicySourceSm::HostTableReactor
   : public TableReactor<HostInput, Bridging::MacVlanPair, &PolicySourceSm::handleHost> {
   using TableReactor::TableReactor;
};
class PolicySourceSm::LbTableReactor
   : public TableReactor<LoadBalanceTable, LoadBalanceId, &PolicySourceSm::handleLb> {
   using TableReactor::TableReactor;
};
class PolicySourceSm::LabelTableReactor
   : public TableReactor<LabelTable, LabelId, &PolicySourceSm::handleLabel> {
   using TableReactor::TableReactor;
};
class PolicySourceSm::DestTableReactor
   : public TableReactor<DestTable, DestId, &PolicySourceSm::handleDest> {
   using TableReactor::TableReactor;
};

class PolicySourceSm::SourceEntryReactor : public Vexil::Reactor<SourceDirEntry> {
 public:
   SourceEntryReactor( Vexil::Ptr<const SourceDirEntry> entry, PolicySourceSm& sm )
      : Reactor( std::move( entry ) ), sm_( sm ) {}
   void handleInitialized() override { sm_.handleSourceInitialized(); }
   void handleVlanFloodSet( const Bridging::VlanId& vlan ) override {
      sm_.handleVlanFloodSet( vlan );
   }

 private:
   PolicySourceSm& sm_;
};

// Names each member of one flood set that came or went.
class PolicySourceSm::FloodSetReactor : public Vexil::Reactor<FloodSet> {
 public:
   FloodSetReactor( Vexil::Ptr<const FloodSet> floodSet, const PolicySourceSm& sm,
                    const Bridging::VlanId& vlan, const Vexil::EthAddr& mac )
      : Reactor( std::move( floodSet ) ), sm_( sm ), vlan_( vlan ), mac_( mac ) {}

   // The same for both: the engine finds out which when it works the backlog.
   void handleDestSet( const Dest& dest ) override {
      TRACE( 0,
             __PRETTY_FUNCTION__ << "  vlan: " << vlan_ << " mac: " << mac_ << " dest: " << dest );
      if( !sm_.initialized() )
         return;
      sm_.policySm()->floodSetBacklogIs( FloodSetTriple( vlan_, mac_, dest ), true );
      sm_.policySm()->setFloodSetTimer();
   }
   // Every member.
   void handleDestSet() {
      TRACE( 0, __PRETTY_FUNCTION__ << " vlan: " << vlan_ << " mac: " << mac_ );
      if( sm_.initialized() )
         for( const auto& member : notifier()->destSet() )
            handleDestSet( member.key );
   }

 private:
   const PolicySourceSm& sm_;
   Bridging::VlanId vlan_;
   Vexil::EthAddr mac_;
};

// Keeps a reactor on each flood set of one VLAN. Coming and going, these tell the engine nothing.
class PolicySourceSm::VlanFloodSetReactor : public Vexil::Reactor<VlanFloodSet> {
 public:
   VlanFloodSetReactor( Vexil::Ptr<const VlanFloodSet> sets, const PolicySourceSm& sm,
                        const Bridging::VlanId& vlan )
      : Reactor( std::move( sets ) ), sm_( sm ), vlan_( vlan ) {
      for( const auto& entry : notifier()->floodSet() )
         floodSetIs( entry.key, entry.value );
   }

   void handleFloodSet( const Vexil::EthAddr& mac ) override {
      if( const auto floodSet = notifier()->floodSet( mac ) )
         floodSetIs( mac, floodSet );
      else
         floodSetDel( mac );
   }
   void handleDestSet() {
      for( const auto& entry : floodSet_ )
         entry.value->handleDestSet();
   }
   // Members, of all its flood sets.
   size_t size() const {
      size_t members = 0;
      for( const auto& entry : floodSet_ )
         members += entry.value->notifier()->destSet().size();
      return members;
   }
   void floodSetIs( const Vexil::EthAddr& mac, Vexil::Ptr<const FloodSet> floodSet ) {
      if( !floodSet )
         Vexil::nullMutatorFailure( "L2Rib::PolicySourceSm::VlanFloodSetReactor", "floodSet" );
      if( floodSet_.contains( mac ) )
         return;
      floodSet_.emplace( mac, std::make_unique<FloodSetReactor>( floodSet, sm_, vlan_, mac ) );
   }
   void floodSetDel( const Vexil::EthAddr& mac ) { floodSet_.erase( mac ); }

 private:
   const PolicySourceSm& sm_;
   Bridging::VlanId vlan_;
   Vexil::HashMap<Vexil::EthAddr, std::unique_ptr<FloodSetReactor>> floodSet_;
};

namespace {

uint64_t nextAttachment() {
   static uint64_t last = 0;
   return ++last;
}

} // namespace

PolicySourceSm::PolicySourceSm( std::string name, Vexil::Ptr<const SourceDirEntry> source,
                                PolicySm* policySm, Vexil::Ptr<Vexil::EntityManager> entityManager )
   : name_( std::move( name ) ), entry_( std::move( source ) ), policySm_( policySm ),
     entityManager_( std::move( entityManager ) ), attachment_( nextAttachment() ),
     source_( std::make_unique<SourceEntryReactor>( entry_, *this ) ) {
   for( const auto& entry : entry_->vlanFloodSet() )
      vlanFloodSetIs( entry.key, entry.value );
}

PolicySourceSm::~PolicySourceSm() = default;

void PolicySourceSm::handleInitialized() {
   TRACE( 0,
          __PRETTY_FUNCTION__ << " for " << name_ << " with source " << entryStr( entry_.get() ) );
   initialized_ = true;
   handleSourceInitialized();
}

void PolicySourceSm::handleSourceInitialized() {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << name_ );
   maybeMountTarnTable();
   maybeWriteSourceSmByEnum();
   if( destTable_ )
      handleDest();
   if( lbTable_ )
      handleLb();
   if( labelTable_ )
      handleLabel();
   if( hostTable_ )
      handleHost();
   size_t members = 0;
   for( const auto& entry : vlanFloodSet_ )
      members += entry.value->size();
   policySm_->expectFloodMembers( members );
   for( const auto& entry : vlanFloodSet_ )
      entry.value->handleDestSet();
   policySm_->setFloodSetOutputType();
   if( ready() )
      policySm_->handleSourceReplayed( sourceEnum() );
}

// A table of the source: that which the entry brings, for it is initialized only when its tables
// are attached; else that of the path. Null, when it is of another type or there is none: the
// caller's assertion stops the agent.
template<class Table>
Vexil::Ptr<Table> PolicySourceSm::attach( Vexil::Ptr<Table> AttachedTables::*table,
                                          const std::string& path, uint32_t capacity ) {
   if( entry_->tables() )
      return ( *entry_->tables() ).*table;
   // The agent writes the static source's tables itself.
   const auto mode = name_ == "static" ? Table::Mode::write : Table::Mode::read;
   try {
      return entityManager_->mountTable<Table>( path, mode, capacity );
   } catch( const Vexil::TableError& failure ) {
      Vexil::log( "source " + name_ + ": " + failure.what() );
      return nullptr;
   }
}

void PolicySourceSm::maybeMountTarnTable() {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << name_ );
   if( hostTable_ || entry_->hostTableTarnPath().empty() || !entry_->initialized() )
      return;
   attachment_ = nextAttachment();

   const auto hostTable =
      attach( &AttachedTables::host, entry_->hostTableTarnPath(), entry_->hostTableLen() );
   VEXIL_ASSERT( hostTable );
   hostTable_ = hostTable;
   host_ = std::make_unique<HostTableReactor>( hostTable_, *this );
   if( entry_->lbTableTarnPath().empty() ) { // hosts with inline destinations only
      VEXIL_ASSERT( source()->destTableTarnPath().empty() );
      VEXIL_ASSERT( source()->labelTableTarnPath().empty() );
      return;
   }
   const auto labelTable =
      attach( &AttachedTables::label, entry_->labelTableTarnPath(), entry_->labelTableLen() );
   VEXIL_ASSERT( labelTable );
   const auto lbTable =
      attach( &AttachedTables::lb, entry_->lbTableTarnPath(), entry_->lbTableLen() );
   VEXIL_ASSERT( lbTable );
   const auto destTable =
      attach( &AttachedTables::dest, entry_->destTableTarnPath(), entry_->destTableLen() );
   VEXIL_ASSERT( destTable );
   labelTable_ = labelTable;
   lbTable_ = lbTable;
   destTable_ = destTable;
   label_ = std::make_unique<LabelTableReactor>( labelTable_, *this );
   lb_ = std::make_unique<LbTableReactor>( lbTable_, *this );
   dest_ = std::make_unique<DestTableReactor>( destTable_, *this );
}

void PolicySourceSm::maybeWriteSourceSmByEnum() {
   TRACE( 0, "maybeWriteSourceSmByEnum" );
   if( !entry_->initialized() )
      return;
   VEXIL_ASSERT( source()->source() != sourceNone_ );
   // clang-format off
   VEXIL_ASSERT( ! policySm()->sourceSmByEnum( source()->source() ) || policySm()->sourceSmByEnum( source()->source() ) == this );
   // clang-format on
   policySm_->sourceSmByEnumIs( entry_->source(), this );
}

std::vector<ObjTuple> PolicySourceSm::nextsOf( const ObjTuple& ot ) const {
   if( ot.tableType() == tableTypeLoadBalance_ && lbTable_ ) {
      const LoadBalance lb = lbTable_->lb( ot.lbId() );
      return { lb.used().begin(), lb.used().end() };
   }
   if( ot.tableType() == tableTypeLabel_ && labelTable_ )
      if( const Label label = labelTable_->label( ot.labelId() ); label.key() == ot.labelId() )
         return { label.next() };
   return {};
}

PolicySourceSm::ObjectVersion PolicySourceSm::objectVersion() const {
   if( !destTable_ )
      return { attachment_, 0 };
   return { attachment_,
            destTable_->changesTold() + lbTable_->changesTold() + labelTable_->changesTold() };
}

bool PolicySourceSm::host( const Bridging::MacVlanPair& mvp, uint64_t hash, uint32_t slot,
                           Host& found ) const {
   VEXIL_ASSERT( hostTable_ );
   return hostTable_->get( mvp, hash, slot, found );
}

void PolicySourceSm::handleHost( const Bridging::MacVlanPair& mvp ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << name_ << " key: " << mvpStr( mvp ) );
   if( !initialized_ )
      return;
   if( mvp != Util::mvpInvalid() )
      policySm_->handleHost( mvp );
   else if( hostTable_ ) // the key that stands for no host at all
      hostTable_->corruptionDetected( hostTable_->path() + ": a host has no MAC and no VLAN" );
}

void PolicySourceSm::handleLb( const LoadBalanceId& key ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << name_ << " key: " << key );
   if( !initialized_ || !lbTable_ )
      return;
   VEXIL_ASSERT( key != Util::lbIdInvalid() );
   policySm_->handleOtas( ObjTupleAndSource( ObjTuple( key ), sourceEnum() ) );
}

void PolicySourceSm::handleLabel( const LabelId& key ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << name_ << " key: " << key );
   if( !initialized_ || !labelTable_ )
      return;
   VEXIL_ASSERT( key != Util::labelIdInvalid() );
   policySm_->handleOtas( ObjTupleAndSource( ObjTuple( key ), sourceEnum() ) );
}

void PolicySourceSm::handleDest( const DestId& key ) {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << name_ << " key: " << key );
   if( !initialized_ || !destTable_ )
      return;
   VEXIL_ASSERT( key != Util::destIdInvalid() );
   policySm_->handleOtas( ObjTupleAndSource( ObjTuple( key ), sourceEnum() ) );
}

void PolicySourceSm::handleHost() {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << name_ );
   if( !initialized_ || !hostTable_ )
      return;
   policySm_->expectHosts( hostTable_->count() );
   forEachKeyAhead<Bridging::MacVlanPair>(
      *hostTable_,
      [ this ]( const Bridging::MacVlanPair& mvp ) { policySm_->prefetchHandleHost( mvp ); },
      [ this ]( const Bridging::MacVlanPair& mvp ) { handleHost( mvp ); } );
}

void PolicySourceSm::handleLb() {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << name_ );
   if( initialized_ && lbTable_ )
      lbTable_->forEachKey( [ this ]( const LoadBalanceId& key ) { handleLb( key ); } );
}

void PolicySourceSm::handleLabel() {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << name_ );
   if( initialized_ && labelTable_ )
      labelTable_->forEachKey( [ this ]( const LabelId& key ) { handleLabel( key ); } );
}

void PolicySourceSm::handleDest() {
   TRACE( 0, __PRETTY_FUNCTION__ << " for " << name_ );
   if( initialized_ && destTable_ )
      destTable_->forEachKey( [ this ]( const DestId& key ) { handleDest( key ); } );
}

void PolicySourceSm::handleVlanFloodSet( const Bridging::VlanId& vlan ) {
   if( const auto sets = entry_->vlanFloodSet( vlan ) )
      vlanFloodSetIs( vlan, sets );
   else
      vlanFloodSetDel( vlan );
}

void PolicySourceSm::vlanFloodSetIs( const Bridging::VlanId& vlan,
                                     Vexil::Ptr<const VlanFloodSet> sets ) {
   if( !sets )
      Vexil::nullMutatorFailure( "L2Rib::PolicySourceSm", "vlanFloodSet" );
   if( !vlanFloodSet_.contains( vlan ) )
      vlanFloodSet_.emplace( vlan, std::make_unique<VlanFloodSetReactor>( sets, *this, vlan ) );
}

void PolicySourceSm::vlanFloodSetDel( const Bridging::VlanId& vlan ) {
   vlanFloodSet_.erase( vlan );
}

// Every key that the table has is named to us next; what it no longer has is found from the output.
void PolicySourceSm::handleOvertaken() {
   attachment_ = nextAttachment(); // the file may be another one
   policySm_->noteOverrun();
   if( initialized_ )
      policySm_->reviewOutput();
}

} // namespace L2Rib
