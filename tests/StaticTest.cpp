// The static host source in memory: what it makes of a configuration, step by step, against a model
// under random changes, and with full tables.
#include "static/L2RibStaticHostSm.h"
#include "tests/EngineLab.h"
#include "tests/TestSupport.h"

#include "runtime/Trace.h"

#include <array>
#include <sstream>

namespace L2Rib::Test {
namespace {

using Bridging::ConfiguredHost;
using Bridging::Fid;
using Bridging::IntfId;
using Bridging::TunnelId;
using TestSupport::Random;
using Vexil::EthAddr;
using Vexil::MplsLabel;

const std::string folder = "bridging/l2Rib/static/";

MacVlanPair key( uint64_t mac, uint32_t vlan = 10 ) {
   return { EthAddr( mac ), Bridging::VlanId( vlan ) };
}
DestDataTunnel tunnelTo( uint32_t last ) {
   return { *Vexil::IpGenAddr::parse( "10.0.0.1" ),
            *Vexil::IpGenAddr::parse( "10.0.1." + std::to_string( last ) ), 0, 64 };
}

// A state machine on tables in memory. Every write is counted, and looked at when it happens.
class StaticLab {
 public:
   explicit StaticLab( uint32_t hosts = 512, uint32_t labels = 512, uint32_t dests = 512 )
      : host( put<HostInput>( "hostInput", hosts ) ),
        label( put<LabelTable>( "labelTable", labels ) ),
        dest( put<DestTable>( "destTable", dests ) ) {}

   void start( bool tablesGrow = false ) {
      sm = makeEntity<StaticHostSm>( manager, sources, config );
      for( Vexil::TableBase* const table :
           std::initializer_list<Vexil::TableBase*>{ host.get(), label.get(), dest.get() } )
         if( !tablesGrow )
            table->capacityMaxIs( table->capacity() );
   }
   // Changes the configuration: "intf MAC ID", "label MAC LABEL TUNNEL", "both MAC LABEL ID" (a
   // label on a plain interface), "del MAC", each followed by the VLAN unless it is 10; "tunnel ID
   // TO", "tunnelDel ID", "vlanDel VLAN"; and "again", which changes nothing.
   void run( const std::string& steps ) {
      std::istringstream all( steps );
      for( std::string step; std::getline( all, step, ',' ); ) {
         std::istringstream in( step );
         std::string verb;
         std::vector<uint32_t> n;
         in >> verb;
         for( uint32_t number; in >> number; )
            n.push_back( number );
         const auto set = [ & ]( size_t at, IntfId intf, MplsLabel label ) {
            config->fdbConfigIs( Fid( at < n.size() ? n[ at ] : 10 ) )
               ->configuredHostIs( { EthAddr( uint64_t( n[ 0 ] ) ), intf, label } );
         };
         if( verb == "intf" )
            set( 2, IntfId( uint64_t( n[ 1 ] ) ), MplsLabel::none );
         else if( verb == "label" )
            set( 3, IntfId( TunnelId( n[ 2 ] ) ), MplsLabel( n[ 1 ] ) );
         else if( verb == "both" )
            set( 3, IntfId( uint64_t( n[ 2 ] ) ), MplsLabel( n[ 1 ] ) );
         else if( verb == "tunnel" )
            config->tunnelIs( TunnelId( n[ 0 ] ), tunnelTo( n[ 1 ] ) );
         else if( verb == "tunnelDel" )
            config->tunnelDel( TunnelId( n[ 0 ] ) );
         else if( verb == "vlanDel" )
            config->fdbConfigDel( Fid( n[ 0 ] ) );
         else if( verb == "again" )
            sm->handleHost();
         else if( const auto fdb = config->fdbConfig( Fid( n.size() > 1 ? n[ 1 ] : 10 ) ) )
            fdb->configuredHostDel( EthAddr( uint64_t( n[ 0 ] ) ) );
      }
   }

