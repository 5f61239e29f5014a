// How a source's directory entry gets from its file into this process.
#pragma once

#include "L2Rib/SourceDir.h"
#include "bindings/SourceFloodBinding.h"
#include "runtime/RetryTimer.h"
#include "runtime/StateDb.h"

#include <memory>
#include <string>

namespace L2Rib {

// Copies the record of an entry file into the entity, at first and whenever it changes. What says
// who the source is and where its tables are stands once the source was initialized: a source that
// wants it otherwise publishes a new entry.
//
// "initialized" is copied last, when the entry's tables are attached and all that was in the flood
// table before it has been read: so an initialized entry always has its tables, and its flood sets
// are complete. A table that can't be attached (no descriptors, no memory, not there yet, damaged)
// keeps the entry uninitialized, with the reason in notReadyReason, and is tried again. One of
// another type is not: the entry is then initialized without it, for which the engine has an
// assertion.
//
// The flood table is read in slices. While the process starts, it is read in one go: the flood sets
// of a source that is ready are complete before the engine meets it, and a restart withdraws none.
class SourceEntryBinding : public Vexil::Reactor<SourceEntryTable> {
 public:
   SourceEntryBinding( Vexil::EntityManager& manager, Vexil::Ptr<SourceEntryTable> table,
                       Vexil::Ptr<SourceDirEntry> entry );
   // Copies the last state of a source whose entry has gone: one that took "initialized" back
   // before has withdrawn its hosts, also when that was not notified in between.
   ~SourceEntryBinding() override;
   void handleEntry( const SourceName& ) override;

 private:
   void copyRecord();
   void copyIdentity( const SourceEntryRecord& record );
   bool attachTables( const SourceEntryRecord& record );
   std::shared_ptr<const AttachedTables> attached() const;
   template<class Table>
   Vexil::Ptr<Table> attached( const std::string& path ) const;
   void notReady( const std::string& why );

   Vexil::EntityManager& manager_;
   Vexil::Ptr<SourceEntryTable> table_;
   Vexil::Ptr<SourceDirEntry> entry_;
   SourceName name_;
   bool settled_ = false;
   std::unique_ptr<SourceFloodBinding> flood_;
   Vexil::RetryTimer retry_;       // of what could not be attached
   Vexil::TimerReactor readFlood_; // while initialized waits for it
};

// Mounts the entry file of a path.
Vexil::Mounted mountSourceEntry( Vexil::EntityManager& manager, const std::string& path,
                                 Vexil::MountMode mode );

} // namespace L2Rib
