// The bridging configuration in the state database: its records and tables.
//
// "bridging/config" is a folder. Its entry "current" is a symbolic link to a folder beside it with
// two shared tables, one of hosts and one of tunnels: a generation of the configuration. They are
// written by l2ribctl alone, for a moment at a time and under the lock of the file ".lock"; that an
// agent runs is not required. A single record is changed in place. Anything else makes a new
// generation, whole, and leads the link to it: one step, so whoever is killed before or after it
// leaves the old configuration or the new one. Without the link the folder itself holds the tables.
// Either may be absent, which means that it is empty. A host is only ever on a tunnel of its own
// generation.
#pragma once

#include "L2Rib/Bridging.h"
#include "L2Rib/Fault.h"
#include "runtime/SharedTable.h"

#include <string>

namespace Bridging {

struct ConfiguredHostRecord {
   MacVlanPair key;
   uint32_t onTunnel = 0; // 1: intf is the number of a dynamic tunnel interface; 0: a plain one
   Vexil::Wire64<uint64_t> intf;                    // never 0
   Vexil::MplsLabel label = Vexil::MplsLabel::none; // on a tunnel only, and there always

   friend bool operator==( const ConfiguredHostRecord&, const ConfiguredHostRecord& ) = default;
};
static_assert( Vexil::WireRecord<ConfiguredHostRecord, 28> );
uint32_t layoutOf( const ConfiguredHostRecord& );
// Whether or not its tunnel exists.
L2Rib::MaybeFault formatFaultIn( const ConfiguredHostRecord& record );
L2Rib::MaybeFault faultIn( const ConfiguredHostRecord& record );

struct TunnelRecord {
   TunnelId key;
   L2Rib::DestDataTunnel data;

   friend bool operator==( const TunnelRecord&, const TunnelRecord& ) = default;
};
static_assert( Vexil::WireRecord<TunnelRecord, 56> );
uint32_t layoutOf( const TunnelRecord& );
L2Rib::MaybeFault faultIn( const TunnelRecord& record );

class ConfiguredHostTable
   : public Vexil::NamedTable<ConfiguredHostTable, MacVlanPair, ConfiguredHostRecord> {
 public:
   using NamedTable::NamedTable;
   static constexpr const char* typeName = "Bridging::ConfiguredHost";
   static constexpr const char* collection = "configuredHost";
   static constexpr const char* fileName = "hosts";
};

class TunnelTable : public Vexil::NamedTable<TunnelTable, TunnelId, TunnelRecord> {
 public:
   using NamedTable::NamedTable;
   static constexpr const char* typeName = "Bridging::Tunnel";
   static constexpr const char* collection = "tunnel";
   static constexpr const char* fileName = "tunnels";
};

// The link to the generation in force, in the configuration's folder.
constexpr const char* configLink = "current";
// What to append to the configuration's folder for that of the generation in force: "/NAME", or
// nothing where there is no link.
std::string configGeneration( const std::string& folder );

} // namespace Bridging

VEXIL_TABLE( Bridging::MacVlanPair, Bridging::ConfiguredHostRecord )
VEXIL_TABLE( Bridging::TunnelId, Bridging::TunnelRecord )
