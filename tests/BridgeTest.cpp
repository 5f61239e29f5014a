// l2rib-bridge against a real kernel, in network namespaces: bridge(8) and ip(8) are the witnesses.
#include "tests/BridgeOutput.h"

namespace {

using namespace BridgeSupport;

class BridgeTest : public ProcessTest {
 protected:
   void startBridge( const Namespace& space, Words more = {} ) {
      Words words = space.inside( { BRIDGE_PATH, "--state-dir", state, "--bridge", "10=br10" } );
      words.insert( words.end(), more.begin(), more.end() );
      bridge = std::make_unique<Program>( folder, words );
      awaitLog( "running on" );
   }
   void awaitLog( const std::string& text ) {
      EXPECT_TRUE(
         waitFor( [ & ] { return bridge->err().find( text ) != std::string::npos; }, patience ) )
         << bridge->err();
   }
   void kill( std::unique_ptr<Program>& program ) {
      program->signal( SIGKILL );
      program->status();
   }
   // Waits until what is asked for is what is wanted.
   template<class Value, class Get>
   void expectSoon( const Value& wanted, Get get ) {
      Value found = get();
      EXPECT_TRUE( waitFor( [ & ] { return ( found = get() ) == wanted; }, 20 ) )
         << "found: " << Json( found ).dump( 1 ) << "\nwanted: " << Json( wanted ).dump( 1 )
         << ( bridge ? bridge->err() : "" );
   }
   void expectForwarding( const Namespace& space, const Forwarding& wanted ) {
      expectSoon( wanted, [ & ] { return space.forwarding(); } );
   }
   // One frame from that address enters the bridge by p1: a request that needs no ARP, which would
   // try again.
   static void frameFrom( const Namespace& space, unsigned number ) {
      space.run( "ip link set q1 address " + mac( number ) +
                    "; ip addr replace 10.9.9.1/24 dev q1; ip neigh replace 10.9.9.2 lladdr "
                    "0e:00:00:00:00:01 dev q1 nud permanent; "
                    "ping -q -c 1 -W 0.1 10.9.9.2 || true",
                 true );
   }
   Json row() { return json( { "show", "bridge" } )[ "bridges" ][ 0 ]; }
   std::map<std::string, std::string> refused() {
      std::map<std::string, std::string> all;
      const Json shown = json( { "show", "bridge" } );
      for( const Json& entry : shown[ "refused" ] )
         all[ entry[ "mac" ].get<std::string>() ] = entry[ "reason" ].get<std::string>();
      return all;
   }

