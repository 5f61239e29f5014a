// The static host source in memory: what it makes of a configuration, step by step, against a model
// under random changes, and with full tables.
#include "static/L2RibStaticHostSm.h"
#include "tests/EngineLab.h"
#include "tests/TestSupport.h"

#include "runtime/Trace.h"

#include <functional>
#include <optional>

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

DestDataTunnel tunnelTo( uint32_t last ) {
   return { *Vexil::IpGenAddr::parse( "10.0.0.1" ),
            *Vexil::IpGenAddr::parse( "10.0.1." + std::to_string( last ) ), 0, 64 };
}
ConfiguredHost onInterface( uint64_t mac, uint64_t intf ) {
   return { EthAddr( mac ), IntfId( intf ), MplsLabel::none };
}
ConfiguredHost onTunnel( uint64_t mac, uint32_t label, uint64_t tunnel ) {
   return { EthAddr( mac ), IntfId( TunnelId( tunnel ) ), MplsLabel( label ) };
}

// A state machine on tables in memory. Every write is counted, and looked at when it happens.
class StaticLab {
 public:
   explicit StaticLab( uint32_t hosts = 512, uint32_t labels = 512, uint32_t dests = 512 )
      : host( put<HostInput>( "hostInput", hosts ) ),
        label( put<LabelTable>( "labelTable", labels ) ),
        dest( put<DestTable>( "destTable", dests ) ), hostWatch( host, *this ),
        labelWatch( label, *this ), destWatch( dest, *this ) {}

   void start() { sm = makeEntity<StaticHostSm>( manager, sources, config ); }
   void set( const ConfiguredHost& configured, uint32_t vlan = 10 ) {
      config->fdbConfigIs( Fid( vlan ) )->configuredHostIs( configured );
   }
   void del( uint64_t mac, uint32_t vlan = 10 ) {
      if( const auto fdb = config->fdbConfig( Fid( vlan ) ) )
         fdb->configuredHostDel( EthAddr( mac ) );
   }

   // "1=value 5 2=label/1:1000 dest/1:10.0.1.1", hosts in order; "10/" stands for no VLAN but 10.
   std::string text() const {
      std::map<MacVlanPair, std::string> hosts;
      host->forEach( [ & ]( const Host& row ) { hosts[ row.key() ] = textOf( row ); } );
      std::string all;
      for( const auto& [ key, what ] : hosts )
         all += ( all.empty() ? "" : " " ) +
                ( key.vlan().value() == 10 ? "" : key.vlan().str() + "/" ) +
                std::to_string( key.mac().number() ) + "=" + what;
      return all;
   }
   std::string textOf( const Host& row ) const {
      EXPECT_EQ( "1 64 4", row.seqNo().str() + " " + std::to_string( row.pref() ) + " " +
                              std::to_string( row.entryType() ) );
      if( row.next() == Util::objTupleInvalid() )
         return row.ciDest().str();
      const Label push = label->label( row.next().labelId() );
      const Dest end = dest->dest( push.next().destId() );
      return row.next().str() + ":" + push.label().str() + " " + push.next().str() + ":" +
             ( end.key() == push.next().destId() ? end.tunnel().destination.str() : "missing" );
   }
   // No label and no dest without its host.
   void expectNoLeaks() const {
      uint32_t labelHosts = 0;
      host->forEach(
         [ & ]( const Host& row ) { labelHosts += row.next().tableType() == tableTypeLabel_; } );
      EXPECT_EQ( labelHosts, label->count() );
      EXPECT_EQ( labelHosts, dest->count() );
      EXPECT_EQ( 0u, sm->staticLoadBalanceTable()->count() );
   }

