// The code of the tables whose records are known, once for all who use them.
#include "L2Rib/ConfigRecords.h"
#include "L2Rib/FloodRecords.h"
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/Parked.h"
#include "L2Rib/SourceDir.h"
#include "L2Rib/Status.h"

VEXIL_TABLE_CODE( Bridging::MacVlanPair, L2Rib::Host )
VEXIL_TABLE_CODE( L2Rib::LoadBalanceId, L2Rib::LoadBalance )
VEXIL_TABLE_CODE( L2Rib::LabelId, L2Rib::Label )
VEXIL_TABLE_CODE( L2Rib::DestId, L2Rib::Dest )
VEXIL_TABLE_CODE( Bridging::MacVlanPair, L2Rib::HostAndSource )
VEXIL_TABLE_CODE( L2Rib::LoadBalanceId, L2Rib::LoadBalanceAndSource )
VEXIL_TABLE_CODE( L2Rib::LabelId, L2Rib::LabelAndSource )
VEXIL_TABLE_CODE( L2Rib::DestId, L2Rib::DestAndSource )
VEXIL_TABLE_CODE( L2Rib::FloodMemberKey, L2Rib::FloodMember )
VEXIL_TABLE_CODE( uint32_t, L2Rib::FloodSourceRecord )
VEXIL_TABLE_CODE( L2Rib::SourceName, L2Rib::SourceEntryRecord )
VEXIL_TABLE_CODE( L2Rib::SourceName, L2Rib::SourceStatusRecord )
VEXIL_TABLE_CODE( L2Rib::ParkedKey, L2Rib::ParkedRecord )
VEXIL_TABLE_CODE( Bridging::MacVlanPair, Bridging::ConfiguredHostRecord )
VEXIL_TABLE_CODE( Bridging::TunnelId, Bridging::TunnelRecord )
