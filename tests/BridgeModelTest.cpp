// The decisions of l2rib-bridge, against a model of the kernel and a clock that is moved by hand.
#include "bridge/Learner.h"
#include "tests/TestSupport.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace {

using namespace Bridge;
using namespace L2Rib;
using TestSupport::Random;

constexpr uint32_t bridgeIndex = 2;
constexpr uint32_t vxlanIndex = 3;
constexpr uint32_t portIndex = 5;
constexpr uint32_t deviceVni = 10010;
const Bridging::VlanId vlan( 10 );

IpGenAddr vtepOf( uint32_t number ) {
   return IpGenAddr( IpGenAddr::familyIpv4, { 192, 0, 2, static_cast<uint8_t>( number ) } );
}
EthAddr macOf( uint32_t number ) { return EthAddr( 0x020000000000 + number ); }

// As the kernel behaves, its traps included. Refuses now and then for no reason.
class ModelKernel : public Kernel {
 public:
   struct Own {
      uint32_t nexthop = 0;
      Remote remote;
      bool external = true;
   };
   struct Entry {
      uint32_t port = 0;
      bool external = false;
      bool fixed = false;
      bool marked = false;
   };

   explicit ModelKernel( Random& random ) : random_( random ) {}

   std::vector<Outcome> apply( const std::vector<Write>& writes ) override {
      std::vector<Outcome> outcomes;
      for( const Write& write : writes ) {
         ++count;
         const int error = random_.below( 100 ) < refusals ? ENOMEM : carriedOut( write );
         outcomes.push_back( { error, error ? "refused" : "" } );
      }
      return outcomes;
   }
   void lookUp( uint32_t, uint32_t, const std::vector<EthAddr>& macs,
                const Found& found ) override {
      for( const EthAddr mac : macs )
         tell( mac, found );
   }
   void tell( EthAddr mac, const Found& found ) const {
      if( const auto at = entries.find( mac ); at != entries.end() ) {
         FdbEntry entry;
         entry.device = at->second.port;
         entry.bridge = bridgeIndex;
         entry.mac = mac;
         entry.external = at->second.external;
         entry.fixed = at->second.fixed;
         entry.marked = at->second.marked;
         found( entry );
      }
      if( const auto at = own.find( mac ); at != own.end() ) {
         FdbEntry entry;
         entry.device = vxlanIndex;
         entry.mac = mac;
         entry.external = at->second.external;
         entry.permanent = true;
         entry.nexthop = at->second.nexthop;
         entry.vtep = at->second.remote.vtep;
         entry.vni = at->second.remote.vni;
         found( entry );
      }
   }
   // What goes with a nexthop goes at once.
   void removeNexthop( uint32_t id ) {
      nexthops.erase( id );
      std::erase_if( own, [ & ]( const auto& entry ) { return entry.second.nexthop == id; } );
      std::set<uint32_t> emptied;
      for( auto& [ other, nexthop ] : nexthops )
         if( std::erase( nexthop.members, id ) > 0 && nexthop.members.empty() )
            emptied.insert( other );
      for( const uint32_t other : emptied )
         removeNexthop( other );
   }

   std::map<uint32_t, Nexthop> nexthops;
   std::map<EthAddr, Own> own;
   std::map<EthAddr, Entry> entries;
   std::set<EthAddr> mustStay; // may not lose their entries on the way
   unsigned refusals = 0;      // per cent
   size_t count = 0;

