// How a source's flood sets cross process borders: its flood table, a record a member, fills the
// flood sets under the source's directory entry.
#pragma once

#include "L2Rib/FloodSets.h"
#include "L2Rib/SourceDir.h"
#include "runtime/Clock.h"

#include <optional>

namespace L2Rib {

// Keeps the flood sets under a source's entry in step with the source's flood table. Records that
// break the rules of Fault.h are reported as corruption of the table and left out.
//
//    reading --> following <--> sweeping
//
// Reading: the table is read for the first time, in slices. What is read so far is collected aside
// and enters the entry at the end, VLAN by VLAN: until then the engine hears of no member, and what
// the output has of the source's last life stays in it.
// Following: each change is brought in as the table tells of it.
// Sweeping: the table could not tell of all changes. It names all that it has, and the members that
// the entry has are looked up in it, in slices; floodBehind of the entry is true meanwhile.
class SourceFloodBinding : public Vexil::Reactor<FloodMemberTable> {
 public:
   SourceFloodBinding( Vexil::Ptr<Vexil::Clock> clock, Vexil::Ptr<FloodMemberTable> table,
                       Vexil::Ptr<SourceDirEntry> entry );

   // All that the table holds at this moment is what readOn() is to reach.
   void requireAllSoFar();
   // Reads on until the deadline. Returns whether all that was required is in the entry.
   bool readOn( const Vexil::Clock& clock, Vexil::Seconds deadline );

   void handleEntry( const FloodMemberKey& triple ) override;
   void handleOvertaken() override;

 private:
   using VlanSets = Vexil::HashMap<Bridging::VlanId, Vexil::Ptr<VlanFloodSet>>;

   bool hasAll() const;
   void endReading();
   void sweep();
   std::optional<FloodSetTriple> memberAfter( const std::optional<FloodSetTriple>& member ) const;
   void memberIs( const FloodMember& member );
   void memberDel( const FloodSetTriple& triple );
   Vexil::Ptr<VlanFloodSet> setsIs( const Bridging::VlanId& vlan );
   const VlanSets& sets() const { return reading_ ? read_ : entry_->vlanFloodSet(); }

   Vexil::Ptr<Vexil::Clock> clock_;
   Vexil::Ptr<FloodMemberTable> table_;
   Vexil::Ptr<SourceDirEntry> entry_;
   bool reading_ = true;
   VlanSets read_;
   uint64_t required_ = 0; // the place in the table's journal that readOn() is to reach
   std::optional<FloodSetTriple> swept_; // the last member that was looked up
   Vexil::TimerReactor sweep_;
};

} // namespace L2Rib
