// Puts routes of other leaves into a gobgpd, for tests: a line of its input a step.
//
//    announce NUMBER COUNT PE SEQNO VNI    routes of type 2 for that many addresses from
//    withdraw NUMBER COUNT PE SEQNO VNI    mac( NUMBER ), with the route target 65000:VNI
//    flood NUMBER COUNT PE SEQNO VNI       routes of type 3 under that many route distinguishers
//
// Answers each with "done" once gobgpd has taken all of it.
#include "evpn/GobgpClient.h"

#include <cstdio>
#include <iostream>
#include <poll.h>
#include <sstream>

using namespace Evpn;

namespace {

Route routeOf( uint64_t number, const IpGenAddr& pe, uint32_t seqNo, uint32_t vni, bool flood ) {
   Route route;
   if( flood ) {
      route.key.type = RouteType::multicast;
      route.key.rd = rdOf( pe, static_cast<uint16_t>( number ) );
      route.key.ip = pe;
      route.ingressReplication = true;
   } else {
      route.key.rd = rdOf( pe, 10 );
      route.key.mac = EthAddr( 0x020000000000 + number );
   }
   route.nextHop = pe;
   route.vni = vni;
   route.seqNo = seqNo;
   route.targets = { targetOf( 65000, vni ) };
   return route;
}

// Takes events until each( event ) says that it is enough.
template<class Each>
void take( GobgpClient& client, Each each ) {
   while( true ) {
      while( const auto event = client.next() )
         if( each( *event ) )
            return;
      pollfd ready{ client.fd(), POLLIN, 0 };
      poll( &ready, 1, -1 );
   }
}

} // namespace

int main( int argc, char** argv ) {
   if( argc != 2 )
      return 2;
   GobgpClient client( { argv[ 1 ], *IpGenAddr::parse( "192.0.2.250" ), {} } );
   uint64_t session = 0;
   take( client, [ & ]( const Event& event ) {
      session = event.session;
      return event.kind == Event::present;
   } );
   std::string line;
   while( std::getline( std::cin, line ) ) {
      std::istringstream words( line );
      std::string what;
      std::string pe;
      uint64_t number = 0;
      size_t count = 0;
      uint32_t seqNo = 0;
      uint32_t vni = 0;
      words >> what >> number >> count >> pe >> seqNo >> vni;
      const auto address = IpGenAddr::parse( pe );
      if( !address || !words )
         return 2;
      std::vector<Announcement> batch;
      for( uint64_t i = 0; i < count; ++i )
         batch.push_back(
            { what == "withdraw", routeOf( number + i, *address, seqNo, vni, what == "flood" ) } );
      client.write( session, std::move( batch ) );
      size_t written = 0;
      std::string failure;
      take( client, [ & ]( const Event& event ) {
         written += event.kind == Event::written ? event.keys.size() : 0;
         failure = event.text;
         return written == count || !failure.empty();
      } );
      if( !failure.empty() ) {
         std::cerr << failure << '\n';
         return 1;
      }
      std::cout << "done" << std::endl;
   }
   return 0;
}