 private:
   int carriedOut( const Write& write ) {
      const bool isNew = write.kind == Write::newNexthopIs || write.kind == Write::newGroupIs;
      if( isNew && nexthops.contains( write.id ) )
         return EEXIST;
      switch( write.kind ) {
      case Write::nexthopIs:
      case Write::newNexthopIs:
         nexthops[ write.id ] = { write.id, nexthopProtocol, write.vtep, {} };
         return 0;
      case Write::groupIs:
      case Write::newGroupIs:
         for( const uint32_t member : write.members )
            if( !nexthops.contains( member ) )
               return EINVAL;
         nexthops[ write.id ] = { write.id, nexthopProtocol, {}, write.members };
         return 0;
      case Write::nexthopDel:
         for( const auto& [ mac, entry ] : own )
            EXPECT_NE( entry.nexthop, write.id ) << "a group was deleted under " << mac;
         removeNexthop( write.id );
         return 0;
      case Write::remoteIs:
         return remoteIs( write );
      case Write::remoteDel:
         EXPECT_FALSE( mustStay.contains( write.mac ) ) << write.mac << " lost its entry";
         return own.erase( write.mac ) ? 0 : ENOENT;
      default:
         return entryIs( write );
      }
   }
   int remoteIs( const Write& write ) {
      const auto there = own.find( write.mac );
      if( write.id != 0 &&
          ( !nexthops.contains( write.id ) || nexthops[ write.id ].members.empty() ) )
         return EINVAL; // a nexthop that is no group, too
      if( there != own.end() && write.id != 0 && there->second.nexthop == 0 )
         return EOPNOTSUPP;
      if( there != own.end() && write.id == 0 && there->second.nexthop != 0 )
         return 0; // and nothing has changed
      own[ write.mac ] = { write.id, { write.vtep, write.vni }, true };
      return 0;
   }
   int entryIs( const Write& write ) {
      const auto there = entries.find( write.mac );
      if( write.kind == Write::entryDel ) {
         EXPECT_FALSE( mustStay.contains( write.mac ) ) << write.mac << " lost its entry";
         if( there == entries.end() || there->second.port != write.device )
            return ENOENT;
         entries.erase( there );
         return 0;
      }
      Entry& entry = entries[ write.mac ];
      EXPECT_FALSE( entry.fixed && !entry.marked ) << "somebody's entry of " << write.mac;
      entry.port = write.device;
      if( write.kind == Write::externalIs )
         entry.external = true; // a static one stays static
      else
         entry.fixed = entry.marked = write.kind == Write::fixedIs;
      return 0;
   }

   Random& random_;
};

class NoListener : public HostListener {
 public:
   std::optional<Hold> learned( const MacVlanPair&, uint32_t, bool ) override { return {}; }
   void forgotten( const MacVlanPair& ) override {}
   void programmed( const MacVlanPair&, const Goal& ) override {}
   void refused( const MacVlanPair&, const std::string&, unsigned ) override {}
   void released( const MacVlanPair& ) override {}
};

// The output, made of random hosts and objects, and what it should come to.
struct Output {
   std::map<uint64_t, Remote> dests;
   std::map<uint64_t, std::set<uint64_t>> groups;
   std::map<uint32_t, Host> hosts;

   OutputObjects objects() {
      return { [ this ]( DestId id ) -> std::optional<DestAndSource> {
                 Dest dest( id );
                 dest.vxlanIs( { dests.at( id.value() ).vtep, dests.at( id.value() ).vni } );
                 return DestAndSource( dest, {} );
              },
               [ this ]( LoadBalanceId id ) -> std::optional<LoadBalanceAndSource> {
                  LoadBalance group( id );
                  uint32_t at = 0;
                  for( const uint64_t member : groups.at( id.value() ) )
                     group.nextIs( EcmpIndex( at++ ), ObjTuple( DestId( member ) ) );
                  return LoadBalanceAndSource( group, {} );
               } };
   }
   // "group 192.0.2.1 192.0.2.2", "192.0.2.1 vni 5", "port", "" when nothing is to be there.
   std::string wanted( const Host& host ) const {
      std::set<Remote> remotes;
      if( host.next().tableType() == tableTypeDest_ )
         remotes.insert( dests.at( host.next().objId().value() ) );
      else if( host.next().tableType() == tableTypeLoadBalance_ )
         for( const uint64_t member : groups.at( host.next().objId().value() ) )
            remotes.insert( dests.at( member ) );
      else if( host.ciDest().destType() == destTypeDefault_ )
         return host.ciDest().payload() == portIndex ? "port" : "";
      else
         for( const IpGenAddr& vtep : host.ciDest().vteps() )
            remotes.insert( { vtep, deviceVni } );
      std::set<IpGenAddr> vteps;
      for( const Remote& remote : remotes )
         if( remote.vni == deviceVni )
            vteps.insert( remote.vtep );
         else if( remotes.size() > 1 )
            return "";
         else
            return remote.vtep.str() + " vni " + std::to_string( remote.vni );
      std::string text = "group";
      for( const IpGenAddr& vtep : vteps )
         text += " " + vtep.str();
      return text;
   }
};

