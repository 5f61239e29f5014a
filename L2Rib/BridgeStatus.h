// The status of the program l2rib-bridge: which bridges it serves, what it gave the kernel
// for each host, and what was refused.
//
// The program writes these tables for people and for l2ribctl. They stay when it ends, and the next
// run takes them over: as a guess at what the kernel has, which spares it a wait, and which a dump
// of the kernel confirms or corrects. Without them it waits for the dump. It runs while somebody
// holds the writer's lock of the first one.
#pragma once

#include "L2Rib/L2Rib.h"
#include "L2Rib/SourceEntry.h"
#include "L2Rib/Status.h"

#include <array>

namespace L2Rib {

namespace Path {
constexpr const char* bridgeProgram = "bridging/l2Rib/bridgeProgram";
constexpr const char* bridges = "bridging/l2Rib/bridges";
constexpr const char* bridgeHosts = "bridging/l2Rib/bridgeHosts";
constexpr const char* bridgeGroups = "bridging/l2Rib/bridgeGroups";
constexpr const char* bridgeRefused = "bridging/l2Rib/bridgeRefused";
} // namespace Path

using InterfaceName = FixedText<16>; // IFNAMSIZ of linux/if.h
using ReasonText = FixedText<128>;

// The program as a whole.
struct BridgeProgramRecord {
   SingleKey key;
   uint32_t processId = 0;
   uint32_t inSync = 0;            // 1: has written what differs; 2: and compared with a whole dump
   uint32_t unwritten = 0;         // rows of these tables for which there was no room
   Vexil::Wire64<double> since;    // when it started, seconds since 1970
   Vexil::Wire64<double> lastSign; // when this record was written, seconds since 1970
   Vexil::Wire64<double> syncTime; // seconds from its start until it was in sync
   Vexil::Wire64<uint64_t> writes; // changes that were asked of the kernel
   Vexil::Wire64<uint64_t> audits; // comparisons with a whole dump
   Vexil::Wire64<uint64_t> lost;   // times that notifications were lost
   Vexil::Wire64<uint64_t> nexthopsRepaired;

   friend bool operator==( const BridgeProgramRecord&, const BridgeProgramRecord& ) = default;
};
static_assert( Vexil::WireRecord<BridgeProgramRecord, 72> );
uint32_t layoutOf( const BridgeProgramRecord& );

// One VLAN. Hosts and flood members are counted alike.
struct BridgeRecord {
   Bridging::VlanId vlan;
   InterfaceName bridge;
   InterfaceName device;     // empty: there is none
   uint32_t bridgeIndex = 0; // ifindexes; 0: there is none
   uint32_t deviceIndex = 0;
   uint32_t vni = 0;
   Vexil::IpGenAddr local;
   Vexil::Wire64<uint64_t> wanted;
   Vexil::Wire64<uint64_t> programmed;
   Vexil::Wire64<uint64_t> refused;
   Vexil::Wire64<uint64_t> learned;
   Vexil::Wire64<uint64_t> repaired; // by this run
   ReasonText fault;                 // of the devices; empty: none

   friend bool operator==( const BridgeRecord&, const BridgeRecord& ) = default;
};
static_assert( Vexil::WireRecord<BridgeRecord, 236> );
uint32_t layoutOf( const BridgeRecord& );

enum BridgeHostKind : uint32_t {
   bridgeHostGroup_ = 1,     // on the VXLAN device, with the nexthop group of that id
   bridgeHostRemote_ = 2,    // on the VXLAN device, with VTEP and VNI
   bridgeHostInterface_ = 3, // static, on the interface of that id
};

// What the kernel was given for a host.
struct BridgeHostRecord {
   Bridging::MacVlanPair key;
   BridgeHostKind kind = bridgeHostGroup_;
   uint32_t id = 0;
   uint32_t vni = 0;
   Vexil::IpGenAddr vtep;
   Vexil::Wire64<double> since; // seconds since 1970

   friend bool operator==( const BridgeHostRecord&, const BridgeHostRecord& ) = default;
};
static_assert( Vexil::WireRecord<BridgeHostRecord, 52> );
uint32_t layoutOf( const BridgeHostRecord& );

// A nexthop group, by its number in the kernel.
struct BridgeGroupRecord {
   uint32_t id = 0;
   uint32_t count = 0; // of VTEPs, more than there are slots for perhaps
   std::array<Vexil::IpGenAddr, 16> vteps{};

   friend bool operator==( const BridgeGroupRecord&, const BridgeGroupRecord& ) = default;
};
static_assert( Vexil::WireRecord<BridgeGroupRecord, 328> );
uint32_t layoutOf( const BridgeGroupRecord& );

enum BridgeRefusedKind : uint32_t {
   bridgeRefusedHost_ = 1,
   bridgeRefusedFlood_ = 2,
   bridgeRefusedDuplicate_ = 3, // a host that is not published for some time
};
struct BridgeRefusedKey {
   Bridging::MacVlanPair host; // of a flood member: the flood address
   BridgeRefusedKind kind = bridgeRefusedHost_;
   Vexil::Wire64<uint64_t> dest; // of a flood member: the hash of its destination

   uint64_t hash() const { return Vexil::hashBytes( this, sizeof *this ); }
   friend bool operator==( const BridgeRefusedKey&, const BridgeRefusedKey& ) = default;
   friend auto operator<=>( const BridgeRefusedKey&, const BridgeRefusedKey& ) = default;
};
static_assert( Vexil::WireRecord<BridgeRefusedKey, 24> );

// What could not be programmed, and why: the kernel's words, or what is not supported.
struct BridgeRefusedRecord {
   BridgeRefusedKey key;
   ReasonText reason;
   uint32_t tries = 0;          // refusals by the kernel in a row; 0: it was not asked
   Vexil::Wire64<double> since; // seconds since 1970
   Dest dest;                   // of a flood member

   friend bool operator==( const BridgeRefusedRecord&, const BridgeRefusedRecord& ) = default;
};
static_assert( Vexil::WireRecord<BridgeRefusedRecord, 224> );
uint32_t layoutOf( const BridgeRefusedRecord& );

#define L2RIB_BRIDGE_TABLE( Class, Key, Record, collectionName )                                   \
   class Class : public Vexil::NamedTable<Class, Key, Record> {                                    \
    public:                                                                                        \
      using NamedTable::NamedTable;                                                                \
      static constexpr const char* typeName = "L2Rib::" #Class;                                    \
      static constexpr const char* collection = collectionName;                                    \
   }
L2RIB_BRIDGE_TABLE( BridgeProgramTable, SingleKey, BridgeProgramRecord, "program" );
L2RIB_BRIDGE_TABLE( BridgeTable, Bridging::VlanId, BridgeRecord, "bridge" );
L2RIB_BRIDGE_TABLE( BridgeHostTable, Bridging::MacVlanPair, BridgeHostRecord, "host" );
L2RIB_BRIDGE_TABLE( BridgeGroupTable, uint32_t, BridgeGroupRecord, "group" );
L2RIB_BRIDGE_TABLE( BridgeRefusedTable, BridgeRefusedKey, BridgeRefusedRecord, "refused" );
#undef L2RIB_BRIDGE_TABLE

} // namespace L2Rib