   void wrote( const MacVlanPair& key ) {
      const ObjTuple next = host->host( key ).next();
      if( next != Util::objTupleInvalid() ) {
         EXPECT_EQ( next.labelId(), label->label( next.labelId() ).key() ) << "before its label";
      }
   }
   void wrote( const LabelId& key ) {
      const Label row = label->label( key );
      if( row.key() != key )
         return;
      const DestId end( row.next().objId().value() );
      EXPECT_EQ( end, dest->dest( end ).key() ) << "before its dest";
      EXPECT_TRUE( labelIds.insert( key ).second ) << "id " << key << " is used again";
   }
   void wrote( const DestId& key ) {
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
   template<class Table, class Key>
   class Watch : public Vexil::Reactor<Table> {
    public:
      Watch( Ptr<Table> table, StaticLab& lab ) : Vexil::Reactor<Table>( table ), lab_( lab ) {}
      void handleEntry( const Key& key ) override {
         ++lab_.writes;
         lab_.wrote( key );
      }

    private:
      StaticLab& lab_;
   };
   template<class Table>
   Ptr<Table> put( const std::string& name, uint32_t capacity ) {
      const auto table = makeEntity<Table>( capacity );
      manager->entityIs( folder + name, table );
      return table;
   }
   Watch<HostInput, MacVlanPair> hostWatch;
   Watch<LabelTable, LabelId> labelWatch;
   Watch<DestTable, DestId> destWatch;

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
   lab.set( onInterface( 1, 5 ) );
   lab.start();
   EXPECT_EQ( "1=value 5", lab.text() );
   lab.expectNoLeaks();
   const Ptr<SourceDirEntry> entry = lab.sources->source( "static" );
   ASSERT_TRUE( entry );
   EXPECT_EQ( entry, lab.sm->staticSde() );
   EXPECT_TRUE( entry->initialized() );
   EXPECT_EQ( 0x10u, entry->source() );
   EXPECT_EQ( folder + "hostInput", entry->hostTableTarnPath() );
   EXPECT_EQ( folder + "loadBalanceTable", entry->lbTableTarnPath() );
   EXPECT_EQ( folder + "labelTable", entry->labelTableTarnPath() );
   EXPECT_EQ( folder + "destTable", entry->destTableTarnPath() );
   EXPECT_EQ( 65536u, entry->hostTableLen() );
   for( const uint32_t length :
        { entry->lbTableLen(), entry->labelTableLen(), entry->destTableLen() } )
      EXPECT_EQ( 1024u, length );
}

TEST( StaticHosts, StepByStep ) {
   StaticLab lab;
   lab.config->tunnelIs( TunnelId( 1 ), tunnelTo( 1 ) );
   lab.start();
   Bridging::Config& config = *lab.config;
   const struct {
      const char* what;
      std::function<void()> change;
      const char* outcome;
      int writes;
   } steps[] = {
      { "interface host", [ & ] { lab.set( onInterface( 1, 5 ) ); }, "1=value 5", 1 },
      { "again",
        [ & ] {
           lab.sm->handleHost( { EthAddr( 1 ), Bridging::VlanId( 10 ) } );
        },
        "1=value 5", 0 },
      { "label host", [ & ] { lab.set( onTunnel( 2, 1000, 1 ) ); },
        "1=value 5 2=label/1:1000 dest/1:10.0.1.1", 3 },
      { "all again", [ & ] { lab.sm->handleHost(); }, "1=value 5 2=label/1:1000 dest/1:10.0.1.1",
        0 },
      { "another label", [ & ] { lab.set( onTunnel( 2, 1001, 1 ) ); },
        "1=value 5 2=label/2:1001 dest/2:10.0.1.1", 5 },
      { "other tunnel data", [ & ] { config.tunnelIs( TunnelId( 1 ), tunnelTo( 2 ) ); },
        "1=value 5 2=label/3:1001 dest/3:10.0.1.2", 5 },
      { "another tunnel", [ & ] { config.tunnelIs( TunnelId( 2 ), tunnelTo( 3 ) ); },
        "1=value 5 2=label/3:1001 dest/3:10.0.1.2", 0 },
      { "no such tunnel", [ & ] { lab.set( onTunnel( 2, 1001, 4 ) ); }, "1=value 5", 3 },
      { "it comes", [ & ] { config.tunnelIs( TunnelId( 4 ), tunnelTo( 4 ) ); },
        "1=value 5 2=label/4:1001 dest/4:10.0.1.4", 3 },
      { "it goes", [ & ] { config.tunnelDel( TunnelId( 4 ) ); }, "1=value 5", 3 },
      { "label 0 is a label", [ & ] { lab.set( onTunnel( 2, 0, 1 ) ); },
        "1=value 5 2=label/5:0 dest/5:10.0.1.2", 3 },
      { "to an interface", [ & ] { lab.set( onInterface( 2, 7 ) ); }, "1=value 5 2=value 7", 3 },
      { "off the tunnel", [ & ] { config.tunnelIs( TunnelId( 1 ), tunnelTo( 5 ) ); },
        "1=value 5 2=value 7", 0 },
      { "back", [ & ] { lab.set( onTunnel( 2, 0xfffff, 1 ) ); },
        "1=value 5 2=label/6:1048575 dest/6:10.0.1.5", 3 },
      { "no label: the interface counts", [ & ] { lab.set( onTunnel( 2, 0x100000, 1 ) ); },
        "1=value 5 2=value 1", 3 },
      { "a label needs a tunnel",
        [ & ] {
           lab.set( { EthAddr( 1 ), IntfId( 8 ), MplsLabel( 16 ) } );
        },
        "1=value 8 2=value 1", 1 },
      { "removed", [ & ] { lab.del( 2 ); }, "1=value 8", 1 },
      { "same MAC, another VLAN", [ & ] { lab.set( onTunnel( 1, 16, 1 ), 20 ); },
        "1=value 8 20/1=label/7:16 dest/7:10.0.1.5", 3 },
      { "its VLAN goes", [ & ] { config.fdbConfigDel( Fid( 20 ) ); }, "1=value 8", 3 },
      { "the last VLAN goes", [ & ] { config.fdbConfigDel( Fid( 10 ) ); }, "", 1 },
   };
   for( const auto& step : steps ) {
      SCOPED_TRACE( step.what );
      lab.writes = 0;
      lab.clock->nowIs( lab.clock->now() + 1 );
      step.change();
      EXPECT_EQ( step.outcome, lab.text() );
      EXPECT_EQ( step.writes, lab.writes );
      lab.expectNoLeaks();
   }
   EXPECT_TRUE( lab.sm->fdbConfig().empty() );
   EXPECT_EQ( 7u, lab.sm->currLabelId() );
   EXPECT_EQ( 7u, lab.sm->currDestId() );
}

TEST( StaticHosts, UpdateTimeIsThatOfTheLastChange ) {
   StaticLab lab;
   lab.start();
   const MacVlanPair key( EthAddr( 1 ), Bridging::VlanId( 10 ) );
   const double first = lab.clock->now();
   lab.set( onInterface( 1, 5 ) );
   lab.clock->nowIs( first + 10 );
   lab.sm->handleHost();
   EXPECT_EQ( first, lab.host->host( key ).updateTime() );
   lab.set( onInterface( 1, 6 ) );
   EXPECT_EQ( first + 10, lab.host->host( key ).updateTime() );
}

// What a host must look like, whatever the ids; nothing when it must not be there.
std::optional<std::string> expected( const ConfiguredHost& host, const Bridging::Config& config ) {
   if( !host.isLabelHost() )
      return "value " + std::to_string( host.intf.id() );
   const DestDataTunnel* const tunnel = config.tunnel( host.intf.tunnel() );
   if( !tunnel )
      return std::nullopt;
   return host.mplsLabel.str() + " over " + tunnel->destination.str();
}

TEST( StaticHosts, AgreeWithTheModel ) {
   Random random;
   StaticLab lab;
   std::map<MacVlanPair, ConfiguredHost> model;
   const auto change = [ & ] {
      const uint64_t mac = 1 + random.below( 8 );
      const uint32_t vlan = 1 + random.below( 3 );
      const MacVlanPair key{ EthAddr( mac ), Bridging::VlanId( vlan ) };
      const uint32_t kind = random.below( 100 );
      if( kind < 30 ) {
         lab.set( model[ key ] = onInterface( mac, 1 + random.below( 3 ) ), vlan );
      } else if( kind < 65 ) {
         lab.set( model[ key ] = onTunnel( mac, random.below( 3 ), 1 + random.below( 4 ) ), vlan );
      } else if( kind < 80 ) {
         model.erase( key );
         lab.del( mac, vlan );
      } else if( kind < 90 ) {
         lab.config->tunnelIs( TunnelId( 1 + random.below( 4 ) ),
                               tunnelTo( 1 + random.below( 3 ) ) );
      } else if( kind < 95 ) {
         lab.config->tunnelDel( TunnelId( 1 + random.below( 4 ) ) );
      } else {
         std::erase_if( model, [ & ]( const auto& h ) { return h.first.vlan().value() == vlan; } );
         lab.config->fdbConfigDel( Fid( vlan ) );
      }
   };
   for( int i = 0; i < 20; ++i )
      change();
   lab.start();
   for( int round = 0; round < 3000 && !testing::Test::HasFailure(); ++round ) {
      change();
      std::map<MacVlanPair, std::string> wanted, found;
      for( const auto& [ key, host ] : model )
         if( const auto what = expected( host, *lab.config ) )
            wanted[ key ] = *what;
      lab.host->forEach( [ & ]( const Host& row ) {
         const Label push =
            lab.label->label( row.next().tableType() == tableTypeLabel_ ? row.next().labelId()
                                                                        : Util::labelIdInvalid() );
         const Dest end = lab.dest->dest( DestId( push.next().objId().value() ) );
         found[ row.key() ] = end.destType() == objDestTypeTunnel_
                                 ? push.label().str() + " over " + end.tunnel().destination.str()
                                 : row.ciDest().str();
      } );
      ASSERT_EQ( wanted, found ) << "round " << round;
      lab.expectNoLeaks();
   }
   lab.writes = 0;
   lab.sm->handleHost();
   EXPECT_EQ( 0, lab.writes ) << "nothing has changed";
}

TEST( StaticHosts, WaitForRoomOfLabelsAndDests ) {
   for( const bool labelsAreFull : { true, false } ) {
      SCOPED_TRACE( labelsAreFull ? "labels" : "dests" );
      StaticLab lab( 9, labelsAreFull ? 2 : 9, labelsAreFull ? 9 : 2 );
      lab.config->tunnelIs( TunnelId( 1 ), tunnelTo( 1 ) );
      for( const uint32_t mac : { 1, 2 } )
         lab.set( onInterface( mac, mac ) );
      lab.start();
      for( const uint32_t mac : { 1, 2, 3 } )
         lab.set( onTunnel( mac, mac, 1 ) );
      lab.set( onInterface( 4, 4 ) );
      lab.set( onTunnel( 4, 4, 1 ) );
      const std::string both = "1=label/1:1 dest/1:10.0.1.1 2=label/2:2 dest/2:10.0.1.1";
      EXPECT_EQ( both + " 4=value 4", lab.text() ) << "3 is not in, 4 as it was";
      EXPECT_EQ( 2u, lab.sm->waiting() );
      lab.sm->handleHost();
      EXPECT_EQ( both + " 4=value 4", lab.text() ) << "no room, no change";
      lab.set( onTunnel( 2, 9, 1 ) );
      EXPECT_EQ( "1=label/1:1 dest/1:10.0.1.1 2=label/3:9 dest/3:10.0.1.1 4=value 4", lab.text() )
         << "a change takes its own room, before those who wait";
      lab.set( onInterface( 3, 3 ) );
      EXPECT_EQ( 1u, lab.sm->waiting() );
      lab.del( 1 );
      EXPECT_EQ( "2=label/3:9 dest/3:10.0.1.1 3=value 3 4=label/4:4 dest/4:10.0.1.1", lab.text() );
      EXPECT_EQ( 0u, lab.sm->waiting() );
      lab.expectNoLeaks();
   }
}

TEST( StaticHosts, WaitForRoomOfHosts ) {
   StaticLab lab( 2 );
   lab.config->tunnelIs( TunnelId( 1 ), tunnelTo( 1 ) );
   lab.start();
   for( const uint32_t mac : { 1, 2 } )
      lab.set( onInterface( mac, mac ) );
   lab.set( onTunnel( 3, 3, 1 ) );
   EXPECT_EQ( "1=value 1 2=value 2", lab.text() );
   EXPECT_EQ( 0u, lab.sm->currLabelId() ) << "nothing is made for a host that can't be in";
   lab.set( onInterface( 1, 9 ) );
   EXPECT_EQ( "1=value 9 2=value 2", lab.text() );
   lab.del( 2 );
   EXPECT_EQ( "1=value 9 3=label/1:3 dest/1:10.0.1.1", lab.text() );
   lab.set( onInterface( 2, 2 ) );
   lab.del( 2 );
   EXPECT_EQ( 0u, lab.sm->waiting() ) << "one that is no longer configured does not wait";
   lab.expectNoLeaks();
}

TEST( StaticHosts, TraceWhatTheyDo ) {
   std::vector<std::string> lines;
   Vexil::traceSettingIs( "L2RibStaticHostSm=0-9" );
   Vexil::logSinkIs( [ & ]( std::string_view line ) { lines.emplace_back( line ); } );
   {
      StaticLab lab;
      lab.config->tunnelIs( TunnelId( 1 ), tunnelTo( 1 ) );
      lab.set( onTunnel( 1, 1000, 1 ) );
      lab.start();
      lab.set( onInterface( 1, 5 ) );
      lab.del( 1 );
      lab.config->fdbConfigDel( Fid( 10 ) );
      lab.sm->handleHost( { EthAddr( 1 ), Bridging::VlanId( 10 ) } );
   }
   Vexil::logSinkIs( nullptr );
   Vexil::traceHandle( "L2RibStaticHostSm" ).levelsIs( 0 );
   const struct {
      const char* text;
      int times;
   } texts[] = {
      { "void L2Rib::StaticHostSm::handleInitialized()", 1 },
      { "void L2Rib::StaticHostSm::handleHost()", 2 },
      { "void L2Rib::StaticHostSm::handleHost(const Bridging::MacVlanPair&) for "
        "(00:00:00:00:00:01/10)",
        6 },
      { "handleConfiguredHost(const Vexil::EthAddr&) for 00:00:00:00:00:01 in 10", 3 },
      { "handleDelete() for 10", 1 },
      { " not init yet!", 1 },
      { "handleHost host entry { (00:00:00:00:00:01/10) seqNo 1 pref 64 entryType 4 ", 3 },
      { "bool L2Rib::StaticHostSm::labelHostIntact(", 2 },
      { "Not a label host", 1 },
      { "handleHost label and tunnel intact", 1 },
      { "handleHost add tunnel { dest/1 tunnel 10.0.0.1 to 10.0.1.1 tos 0 ttl 64 } to the static "
        "input tunnel table",
        1 },
      { "handleHost add label { label/1 push 1000 next dest/1 } to the static input label table",
        1 },
      { "handleHost host has changed, reprogramming", 2 },
      { "void L2Rib::StaticHostSm::cleanupLabelDestEntries(const L2Rib::Host&) for { ", 3 },
      { " deleting label { label/1 push 1000 next dest/1 } entry from L2Rib label input", 1 },
      { " deleting dest with id 1", 1 },
      { "handleHost did not find host in fdb", 1 },
      { "handleHost no fdbConfig for vlan 10", 1 },
      { "handleHost deleting host (00:00:00:00:00:01/10) from L2Rib input", 1 },
   };
   for( const auto& [ text, times ] : texts )
      EXPECT_EQ( times, std::count_if( lines.begin(), lines.end(),
                                       [ & ]( const std::string& line ) {
                                          return line.find( text ) != line.npos;
                                       } ) )
         << text;
}

TEST( StaticHostsDeathTest, BrokenInvariantsAreFatal ) {
   StaticLab lab;
   lab.set( onInterface( 1, 5 ) );
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
   const auto sm = makeEntity<StaticHostSm>( lab.manager, lab.agentInputDir, config );
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
   config->fdbConfigDel( Fid( 10 ) );
   lab.settle();
   EXPECT_EQ( "none", lab.outcome( mvp( 2 ) ) );
   EXPECT_EQ( 0u, lab.output.label->count() + lab.output.dest->count() );
}

} // namespace
} // namespace L2Rib::Test
