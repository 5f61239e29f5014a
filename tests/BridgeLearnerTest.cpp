// What l2rib-bridge makes of links, and of hosts that its bridges learn, with a clock moved by
// hand.
#include "bridge/Learner.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace Bridge;
using namespace L2Rib;

constexpr uint32_t portIndex = 5;
const Bridging::VlanId vlan( 10 );
EthAddr macOf( uint32_t number ) { return EthAddr( 0x020000000000 + number ); }

// What is wrong with devices that can't serve; the test with a kernel has those that it can make.
TEST( BridgeDevices, ThatAreNotSupported ) {
   const Link filtering{
      .index = 2, .name = "br10", .isBridge = true, .vlanFiltering = true, .local = {} };
   const Link bridge{ .index = 2, .name = "br10", .isBridge = true, .local = {} };
   const Link vxlan{
      .index = 3, .master = 2, .name = "vx10", .isVxlan = true, .vni = 5, .local = {} };
   const Link second{ .index = 7, .master = 2, .name = "vx11", .isVxlan = true, .local = {} };
   const Link other{ .index = 4, .master = 2, .name = "eth0", .local = {} };
   const std::vector<std::pair<std::vector<Link>, std::string>> cases{
      { { { .index = 2, .name = "br10", .local = {} } }, "br10 is no bridge" },
      { { filtering, vxlan }, "vlan_filtering is on, which is not supported" },
      { { bridge, vxlan, second }, "more than one VXLAN port, one is supported" },
      { { bridge, other }, "no VXLAN port" },
      { { bridge, other, vxlan }, "" } };
   Topology topology; // one life: what is not in the next dump has gone
   for( const auto& [ links, fault ] : cases ) {
      topology.dumpBegins();
      for( const Link& link : links )
         topology.linkIs( link );
      topology.dumpEnded();
      EXPECT_EQ( topology.placeOf( "br10" ).fault, fault );
   }
   EXPECT_EQ( topology.placeOf( "br10" ).ports, std::set<uint32_t>{ 4 } );
}

// Sequence numbers of hosts that come, go, return, and move to and fro.
TEST( BridgeLearner, HostsAndTheirNumbers ) {
   const TestSupport::TemporaryFolder folder;
   const auto clock = Vexil::makeEntity<Vexil::ManualClock>();
   Client::SourcePublisher source( { .stateDirectory = folder.file( "state" ),
                                     .name = "bridge",
                                     .value = sourceBit3_,
                                     .hostCapacity = 64 } );
   const MacVlanPair key( macOf( 1 ), vlan );
   std::optional<HostAndSource> winner;
   const auto elsewhere = [ & ]( uint32_t seqNo ) {
      Host host( key );
      host.seqNoIs( Vexil::Seqno32( seqNo ) );
      winner = HostAndSource( key, host, sourceBit6_ );
   };
   Learner learner( source, 100, DuplicateLimits(), clock,
                    [ & ]( const MacVlanPair& ) { return winner; } );
   learner.complete();
   std::vector<bool> duplicates;
   learner.duplicate = [ & ]( const MacVlanPair&, bool frozen ) { duplicates.push_back( frozen ); };
   const auto seqNo = [ & ]() -> std::optional<uint32_t> {
      const auto host = source.host( key );
      return host ? std::optional( host->seqNo().value() ) : std::nullopt;
   };

   EXPECT_FALSE( learner.learned( key, portIndex, false ) );
   EXPECT_EQ( seqNo(), 0u ) << "nobody else has it";
   learner.forgotten( key );
   EXPECT_EQ( seqNo(), std::nullopt );
   elsewhere( 7 );
   EXPECT_TRUE( learner.learned( key, portIndex, false ) ) << "left alone until the agent knows";
   EXPECT_EQ( seqNo(), 8u );
   elsewhere( 6 );
   EXPECT_FALSE( learner.learned( key, portIndex + 1, false ) );
   EXPECT_EQ( seqNo(), 8u ) << "another port is no move";
   EXPECT_EQ( source.host( key )->next(), ObjTuple( DestId( portIndex + 1 ) ) );
   learner.forgotten( key );
   elsewhere( UINT32_MAX );
   EXPECT_TRUE( learner.learned( key, portIndex, false ) );
   EXPECT_EQ( seqNo(), 0u ) << "numbers wrap around";
   learner.forgotten( key );
   winner.reset();
   EXPECT_FALSE( learner.learned( key, portIndex, false ) );
   EXPECT_EQ( seqNo(), 0u ) << "it begins anew";

   // To and fro: two moves a round. Those above are long past.
   clock->nowIs( clock->now() + 1000 );
   learner.takeDue();
   for( uint32_t round = 0; round < 3; ++round ) {
      elsewhere( seqNo().value() + 1 );
      learner.forgotten( key );
      EXPECT_TRUE( duplicates.empty() ) << "in round " << round;
      clock->nowIs( clock->now() + 10 );
      EXPECT_TRUE( learner.learned( key, portIndex, false ) );
   }
   EXPECT_EQ( duplicates, std::vector{ true } ) << "six moves";
   EXPECT_EQ( seqNo(), std::nullopt ) << "not published any more";
   EXPECT_TRUE( learner.learned( key, portIndex, false ) );
   EXPECT_EQ( seqNo(), std::nullopt );
   EXPECT_TRUE( learner.takeDue().empty() );
   clock->nowIs( clock->now() + 180 );
   EXPECT_EQ( learner.takeDue(), std::vector{ key } );
   EXPECT_TRUE( learner.learned( key, portIndex, false ) );
   EXPECT_EQ( seqNo(), winner->host().seqNo().value() + 1 );
   EXPECT_EQ( duplicates, ( std::vector{ true, false } ) );
}

} // namespace
