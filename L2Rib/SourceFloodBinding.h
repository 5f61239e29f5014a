// How a source's flood sets cross process borders: its flood table, a record a member, fills the
// flood sets under the source's directory entry.
#pragma once

#include "L2Rib/FloodSets.h"
#include "L2Rib/SourceDir.h"

namespace L2Rib {

// Keeps the flood sets under a source's entry in step with the source's flood table. Records that
// no honest source writes are reported as corruption of the table and left out.
class SourceFloodBinding : public Vexil::Reactor<FloodMemberTable> {
 public:
   SourceFloodBinding( Vexil::Ptr<FloodMemberTable> table, Vexil::Ptr<SourceDirEntry> entry );
   void handleEntry( const FloodMemberKey& triple ) override;
   void handleOvertaken() override;

 private:
   void memberIs( const FloodMember& member );
   void memberDel( const FloodSetTriple& triple );

   Vexil::Ptr<FloodMemberTable> table_;
   Vexil::Ptr<SourceDirEntry> entry_;
};

} // namespace L2Rib