   // "1=5 2=3:1000>1 20/4=7": the interface of a host, or the id of its label and dest, the label,
   // and where the tunnel leads. VLAN 10 goes without saying. Without ids: "2=1000>1".
   std::string text( bool withIds = true ) const {
      std::map<MacVlanPair, std::string> hosts;
      uint32_t labelHosts = 0;
      host->forEach( [ & ]( const Host& row ) {
         EXPECT_EQ( Vexil::Seqno32( 1 ), row.seqNo() );
         EXPECT_EQ( 64u, row.pref() );
         EXPECT_EQ( 4u, row.entryType() );
         std::string& what = hosts[ row.key() ] = std::to_string( row.ciDest().payload() );
         if( row.next() == Util::objTupleInvalid() )
            return;
         ++labelHosts;
         const Label push = label->label( row.next().labelId() );
         EXPECT_EQ( push.key().value(), push.next().destId().value() );
         const std::string to = dest->dest( push.next().destId() ).tunnel().destination.str();
         what = ( withIds ? push.key().str() + ":" : "" ) + push.label().str() + ">" +
                to.substr( to.rfind( '.' ) + 1 );
      } );
      // No label and no dest without its host.
      EXPECT_EQ( labelHosts, label->count() );
      EXPECT_EQ( labelHosts, dest->count() );
      EXPECT_EQ( 0u, sm->staticLoadBalanceTable()->count() );
      return joined( hosts );
   }
   static std::string joined( const std::map<MacVlanPair, std::string>& hosts ) {
      std::string all;
      for( const auto& [ key, what ] : hosts )
         all += ( all.empty() ? "" : " " ) +
                ( key.vlan().value() == 10 ? "" : key.vlan().str() + "/" ) +
                std::to_string( key.mac().number() ) + "=" + what;
      return all;
   }

   void wrote( const MacVlanPair& mvp ) {
      ++writes;
      const Host row = host->host( mvp );
      EXPECT_TRUE( !sm || row.key() != mvp || row.updateTime() == clock->now() );
      const ObjTuple next = row.next();
      if( next != Util::objTupleInvalid() ) {
         EXPECT_EQ( next.labelId(), label->label( next.labelId() ).key() ) << "before its label";
      }
   }
   void wrote( const LabelId& key ) {
      ++writes;
      const Label row = label->label( key );
      if( row.key() != key )
         return;
      const DestId end( row.next().objId().value() );
      EXPECT_EQ( end, dest->dest( end ).key() ) << "before its dest";
      EXPECT_TRUE( labelIds.insert( key ).second ) << "id " << key << " is used again";
   }
   void wrote( const DestId& key ) {
      ++writes;
      if( dest->dest( key ).key() == key ) {
         EXPECT_TRUE( destIds.insert( key ).second ) << "id " << key << " is used again";
      }
   }

   Ptr<Vexil::ManualClock> clock = makeEntity<Vexil::ManualClock>();
   Ptr<Vexil::EntityManager> manager = makeEntity<Vexil::EntityManager>( clock );
   Ptr<AgentSourceDir> sources = makeEntity<AgentSourceDir>();
   Ptr<Bridging::Config> config = makeEntity<Bridging::Config>();
   Ptr<HostInput> host;
   Ptr<LabelTable> label;
   Ptr<DestTable> dest;
   int writes = 0;
   std::set<LabelId> labelIds;
   std::set<DestId> destIds;

 private:
   template<class Table>
   Ptr<Table> put( const std::string& name, uint32_t capacity ) {
      const auto table = makeEntity<Table>( capacity );
      manager->entityIs( folder + name, table );
      return table;
   }
   Watch<HostInput> hostWatch{ host, [ this ]( const auto& key ) { wrote( key ); } };
   Watch<LabelTable> labelWatch{ label, [ this ]( const auto& key ) { wrote( key ); } };
   Watch<DestTable> destWatch{ dest, [ this ]( const auto& key ) { wrote( key ); } };

