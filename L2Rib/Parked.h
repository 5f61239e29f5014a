// What the engine could not program, and why: the table of parked entries, a row an entry.
//
// The agent writes it for people and for l2ribctl, and empties it when it starts; nobody acts on
// it. A row comes when an entry is parked, changes when its reason does, and goes when the entry is
// programmed or nobody wants it any more. Rows are written some at a time:
// AgentStatusRecord::parkedUntold says how many are still to come or to go.
#pragma once

#include "L2Rib/L2Rib.h"
#include "L2Rib/Objects.h"
#include "runtime/SharedTable.h"

namespace L2Rib {

enum ParkedKind : uint32_t {
   parkedHost_ = 1,
   parkedObject_ = 2,
   parkedFloodMember_ = 3,
};

enum ParkedReason : uint32_t {
   parkedNone_ = 0,
   parkedTableFull_ = 1,    // an output table is at the highest capacity that it may have
   parkedNoMemory_ = 2,     // the state directory has no memory for an output table to grow
   parkedObjectAbsent_ = 3, // an object that it leads to is not in its source
   parkedLoop_ = 4,         // the objects that it leads to form a loop
   parkedTooDeep_ = 5,      // they form a chain longer than the engine follows
   parkedNoId_ = 6,         // all output ids of a type have been given
};
constexpr uint32_t parkedReasons = 7; // one more than the highest

enum OutputTable : uint32_t {
   outputTableNone_ = 0,
   outputTableHost_ = 1,
   outputTableLoadBalance_ = 2,
   outputTableLabel_ = 3,
   outputTableDest_ = 4,
   outputTableFlood_ = 5,
};
constexpr uint32_t outputTables = 6;

// Which entry: a host by its MAC and VLAN, an object by its input, a flood member by its address,
// VLAN and the hash of its dest (as the object's id).
struct ParkedKey {
   ParkedKind kind = parkedHost_;
   Bridging::MacVlanPair mvp;
   ObjTupleAndSource otas;

   uint64_t hash() const { return Vexil::hashBytes( this, sizeof *this ); }
   friend bool operator==( const ParkedKey&, const ParkedKey& ) = default;
   friend auto operator<=>( const ParkedKey&, const ParkedKey& ) = default;
};
static_assert( Vexil::WireRecord<ParkedKey, 32> );

struct ParkedRecord {
   ParkedKey key;
   Source source = sourceNone_; // whose entry it is; none for a flood member
   ParkedReason reason = parkedNone_;
   OutputTable table = outputTableNone_; // that is full, or has no memory
   uint32_t limit = 0;                   // its capacity; the greatest depth
   ObjTupleAndSource blocker;   // the object that is absent, closes the loop, lies too deep
   Vexil::Wire64<double> since; // parked without a break, seconds since 1970
   // The retry rounds before it was parked. All parked entries are tried in each round, so there
   // have been 1 + AgentStatusRecord::retryRounds - round tries, and a row stands until its reason
   // changes.
   Vexil::Wire64<uint64_t> round;
   Dest dest; // of a flood member

   friend bool operator==( const ParkedRecord&, const ParkedRecord& ) = default;
};
static_assert( Vexil::WireRecord<ParkedRecord, 140> );
uint32_t layoutOf( const ParkedRecord& );

class ParkedTable : public Vexil::NamedTable<ParkedTable, ParkedKey, ParkedRecord> {
 public:
   using NamedTable::NamedTable;
   static constexpr const char* typeName = "L2Rib::Parked";
   static constexpr const char* collection = "parked";
};

} // namespace L2Rib

VEXIL_TABLE( L2Rib::ParkedKey, L2Rib::ParkedRecord )