std::map<EthAddr, std::string> present( const ModelKernel& kernel ) {
   std::map<EthAddr, std::string> all;
   for( const auto& [ mac, entry ] : kernel.entries )
      if( entry.marked )
         all[ mac ] = "port";
      else if( entry.external )
         all[ mac ] = "half";
   for( const auto& [ mac, own ] : kernel.own ) {
      std::string text =
         own.nexthop ? "group" : own.remote.vtep.str() + " vni " + std::to_string( own.remote.vni );
      if( own.nexthop ) {
         std::set<IpGenAddr> vteps;
         for( const uint32_t member : kernel.nexthops.at( own.nexthop ).members )
            vteps.insert( kernel.nexthops.at( member ).vtep );
         for( const IpGenAddr& vtep : vteps )
            text += " " + vtep.str();
      }
      std::string& there = all[ mac ];
      there = there == "half" ? text : "half " + there + text;
   }
   return all;
}

// A program's life: a new one meets what the last one left.
struct Life {
   Life( ModelKernel& kernel, Output& output )
      : kernel( kernel ), reconciler( vlan, nexthops, output.objects(), listener ) {
      Place place;
      place.bridge = bridgeIndex;
      place.vxlan = vxlanIndex;
      place.vni = deviceVni;
      place.ports = { portIndex };
      dumpNexthops();
      reconciler.placeIs( place );
      dump();
   }
   void dumpNexthops() {
      nexthops.dumpBegins();
      for( const auto& [ id, nexthop ] : kernel.nexthops )
         nexthops.nexthopIs( nexthop );
      nexthops.dumpEnded();
   }
   void dump() {
      reconciler.dumpBegins();
      std::set<EthAddr> macs;
      for( const auto& [ mac, ignored ] : kernel.entries )
         macs.insert( mac );
      for( const auto& [ mac, ignored ] : kernel.own )
         macs.insert( mac );
      for( const EthAddr mac : macs )
         kernel.tell( mac, [ & ]( const FdbEntry& entry ) {
            reconciler.entryIs( entry, Reconciler::Origin::dump );
         } );
      reconciler.dumpEnded();
   }
   void hostIs( uint32_t number, const Host* host ) {
      const HostAndSource row( MacVlanPair( macOf( number ), vlan ), host ? *host : Host(),
                               sourceBit6_ );
      reconciler.hostIs( macOf( number ), host ? &row : nullptr, false );
   }
   // Turns until all is written, as the program does.
   void settle() {
      for( bool left = true; left; ) {
         clock.nowIs( clock.now() + longestRetry );
         reconciler.groupsDeleted( nexthops.takeDeleted() );
         while( reconciler.verify( kernel ) ) {
         }
         reconciler.paths().update();
         Paths::moveGroups( nexthops, { &reconciler.paths() } );
         nexthops.reconcile( kernel, clock.now() );
         for( const NexthopSet::Group group : nexthops.takeChanged() )
            reconciler.paths().groupChanged( group );
         reconciler.retryDue( clock.now() );
         reconciler.followPaths();
         left = reconciler.reconcile( kernel, clock, clock.now() + 1, true );
         left = left || reconciler.doubts() || reconciler.nextRetry() < Vexil::never ||
                nexthops.nextRetry() < Vexil::never;
      }
      nexthops.sweep( kernel );
      kernel.refusals = 0;
      nexthops.sweep( kernel ); // what was refused
   }

   ModelKernel& kernel;
   Vexil::ManualClock clock;
   NoListener listener;
   NexthopSet nexthops;
   Reconciler reconciler;
};

Host randomHost( Random& random, const Output& output, uint32_t number ) {
   Host host( MacVlanPair( macOf( number ), vlan ) );
   CiDest ciDest( destTypeVxlan_ );
   const auto pick = [ & ]( const auto& map ) {
      return std::next( map.begin(), random.below( map.size() ) )->first;
   };
   switch( random.below( 5 ) ) {
   case 0:
      host.nextIs( ObjTuple( DestId( pick( output.dests ) ) ) );
      break;
   case 1:
      ciDest.vtepIs( CiVtepIndex( 0 ), vtepOf( 1 + random.below( 4 ) ) );
      host.ciDestIs( ciDest );
      break;
   case 2: {
      CiDest port( destTypeDefault_ );
      port.payloadIs( random.percent( 80 ) ? portIndex : 99 );
      host.ciDestIs( port );
      break;
   }
   default:
      host.nextIs( ObjTuple( LoadBalanceId( pick( output.groups ) ) ) );
   }
   return host;
}

std::set<uint64_t> randomMembers( Random& random ) {
   std::set<uint64_t> members;
   for( uint32_t i = random.below( 3 ) + 1; i > 0; --i )
      members.insert( 1 + random.below( 6 ) );
   return members;
}

