// A small daemon on the client library: it publishes three hosts as a source of its own and follows
// the output of the agent until all of them have arrived there.
//
//    source_daemon [STATE_DIRECTORY]
//
// It ends with 0 once the agent has taken them over, with 1 when that did not happen in time. A
// real daemon would go on from there: publish what it learns, and program what it is told.
#include "client/OutputReader.h"
#include "client/SourcePublisher.h"

#include <chrono>
#include <exception>
#include <iostream>
#include <poll.h>
#include <set>
#include <stdexcept>
#include <string>

using Bridging::MacVlanPair;
using Bridging::VlanId;
using L2Rib::Host;
using L2Rib::HostAndSource;
using L2Rib::Client::OutputReader;
using L2Rib::Client::Rejection;
using L2Rib::Client::SourcePublisher;

namespace {

constexpr L2Rib::Source ourValue{ 0x200 };
constexpr std::chrono::seconds longestWait( 30 );

// Every operation of the publisher may be refused; its text says why.
void require( const Rejection& rejection ) {
   if( rejection )
      throw std::runtime_error( *rejection );
}

MacVlanPair hostKey( uint64_t number ) {
   return { Vexil::EthAddr( 0x020000000000 + number ), VlanId( 100 ) };
}

// One destination behind a VTEP, a group of it, two hosts that are reached through the group, and
// one that carries its destination inline. The numbers of objects are the source's own.
std::set<MacVlanPair> publish( SourcePublisher& source ) {
   L2Rib::Dest dest( L2Rib::DestId( 1 ) );
   dest.vxlanIs( { Vexil::IpGenAddr::parse( "192.0.2.1" ).value(), 10100 } );
   require( source.destIs( dest ) );

   L2Rib::LoadBalance group( L2Rib::LoadBalanceId( 1 ) );
   group.nextIs( L2Rib::EcmpIndex( 0 ), L2Rib::ObjTuple( dest.key() ) );
   require( source.lbIs( group ) );

   std::set<MacVlanPair> keys;
   for( uint64_t number = 1; number <= 3; ++number ) {
      Host host( hostKey( number ) );
      host.prefIs( 100 );
      host.entryTypeIs( L2Rib::EntryType( 1 ) );
      if( number <= 2 ) {
         host.nextIs( L2Rib::ObjTuple( group.key() ) );
      } else {
         L2Rib::CiDest inlineDest( L2Rib::destTypeDefault_ );
         inlineDest.payloadIs( 12 ); // an interface, say: sources and readers agree on what it is
         host.ciDestIs( inlineDest );
      }
      require( source.hostIs( host ) );
      keys.insert( host.key() );
   }
   return keys;
}

int run( const std::string& stateDirectory ) {
   // From here on the agent knows us, and does not yet look at our tables. Were there an earlier
   // run that ended without withdraw(), its content would be taken over; begin() and end() around
   // what we publish delete what we do not name any more.
   SourcePublisher source(
      { .stateDirectory = stateDirectory, .name = "exampleDaemon", .value = ourValue } );
   require( source.begin() );
   std::set<MacVlanPair> missing = publish( source );
   require( source.end() );
   source.initializedIs( true ); // our first copy is complete
   source.flush();               // and whoever sleeps may look at it now

   // A follower is told what is there first, and then what changes.
   OutputReader output( stateDirectory );
   output.hosts.follow( [ & ]( const MacVlanPair& key, const HostAndSource* row ) {
      if( !row ) {
         std::cout << "gone: " << key << '\n';
         return;
      }
      std::cout << "host: " << *row << '\n';
      if( row->source() == ourValue )
         missing.erase( key );
   } );

   // The daemon's own loop: one descriptor of the reader beside whatever else it waits for.
   const auto deadline = std::chrono::steady_clock::now() + longestWait;
   while( !missing.empty() && std::chrono::steady_clock::now() < deadline ) {
      pollfd ready{ output.fd(), POLLIN, 0 };
      if( poll( &ready, 1, 1000 ) > 0 )
         output.process();
   }
   source.withdraw(); // a daemon that means to come back leaves this out
   if( missing.empty() )
      return 0;
   std::cerr << "not in the output in time: " << *missing.begin() << " and others\n";
   return 1;
}

} // namespace

int main( int argc, char** argv ) {
   try {
      return run( argc > 1 ? argv[ 1 ] : "/run/l2rib" );
   } catch( const std::exception& failure ) { // PublishRefused and Vexil::TableError too
      std::cerr << "source_daemon: " << failure.what() << '\n';
      return 1;
   }
}