 public:
   Ptr<StaticHostSm> sm;
};

TEST( StaticHosts, PublishesItselfWithWhatIsConfiguredAlone ) {
   StaticLab lab;
   ASSERT_TRUE( lab.host->hostIs( Host( mvp( 9 ) ) ) );
   ASSERT_TRUE( lab.dest->destIs( intfDest( 88, 1 ) ) );
   ASSERT_TRUE( lab.label->labelIs( push( 77, 5, dest( 88 ) ) ) );
   const auto lb = lab.manager->mountTable<LoadBalanceTable>( folder + "loadBalanceTable",
                                                              LoadBalanceTable::Mode::write, 8 );
   ASSERT_TRUE( lb->lbIs( group( 7, { dest( 88 ) } ) ) );
   lab.run( "intf 1 5" );
   lab.start();
   EXPECT_EQ( "1=5", lab.text() );
   const Ptr<SourceDirEntry> entry = lab.sources->source( "static" );
   ASSERT_TRUE( entry );
   EXPECT_EQ( entry, lab.sm->staticSde() );
   EXPECT_TRUE( entry->initialized() );
   EXPECT_EQ( 0x10u, entry->source() );
   EXPECT_EQ( 65536u, entry->hostTableLen() );
   for( const uint32_t length :
        { entry->lbTableLen(), entry->labelTableLen(), entry->destTableLen() } )
      EXPECT_EQ( 1024u, length );
}

// Each change makes the writes that it needs and no others: one for a host, and two more for the
// label and the dest that it leaves, and for those that it gets.
TEST( StaticHosts, AgreeWithTheModel ) {
   struct Configured {
      uint32_t label, to; // the interface, or the tunnel if there is a label
      bool tunnel;
   };
   constexpr uint32_t labels[] = { 0, 1, 1048575, 1048576 }; // the last one is none
   Random random;
   StaticLab lab;
   std::map<MacVlanPair, Configured> hosts;
   std::map<uint32_t, uint32_t> tunnels;
   const auto change = [ & ] {
      const auto upTo = [ & ]( uint32_t last ) { return 1 + random.below( last ); };
      const auto text = []( auto... numbers ) {
         return ( ( " " + std::to_string( numbers ) ) + ... );
      };
      const uint32_t mac = upTo( 8 ), vlan = upTo( 3 ), a = upTo( 3 ), b = upTo( 4 ),
                     push = labels[ random.below( 4 ) ];
      const uint32_t kind = random.below( 100 );
      if( kind < 20 ) {
         hosts[ key( mac, vlan ) ] = { Vexil::MplsLabel::none.value(), a, false };
         lab.run( "intf" + text( mac, a, vlan ) );
      } else if( kind < 30 ) {
         hosts[ key( mac, vlan ) ] = { push, a, false };
         lab.run( "both" + text( mac, push, a, vlan ) );
      } else if( kind < 65 ) {
         hosts[ key( mac, vlan ) ] = { push, b, true };
         lab.run( "label" + text( mac, push, b, vlan ) );
      } else if( kind < 80 ) {
         hosts.erase( key( mac, vlan ) );
         lab.run( "del" + text( mac, vlan ) );
      } else if( kind < 90 ) {
         tunnels[ b ] = a;
         lab.run( "tunnel" + text( b, a ) );
      } else if( kind < 95 ) {
         tunnels.erase( b );
         lab.run( "tunnelDel" + text( b ) );
      } else if( kind < 98 ) {
         std::erase_if( hosts, [ & ]( auto& host ) { return host.first.vlan().value() == vlan; } );
         lab.run( "vlanDel" + text( vlan ) );
      } else if( lab.sm ) {
         lab.run( "again" );
      }
   };
   for( int i = 0; i < 20; ++i )
      change();
   lab.start();
   std::map<MacVlanPair, std::string> before;
   const auto writesOf = []( const std::string& what ) {
      return what.find( '>' ) < what.npos ? 2 : 0;
   };
   for( int round = 0; round < 3000; ++round ) {
      lab.clock->nowIs( lab.clock->now() + 1 );
      lab.writes = 0;
      change();
      std::map<MacVlanPair, std::string> wanted;
      for( const auto& [ mvp, host ] : hosts )
         if( !host.tunnel || host.label == labels[ 3 ] )
            wanted[ mvp ] = std::to_string( host.to );
         else if( tunnels.contains( host.to ) )
            wanted[ mvp ] =
               std::to_string( host.label ) + ">" + std::to_string( tunnels[ host.to ] );
      ASSERT_EQ( lab.joined( wanted ), lab.text( false ) ) << "round " << round;
      int writes = 0;
      for( const auto& [ mvp, what ] : wanted )
         before.try_emplace( mvp );
      for( const auto& [ mvp, what ] : before )
         if( const auto is = wanted.contains( mvp ) ? wanted[ mvp ] : ""; is != what )
            writes += 1 + writesOf( what ) + writesOf( is );
      ASSERT_TRUE( round == 0 || writes == lab.writes ) << "round " << round;
      before = std::move( wanted );
   }
   EXPECT_EQ( lab.labelIds.size(), lab.sm->currLabelId() );
   EXPECT_EQ( lab.destIds.size(), lab.sm->currDestId() );
}

TEST( StaticHosts, WaitForRoom ) {
   using Room = std::array<uint32_t, 3>; // hosts, labels, dests
   for( const Room& room : { Room{ 9, 2, 9 }, Room{ 9, 9, 2 } } ) {
      StaticLab lab( room[ 0 ], room[ 1 ], room[ 2 ] );
      lab.run( "tunnel 1 1,intf 1 1" );
      lab.start();
      lab.run( "label 1 1 1,label 2 2 1,label 3 3 1,intf 4 4,label 4 4 1" );
      EXPECT_EQ( "1=1:1>1 2=2:2>1 4=4", lab.text() ) << "3 is not in, 4 as it was";
      EXPECT_EQ( 2u, lab.sm->waiting() );
      lab.run( "again" );
      EXPECT_EQ( "1=1:1>1 2=2:2>1 4=4", lab.text() );
      lab.run( "label 2 9 1" );
      EXPECT_EQ( "1=1:1>1 2=3:9>1 4=4", lab.text() ) << "its own room, before those who wait";
      lab.run( "intf 3 3" );
      EXPECT_EQ( 1u, lab.sm->waiting() );
      lab.run( "del 1" );
      EXPECT_EQ( "2=3:9>1 3=3 4=4:4>1", lab.text() );
      EXPECT_EQ( 0u, lab.sm->waiting() );
   }
   StaticLab lab( 2 );
   lab.run( "tunnel 1 1" );
   lab.start();
   lab.run( "intf 1 1,intf 2 2,label 3 3 1" );
   EXPECT_EQ( "1=1 2=2", lab.text() );
   EXPECT_EQ( 0u, lab.sm->currLabelId() ) << "nothing is made for a host that can't be in";
   lab.run( "intf 1 9,del 2" );
   EXPECT_EQ( "1=9 3=1:3>1", lab.text() );
   lab.run( "intf 2 2,del 2,del 1" );
   EXPECT_EQ( "3=1:3>1", lab.text() ) << "who is no longer configured does not wait";

   StaticLab growing( 1, 1, 1 );
   growing.start( true );
   growing.run( "tunnel 1 1,label 1 1 1,label 2 2 1,label 3 3 1,intf 4 4" );
   EXPECT_EQ( "1=1:1>1 2=2:2>1 3=3:3>1 4=4", growing.text() );
}

TEST( StaticHosts, TraceWhatTheyDo ) {
   const L2Rib::Test::TraceLines lines( "L2RibStaticHostSm" );
   StaticLab lab;
   lab.run( "tunnel 1 1,label 1 1000 1" );
   lab.start();
   lab.run( "intf 1 5,del 1,vlanDel 10" );
   lab.sm->handleHost( key( 1 ) );
   std::istringstream expected( // how often, and what
      R"(1 void L2Rib::StaticHostSm::handleInitialized()
2 void L2Rib::StaticHostSm::handleHost()
6 void L2Rib::StaticHostSm::handleHost(const Bridging::MacVlanPair&) for (00:00:00:00:00:01/10)
3 handleConfiguredHost(const Vexil::EthAddr&) for 00:00:00:00:00:01 in 10
1 handleDelete() for 10
1 handleHost not init yet!
3 handleHost host entry { (00:00:00:00:00:01/10) seqNo 1 pref 64 entryType 4 updateTime 1000 inline value 0 }
2 bool L2Rib::StaticHostSm::labelHostIntact(
1 Not a label host
1 handleHost label and tunnel intact
1 add tunnel { dest/1 tunnel 10.0.0.1 to 10.0.1.1 tos 0 ttl 64 } to the static input tunnel table
1 handleHost add label { label/1 push 1000 next dest/1 } to the static input label table
2 handleHost host has changed, reprogramming
3 void L2Rib::StaticHostSm::cleanupLabelDestEntries(const L2Rib::Host&) for { (
1 deleting label { label/1 push 1000 next dest/1 } entry from L2Rib label input
1 deleting dest with id 1
1 handleHost did not find host in fdb
1 handleHost no fdbConfig for vlan 10
1 handleHost deleting host (00:00:00:00:00:01/10) from L2Rib input)" );
   long times;
   for( std::string text; expected >> times >> std::ws && std::getline( expected, text ); )
      EXPECT_EQ( times, lines.count( text ) ) << text;
}

TEST( StaticHostsDeathTest, BrokenInvariantsAreFatal ) {
   StaticLab lab;
   lab.run( "intf 1 5" );
   lab.start();
   auto& reactor = **lab.sm->fdbConfig().find( Fid( 10 ) );
   EXPECT_TRUE( reactor.initialized() );
   EXPECT_DEATH( reactor.handleInitialized(), "assertion failed: !initialized\\(\\)," );
   EXPECT_DEATH( makeEntity<StaticHostSm>( nullptr, lab.sources, lab.config ),
                 "assertion failed: entityManager\\(\\)," );
   ASSERT_TRUE( lab.dest->destIs( intfDest( 7, 1 ) ) );
   ASSERT_TRUE( lab.label->labelIs( push( 1, 16, L2Rib::Test::lb( 7 ) ) ) );
   EXPECT_DEATH(
      lab.sm->labelHostIntact( objectHost( mvp( 1 ), label( 1 ) ), MplsLabel( 16 ), tunnelTo( 1 ) ),
      "assertion failed: tableType\\(\\) == tableTypeDest_," );
}

// The engine attaches the tables that the state machine writes, and takes them like any source's.
TEST( StaticHosts, AreASourceOfTheEngine ) {
   Lab lab;
   const auto config = makeEntity<Bridging::Config>();
   config->tunnelIs( TunnelId( 1 ), tunnelTo( 1 ) );
   auto sm = makeEntity<StaticHostSm>( lab.manager, lab.agentInputDir, config );
   const auto fdb = config->fdbConfigIs( Fid( 10 ) );
   const ConfiguredHost first{ mvp( 1 ).mac(), IntfId( 5 ), MplsLabel::none };
   const ConfiguredHost second{ mvp( 2 ).mac(), IntfId( TunnelId( 1 ) ), MplsLabel( 1000 ) };
   fdb->configuredHostIs( first );
   fdb->configuredHostIs( second );
   lab.settle();
   EXPECT_EQ( "value 5 from 0x10", lab.outcome( mvp( 1 ) ) );
   EXPECT_EQ( "label/1 from 0x10", lab.outcome( mvp( 2 ) ) );
   EXPECT_EQ( tunnelTo( 1 ), lab.output.dest->dest( DestId( 1 ) ).dest().tunnel() );
   lab.source( "strong", 0x40 ).set( inlineHost( mvp( 1 ), 7 ) );
   config->tunnelIs( TunnelId( 1 ), tunnelTo( 2 ) );
   lab.settle();
   EXPECT_EQ( "value 7 from 0x40", lab.outcome( mvp( 1 ) ) ) << "pref 64 is weaker";
   EXPECT_EQ( "label/2 from 0x10", lab.outcome( mvp( 2 ) ) );

   // The next run gives no id that the output still has a row for, whatever is left of the tables.
   lab.manager->entityIs( Path::labelOutput, lab.output.label );
   lab.manager->entityIs( Path::destOutput, lab.output.dest );
   sm->staticInputTable()->hostDelAll();
   sm->staticLabelTable()->labelDelAll();
   sm->staticDestTable()->destDelAll();
   sm = makeEntity<StaticHostSm>( lab.manager, lab.agentInputDir, config );
   EXPECT_EQ( label( 3 ), sm->staticInputTable()->host( mvp( 2 ) ).next() );
   EXPECT_EQ( DestId( 3 ), sm->staticLabelTable()->label( LabelId( 3 ) ).next().destId() );
   lab.settle();

   config->fdbConfigDel( Fid( 10 ) );
   lab.settle();
   EXPECT_EQ( "none", lab.outcome( mvp( 2 ) ) );
   EXPECT_EQ( 0u, lab.output.label->count() + lab.output.dest->count() );
}

} // namespace
} // namespace L2Rib::Test
