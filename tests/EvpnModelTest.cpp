// l2rib-evpn without BGP and without tables: what routes come to, against a model that computes it
// anew from all routes each time, and what is announced.
#include "evpn/Announcer.h"
#include "evpn/RouteTable.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

namespace {

using namespace Evpn;
using TestSupport::Random;

IpGenAddr ip( unsigned last ) { return *IpGenAddr::parse( "192.0.2." + std::to_string( last ) ); }
Esi esi( unsigned number ) {
   Esi made;
   made.bytes[ 9 ] = static_cast<uint8_t>( number );
   return made;
}

// --- the model

using Hops = std::vector<Hop>;
struct Content {
   std::map<MacVlanPair, std::tuple<uint32_t, bool, Hops>> hosts;
   std::set<std::pair<uint16_t, Hop>> members;
};
std::string text( const Content& content ) {
   std::string all;
   const auto hop = []( const Hop& to ) {
      return " " + to.vtep.str() + "/" + std::to_string( to.vni );
   };
   for( const auto& [ vlan, to ] : content.members )
      all += "flood " + std::to_string( vlan ) + hop( to ) + "\n";
   for( const auto& [ host, goal ] : content.hosts ) {
      const auto& [ seqNo, sticky, hops ] = goal;
      all += host.str() + " " + std::to_string( seqNo ) + ( sticky ? " sticky" : "" );
      for( const Hop& to : hops )
         all += hop( to );
      all += "\n";
   }
   return all;
}

// What the table tells, with groups written out; and that references hold at every moment.
struct Mirror : RouteListener {
   std::map<MacVlanPair, HostGoal> hosts;
   std::map<GroupKey, Hops> groups;
   std::set<std::pair<uint16_t, Hop>> members;
   size_t hostWrites = 0;
   size_t groupWrites = 0;
   bool full = false;

   static GroupKey groupOf( const MacVlanPair& host, const HostGoal& goal ) {
      return { *goal.segment, static_cast<uint16_t>( host.vlan().value() ) };
   }
   bool hostIs( const MacVlanPair& host, const HostGoal& goal, const HostGoal* before ) override {
      EXPECT_EQ( before != nullptr, hosts.contains( host ) );
      EXPECT_TRUE( !before || ( *before == hosts[ host ] && *before != goal ) );
      EXPECT_TRUE( !goal.segment || groups.contains( groupOf( host, goal ) ) );
      ++hostWrites;
      if( full )
         return false;
      hosts[ host ] = goal;
      return true;
   }
   void hostDel( const MacVlanPair& host, const HostGoal& before ) override {
      ++hostWrites;
      EXPECT_EQ( hosts.at( host ), before );
      hosts.erase( host );
   }
   bool groupIs( const GroupKey& group, const Hops& hops, const Hops& before ) override {
      EXPECT_FALSE( hops.empty() );
      EXPECT_EQ( before, groups.contains( group ) ? groups[ group ] : Hops() );
      ++groupWrites;
      groups[ group ] = hops;
      return true;
   }
   void groupDel( const GroupKey& group, const Hops& before ) override {
      EXPECT_EQ( groups.at( group ), before );
      groups.erase( group );
      for( const auto& [ host, goal ] : hosts )
         EXPECT_TRUE( !goal.segment || groupOf( host, goal ) != group );
   }
   bool memberIs( uint16_t vlan, const Hop& hop ) override {
      return members.emplace( vlan, hop ).second;
   }
   void memberDel( uint16_t vlan, const Hop& hop ) override { members.erase( { vlan, hop } ); }

   Content content() const {
      Content all;
      all.members = members;
      for( const auto& [ host, goal ] : hosts )
         all.hosts[ host ] = { goal.seqNo, goal.sticky,
                               goal.segment ? groups.at( groupOf( host, goal ) )
                                            : Hops{ goal.hop } };
      return all;
   }
};

struct Model {
   struct Told {
      Route route;
      std::vector<uint16_t> vlans;
   };
   std::map<RouteKey, Told> routes;
   std::map<MacVlanPair, Announcer::Local> own;

