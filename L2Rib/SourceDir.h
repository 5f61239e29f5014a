// The directory entries of the sources.
//
// An entry says who a source is and where its tables are. External sources publish theirs as files
// in the folder "bridging/l2Rib/inputDir"; sources inside the agent enter theirs in the agent's own
// AgentSourceDir, which writes the same files to "bridging/l2Rib/agentInputDir" for others to read.
// The entry file is a shared table with one record: what is written into the same file changes the
// entity's attributes, another file under the name is another entity.
#pragma once

#include "L2Rib/FloodRecords.h"
#include "L2Rib/FloodSets.h"
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/SourceEntry.h"
#include "runtime/Entity.h"

#include <memory>
#include <string>

namespace L2Rib {

// The tables of a source, attached for reading; null where the entry names none, or where the file
// holds a table of another type.
struct AttachedTables {
   Vexil::Ptr<HostInput> host;
   Vexil::Ptr<LoadBalanceTable> lb;
   Vexil::Ptr<LabelTable> label;
   Vexil::Ptr<DestTable> dest;
};

// One input source. The name is the key and never changes.
class SourceDirEntry : public Vexil::Entity {
 public:
   struct Handlers {
      virtual void handleSource() {}
      virtual void handleHostTableTarnPath() {}
      virtual void handleLbTableTarnPath() {}
      virtual void handleLabelTableTarnPath() {}
      virtual void handleDestTableTarnPath() {}
      virtual void handleHostTableLen() {}
      virtual void handleLbTableLen() {}
      virtual void handleLabelTableLen() {}
      virtual void handleDestTableLen() {}
      virtual void handleInitialized() {}
      virtual void handleVlanFloodSet( const Bridging::VlanId& ) {}
   };
   Vexil::Notifiees<Handlers> notifiees;

   explicit SourceDirEntry( std::string name ) : name_( std::move( name ) ) {}
   const std::string& name() const { return name_; }

   // A single bit; sourceNone_ until the entry is usable.
   VEXIL_ATTRIBUTE_NOTIFYING( Source, source, handleSource, sourceNone_ );
   // Paths in the state database. Empty: the source has no such table.
   VEXIL_ATTRIBUTE_NOTIFYING( std::string, hostTableTarnPath, handleHostTableTarnPath );
   VEXIL_ATTRIBUTE_NOTIFYING( std::string, lbTableTarnPath, handleLbTableTarnPath );
   VEXIL_ATTRIBUTE_NOTIFYING( std::string, labelTableTarnPath, handleLabelTableTarnPath );
   VEXIL_ATTRIBUTE_NOTIFYING( std::string, destTableTarnPath, handleDestTableTarnPath );
   // Capacities in records.
   VEXIL_ATTRIBUTE_NOTIFYING( uint32_t, hostTableLen, handleHostTableLen, 0 );
   VEXIL_ATTRIBUTE_NOTIFYING( uint32_t, lbTableLen, handleLbTableLen, 0 );
   VEXIL_ATTRIBUTE_NOTIFYING( uint32_t, labelTableLen, handleLabelTableLen, 0 );
   VEXIL_ATTRIBUTE_NOTIFYING( uint32_t, destTableLen, handleDestTableLen, 0 );
   // Set by the source when its tables hold a complete first copy.
   VEXIL_ATTRIBUTE_NOTIFYING( bool, initialized, handleInitialized, false );
   // Set before initialized is, where the entry comes from a file: whoever finds the entry
   // initialized finds its tables attached. Null for a source inside this process.
   VEXIL_ATTRIBUTE( std::shared_ptr<const AttachedTables>, tables )
   // Why the entry is not initialized although its source says so; empty when there is no reason.
   VEXIL_ATTRIBUTE( std::string, notReadyReason )
   // The table that vlanFloodSet follows, for whoever reports how far it has been read; null when
   // the flood sets are entered in this process. Behind: what the table says of how far it has been
   // read is not all in vlanFloodSet yet.
   VEXIL_ATTRIBUTE( Vexil::Ptr<const Vexil::TableBase>, floodTable )
   VEXIL_ATTRIBUTE( bool, floodBehind, false )
   L2RIB_CHILDREN( Bridging::VlanId, VlanFloodSet, vlanFloodSet, handleVlanFloodSet )
   // Enters a VLAN that has none, with all that it holds: one notification.
   void vlanFloodSetIs( const Bridging::VlanId& vlan, Vexil::Ptr<VlanFloodSet> sets ) {
      if( vlanFloodSet_.emplace( vlan, std::move( sets ) ).second )
         notifiees.notify( &Handlers::handleVlanFloodSet, vlan );
   }

 private:
   std::string name_;
};
// The entry's name and source; "none" for null.
std::string entryStr( const SourceDirEntry* entry );

// The sources that live inside this agent, by name. Mounted on a state directory it is empty at
// first, whatever an earlier run published: no entry counts before its source enters it.
class AgentSourceDir : public Vexil::Entity {
 public:
   struct Handlers {
      virtual void handleSource( const std::string& name ) = 0;
   };
   Vexil::Notifiees<Handlers> notifiees;

   const Vexil::HashMap<std::string, Vexil::Ptr<SourceDirEntry>>& source() const { return source_; }
   Vexil::Ptr<SourceDirEntry> source( const std::string& name ) const {
      const Vexil::Ptr<SourceDirEntry>* found = source_.find( name );
      return found ? *found : nullptr;
   }
   // Creates the entry of that name, or returns the one that is there.
   Vexil::Ptr<SourceDirEntry> sourceIs( const std::string& name );
   // Enters an entry that is made elsewhere; nothing when there is one of that name.
   void sourceIs( const std::string& name, Vexil::Ptr<SourceDirEntry> entry );
   void sourceDel( const std::string& name );
   VEXIL_DELETE_ALL( source )

 private:
   Vexil::HashMap<std::string, Vexil::Ptr<SourceDirEntry>> source_;
};

} // namespace L2Rib
