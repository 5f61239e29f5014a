// The status of the agent, in shared tables that the agent alone writes.
//
// PolicySmStatus is the engine's memory across restarts: the highest output ids that it ever gave.
// AgentStatus and SourceStatus are for people and for l2ribctl: the engine's work queues, and
// how far it has read each source's tables.
#pragma once

#include "L2Rib/Parked.h"
#include "L2Rib/SourceEntry.h"
#include "runtime/Entity.h"

#include <array>

namespace L2Rib {

// The highest output id given so far, per type. With a file under it, a new value has reached the
// shared memory when the setter returns.
class PolicySmStatus : public Vexil::Entity {
 public:
   struct Handlers {
      virtual void handleMaxIds() = 0;
   };
   Vexil::Notifiees<Handlers> notifiees;

   VEXIL_ATTRIBUTE_NOTIFYING( DestId, maxDestId, handleMaxIds );
   VEXIL_ATTRIBUTE_NOTIFYING( LoadBalanceId, maxLbId, handleMaxIds );
   VEXIL_ATTRIBUTE_NOTIFYING( LabelId, maxLabelId, handleMaxIds );
};

// Tables with a single record have this key.
struct SingleKey {
   uint32_t value = 1;
   uint64_t hash() const { return Vexil::mix64( value ); }
   friend bool operator==( const SingleKey&, const SingleKey& ) = default;
};

struct PolicySmStatusRecord {
   SingleKey key;
   DestId maxDestId;
   LoadBalanceId maxLbId;
   LabelId maxLabelId;
};
static_assert( Vexil::WireRecord<PolicySmStatusRecord, 28> );
uint32_t layoutOf( const PolicySmStatusRecord& );
MaybeFault formatFaultIn( const PolicySmStatusRecord& status );

class PolicySmStatusTable
   : public Vexil::NamedTable<PolicySmStatusTable, SingleKey, PolicySmStatusRecord> {
 public:
   using NamedTable::NamedTable;
   static constexpr const char* typeName = "L2Rib::PolicySmStatus";
   static constexpr const char* collection = "status";
};

// The restart state of an agent that has its output in step with the sources
// (PolicySmRestartState). In every state below it the output may be emptied and filled again.
constexpr uint32_t restartStateRunning = 6;

// The agent's figures, written at the end of each turn in which one changed. The process that holds
// the writer's lock of this table is the running agent.
struct AgentStatusRecord {
   SingleKey key;
   uint32_t restartState = 0; // PolicySmRestartState
   uint32_t processId = 0;
   uint32_t sources = 0;              // state machines
   Vexil::Wire64<double> since;       // when this agent started, seconds since 1970
   Vexil::Wire64<double> lastSign;    // when this record was written, seconds since 1970
   Vexil::Wire64<double> longestHold; // of the event loop, seconds
   Vexil::Wire64<uint64_t> hostList;  // waiting for review
   Vexil::Wire64<uint64_t> otasList;
   Vexil::Wire64<uint64_t> failedHost; // parked
   Vexil::Wire64<uint64_t> failedOtas;
   Vexil::Wire64<uint64_t> floodSetBacklog;
   Vexil::Wire64<uint64_t> withdrawalChecks;   // hosts still to be looked at for vanished sources
   Vexil::Wire64<double> restartDuration;      // seconds, until now or in all
   Vexil::Wire64<uint64_t> restartEntriesLeft; // that the present restart state has to look at
   // When the parked entry that has failed the longest failed first, seconds of the system's clock
   // (those since the machine started); 0 when nothing is parked.
   Vexil::Wire64<double> failingSince;
   Vexil::Wire64<uint64_t> retries;         // of parked entries, so far
   Vexil::Wire64<uint64_t> users;           // relations between output rows and what they use
   Vexil::Wire64<uint64_t> journalOverruns; // source tables that were read too late, so far
   Vexil::Wire64<uint64_t> failedFlood;     // flood members that are parked
   // Parked entries by reason, those that are just being tried again among them; and how many of
   // their rows in the table of parked entries have still to be written or removed.
   std::array<Vexil::Wire64<uint64_t>, parkedReasons> parked;
   Vexil::Wire64<uint64_t> parkedUntold;
   // How often all parked hosts and objects have been tried again; all flood members.
   Vexil::Wire64<uint64_t> retryRounds;
   Vexil::Wire64<uint64_t> floodRetryRounds;

   friend bool operator==( const AgentStatusRecord&, const AgentStatusRecord& ) = default;
};
static_assert( Vexil::WireRecord<AgentStatusRecord, 224> );
uint32_t layoutOf( const AgentStatusRecord& );
MaybeFault formatFaultIn( const AgentStatusRecord& status );

class AgentStatusTable : public Vexil::NamedTable<AgentStatusTable, SingleKey, AgentStatusRecord> {
 public:
   using NamedTable::NamedTable;
   static constexpr const char* typeName = "L2Rib::AgentStatus";
   static constexpr const char* collection = "status";
};

// How far the agent has read one file: the table's id, and the number of the next change. All zero
// while there is no such file, or it isn't attached.
struct ReadMark {
   Vexil::Wire64<uint64_t> tableId;
   Vexil::Wire64<uint64_t> cursor;

   friend bool operator==( const ReadMark&, const ReadMark& ) = default;
};

// One source as the agent sees it. The table is empty when an agent takes the table of the agent's
// status: what stands in it is this agent's word.
struct SourceStatusRecord {
   SourceName name;
   Source source = sourceNone_;
   uint32_t ready = 0;
   ReadMark host;
   ReadMark lb;
   ReadMark label;
   ReadMark dest;
   ReadMark flood;
   // Of the source "static": the configuration that its tables are made from.
   ReadMark configuredHosts;
   ReadMark configuredTunnels;
   // Why it is not ready although it is initialized, or what of it is corrupt; empty when there is
   // no reason, cut off when it is longer.
   FixedText<128> reason;
   Vexil::Wire64<uint64_t> corruptions; // found in its tables, so far

   friend bool operator==( const SourceStatusRecord&, const SourceStatusRecord& ) = default;
};
static_assert( Vexil::WireRecord<SourceStatusRecord, 320> );
uint32_t layoutOf( const SourceStatusRecord& );

class SourceStatusTable
   : public Vexil::NamedTable<SourceStatusTable, SourceName, SourceStatusRecord> {
 public:
   using NamedTable::NamedTable;
   static constexpr const char* typeName = "L2Rib::SourceStatus";
   static constexpr const char* collection = "source";
};

} // namespace L2Rib

VEXIL_TABLE( L2Rib::SourceName, L2Rib::SourceStatusRecord )