   std::unique_ptr<Program> bridge;
};

// Each kind of destination, each refusal, and that a restart changes nothing.
TEST_F( BridgeTest, EachKindOfDestination ) {
   REQUIRE_ROOT();
   const Namespace space( "kinds" );
   space.makeDevices();
   space.run( "bridge fdb add 02:00:00:00:00:aa dev vx10 self dst 192.0.2.77; "
              "bridge fdb add 02:00:00:00:00:ab dev p2 master static; "
              "bridge fdb add 02:00:00:00:00:ac dev p2 master static" );
   startAgent();
   startBridge( space );
   Program evpn = source( "evpn", "0x40" );
   const std::string p1 = space.index( "p1" );
   publish( evpn,
            initialized( true ) + dest( 1, "192.0.2.11" ) + dest( 2, "192.0.2.12" ) +
               dest( 3, "192.0.2.13", 77 ) + R"({"op":"dest","id":4,"intf":{"id":)" + p1 + "}}\n" +
               R"({"op":"dest","id":5,"mpls":{"intf":1,"labels":[100]}})" + "\n" +
               R"({"op":"label","id":1,"label":16,"next":{"type":"dest","id":1}})" + "\n" +
               groupOf( 1, { { "dest", 1 }, { "dest", 2 } } ) + groupOf( 2, { { "lb", 1 } } ) +
               groupOf( 3, { { "dest", 1 }, { "dest", 3 } } ) + host( 1, 1, next( "dest", 1 ) ) +
               host( 2, 1, next( "lb", 1 ) ) + host( 3, 1, next( "lb", 2 ) ) +
               host( 4, 1, next( "dest", 3 ) ) + host( 5, 1, next( "dest", 4 ) ) +
               host( 6, 1, R"("inline":{"value":)" + p1 + "}" ) +
               host( 7, 1, R"("inline":{"vteps":["192.0.2.11"]})" ) +
               host( 8, 1, R"("inline":{"vteps":["192.0.2.11","192.0.2.14"]})" ) +
               host( 9, 1, next( "dest", 5 ) ) + host( 10, 1, next( "label", 1 ) ) +
               host( 11, 1, next( "lb", 3 ) ) + host( 12, 1, R"("inline":{"value":999})" ) +
               host( 0xab, 200, next( "dest", 1 ) ) + floodTo( "192.0.2.11" ) +
               floodTo( "192.0.2.12" ) + floodTo( "192.0.2.11", "01:00:5e:00:00:01" ) );
   const Forwarding wanted{ { mac( 1 ), "vx10 192.0.2.11" },
                            { mac( 2 ), "vx10 192.0.2.11 192.0.2.12" },
                            { mac( 3 ), "vx10 192.0.2.11 192.0.2.12" },
                            { mac( 4 ), "vx10 192.0.2.13 vni 77" },
                            { mac( 5 ), "static p1" },
                            { mac( 6 ), "static p1" },
                            { mac( 7 ), "vx10 192.0.2.11" },
                            { mac( 8 ), "vx10 192.0.2.11 192.0.2.14" },
                            { mac( 0xaa ), "no bridge entry: 192.0.2.77" },
                            { mac( 0xab ), "static p2" },
                            { mac( 0xac ), "static p2" } };
   expectForwarding( space, wanted );
   const std::multiset<std::string> floods{ "192.0.2.11", "192.0.2.12" };
   expectSoon( floods, [ & ] { return space.flood(); } );
   EXPECT_EQ( space.nexthops(), 3u + 3u ) << "a VTEP each, a set each";
   const std::map<std::string, std::string> reasons{
      { mac( 9 ), "an MPLS label stack" },
      { mac( 10 ), "a label" },
      { mac( 11 ), "a group with a VNI other than that of vx10" },
      { mac( 12 ), "interface 999 is no port of the bridge" },
      { mac( 0xab ), "the bridge has an entry of somebody else for this address" },
      { "01:00:5e:00:00:01", "a flood address other than ff:ff:ff:ff:ff:ff" } };
   expectSoon( reasons, [ & ] { return refused(); } );
   const Json shown = row();
   EXPECT_EQ( shown[ "wanted" ], 13 + 3 );
   EXPECT_EQ( shown[ "programmed" ], 8 + 2 );
   EXPECT_EQ( shown[ "refused" ], 5 + 1 );
   EXPECT_EQ( shown[ "vni" ], 10010 );
   EXPECT_EQ( shown[ "local" ], "192.0.2.1" );
   EXPECT_NE( ctl( { "explain", mac( 2 ), "10" } ).out.find( "kernel  br10 vx10 nexthop group" ),
              std::string::npos );

   // A restart touches nothing.
   Program monitor( folder, space.inside( { "/sbin/bridge", "monitor", "fdb" } ) );
   Program nexthops( folder, space.inside( { "/sbin/ip", "monitor", "nexthop" } ) );
   kill( bridge );
   EXPECT_NE( ctl( { "show", "bridge" } ).err.find( "l2rib-bridge is stopped since" ),
              std::string::npos );
   startBridge( space );
   awaitLog( "in sync" );
   kill( agent );
   startAgent();
   settle();
   bridge->signal( SIGTERM );
   EXPECT_EQ( bridge->status(), 0 );
   EXPECT_EQ( space.forwarding(), wanted );
   EXPECT_EQ( monitor.out() + nexthops.out(), "" );

   // What went meanwhile is taken out; what is not ours stays.
   publish( evpn, R"({"op":"clear"})"
                  "\n" );
   startBridge( space );
   expectForwarding( space, { { mac( 0xaa ), "no bridge entry: 192.0.2.77" },
                              { mac( 0xab ), "static p2" },
                              { mac( 0xac ), "static p2" } } );
   expectSoon( std::multiset<std::string>(), [ & ] { return space.flood(); } );
   expectSoon( size_t( 0 ), [ & ] { return space.nexthops(); } );
}

// A foreign hand, lost notifications, devices that come and go.
TEST_F( BridgeTest, WhatGoesComesBack ) {
   REQUIRE_ROOT();
   const Namespace space( "drift" );
   startAgent();
   startBridge( space );
   Program evpn = source( "evpn", "0x40" );
   std::string operations = initialized( true ) + dest( 1, "192.0.2.11" ) + floodTo( "192.0.2.11" );
   Forwarding wanted;
   for( unsigned number = 1; number <= 2000; ++number ) {
      operations += host( number, 1, next( "dest", 1 ) );
      wanted[ mac( number ) ] = "vx10 192.0.2.11";
   }
   publish( evpn, operations );
   expectSoon( std::string( "no bridge br10" ),
               [ & ] { return row()[ "fault" ].dump().substr( 1, 14 ); } );
   space.makeDevices();
   expectForwarding( space, wanted );
   const auto kernelWrites = [ & ] {
      return json( { "show", "bridge" } )[ "program" ][ "writes" ];
   };
   space.run( "bridge fdb del " + mac( 1 ) + " dev vx10 self; bridge fdb del " + mac( 2 ) +
              " dev vx10 master; bridge fdb del 00:00:00:00:00:00 dev vx10 self" );
   EXPECT_TRUE( waitFor( [ & ] { return row()[ "repaired" ] == 3; }, 1 ) )
      << "within a second, by notification: the audit is far";
   expectForwarding( space, wanted );
   space.run( "bridge fdb del " + mac( 1 ) + " dev vx10 self; bridge fdb add " + mac( 1 ) +
                 " dev vx10 self extern_learn dst 192.0.2.66", // in the place of ours
              true );                                          // unless it is back already
   expectForwarding( space, wanted );
   expectSoon( Json( 4 ), [ & ] { return row()[ "repaired" ]; } );
   const Json before = kernelWrites();
   publish( evpn, dest( 1, "192.0.2.12" ) ); // all 2000 move with one write
   for( auto& [ address, to ] : wanted )
      to = "vx10 192.0.2.12";
   expectForwarding( space, wanted );
   expectSoon( Json( before.get<int>() + 1 ), kernelWrites );

   // It sleeps while more happens than the socket holds.
   bridge->signal( SIGSTOP );
   std::string flushed;
   for( unsigned number = 1; number <= 2000; ++number )
      flushed += "fdb del " + mac( number ) + " dev vx10 self\n";
   for( unsigned number = 0; number < 40000; ++number )
      flushed += "fdb add " + mac( 0x100000 + number ) + " dev p1 master dynamic\n";
   space.bridgeBatch( folder, flushed );
   space.run( "ip link set p1 nomaster; ip link set p1 master br10" ); // they go with it
   bridge->signal( SIGCONT );
   expectForwarding( space, wanted );
   expectSoon( true, [ & ] { return json( { "show", "bridge" } )[ "program" ][ "lost" ] > 0; } );

   space.run( "ip link del vx10" );
   expectSoon( Json( "no VXLAN port" ), [ & ] { return row()[ "fault" ]; } );
   EXPECT_EQ( row()[ "refused" ], 2001 );
   space.run( newVx10 );
   expectForwarding( space, wanted );
}

// Random changes, foreign hands and kills, both at once too, and the program's account of what it
// gave the kernel lost or damaged; after each round the kernel's dump is compared.
TEST_F( BridgeTest, RandomRunEndsAsTheOutputSays ) {
   REQUIRE_ROOT();
   const Namespace space( "random" );
   space.makeDevices();
   startAgent();
   startBridge( space, { "--audit", "2" } );
   Program evpn = source( "evpn", "0x40" );
   RandomOutput output;
   std::string operations = initialized( true );
   for( unsigned id = 1; id <= 6; ++id )
      operations += output.newDest( id );
   for( unsigned id = 1; id <= 4; ++id )
      operations += output.newGroup( id );
   for( int round = 0; round < 40 && !HasFailure(); ++round ) {
      const bool killed = output.random.percent( 30 );
      if( killed )
         kill( bridge );
      for( unsigned changes = output.random.below( 30 ); changes > 0; --changes )
         operations += output.change();
      evpn.write( std::exchange( operations, "" ) );
      std::string hand;
      if( output.random.percent( 60 ) )
         space.run( hand = output.foreignHand(), true );
      if( output.random.percent( 20 ) ) {
         kill( agent );
         startAgent();
      }
      if( killed ) {
         const std::string account = state + "/bridging/l2Rib/bridgeHosts";
         if( output.random.percent( 40 ) )
            TestSupport::replace( account, output.random.percent( 50 )
                                              ? std::string( 5000, 'x' )
                                              : bytesOf( account ).substr( 0, 5000 ) );
         startBridge( space, { "--audit", "2" } );
      }
      publish( evpn, "" );
      SCOPED_TRACE( "round " + std::to_string( round ) + ( killed ? ", killed: " : ": " ) + hand );
      const auto [ wanted, nexthops ] = output.wanted();
      expectForwarding( space, wanted );
      expectSoon( std::multiset<std::string>( output.floods.begin(), output.floods.end() ),
                  [ & ] { return space.flood(); } );
      expectSoon( nexthops.size(), [ & ] { return space.nexthops(); } );
   }
}

// What the bridge learns is published, wins over what the output had, and is withdrawn.
TEST_F( BridgeTest, LearnsAndMoves ) {
   REQUIRE_ROOT();
   const Namespace space( "learn" );
   space.makeDevices();
   startAgent();
   startBridge( space );
   Program evpn = source( "evpn", "0x40" );
   const std::string group = groupOf( 1, { { "dest", 1 } } );
   publish( evpn, initialized( true ) + dest( 1, "192.0.2.11" ) + group +
                     host( 1, 100, R"("seqNo":3,)" + next( "lb", 1 ) ) );
   expectForwarding( space, { { mac( 1 ), "vx10 192.0.2.11" } } );
   const auto won = [ & ]( unsigned number ) {
      const Json rows = json( { "show", "hosts", "--mac", mac( number ) } );
      return rows.empty()
                ? std::string( "none" )
                : rows[ 0 ][ "sourceName" ].get<std::string>() + " " + rows[ 0 ][ "seqNo" ].dump();
   };
   space.run( "bridge fdb add " + mac( 2 ) + " dev p1 master dynamic" );
   expectSoon( std::string( "bridge 0" ), [ & ] { return won( 2 ); } );
   frameFrom( space, 1 ); // it moves here
   expectSoon( std::string( "bridge 4" ), [ & ] { return won( 1 ); } );
   expectForwarding( space, { { mac( 1 ), "p1" }, { mac( 2 ), "p1" } } );
   kill( bridge );
   startBridge( space );
   awaitLog( "in sync" );
   EXPECT_EQ( won( 1 ), "bridge 4" );
   EXPECT_EQ( space.forwarding(), ( Forwarding{ { mac( 1 ), "p1" }, { mac( 2 ), "p1" } } ) );
   publish( evpn, host( 1, 100, R"("seqNo":5,)" + next( "lb", 1 ) ) ); // and away again
   expectForwarding( space, { { mac( 1 ), "vx10 192.0.2.11" }, { mac( 2 ), "p1" } } );
   space.run( "bridge fdb del " + mac( 2 ) + " dev p1 master" );
   expectSoon( std::string( "none" ), [ & ] { return won( 2 ); } );
   EXPECT_EQ( won( 1 ), "evpn 5" );
   // Elsewhere by a preference that no number beats: it is put back, and after six moves frozen.
   publish( evpn, host( 1, 200, R"("seqNo":5,)" + next( "lb", 1 ) ) );
   for( int round = 0; round < 6; ++round ) {
      frameFrom( space, 1 );
      expectForwarding( space, { { mac( 1 ), "vx10 192.0.2.11" } } );
   }
   expectSoon( true, [ & ] {
      const Json refused = json( { "show", "bridge" } )[ "refused" ];
      return refused.size() == 1 && refused[ 0 ][ "kind" ] == "duplicate";
   } );
}

// Two sites that ping each other with nothing but entries from the tables, while everything is
// killed; then a second VTEP shares the flows of the first.
TEST_F( BridgeTest, FramesFlowThroughKills ) {
   REQUIRE_ROOT();
   const Namespace here( "here" );
   const Namespace there( "there" );
   const Namespace other( "other" );
   const std::string wire = "ip link add wire type bridge; ip link set wire up";
   here.run( wire );
   const auto join = [ & ]( const Namespace& space, const std::string& number,
                            const std::string& last ) {
      space.run( "ip link add under type veth peer name w" + number + " netns " + here.name() +
                 "; ip addr add 192.0.2." + number + "/24 dev under; ip link set under up" );
      here.run( "ip link set w" + number + " master wire up" );
      space.makeDevices( "192.0.2." + number );
      space.run( "ip link set br10 address " + mac( std::stoul( last ) ) + "; ip addr add 10.0.0." +
                 last + "/24 dev br10" );
   };
   join( here, "1", "1" );
   join( there, "2", "2" );
   join( other, "3", "2" ); // the same address behind another VTEP
   other.run( "bridge fdb add " + mac( 1 ) + " dev vx10 self dst 192.0.2.1; bridge fdb add " +
              mac( 1 ) + " dev vx10 master static; ip neigh add 10.0.0.1 lladdr " + mac( 1 ) +
              " dev br10" );
   // The other side is programmed by an agent of its own, and left as it is.
   const std::string second = folder.file( "second" );
   {
      Program agentThere( folder, { L2RIBD_PATH, "--state-dir", second } );
      Program evpnThere( folder, { L2RIBCTL_PATH, "--state-dir", second, "source", "run", "evpn",
                                   "--value", "0x40" } );
      Program bridgeThere(
         folder, there.inside( { BRIDGE_PATH, "--state-dir", second, "--bridge", "10=br10" } ) );
      evpnThere.write( initialized( true ) + dest( 1, "192.0.2.1" ) +
                       host( 1, 1, next( "dest", 1 ) ) + floodTo( "192.0.2.1" ) );
      expectSoon( std::string( "vx10 192.0.2.1" ),
                  [ & ] { return there.forwarding()[ mac( 1 ) ]; } );
      bridgeThere.signal( SIGTERM );
      EXPECT_EQ( bridgeThere.status(), 0 );
   }
   startAgent();
   startBridge( here, { "--no-learn" } );
   Program evpn = source( "evpn", "0x40", { "--host-capacity", "20000" } );
   publish( evpn, initialized( true ) + dest( 1, "192.0.2.2" ) + dest( 2, "192.0.2.9" ) +
                     groupOf( 1, { { "dest", 1 } } ) + host( 2, 1, next( "lb", 1 ) ) +
                     floodTo( "192.0.2.2" ) );
   expectSoon( std::string( "vx10 192.0.2.2" ), [ & ] { return here.forwarding()[ mac( 2 ) ]; } );
   here.run( "ping -q -c 1 -w 10 10.0.0.2" );
   std::string many;
   for( unsigned number = 100; number < 10100; ++number )
      many += host( number, 1, next( "dest", 2 ) );
   const std::string changes = folder.file( "changes" );
   TestSupport::replace( changes, many + syncOp );
   Program ping( folder,
                 here.inside( { "/bin/ping", "-q", "-i", "0.005", "-c", "1000000", "10.0.0.2" } ) );
   Program monitor( folder, here.inside( { "/sbin/bridge", "monitor", "fdb" } ) );
   for( const unsigned killed : { 1, 2, 3 } ) { // the one, the other, both
      Program changing =
         source( "lab", "0x100", { "--host-capacity", "20000", "--keep" }, changes );
      if( killed & 1 )
         kill( bridge );
      if( killed & 2 )
         kill( agent );
      changing.status();
      if( killed & 2 )
         startAgent();
      if( killed & 1 )
         startBridge( here, { "--no-learn" } );
      settle();
      EXPECT_EQ( ctl( { "source", "delete", "lab" } ).status, 0 );
   }
   settle();
   awaitLog( "in sync" );
   // To one VTEP and another: one replacement.
   publish( evpn, dest( 1, "192.0.2.3" ) );
   expectSoon( std::string( "vx10 192.0.2.3" ), [ & ] { return here.forwarding()[ mac( 2 ) ]; } );
   publish( evpn, dest( 1, "192.0.2.2" ) );
   expectSoon( std::string( "vx10 192.0.2.2" ), [ & ] { return here.forwarding()[ mac( 2 ) ]; } );
   EXPECT_EQ( monitor.out().find( mac( 2 ) ), std::string::npos ) << "its entries were touched";
   endWithoutLoss( ping );

   publish( evpn, dest( 3, "192.0.2.3" ) + groupOf( 1, { { "dest", 1 }, { "dest", 3 } } ) );
   expectSoon( std::string( "vx10 192.0.2.2 192.0.2.3" ),
               [ & ] { return here.forwarding()[ mac( 2 ) ]; } );
   const auto received = []( const Namespace& space ) {
      return space.json( "ip -j -s link show vx10" )[ 0 ][ "stats64" ][ "rx" ][ "packets" ]
         .get<int>();
   };
   const int beforeThere = received( there );
   const int beforeOther = received( other );
   here.run( "for n in $(seq 2000 2200); do bash -c \"echo x >/dev/udp/10.0.0.2/$n\"; done" );
   EXPECT_TRUE( waitFor(
      [ & ] { return received( there ) + received( other ) >= beforeThere + beforeOther + 201; },
      10 ) );
   EXPECT_GT( received( there ), beforeThere + 20 );
   EXPECT_GT( received( other ), beforeOther + 20 );
}

} // namespace
