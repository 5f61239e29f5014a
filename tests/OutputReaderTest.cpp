// Readers of the output, on tables that the test writes itself.
#include "client/OutputReader.h"
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/Status.h"
#include "tests/ProcessSupport.h"

#include <map>

namespace {

using namespace L2Rib;
using namespace ProcessSupport;
using Bridging::MacVlanPair;
using Bridging::VlanId;
using TestSupport::Random;

using OutputReaderTest = ProcessTest;

// The output that an agent writes.
struct OutputTables {
   template<class Table>
   static Table made( const std::string& state, const char* path, uint32_t capacity ) {
      return Table( state + "/" + path, Table::Mode::write, capacity );
   }
   OutputTables( const std::string& state, uint32_t capacity )
      : hosts( made<HostOutput>( state, Path::hostOutput, capacity ) ),
        dests( made<DestOutput>( state, Path::destOutput, 8 ) ),
        groups( made<LoadBalanceOutput>( state, Path::lbOutput, 8 ) ),
        labels( made<LabelOutput>( state, Path::labelOutput, 8 ) ),
        flood( made<FloodMemberTable>( state, Path::floodOutput, 8 ) ),
        floodSource( made<FloodSourceTable>( state, Path::floodOutputSource, 1 ) ) {}

   HostOutput hosts;
   DestOutput dests;
   LoadBalanceOutput groups;
   LabelOutput labels;
   FloodMemberTable flood;
   FloodSourceTable floodSource;
};

// An output that no agent would write: objects that lead to themselves, a host that leads nowhere.
TEST_F( OutputReaderTest, FaultsOfTheOutputAreFound ) {
   OutputTables output( state, 8 );
   auto& [ hosts, dests, groups, labels, flood, floodSource ] = output;
   auto ids = OutputTables::made<PolicySmStatusTable>( state, Path::policySmStatus, 1 );
   const auto row = [ & ]( unsigned number, const ObjTuple& next, Source source = sourceBit6_ ) {
      const MacVlanPair key( Vexil::EthAddr( 0x020000000000 + number ), VlanId( 10 ) );
      Host host( key );
      host.nextIs( next );
      return hosts.hostIs( HostAndSource( key, host, source ) );
   };
   const ObjTuple label( LabelId( 1 ) );
   ASSERT_TRUE( row( 1, label ) && row( 2, ObjTuple( DestId( 4 ) ) ) );
   const ObjTupleAndSource input( label, sourceBit6_ );
   for( const uint64_t id : { 1, 9 } )
      ASSERT_TRUE( labels.labelIs( LabelAndSource(
         Label( LabelId( id ), ObjTuple( LabelId( id ) ), Vexil::MplsLabel( 16 ) ), input ) ) );
   LoadBalance group( LoadBalanceId( 1 ) ); // leads to itself by way of a label
   group.nextIs( EcmpIndex( 0 ), ObjTuple( DestId( 1 ) ) );
   group.nextIs( EcmpIndex( 1 ), ObjTuple( LabelId( 3 ) ) );
   ASSERT_TRUE(
      groups.lbIs( LoadBalanceAndSource( group, { ObjTuple( group.key() ), sourceBit6_ } ) ) );
   const Label back( LabelId( 3 ), ObjTuple( group.key() ), Vexil::MplsLabel( 16 ) );
   ASSERT_TRUE( labels.labelIs( LabelAndSource( back, { ObjTuple( back.key() ), sourceBit6_ } ) ) );
   const Dest untyped( DestId( 1 ) );
   ASSERT_TRUE(
      dests.destIs( DestAndSource( untyped, { ObjTuple( untyped.key() ), sourceBit6_ } ) ) );
   ASSERT_TRUE( row( 3, ObjTuple( group.key() ) ) );
   ASSERT_TRUE( row( 4, ObjTuple( group.key() ), sourceBit8_ ) );
   ASSERT_TRUE( ids.set( { SingleKey(), DestId( 1 ), LoadBalanceId( 1 ), LabelId( 3 ) } ) );
   for( const uint64_t interface : { 1, 2, 3 } ) {
      Dest dest( Util::destIdNotInTarn() );
      dest.intfIs( { interface } );
      ASSERT_TRUE( flood.set( { FloodSetTriple( VlanId( 10 ), Vexil::EthAddr( 1 ), dest ),
                                interface == 1   ? floodSetTypeAny_
                                : interface == 2 ? floodSetTypeVxlan_
                                                 : FloodSetType( 77 ) } ) );
   }
   const Result result = ctl( { "check" } );
   EXPECT_EQ( result.status, 1 );
   for( const char* fault :
        { "host (02:00:00:00:00:02/10) points to dest/4, which is not there",
          "host (02:00:00:00:00:04/10) of 0x100 points to lb/1, which is of 0x40",
          "label/9 has an id that was never given: the highest is 3",
          "label/1 points to label/1, which leads back to it", "label/9 points to label/9, which",
          "label/3 points to lb/1, which leads back to it", "dest/1: a dest of no known type",
          "label/9 and label/1 are copies of the same label/1 from 0x40",
          "label/9 is not reached from any host", "dest intf 3 }: a flood set of no known type",
          "dest intf 2 } has another type than its set", "11 faults" } )
      EXPECT_NE( ( result.out + result.err ).find( fault ), std::string::npos ) << fault;
   const auto drawn = [ & ]( const Words& command ) {
      const Result graph = ctl( command );
      EXPECT_EQ( graph.status, 0 );
      return graph.out.find( "\"label/9\" -> \"label/9\"" ) != graph.out.npos;
   };
   EXPECT_TRUE( drawn( { "graph" } ) ) << "what no host reaches is in the output too";
   EXPECT_FALSE( drawn( { "graph", "--vlan", "10" } ) );
}

// A reader that is overtaken by the journal still hears of every net change, and of nothing else.
TEST_F( OutputReaderTest, ReaderHearsOfNetChanges ) {
   std::filesystem::create_directory( state );
   Client::OutputReader reader( state );
   std::map<MacVlanPair, uint32_t> mirror;
   size_t events = 0;
   bool inSync = false;
   reader.hosts.follow( [ & ]( const MacVlanPair& key, const HostAndSource* row ) {
      ++events;
      if( row )
         mirror[ key ] = row->host().pref();
      else
         EXPECT_EQ( mirror.erase( key ), 1u );
   } );
   reader.inSyncIs( [ & ] { inSync = true; } );
   reader.process();
   EXPECT_FALSE( inSync ); // there are no tables yet

   OutputTables output( state, 4096 );
   auto& [ hosts, dests, groups, labels, flood, floodSource ] = output;
   Random random;
   std::map<MacVlanPair, uint32_t> expected;
   const auto change = [ & ]( unsigned times ) {
      for( unsigned i = 0; i < times; ++i ) {
         const MacVlanPair key( Vexil::EthAddr( 1 + random.below( 3000 ) ), VlanId( 10 ) );
         Host host( key );
         host.prefIs( random.below( 4 ) );
         if( random.percent( 40 ) ) {
            hosts.hostDel( key );
            expected.erase( key );
         } else {
            ASSERT_TRUE( hosts.hostIs( HostAndSource( key, host, sourceBit6_ ) ) );
            expected[ key ] = host.pref();
         }
      }
      hosts.ring();
   };
   for( const unsigned times : { 2000u, 5u, 20000u, 300u, 9000u } ) {
      const auto before = expected;
      events = 0;
      change( times );
      EXPECT_TRUE( waitFor(
         [ & ] {
            reader.process();
            return mirror == expected;
         },
         patience ) );
      size_t net = 0;
      for( unsigned number = 1; number <= 3000; ++number ) {
         const MacVlanPair key( Vexil::EthAddr( number ), VlanId( 10 ) );
         const auto was = before.find( key );
         const auto is = expected.find( key );
         net += ( was == before.end() ) != ( is == expected.end() ) ||
                ( is != expected.end() && was->second != is->second );
      }
      EXPECT_EQ( events, net ) << times;
   }
   EXPECT_TRUE( inSync );
   EXPECT_EQ( reader.hosts.list().size(), expected.size() );
}

} // namespace
