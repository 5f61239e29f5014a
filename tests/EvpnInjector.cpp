// Puts routes of other leaves into a gobgpd, for tests: a line of its input a step.
//
//    announce NUMBER COUNT PE SEQNO    routes of type 2 for that many addresses from mac( NUMBER )
//    on withdraw NUMBER COUNT PE
//
// Answers each with "done" once gobgpd has taken all of it.
#include "evpn/GobgpClient.h"

#include <cstdio>
#include <iostream>
#include <poll.h>
#include <sstream>

using namespace Evpn;

namespace {

Route routeOf( uint64_t number, const IpGenAddr& pe, uint32_t seqNo ) {
   Route route;
   route.key.rd = rdOf( pe, 10 );
   route.key.mac = EthAddr( 0x020000000000 + number );
   route.nextHop = pe;
   route.vni = 10010;
   route.seqNo = seqNo;
   route.targets = { targetOf( 65000, 10010 ) };
   return route;
}

} // namespace

int main( int argc, char** argv ) {
   if( argc != 2 )
      return 2;
   GobgpClient client( { argv[ 1 ], *IpGenAddr::parse( "192.0.2.250" ), {} } );
   std::string line;
   while( std::getline( std::cin, line ) ) {
      std::istringstream words( line );
      std::string what;
      std::string pe;
      uint64_t number = 0;
      uint64_t count = 0;
      uint32_t seqNo = 0;
      words >> what >> number >> count >> pe >> seqNo;
      const auto address = IpGenAddr::parse( pe );
      if( !address )
         return 2;
      std::vector<Announcement> batch;
      for( uint64_t i = 0; i < count; ++i )
         batch.push_back( { what == "withdraw", routeOf( number + i, *address, seqNo ) } );
      client.write( 0, std::move( batch ) );
      for( size_t written = 0; written < count; ) {
         pollfd ready{ client.fd(), POLLIN, 0 };
         poll( &ready, 1, -1 );
         while( const auto event = client.next() ) {
            if( event->kind == Event::written && !event->text.empty() ) {
               std::cerr << event->text << '\n';
               return 1;
            }
            if( event->kind == Event::written )
               written += event->keys.size();
         }
      }
      std::cout << "done" << std::endl;
   }
   return 0;
}
