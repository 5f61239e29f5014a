// Readers of the output, on tables that the test writes itself.
#include "client/OutputReader.h"
#include "L2Rib/Status.h"
#include "tests/ProcessSupport.h"
#include "tests/Records.h"

#include <map>

namespace {

using namespace L2Rib;
using namespace L2Rib::Test;
using namespace ProcessSupport;
using TestSupport::Random;

using OutputReaderTest = ProcessTest;

// An output that no agent would write: objects that lead to themselves, a host that leads nowhere.
TEST_F( OutputReaderTest, FaultsOfTheOutputAreFound ) {
   const OutputFiles output( state, 8 );
   const auto ids = output.table<PolicySmStatusTable>( Path::policySmStatus );
   const auto host = [ & ]( uint64_t number, const ObjTuple& next, Source source = sourceBit6_ ) {
      return output.host->hostIs( { mvp( number ), objectHost( mvp( number ), next ), source } );
   };
   const auto input = []( const ObjTuple& ot ) { return ObjTupleAndSource( ot, sourceBit6_ ); };
   ASSERT_TRUE( host( 1, label( 1 ) ) && host( 2, dest( 4 ) ) && host( 3, lb( 1 ) ) &&
                host( 4, lb( 1 ), sourceBit8_ ) );
   for( const uint64_t id : { 1, 9 } )
      ASSERT_TRUE( output.label->labelIs( { push( id, 16, label( id ) ), input( label( 1 ) ) } ) );
   // Leads to itself by way of a label.
   ASSERT_TRUE(
      output.lb->lbIs( { L2Rib::Test::group( 1, { dest( 1 ), label( 3 ) } ), input( lb( 1 ) ) } ) &&
      output.label->labelIs( { push( 3, 16, lb( 1 ) ), input( label( 3 ) ) } ) );
   const Dest untyped( DestId( 1 ) );
   ASSERT_TRUE( output.dest->destIs( { untyped, input( dest( 1 ) ) } ) );
   ASSERT_TRUE( ids->set( { SingleKey(), DestId( 1 ), LoadBalanceId( 1 ), LabelId( 3 ) } ) );
   for( const auto& [ interface, type ] :
        { std::pair( 1, floodSetTypeAny_ ), { 2, floodSetTypeVxlan_ }, { 3, FloodSetType( 77 ) } } )
      ASSERT_TRUE( output.flood->set( floodMember( 10, 1, interface, type ) ) );
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
      expectIn( result.out + result.err, fault );
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

   const OutputFiles output( state, 4096 );
   Random random;
   std::map<MacVlanPair, uint32_t> expected;
   const auto change = [ & ]( unsigned times ) {
      for( unsigned i = 0; i < times; ++i ) {
         const MacVlanPair key = mvp( random.below( 3000 ) );
         const uint32_t pref = random.below( 4 );
         if( random.percent( 40 ) ) {
            output.host->hostDel( key );
            expected.erase( key );
         } else {
            ASSERT_TRUE( output.host->hostIs( { key, inlineHost( key, 1, pref ), sourceBit6_ } ) );
            expected[ key ] = pref;
         }
      }
      output.host->ring();
   };
   for( const unsigned times : { 2000u, 5u, 20000u, 300u, 9000u } ) {
      const auto before = expected;
      events = 0;
      change( times );
      EXPECT_TRUE( waitFor( [ & ] {
         reader.process();
         return mirror == expected;
      } ) );
      size_t net = 0;
      for( const auto& [ key, pref ] : expected )
         net += !before.contains( key ) || before.at( key ) != pref;
      for( const auto& [ key, pref ] : before )
         net += !expected.contains( key );
      EXPECT_EQ( events, net ) << times;
   }
   EXPECT_TRUE( inSync );
   EXPECT_EQ( reader.hosts.list().size(), expected.size() );
}

} // namespace