Remote randomRemote( Random& random ) {
   return { vtepOf( 1 + random.below( 8 ) ), random.percent( 85 ) ? deviceVni : 77 };
}

// Random changes of the output, foreign hands, refusals and restarts; after each the kernel holds
// what the output says, and on the way no host that stays behind VTEPs has lost its entries.
TEST( BridgeModel, KernelFollowsOutput ) {
   Random random( 14 );
   Output output;
   for( uint64_t id = 1; id <= 6; ++id )
      output.dests[ id ] = randomRemote( random );
   for( uint64_t id = 1; id <= 4; ++id )
      output.groups[ id ] = randomMembers( random );
   ModelKernel kernel( random );
   auto run = std::make_unique<Life>( kernel, output );
   for( int step = 0; step < 3000; ++step ) {
      const auto before = present( kernel );
      for( uint32_t changes = random.below( 4 ) + 1; changes > 0; --changes ) {
         const uint32_t number = random.below( 12 );
         const uint64_t id = 1 + random.below( 6 );
         switch( random.below( 5 ) ) {
         case 0:
            output.dests[ id ] = randomRemote( random );
            run->reconciler.paths().objectChanged( ObjTuple( DestId( id ) ) );
            break;
         case 1:
            output.groups[ id % 4 + 1 ] = randomMembers( random );
            run->reconciler.paths().objectChanged( ObjTuple( LoadBalanceId( id % 4 + 1 ) ) );
            break;
         case 2:
            output.hosts.erase( number );
            run->hostIs( number, nullptr );
            break;
         default:
            output.hosts[ number ] = randomHost( random, output, number );
            run->hostIs( number, &output.hosts[ number ] );
         }
      }
      kernel.refusals = random.percent( 30 ) ? 30 : 0;
      std::map<EthAddr, std::string> wanted;
      for( const auto& [ number, host ] : output.hosts )
         if( const std::string text = output.wanted( host ); !text.empty() )
            wanted[ macOf( number ) ] = text;
      kernel.mustStay.clear();
      for( const auto& [ mac, text ] : wanted )
         if( const auto was = before.find( mac ); text.starts_with( "group" ) &&
                                                  was != before.end() &&
                                                  was->second.starts_with( "group" ) )
            kernel.mustStay.insert( mac );
      if( random.percent( 10 ) ) {
         run = std::make_unique<Life>( kernel, output );
         for( const auto& [ number, host ] : output.hosts )
            run->hostIs( number, &host );
      }
      run->settle();
      ASSERT_EQ( present( kernel ), wanted ) << "step " << step;
      std::set<std::string> sets;
      for( const auto& [ mac, text ] : wanted )
         if( text.starts_with( "group" ) )
            sets.insert( text );
      size_t groups = 0;
      for( const auto& [ id, nexthop ] : kernel.nexthops )
         groups += !nexthop.members.empty();
      ASSERT_EQ( groups, sets.size() ) << "a group a set, none left over; step " << step;
      const size_t writes = kernel.count;
      run->reconciler.touchAll();
      run->settle();
      ASSERT_EQ( kernel.count, writes ) << "what is there is not written again; step " << step;
   }
}

// What is wrong with devices; the test with a kernel has what that one offers.
TEST( BridgeModel, DevicesThatAreNotSupported ) {
   Topology topology;
   Link bridge{ .index = 2, .name = "br10", .isBridge = true, .vlanFiltering = true, .local = {} };
   topology.linkIs( bridge );
   EXPECT_EQ( topology.placeOf( "br10" ).fault, "vlan_filtering is on, which is not supported" );
   bridge.vlanFiltering = false;
   topology.linkIs( bridge );
   topology.linkIs(
      { .index = 3, .master = 2, .name = "vx", .isVxlan = true, .external = true, .local = {} } );
   EXPECT_EQ( topology.placeOf( "br10" ).fault, "vx is in external mode, which is not supported" );
   for( const uint32_t index : { 3, 4 } )
      topology.linkIs(
         { .index = index, .master = 2, .name = "vx", .isVxlan = true, .local = {} } );
   EXPECT_EQ( topology.placeOf( "br10" ).fault, "more than one VXLAN port, one is supported" );
}

// Sequence numbers of hosts that come, go, return, and move to and fro.
TEST( BridgeModel, LearnedHostsAndTheirNumbers ) {
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
