// l2rib-evpn: what is read from the messages of GoBGP's API, what is taken of it, and what is
// written.
#include "evpn/GobgpMessages.h"
#include "tests/TestSupport.h"

#include "attribute.pb.h"
#include "gobgp.pb.h"

#include <gtest/gtest.h>

namespace {

using namespace Evpn;
using TestSupport::Random;

IpGenAddr ip( unsigned last ) { return *IpGenAddr::parse( "192.0.2." + std::to_string( last ) ); }
const Speaker speaker{ 65000, ip( 5 ) };
Import imported() {
   return Import( ip( 5 ), { { 10, { 10010, {}, {} } }, { 20, { 10020, {}, {} } } }, speaker );
}

Route local( bool multicast, uint32_t seqNo, bool sticky ) {
   Route route;
   route.key.rd = rdOf( ip( 7 ), 10 );
   route.nextHop = ip( 7 );
   route.vni = 10010;
   route.targets = { targetOf( 65000, 10010 ), *parsedTarget( "192.0.2.1:5" ),
                     *parsedTarget( "4200000000:7" ) };
   std::sort( route.targets.begin(), route.targets.end() );
   route.own = true;
   if( multicast ) {
      route.key.type = RouteType::multicast;
      route.key.ip = ip( 7 );
      route.ingressReplication = true;
   } else {
      route.key.mac = EthAddr( uint64_t( 0x020000000001 ) );
      route.seqNo = seqNo;
      route.sticky = sticky;
   }
   return route;
}

// What is written reads the same; a withdrawn path is its key.
TEST( EvpnMessagesTest, MessagesThereAndBack ) {
   for( Route route : { local( false, 0, false ), local( false, 7, false ), local( false, 0, true ),
                        local( true, 0, false ) } ) {
      for( const char* rd : { "192.0.2.7:10", "65000:100000", "4200000000:9" } ) {
         route.key.rd = *parsedRd( rd );
         EXPECT_EQ( rdStr( route.key.rd ), rd );
         apipb::Path path = pathOf( route );
         ParsedPath parsed = parsedPath( path );
         EXPECT_EQ( parsed.reason, NotTaken::taken );
         EXPECT_EQ( parsed.route, route ) << route.key.str();
         path.set_is_withdraw( true );
         path.clear_pattrs();
         parsed = parsedPath( path );
         EXPECT_TRUE( parsed.withdrawn );
         EXPECT_EQ( parsed.route.key, route.key );
      }
   }
}

std::string bytesOfHex( const std::string& hex ) {
   std::string bytes;
   for( size_t at = 0; at < hex.size(); at += 2 )
      bytes += static_cast<char>( std::stoi( hex.substr( at, 2 ), nullptr, 16 ) );
   return bytes;
}

// The other form of the API, BGP's own bytes: what they say, and with damage no read beyond the
// end.
TEST( EvpnMessagesTest, Bytes ) {
   const std::string body = "0001c0000207000a" + std::string( 20, '0' ) + "00000000";
   const std::string host = bytesOfHex( "0221" + body + "3002000000000100" + "00271a" );
   const std::string next = bytesOfHex( "800e2c00194604c000020700" ) + host;
   const std::string communities = bytesOfHex( "c01018"
                                               "0002fde80000271a"
                                               "030c000000000008"
                                               "0600010000000003" );
   apipb::Path whole;
   whole.set_nlri_binary( host );
   whole.add_pattrs_binary( next );
   whole.add_pattrs_binary( communities );
   Route expected = local( false, 3, true );
   expected.targets = { targetOf( 65000, 10010 ) };
   EXPECT_EQ( parsedPath( whole ).reason, NotTaken::taken );
   EXPECT_EQ( parsedPath( whole ).route, expected );
   Random random;
   unsigned taken = 0;
   for( unsigned round = 0; round < 20000; ++round ) {
      apipb::Path path = whole;
      std::string* const bytes[] = { path.mutable_nlri_binary(), path.mutable_pattrs_binary( 0 ),
                                     path.mutable_pattrs_binary( 1 ) };
      std::string& damaged = *bytes[ random.below( 3 ) ];
      if( random.below( 4 ) == 0 )
         damaged.resize( random.below( damaged.size() ) );
      else
         damaged[ random.below( damaged.size() ) ] = static_cast<char>( random.below( 256 ) );
      std::vector<uint16_t> vlans;
      const ParsedPath parsed = parsedPath( path );
      if( parsed.reason == NotTaken::taken &&
          imported().judge( parsed.route, vlans ) == NotTaken::taken )
         ++taken;
   }
   EXPECT_GT( taken, 1000u );
   EXPECT_LT( taken, 19000u );
}

// Each reason, by one change of a route that is taken.
TEST( EvpnMessagesTest, WhatIsNotTaken ) {
   const Import import = imported();
   const auto judged = [ & ]( bool multicast, auto change ) {
      Route route = local( multicast, 0, false );
      change( route );
      std::vector<uint16_t> vlans;
      return import.judge( route, vlans );
   };
   const std::vector<std::pair<NotTaken, std::function<void( Route& )>>> cases{
      { NotTaken::taken, []( Route& ) {} },
      { NotTaken::target, []( Route& route ) { route.targets = { targetOf( 65000, 9 ) }; } },
      { NotTaken::target, []( Route& route ) { route.targets.clear(); } },
      { NotTaken::own, []( Route& route ) { route.nextHop = ip( 5 ); } },
      { NotTaken::tag, []( Route& route ) { route.key.tag = 5; } },
      { NotTaken::encapsulation, []( Route& route ) { route.foreignEncapsulation = true; } },
      { NotTaken::vni, []( Route& route ) { route.vni = 0; } },
      { NotTaken::vni, []( Route& route ) { route.vni = 0x1000000; } },
      { NotTaken::nextHop, []( Route& route ) { route.nextHop = IpGenAddr(); } },
      { NotTaken::nextHop,
        []( Route& route ) { route.nextHop = *IpGenAddr::parse( "2001:db8::1" ); } } };
   for( const auto& [ reason, change ] : cases )
      for( const bool multicast : { false, true } )
         EXPECT_EQ( judged( multicast, change ), reason );
   EXPECT_EQ( judged( true, []( Route& route ) { route.ingressReplication = false; } ),
              NotTaken::tunnel );
   EXPECT_EQ(
      judged( false, []( Route& route ) { route.key.mac = EthAddr( uint64_t( 1 ) << 40 ); } ),
      NotTaken::mac );
}

// Damaged messages: nothing throws, nothing that can't be read is taken for a route.
TEST( EvpnMessagesTest, DamagedMessages ) {
   google::protobuf::SetLogHandler( nullptr );
   Random random;
   const std::string whole = pathOf( local( false, 3, true ) ).SerializeAsString();
   for( unsigned round = 0; round < 20000; ++round ) {
      std::string bytes = whole;
      for( unsigned change = 1 + random.below( 3 ); change > 0; --change )
         bytes[ random.below( bytes.size() ) ] = static_cast<char>( random.below( 256 ) );
      apipb::Path path;
      if( !path.ParseFromString( bytes ) )
         continue;
      const ParsedPath parsed = parsedPath( path );
      std::vector<uint16_t> vlans;
      if( parsed.reason == NotTaken::taken &&
          imported().judge( parsed.route, vlans ) == NotTaken::taken ) {
         EXPECT_FALSE( vlans.empty() );
         EXPECT_NE( parsed.route.nextHop, IpGenAddr() );
      }
   }
   const auto reasonOf = []( const google::protobuf::Message& nlri ) {
      apipb::Path path;
      path.mutable_nlri()->PackFrom( nlri );
      return parsedPath( path ).reason;
   };
   EXPECT_EQ( parsedPath( apipb::Path() ).reason, NotTaken::unreadable );
   EXPECT_EQ( reasonOf( apipb::EVPNMACIPAdvertisementRoute() ), NotTaken::unreadable );
   EXPECT_EQ( reasonOf( apipb::EVPNIPPrefixRoute() ), NotTaken::type );
   EXPECT_EQ( reasonOf( apipb::IPAddressPrefix() ), NotTaken::unreadable );
   for( const char* text : { "", ":", "1:", ":1", "x:1", "65536:65536", "1.2.3.4:65536", "1:1x" } )
      EXPECT_FALSE( parsedRd( text ) || parsedTarget( text ) ) << text;
}

} // namespace
