// The shared-table forms of the RIB's tables: what key and record each holds, under which type name
// and collection name its file goes, and the operations by their names.
//
// An input table is written by its source alone, an output table by the agent alone. Every write is
// of a whole record, under the record's own key. Writing to a full table changes nothing and
// returns false. A lookup returns a copy, or a default record, whose key is invalid and so differs
// from the one that was asked for, when there is none.
#pragma once

#include "L2Rib/Fault.h"
#include "runtime/SharedTable.h"

namespace L2Rib {

// One line a table: class, key, record, collection name, accessor (x, xIs, xDel, xDelAll).
#define L2RIB_TABLE( Class, Key, Record, collectionName, accessor )                                \
   class Class : public Vexil::NamedTable<Class, Key, Record> {                                    \
    public:                                                                                        \
      using NamedTable::NamedTable;                                                                \
      static constexpr const char* typeName = "L2Rib::" #Class;                                    \
      static constexpr const char* collection = collectionName;                                    \
                                                                                                   \
      Record accessor( const Key& key ) const { return get( key ); }                               \
      [[nodiscard]] bool accessor##Is( const Record& record ) { return set( record ); }            \
      void accessor##Del( const Key& key ) { erase( key ); }                                       \
      void accessor##DelAll() { eraseAll(); }                                                      \
   }

// clang-format off
L2RIB_TABLE( HostInput,         Bridging::MacVlanPair, Host,        "host",  host );
L2RIB_TABLE( LoadBalanceTable,  LoadBalanceId,         LoadBalance, "lb",    lb );
L2RIB_TABLE( LabelTable,        LabelId,               Label,       "label", label );
L2RIB_TABLE( DestTable,         DestId,                Dest,        "dest",  dest );

L2RIB_TABLE( HostOutput,        Bridging::MacVlanPair, HostAndSource,        "host",  host );
L2RIB_TABLE( LoadBalanceOutput, LoadBalanceId,         LoadBalanceAndSource, "lb",    lb );
L2RIB_TABLE( LabelOutput,       LabelId,               LabelAndSource,       "label", label );
L2RIB_TABLE( DestOutput,        DestId,                DestAndSource,        "dest",  dest );
// clang-format on
#undef L2RIB_TABLE

// Up to this capacity the tables of the agent and of the sources grow by themselves, unless they
// are told otherwise.
constexpr uint32_t defaultCapacityMax = 16777216;

// Where the agent's tables and entities are in the state database.
namespace Path {
constexpr const char* inputDir = "bridging/l2Rib/inputDir";
constexpr const char* agentInputDir = "bridging/l2Rib/agentInputDir";
constexpr const char* floodOutput = "bridging/l2Rib/floodOutput";
constexpr const char* floodOutputSource = "bridging/l2Rib/floodOutputSource";
constexpr const char* bridgingConfig = "bridging/config";
constexpr const char* policySmStatus = "bridging/l2Rib/policySmStatus";
constexpr const char* hostOutput = "bridging/l2Rib/hostOutput";
constexpr const char* lbOutput = "bridging/l2Rib/lbOutput";
constexpr const char* labelOutput = "bridging/l2Rib/labelOutput";
constexpr const char* destOutput = "bridging/l2Rib/destOutput";
constexpr const char* agentStatus = "bridging/l2Rib/agentStatus";
constexpr const char* sourceStatus = "bridging/l2Rib/sourceStatus";
constexpr const char* parked = "bridging/l2Rib/parked";
} // namespace Path

} // namespace L2Rib

VEXIL_TABLE( Bridging::MacVlanPair, L2Rib::Host )
VEXIL_TABLE( L2Rib::LoadBalanceId, L2Rib::LoadBalance )
VEXIL_TABLE( L2Rib::LabelId, L2Rib::Label )
VEXIL_TABLE( L2Rib::DestId, L2Rib::Dest )
VEXIL_TABLE( Bridging::MacVlanPair, L2Rib::HostAndSource )
VEXIL_TABLE( L2Rib::LoadBalanceId, L2Rib::LoadBalanceAndSource )
VEXIL_TABLE( L2Rib::LabelId, L2Rib::LabelAndSource )
VEXIL_TABLE( L2Rib::DestId, L2Rib::DestAndSource )
