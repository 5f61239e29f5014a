// The status of the program l2rib-evpn: the BGP speaker and its peers, how many routes it
// took and why it did not take others, what it announced.
//
// The program writes these tables for people and for l2ribctl; nobody acts on them. They stay when
// it ends, and the next run takes them over. It runs while somebody holds the writer's lock of the
// first one.
#pragma once

#include "L2Rib/BridgeStatus.h"

namespace L2Rib {

namespace Path {
constexpr const char* evpnProgram = "bridging/l2Rib/evpnProgram";
constexpr const char* evpnPeers = "bridging/l2Rib/evpnPeers";
constexpr const char* evpnVlans = "bridging/l2Rib/evpnVlans";
} // namespace Path

// How far it is with the speaker's routes. One leads to the next; every loss of the connection
// leads back to the first.
enum EvpnPhase : uint32_t {
   evpnConnecting_ = 0, // what was there is kept, as stale
   evpnReading_ = 1,    // what the speaker has is being read
   evpnWaiting_ = 2,    // for the speaker's peers to tell all that they have
   evpnComplete_ = 3,   // what was not told again is gone
};
inline constexpr Vexil::EnumName<EvpnPhase> evpnPhaseNames[] = { { evpnConnecting_, "connecting" },
                                                                 { evpnReading_, "reading" },
                                                                 { evpnWaiting_, "waiting" },
                                                                 { evpnComplete_, "complete" } };
constexpr std::span<const Vexil::EnumName<EvpnPhase>> enumNames( EvpnPhase ) {
   return evpnPhaseNames;
}

// Reasons for which a route is not taken, in the order of evpn/Import.h; the first is none.
constexpr size_t evpnReasons = 11;
struct EvpnReason {
   const char* text;  // for people
   const char* label; // for a metric
};
inline constexpr EvpnReason evpnReasonNames[ evpnReasons ] = {
   { "taken", "taken" },
   { "other route target", "target" },
   { "our own VTEP", "own" },
   { "route type not supported", "type" },
   { "Ethernet tag not supported", "tag" },
   { "encapsulation other than VXLAN", "encapsulation" },
   { "no ingress replication", "tunnel" },
   { "no valid VNI", "vni" },
   { "no usable next hop", "next_hop" },
   { "no unicast MAC address", "mac" },
   { "unreadable", "unreadable" } };

// The program as a whole.
struct EvpnProgramRecord {
   SingleKey key;
   uint32_t processId = 0;
   uint32_t phase = evpnConnecting_;
   uint32_t as = 0;
   Vexil::IpGenAddr routerId;
   Vexil::IpGenAddr vtep;
   Vexil::Wire64<double> since;      // when it started, seconds since 1970
   Vexil::Wire64<double> lastSign;   // when this record was written, seconds since 1970
   Vexil::Wire64<double> phaseSince; // seconds since 1970
   Vexil::Wire64<uint64_t> sessions; // with the speaker, by this run
   // Routes of types 1 to 3 that are taken, of them those that are stale; and those announced.
   std::array<Vexil::Wire64<uint64_t>, 4> taken{};
   Vexil::Wire64<uint64_t> stale;
   std::array<Vexil::Wire64<uint64_t>, 4> announced{};
   Vexil::Wire64<uint64_t> toAnnounce; // differences that the speaker has not taken yet
   // Told by the speaker and not taken, so far, by reason.
   std::array<Vexil::Wire64<uint64_t>, evpnReasons> notTaken{};
   Vexil::Wire64<uint64_t> hosts; // published
   Vexil::Wire64<uint64_t> groups;
   Vexil::Wire64<uint64_t> members;
   Vexil::Wire64<uint64_t> unresolved; // hosts on segments that no PE announces
   Vexil::Wire64<uint64_t> refused;    // hosts, groups and members for which there is no room
   Vexil::Wire64<uint64_t> writes;     // to the speaker
   Vexil::Wire64<uint64_t> writesRefused;
   FixedText<64> speaker; // its API's address
   ReasonText fault;      // what keeps it from its work; empty: nothing

   friend bool operator==( const EvpnProgramRecord&, const EvpnProgramRecord& ) = default;
};
static_assert( Vexil::WireRecord<EvpnProgramRecord, 504> );
uint32_t layoutOf( const EvpnProgramRecord& );

// A peer of the speaker, by address.
struct EvpnPeerRecord {
   Vexil::IpGenAddr address;
   uint32_t as = 0;
   uint32_t established = 0;
   uint32_t endOfRib = 0;
   uint32_t up = 0; // as configured
   Vexil::Wire64<uint64_t> received;

   friend bool operator==( const EvpnPeerRecord&, const EvpnPeerRecord& ) = default;
};
static_assert( Vexil::WireRecord<EvpnPeerRecord, 44> );
uint32_t layoutOf( const EvpnPeerRecord& );

struct EvpnVlanRecord {
   Bridging::VlanId vlan;
   uint32_t vni = 0;
   FixedText<32> rd;
   FixedText<128> targets; // separated by blanks

   friend bool operator==( const EvpnVlanRecord&, const EvpnVlanRecord& ) = default;
};
static_assert( Vexil::WireRecord<EvpnVlanRecord, 168> );
uint32_t layoutOf( const EvpnVlanRecord& );

#define L2RIB_EVPN_TABLE( Class, Key, Record, collectionName )                                     \
   class Class : public Vexil::NamedTable<Class, Key, Record> {                                    \
    public:                                                                                        \
      using NamedTable::NamedTable;                                                                \
      static constexpr const char* typeName = "L2Rib::" #Class;                                    \
      static constexpr const char* collection = collectionName;                                    \
   }
L2RIB_EVPN_TABLE( EvpnProgramTable, SingleKey, EvpnProgramRecord, "program" );
L2RIB_EVPN_TABLE( EvpnPeerTable, Vexil::IpGenAddr, EvpnPeerRecord, "peer" );
L2RIB_EVPN_TABLE( EvpnVlanTable, Bridging::VlanId, EvpnVlanRecord, "vlan" );
#undef L2RIB_EVPN_TABLE

} // namespace L2Rib
