// One state machine per source: waits until the source says that its tables are complete, attaches
// them, registers the source by its value, and replays the whole content into the engine. From then
// on it names to the engine every key that changes. It keeps no copy of any data.
//
//    constructed --> attached, when the entry is initialized and names a host table
//
// The tables are attached once in the life of a state machine. A source that wants others publishes
// a new entry; the engine then makes a new state machine.
#pragma once

#include "L2Rib/L2RibTarn.h"
#include "L2Rib/SourceDir.h"
#include "runtime/StateDb.h"

#include <memory>
#include <string>
#include <vector>

namespace L2Rib {

class PolicySm;

class PolicySourceSm : public Vexil::Entity {
 public:
   PolicySourceSm( std::string name, Vexil::Ptr<const SourceDirEntry> source, PolicySm* policySm,
                   Vexil::Ptr<Vexil::EntityManager> entityManager );
   ~PolicySourceSm() override;

   const std::string& name() const { return name_; }
   const Vexil::Ptr<const SourceDirEntry>& source() const { return entry_; }
   PolicySm* policySm() const { return policySm_; }
   const Vexil::Ptr<Vexil::EntityManager>& entityManager() const { return entityManager_; }
   // Ends the construction; called once, by the engine, when the state machine is in sourceSm.
   void handleInitialized();
   bool initialized() const { return initialized_; }
   Source sourceEnum() const { return entry_->source(); }
   // Whether the source takes part. It must then have a host table: a source that is initialized
   // and names none stops the engine when a host is looked up.
   bool ready() const { return initialized_ && entry_->initialized(); }

   // The attached tables, null where there is none.
   const HostInput* hostTable() const { return hostTable_.get(); }
   const LoadBalanceTable* lbTable() const { return lbTable_.get(); }
   const LabelTable* labelTable() const { return labelTable_.get(); }
   const DestTable* destTable() const { return destTable_.get(); }

   // Copies the source's host for mvp; false when it has none. Its hash, and the slot that
   // prefetchRecord() told, are given. The state machine is ready.
   bool host( const Bridging::MacVlanPair& mvp, uint64_t hash, uint32_t slot, Host& found ) const;

   // What the object points to as the source has it now; nothing when it has no such object.
   std::vector<ObjTuple> nextsOf( const ObjTuple& ot ) const;

   // Changes whenever the engine was told of a change of any object of the source. Nothing is told
   // while a slice is at work, so it is the same from its beginning to its end.
   struct ObjectVersion {
      uint64_t attachment = 0; // of the tables; unique over all state machines
      uint64_t changes = 0;
      friend bool operator==( const ObjectVersion&, const ObjectVersion& ) = default;
   };
   ObjectVersion objectVersion() const;

   // One key changed.
   void handleHost( const Bridging::MacVlanPair& mvp );
   void handleLb( const LoadBalanceId& key );
   void handleLabel( const LabelId& key );
   void handleDest( const DestId& key );
   // Every key of the table.
   void handleHost();
   void handleLb();
   void handleLabel();
   void handleDest();
   // The entry's flood sets of one VLAN came or went.
   void handleVlanFloodSet( const Bridging::VlanId& vlan );
   // Follows the flood sets of a VLAN, or keeps following them; throws MutatorFailure on null.
   void vlanFloodSetIs( const Bridging::VlanId& vlan, Vexil::Ptr<const VlanFloodSet> sets );
   void vlanFloodSetDel( const Bridging::VlanId& vlan );
   // Changes of a table were lost to us: what the output has of this source is examined again.
   void handleOvertaken();

 private:
   template<class Table, class Key, void ( PolicySourceSm::*handle )( const Key& )>
   class TableReactor;
   class HostTableReactor;
   class LbTableReactor;
   class LabelTableReactor;
   class DestTableReactor;
   class SourceEntryReactor;
   class VlanFloodSetReactor;
   class FloodSetReactor;

   void handleSourceInitialized();
   void maybeMountTarnTable();
   void maybeWriteSourceSmByEnum();
   template<class Table>
   Vexil::Ptr<Table> attach( Vexil::Ptr<Table> AttachedTables::*table, const std::string& path,
                             uint32_t capacity );

   std::string name_;
   Vexil::Ptr<const SourceDirEntry> entry_;
   PolicySm* policySm_;
   Vexil::Ptr<Vexil::EntityManager> entityManager_;
   bool initialized_ = false;
   uint64_t attachment_ = 0;

   Vexil::Ptr<HostInput> hostTable_;
   Vexil::Ptr<LoadBalanceTable> lbTable_;
   Vexil::Ptr<LabelTable> labelTable_;
   Vexil::Ptr<DestTable> destTable_;
   Vexil::HashMap<Bridging::VlanId, std::unique_ptr<VlanFloodSetReactor>> vlanFloodSet_;
   std::unique_ptr<SourceEntryReactor> source_;
   std::unique_ptr<HostInput::Handlers> host_;
   std::unique_ptr<LoadBalanceTable::Handlers> lb_;
   std::unique_ptr<LabelTable::Handlers> label_;
   std::unique_ptr<DestTable::Handlers> dest_;
};

} // namespace L2Rib