   Hops hopsOf( const Route& of, uint16_t vlan ) const {
      std::set<IpGenAddr> perSegment;
      bool single = false;
      std::set<Hop> hops;
      for( const auto& [ key, told ] : routes )
         if( key.type == RouteType::ethernetAd && key.esi == of.esi && key.tag == tagOfSegment ) {
            perSegment.insert( told.route.nextHop );
            single = single || told.route.singleActive;
         }
      if( single )
         return perSegment.contains( of.nextHop ) ? Hops{ { of.nextHop, of.vni } } : Hops();
      for( const auto& [ key, told ] : routes )
         if( key.type == RouteType::ethernetAd && key.esi == of.esi && key.tag == 0 &&
             std::count( told.vlans.begin(), told.vlans.end(), vlan ) &&
             perSegment.contains( told.route.nextHop ) )
            hops.insert( { told.route.nextHop, told.route.vni } );
      return { hops.begin(), hops.end() };
   }
   Content content() const {
      Content all;
      std::map<MacVlanPair, const Route*> best;
      const auto rank = []( const Route& route ) {
         return std::tuple( !route.sticky, ~route.seqNo, route.nextHop, route.key );
      };
      for( const auto& [ key, told ] : routes )
         for( const uint16_t vlan : told.vlans )
            if( key.type == RouteType::multicast ) {
               all.members.insert( { vlan, { told.route.nextHop, told.route.vni } } );
            } else if( key.type == RouteType::macIp ) {
               const Route*& present = best[ { key.mac, Bridging::VlanId( vlan ) } ];
               if( !present || rank( told.route ) < rank( *present ) )
                  present = &told.route;
            }
      for( const auto& [ host, route ] : best ) {
         if( const auto mine = own.find( host ); mine != own.end() ) {
            Route ours;
            ours.sticky = mine->second.sticky;
            ours.seqNo = mine->second.seqNo;
            ours.nextHop = ip( 5 );
            if( rank( ours ) < rank( *route ) )
               continue;
         }
         const Hops hops = route->esi.named()
                              ? hopsOf( *route, static_cast<uint16_t>( host.vlan().value() ) )
                              : Hops{ { route->nextHop, route->vni } };
         if( !hops.empty() )
            all.hosts[ host ] = { route->seqNo, route->sticky, hops };
      }
      return all;
   }
};

Model::Told randomRoute( Random& random ) {
   Route route;
   const unsigned pe = 2 * ( 1 + random.below( 8 ) ); // ours is among them
   route.key.rd = rdOf( ip( pe ), 10 );
   route.nextHop = ip( pe );
   route.vni = 10010;
   const unsigned kind = random.below( 10 );
   if( kind == 0 ) {
      route.key.type = RouteType::multicast;
      route.key.ip = ip( pe );
      route.ingressReplication = true;
   } else if( kind <= 3 ) {
      route.key.type = RouteType::ethernetAd;
      route.key.esi = route.esi = esi( 1 + random.below( 3 ) );
      route.key.tag = random.below( 2 ) == 0 ? tagOfSegment : 0;
      route.singleActive = route.key.tag != 0 && random.below( 20 ) == 0;
   } else {
      route.key.mac = EthAddr( uint64_t( 0x020000000000 ) + random.below( 8 ) );
      if( random.below( 3 ) == 0 )
         route.key.ip = ip( 100 + random.below( 2 ) );
      route.esi = random.below( 2 ) == 0 ? esi( 1 + random.below( 3 ) ) : Esi();
      route.seqNo = static_cast<uint32_t>( random.below( 3 ) );
      route.sticky = random.below( 10 ) == 0;
   }
   static const std::vector<uint16_t> vlans[] = { { 10 }, { 10 }, { 20 }, { 10, 20 } };
   return { route, vlans[ random.below( 4 ) ] };
}

TEST( EvpnModelTest, RoutesComeToWhatTheModelSays ) {
   Random random;
   RouteTable table;
   table.vtepIs( ip( 5 ) );
   Model model;
   Mirror mirror;
   for( unsigned step = 0; step < 20000; ++step ) {
      const unsigned what = random.below( 100 );
      const Model::Told told = randomRoute( random );
      const MacVlanPair host( EthAddr( uint64_t( 0x020000000000 ) + random.below( 8 ) ),
                              Bridging::VlanId( 10 ) );
      if( what < 55 ) {
         table.routeIs( told.route, told.vlans );
         model.routes[ told.route.key ] = told;
      } else if( what < 90 ) {
         table.routeDel( told.route.key );
         model.routes.erase( told.route.key );
      } else if( what < 94 ) {
         const Announcer::Local local{ told.route.seqNo, told.route.sticky };
         table.ownIs( host, local.seqNo, local.sticky );
         model.own[ host ] = local;
      } else if( what < 98 ) {
         table.ownDel( host );
         model.own.erase( host );
      } else if( what == 98 ) { // half of it is told again after a loss
         table.markStale();
         EXPECT_EQ( table.stale(), model.routes.size() );
         for( auto at = model.routes.begin(); at != model.routes.end(); )
            if( random.below( 2 ) == 0 ) {
               table.routeIs( at->second.route, at->second.vlans );
               ++at;
            } else {
               at = model.routes.erase( at );
            }
         table.sweepStale();
      } else {
         mirror.full = !mirror.full;
         table.retryRefused();
      }
      if( random.below( 3 ) == 0 )
         while( table.tell( mirror, 1 + random.below( 4 ) ) )
            ;
      if( mirror.full || random.below( 10 ) != 0 )
         continue;
      table.retryRefused();
      while( table.tell( mirror, 3 ) )
         ;
      ASSERT_EQ( text( mirror.content() ), text( model.content() ) ) << "step " << step;
      ASSERT_EQ( table.refused(), 0u );
      ASSERT_EQ( table.stale(), 0u );
   }
}

// Whatever the number of hosts, a PE that leaves a segment is one write.
TEST( EvpnModelTest, MassWithdrawalIsOneWrite ) {
   RouteTable table;
   Mirror mirror;
   for( unsigned pe = 1; pe <= 2; ++pe )
      for( const uint32_t tag : { tagOfSegment, 0u } ) {
         Route route;
         route.key.type = RouteType::ethernetAd;
         route.key.rd = rdOf( ip( pe ), 1 );
         route.key.esi = route.esi = esi( 1 );
         route.key.tag = tag;
         route.nextHop = ip( pe );
         route.vni = 10010;
         table.routeIs( route, { 10 } );
      }
   for( unsigned number = 0; number < 20000; ++number ) {
      Route route;
      route.key.mac = EthAddr( uint64_t( 0x020000000000 ) + number );
      route.esi = esi( 1 );
      route.nextHop = ip( 1 );
      route.vni = 10010;
      table.routeIs( route, { 10 } );
   }
   table.tell( mirror );
   EXPECT_EQ( mirror.hostWrites, 20000u );
   RouteKey segment;
   segment.type = RouteType::ethernetAd;
   segment.tag = tagOfSegment;
   segment.esi = esi( 1 );
   segment.rd = rdOf( ip( 1 ), 1 );
   table.routeDel( segment );
   table.tell( mirror );
   EXPECT_EQ( mirror.hostWrites, 20000u );
   EXPECT_EQ( mirror.groupWrites, 2u );
   EXPECT_EQ( mirror.groups.begin()->second, ( Hops{ { ip( 2 ), 10010 } } ) );
}

// --- what goes out

TEST( EvpnModelTest, OnlyDifferencesAreAnnounced ) {
   Announcer announcer;
   const auto import = std::make_shared<const Import>(
      ip( 5 ),
      std::map<uint32_t, VlanOptions>{ { 10, { 10010, {}, {} } }, { 20, { 10020, {}, {} } } },
      Speaker{ 65000, ip( 5 ) } );
   std::map<RouteKey, Route> there; // what the speaker has
   Random random;
   const auto host = []( unsigned number ) {
      return MacVlanPair( EthAddr( uint64_t( 0x020000000000 ) + number ), Bridging::VlanId( 10 ) );
   };
   std::map<unsigned, Announcer::Local> wanted;
   double now = 0;
   for( unsigned step = 0; step < 3000; ++step, now += 100 ) {
      const unsigned number = static_cast<unsigned>( random.below( 20 ) );
      if( random.below( 2 ) == 0 ) {
         wanted[ number ] = { static_cast<uint32_t>( random.below( 3 ) ), false };
         announcer.hostIs( host( number ), wanted[ number ] );
      } else {
         wanted.erase( number );
         announcer.hostDel( host( number ) );
      }
      if( random.below( 20 ) == 0 ) { // another session, perhaps with a speaker that knows nothing
         if( random.below( 2 ) == 0 )
            there.clear();
         announcer.sessionBegins( import );
         EXPECT_TRUE( announcer.take( true, now ).empty() ) << "before all is known";
         for( const auto& [ key, route ] : there )
            announcer.thereIs( route, now );
         announcer.present();
      }
      if( !there.empty() && random.below( 30 ) == 0 ) { // a foreign hand
         Route changed = there.begin()->second;
         there.erase( changed.key );
         announcer.goneIs( changed.key, now );
         changed.key.mac = EthAddr( uint64_t( 0x0200000000ff ) );
         there[ changed.key ] = changed;
         announcer.thereIs( changed, now );
         now += 2;
      }
      const bool mayWithdraw = random.below( 4 ) > 0;
      for( const Announcement& one : announcer.take( mayWithdraw, now ) ) {
         const RouteKey& key = one.route.key;
         if( random.below( 8 ) == 0 ) {
            announcer.refused( key, "no", now );
            continue;
         }
         EXPECT_TRUE( !one.withdraw || ( mayWithdraw && there.contains( key ) ) );
         EXPECT_TRUE( one.withdraw || !there.contains( key ) || there[ key ] != one.route )
            << "it was there: " << key.str();
         if( one.withdraw )
            there.erase( key );
         else
            there[ key ] = one.route;
         announcer.written( key );
      }
      if( !announcer.inStep() )
         continue;
      EXPECT_EQ( there.size(), wanted.size() + 2 ) << "and a route of type 3 a VLAN";
      for( const auto& [ key, route ] : there )
         EXPECT_TRUE( key.type == RouteType::multicast ||
                      route.seqNo == wanted.at( key.mac.number() & 0xff ).seqNo );
   }
   EXPECT_EQ( announcer.announced( RouteType::multicast ), 2u );
}

} // namespace
