// l2rib-evpn between real BGP speakers, in network namespaces: a leaf of ours with gobgpd, a leaf
// of FRR, and an FRR route reflector between them. FRR and the kernels are the witnesses.
#include "tests/NetworkSupport.h"

#include <filesystem>

namespace {

using namespace NetworkSupport;

const std::string target = "65000:10010";

class EvpnTest : public ProcessTest {
 protected:
   void SetUp() override {
      REQUIRE_ROOT();
      if( !std::filesystem::exists( std::string( DAEMONS_FOLDER ) + "/complete" ) )
         GTEST_SKIP() << "scripts/routing-daemons has not unpacked gobgpd and FRR";
      reflector = std::make_unique<Namespace>( "rr" );
      reflector->run( "ip link add wire type bridge; ip addr add 192.0.2.254/24 dev wire; "
                      "ip link set wire up" );
      startFrr( *reflector, "rr", "192.0.2.254",
                " neighbor L peer-group\n neighbor L remote-as 65000\n"
                " neighbor L timers connect 1\n neighbor 192.0.2.1 peer-group L\n"
                " neighbor 192.0.2.2 peer-group L\n neighbor 192.0.2.3 peer-group L\n",
                "  neighbor L activate\n  neighbor L route-reflector-client\n" );
      here = join( "here", 1 );
      there = join( "there", 2 );
      startFrrLeaf( *there, "there", "192.0.2.2" );
      startSpeaker();
      startAgent();
      startBridge();
      startEvpn();
      expectSoon( std::string( "complete" ), [ & ] { return phase(); } );
   }

   // A leaf on the wire, with the devices of VLAN 10.
   std::unique_ptr<Namespace> join( const std::string& name, unsigned number ) {
      auto space = std::make_unique<Namespace>( name );
      const std::string last = std::to_string( number );
      space->run( "ip link add under type veth peer name w" + last + " netns " + reflector->name() +
                  "; ip addr add 192.0.2." + last + "/24 dev under; ip link set under up" );
      reflector->run( "ip link set w" + last + " master wire up" );
      space->makeDevices( "192.0.2." + last );
      return space;
   }
   Words daemon( const Namespace& space, const std::string& name, Words words ) {
      std::filesystem::create_directories( folder.file( name ) );
      words.insert( words.begin(), { DAEMONS_PATH, "run", space.name(), folder.file( name ) } );
      return words;
   }
   void startFrr( const Namespace& space, const std::string& name, const std::string& router,
                  const std::string& neighbours, const std::string& family ) {
      std::filesystem::create_directories( folder.file( name ) );
      TestSupport::replace( folder.file( name ) + "/zebra.conf", "hostname " + name + "\n" );
      TestSupport::replace( folder.file( name ) + "/bgpd.conf",
                            "router bgp 65000\n bgp router-id " + router +
                               "\n no bgp default ipv4-unicast\n" + neighbours +
                               " address-family l2vpn evpn\n" + family + " exit-address-family\n" );
      frr.push_back( std::make_unique<Program>( folder, daemon( space, name, { "zebra" } ) ) );
      EXPECT_TRUE( waitFor(
         [ & ] { return std::filesystem::exists( folder.file( name ) + "/zserv.api" ); }, 20 ) );
      frr.push_back( std::make_unique<Program>( folder, daemon( space, name, { "bgpd" } ) ) );
   }
   // That sees hosts move as often as they like.
   void startFrrLeaf( const Namespace& space, const std::string& name, const std::string& router ) {
      startFrr( space, name, router,
                " neighbor 192.0.2.254 remote-as 65000\n neighbor 192.0.2.254 timers connect 1\n",
                "  neighbor 192.0.2.254 activate\n  advertise-all-vni\n"
                "  no dup-addr-detection\n" );
   }
   void startSpeaker( bool restarted = false ) {
      TestSupport::replace(
         folder.file( "gobgpd.toml" ),
         "[global.config]\nas = 65000\nrouter-id = \"192.0.2.1\"\n[[neighbors]]\n"
         "[neighbors.config]\nneighbor-address = \"192.0.2.254\"\npeer-as = 65000\n"
         "[neighbors.timers.config]\nconnect-retry = 1\n"
         "[neighbors.graceful-restart.config]\nenabled = true\nrestart-time = 60\n"
         "[[neighbors.afi-safis]]\n[neighbors.afi-safis.config]\nafi-safi-name = \"l2vpn-evpn\"\n"
         "[neighbors.afi-safis.mp-graceful-restart.config]\nenabled = true\n" );
      Words words{ "gobgpd", "-f", folder.file( "gobgpd.toml" ), "--api-hosts", "127.0.0.1:50051" };
      if( restarted )
         words.push_back( "-r" );
      speaker = std::make_unique<Program>( folder, daemon( *here, "speaker", words ) );
   }
   void startBridge() {
      bridge = std::make_unique<Program>(
         folder, here->inside( { BRIDGE_PATH, "--state-dir", state, "--bridge", "10=br10" } ) );
   }
   void startEvpn( Words more = {} ) {
      Words words = here->inside(
         { EVPN_PATH, "--state-dir", state, "--vtep", "192.0.2.1", "--vni", "10=10010" } );
      words.insert( words.end(), more.begin(), more.end() );
      evpn = std::make_unique<Program>( folder, words );
   }
   // The tables may still tell of the run before.
   void awaitComplete() {
      expectSoon( true, [ & ] { return evpn->err().find( "complete" ) != std::string::npos; } );
   }
   void kill( std::unique_ptr<Program>& program ) {
      program->signal( SIGKILL );
      program->status();
   }
   template<class Value, class Get>
   void expectSoon( const Value& wanted, Get get, double limit = 30 ) {
      Value found = get();
      EXPECT_TRUE( waitFor( [ & ] { return ( found = get() ) == wanted; }, limit ) )
         << "found: " << Json( found ).dump( 1 ) << "\nwanted: " << Json( wanted ).dump( 1 )
         << ( evpn ? evpn->err() : "" );
   }

   // --- what is asked
   Json shown() { return json( { "show", "evpn" } ); }
   std::string phase() {
      const Json all = json( { "show", "evpn" }, std::nullopt );
      return all.is_object() ? all[ "program" ][ "phase" ].get<std::string>() : "";
   }
   Json json( Words words, std::optional<int> status = 0 ) {
      words.push_back( "--json" );
      const Result result = ctl( words );
      EXPECT_TRUE( !status || result.status == *status ) << result.err;
      return Json::parse( result.out, nullptr, false );
   }
   // The kernel of FRR's leaf: "vx10 192.0.2.1", "p1".
   std::string at( const Namespace& space, unsigned number ) {
      return space.forwarding()[ mac( number ) ];
   }
   std::string gobgp( const std::string& words ) {
      return outputOf( std::string( DAEMONS_PATH ) + " run " + here->name() + " " +
                       folder.file( "speaker" ) + " gobgp " + words );
   }
   // The configuration of an FRR leaf, changed; each line after the one that it belongs to.
   void configure( const Namespace& space, const std::string& name, const Words& lines ) {
      std::string words = " -c \"configure terminal\"";
      for( const std::string& line : lines )
         words += " -c \"" + line + "\"";
      outputOf( std::string( DAEMONS_PATH ) + " run " + space.name() + " " + folder.file( name ) +
                " vtysh" + words );
   }
   // What our speaker has told its peer so far.
   Json updatesSent() {
      const Json peers = Json::parse( gobgp( "neighbor -j" ) );
      return peers[ 0 ][ "state" ][ "messages" ][ "sent" ][ "update" ];
   }
   // A route of another leaf, put into our speaker by hand: "macadv ... rt ... encap vxlan".
   void inject( const std::string& route, const std::string& pe, const char* what = "add" ) {
      gobgp( std::string( "global rib " ) + what + " -a evpn " + route + " nexthop " + pe );
   }
   // Hosts of another leaf, put there by the API.
   void injectHosts( unsigned first, unsigned count, const std::string& pe, unsigned seqNo,
                     const char* what = "announce", unsigned vni = 10010 ) {
      if( !injector )
         injector = std::make_unique<Program>(
            folder, here->inside( { INJECTOR_PATH, "127.0.0.1:50051" } ) );
      const size_t before = injector->count( "done" );
      injector->write( std::string( what ) + " " + std::to_string( first ) + " " +
                       std::to_string( count ) + " " + pe + " " + std::to_string( seqNo ) + " " +
                       std::to_string( vni ) + "\n" );
      injector->expectOut( "done", before + 1 );
   }
   size_t routesOf( unsigned number ) {
      return occurrences( mac( number ), gobgp( "global rib -a evpn" ) );
   }
   uint64_t otherTargets() {
      return shown()[ "program" ][ "notTaken" ].value( "other route target", uint64_t( 0 ) );
   }
   static uint64_t residentOf( const Program& program ) { // bytes; "ip" has become the program
      std::ifstream lines( "/proc/" + std::to_string( program.id() ) + "/status" );
      for( std::string line; std::getline( lines, line ); )
         if( line.starts_with( "VmRSS:" ) )
            return std::stoull( line.substr( 6 ) ) * 1024;
      return 0;
   }
   Json hostRow( unsigned number ) {
      const Json rows = json( { "show", "hosts", "--mac", mac( number ) } );
      return rows.empty() ? Json() : rows[ 0 ];
   }
   std::string won( unsigned number ) {
      const Json row = hostRow( number );
      return row.is_null() ? "none"
                           : row[ "sourceName" ].get<std::string>() + " " + row[ "seqNo" ].dump();
   }

   std::unique_ptr<Namespace> host( unsigned number, const Namespace& first );

   std::unique_ptr<Namespace> reflector;
   std::unique_ptr<Namespace> here;
   std::unique_ptr<Namespace> there;
   std::vector<std::unique_ptr<Program>> frr;
   std::unique_ptr<Program> speaker;
   std::unique_ptr<Program> bridge;
   std::unique_ptr<Program> evpn;
   std::unique_ptr<Program> injector;
};

// Each kind of route in both directions; then all of ours are killed and started again, and no peer
// hears of it.
TEST_F( EvpnTest, EachRouteBothWays ) {
   // From FRR: a learned one, a static one, one with an address beside it; its flood member.
   there->run( "bridge fdb add " + mac( 1 ) + " dev p1 master dynamic; bridge fdb add " + mac( 2 ) +
               " dev p1 master static sticky; bridge fdb add " + mac( 3 ) +
               " dev p1 master dynamic; ip neigh add 10.0.0.3 lladdr " + mac( 3 ) + " dev br10" );
   for( unsigned number = 1; number <= 3; ++number )
      expectSoon( std::string( "vx10 192.0.2.2" ), [ & ] { return at( *here, number ); } );
   EXPECT_EQ( hostRow( 1 )[ "pref" ], 100 );
   EXPECT_EQ( hostRow( 2 )[ "pref" ], 101 );
   expectSoon( std::multiset<std::string>{ "192.0.2.2" }, [ & ] { return here->flood(); } );
   there->run( "ip neigh del 10.0.0.3 dev br10" ); // one of its two routes
   expectSoon( Json( 1 ), [ & ] { return Json( routesOf( 3 ) ); } );
   EXPECT_EQ( at( *here, 3 ), "vx10 192.0.2.2" );
   there->run( "bridge fdb del " + mac( 3 ) + " dev p1 master" );
   expectSoon( std::string( "none" ), [ & ] { return won( 3 ); } );

   // To FRR: a learned one, a configured one, the flood member.
   here->run( "bridge fdb add " + mac( 11 ) + " dev p1 master dynamic" );
   EXPECT_EQ(
      ctl( { "config", "set", "10", mac( 12 ), "--interface", here->index( "p2" ) } ).status, 0 );
   expectSoon( std::string( "vx10 192.0.2.1" ), [ & ] { return at( *there, 11 ); } );
   expectSoon( std::string( "static vx10 192.0.2.1" ), [ & ] { return at( *there, 12 ); } );
   expectSoon( std::multiset<std::string>{ "192.0.2.1" }, [ & ] { return there->flood(); } );

   // Of several leaves: the mobility number, then the lowest next hop; aliasing; what is not taken.
   injectHosts( 21, 1, "192.0.2.33", 0 );
   injectHosts( 21, 1, "192.0.2.32", 0 );
   expectSoon( std::string( "vx10 192.0.2.32" ), [ & ] { return at( *here, 21 ); } );
   injectHosts( 21, 1, "192.0.2.34", 3 );
   expectSoon( std::string( "vx10 192.0.2.34" ), [ & ] { return at( *here, 21 ); } );
   EXPECT_EQ( won( 21 ), "evpn 3" );
   const std::string segment = " esi ARBITRARY 11:22:33:44:55:66:77:88:99 ";
   const auto perSegment = [ & ]( const std::string& pe ) {
      return "a-d" + segment + "etag 4294967295 label 0 rd " + pe + ":1 rt " + target +
             " esi-label 0";
   };
   for( const std::string pe : { "192.0.2.32", "192.0.2.33" } ) {
      inject( "a-d" + segment + "etag 0 label 10010 rd " + pe + ":10 rt " + target + " encap vxlan",
              pe );
      inject( perSegment( pe ), pe );
   }
   inject( "macadv " + mac( 22 ) + " 0.0.0.0" + segment +
              "etag 0 label 10010 rd 192.0.2.32:10 rt " + target + " encap vxlan",
           "192.0.2.32" );
   expectSoon( std::string( "vx10 192.0.2.32 192.0.2.33" ), [ & ] { return at( *here, 22 ); } );
   inject( perSegment( "192.0.2.32" ), "192.0.2.32", "del" );
   expectSoon( std::string( "vx10 192.0.2.33" ), [ & ] { return at( *here, 22 ); } );
   inject( "prefix 10.9.0.0/24 etag 0 label 10 rd 192.0.2.32:9 rt " + target, "192.0.2.32" );
   inject( "macadv " + mac( 23 ) + " 0.0.0.0 etag 0 label 7 rd 192.0.2.32:9 rt 65000:7",
           "192.0.2.32" );
   inject( "macadv " + mac( 24 ) + " 0.0.0.0 etag 5 label 7 rd 192.0.2.32:9 rt " + target,
           "192.0.2.32" );
   expectSoon( Json( 1 ), [ & ] {
      return shown()[ "program" ][ "notTaken" ].value( "Ethernet tag not supported", Json( 0 ) );
   } );
   const Json reasons = shown()[ "program" ][ "notTaken" ];
   EXPECT_EQ( reasons[ "other route target" ], 1 );
   EXPECT_GE( reasons[ "route type not supported" ], 1 );

   // A route refresh, and all of ours killed and started again: no ripple on either side.
   const auto forwarding = here->forwarding();
   const auto far = there->forwarding();
   Program monitor( folder, here->inside( { "/sbin/bridge", "monitor", "fdb" } ) );
   const Json sent = updatesSent();
   gobgp( "neighbor 192.0.2.254 softresetin" );
   for( std::unique_ptr<Program>* const program : { &evpn, &agent, &bridge } ) {
      kill( *program );
      EXPECT_EQ( shown()[ "program" ][ "running" ], program != &evpn );
      if( program == &evpn )
         startEvpn();
      else if( program == &agent )
         startAgent();
      else
         startBridge();
      settle();
      awaitComplete();
   }
   expectSoon( true, [ & ] { return bridge->err().find( "in sync" ) != std::string::npos; } );
   EXPECT_EQ( here->forwarding(), forwarding );
   EXPECT_EQ( there->forwarding(), far );
   EXPECT_EQ( monitor.out(), "" );
   EXPECT_EQ( updatesSent(), sent );
   const Json routes = shown()[ "routes" ];
   EXPECT_EQ( routes[ 1 ][ "announced" ], 2 );
   EXPECT_EQ( routes[ 2 ][ "announced" ], 1 );
}

// A machine with an interface to either leaf, of which one is in use: its address is that of hb.
std::unique_ptr<Namespace> EvpnTest::host( unsigned number, const Namespace& first ) {
   auto space = std::make_unique<Namespace>( "h" + std::to_string( number ) );
   const std::string last = std::to_string( number );
   space->run( "ip link add hb type bridge; ip link set hb address " + mac( number ) +
               "; ip addr add 10.0.0." + last + "/24 dev hb; ip link set hb up" );
   for( const Namespace* const leaf : { here.get(), there.get() } ) {
      const std::string port = leaf == here.get() ? "here" : "there";
      space->run( "ip link add " + port + " type veth peer name h" + last + " netns " +
                  leaf->name() + "; ip link set " + port + " up" );
      leaf->run( "ip link set h" + last + " master br10 up" );
   }
   space->run( "ip link set " + std::string( &first == here.get() ? "here" : "there" ) +
               " master hb" );
   return space;
}

// A host moves between our leaf and FRR's: each time its number is one more, frames come through
// soon, and it stays where it is.
TEST_F( EvpnTest, HostsMove ) {
   const auto fixed = host( 2, *there );
   const auto moving = host( 1, *here );
   const std::string ping = "ping -q -c 1 -w 20 10.0.0.2";
   moving->run( ping );
   expectSoon( std::string( "vx10 192.0.2.1" ), [ & ] { return at( *there, 1 ); } );
   for( unsigned move = 1; move <= 4; ++move ) {
      const bool away = move % 2 == 1;
      moving->run( std::string( "ip link set " ) + ( away ? "here" : "there" ) +
                   " nomaster; ip link set " + ( away ? "there" : "here" ) + " master hb; " +
                   ping );
      const std::string number = std::to_string( move );
      expectSoon( ( away ? "evpn " : "bridge " ) + number, [ & ] { return won( 1 ); } );
      expectSoon( std::string( away ? "vx10 192.0.2.2" : "h1" ), [ & ] { return at( *here, 1 ); } );
      // FRR leaves its entry of the device behind; the bridge's is what counts.
      expectSoon( std::string( away ? "h1" : "vx10" ), [ & ] {
         const std::string leads = at( *there, 1 );
         return leads.substr( 0, leads.find( ' ' ) );
      } );
      expectSoon( size_t( 1 ), [ & ] { return routesOf( 1 ); } );
   }
   // Two machines with one address: FRR would let it go on for ever, so our leaf ends it (RFC 7432,
   // section 15.1). It says so once, takes its route back, and what the other leaf says stays.
   const auto double1 = host( 9, *here );
   const auto double2 = host( 10, *there );
   double2->run( "ip link set hb address " + mac( 9 ) );
   const auto speak = [ & ] {
      double1->run( "ping -q -c 1 -W 0.1 10.0.0.2", true );
      double2->run( "ping -q -c 1 -W 0.1 10.0.0.2", true );
   };
   const auto refused = [ & ] {
      speak();
      return json( { "show", "bridge" } )[ "refused" ];
   };
   EXPECT_TRUE( waitFor( [ & ] { return !refused().empty(); }, 60 ) );
   expectIn( refused().dump(), mac( 9 ) );
   expectSoon( std::string( "evpn" ), [ & ] { return won( 9 ).substr( 0, 4 ); } );
   const std::string last = won( 9 );
   const Json sent = updatesSent();
   for( unsigned i = 0; i < 20; ++i )
      speak();
   EXPECT_EQ( won( 9 ), last );
   EXPECT_EQ( updatesSent(), sent );
   EXPECT_EQ( occurrences( "duplicate address (" + mac( 9 ), bridge->err() ), 1u ) << bridge->err();
}

// A ping through the ends of our programs; then gobgpd is away while another leaf takes a route
// back, and its other routes stay in our kernel all the time. (FRR 8.4 keeps no EVPN routes of a
// peer that restarts: what is lost then is lost over there.)
TEST_F( EvpnTest, ProcessesDie ) {
   const auto near = host( 1, *here );
   const auto far = host( 2, *there );
   there->run( "bridge fdb add " + mac( 31 ) + " dev p1 master dynamic" );
   near->run( "ping -q -c 1 -w 20 10.0.0.2" );
   expectSoon( std::string( "vx10 192.0.2.2" ), [ & ] { return at( *here, 31 ); } );
   expectSoon( std::string( "vx10 192.0.2.1" ), [ & ] { return at( *there, 1 ); } );
   const Words echo =
      near->inside( { "/bin/ping", "-q", "-i", "0.01", "-c", "1000000", "10.0.0.2" } );
   Program ping( folder, echo );
   // What is not answered is none of this leaf's; so nobody may have to ask for addresses.
   near->run( "ip neigh replace 10.0.0.2 lladdr " + mac( 2 ) + " dev hb nud permanent" );
   kill( evpn );
   kill( agent );
   kill( bridge );
   startEvpn();
   startAgent();
   startBridge();
   settle();
   expectSoon( true, [ & ] { return bridge->err().find( "in sync" ) != std::string::npos; } );
   awaitComplete();
   endWithoutLoss( ping );

   Program monitor( folder, here->inside( { "/sbin/bridge", "monitor", "fdb" } ) );
   const unsigned before = far->echoes();
   Program oneWay( folder, echo );
   kill( speaker );
   expectSoon( std::string( "connecting" ), [ & ] { return phase(); } );
   expectSoon( true, [ & ] { return shown()[ "program" ][ "stale" ] >= 3; } );
   there->run( "bridge fdb del " + mac( 31 ) + " dev p1 master" );
   kill( evpn ); // and it does not even know what was there
   startEvpn();
   startSpeaker( true );
   expectSoon(
      std::string( "complete" ), [ & ] { return phase(); }, 60 );
   expectSoon( std::string( "" ), [ & ] { return at( *here, 31 ); } );
   expectSoon( true, [ & ] { return shown()[ "program" ][ "stale" ] == 0; } );
   EXPECT_EQ( at( *here, 2 ), "vx10 192.0.2.2" );
   EXPECT_EQ( monitor.out().find( mac( 2 ) ), std::string::npos ) << monitor.out();
   expectSoon( std::string( "vx10 192.0.2.1" ), [ & ] { return at( *there, 1 ); } );
   const unsigned sent = ended( oneWay ).sent;
   EXPECT_LE( sent - ( far->echoes() - before ), 1u ) << "of " << sent << " on their way there";

   // One that hangs keeps its connections; it is noticed all the same.
   const size_t held = here->forwarding().size();
   speaker->signal( SIGSTOP );
   expectSoon( std::string( "connecting" ), [ & ] { return phase(); } );
   EXPECT_EQ( shown()[ "program" ][ "fault" ], "gobgpd does not answer" );
   EXPECT_EQ( here->forwarding().size(), held );
   speaker->signal( SIGCONT );
   expectSoon( std::string( "complete" ), [ & ] { return phase(); } );

   // Nobody says that he is through: the stale time is what ends it.
   kill( evpn );
   kill( speaker );
   here->run( "ip link set under down" );
   startEvpn( { "--stale-time", "2" } );
   expectSoon( std::string( "connecting" ), [ & ] { return phase(); } );
   EXPECT_EQ( at( *here, 2 ), "vx10 192.0.2.2" );
   startSpeaker();
   expectSoon( std::string( "" ), [ & ] { return at( *here, 2 ); } );
}

// Many routes at once, and gone at once: the kernel has in the end what the speaker has.
TEST_F( EvpnTest, ManyRoutes ) {
   constexpr unsigned many = 4000; // gobgpd 3.10 takes a time that grows with the square
   injectHosts( 0x1000, many, "192.0.2.33", 0 );
   here->run( "bridge fdb add " + mac( 5 ) + " dev p1 master dynamic" ); // not held up by them
   expectSoon( std::string( "vx10 192.0.2.1" ), [ & ] { return at( *there, 5 ); } );
   const auto inKernel = [ & ] {
      size_t found = 0;
      for( const auto& [ address, leads ] : here->forwarding() )
         found += leads == "vx10 192.0.2.33";
      return found;
   };
   expectSoon( size_t( many ), inKernel, 60 );
   injectHosts( 0x1000, many / 2, "192.0.2.33", 0, "withdraw" );
   expectSoon( size_t( many / 2 ), inKernel, 60 );
   EXPECT_EQ( shown()[ "routes" ][ 1 ][ "taken" ], many / 2 );
}

// Route targets and route distinguishers other than those that both sides derive; what was
// announced under the derived ones goes.
TEST_F( EvpnTest, TargetsAsConfigured ) {
   here->run( "bridge fdb add " + mac( 11 ) + " dev p1 master dynamic" );
   there->run( "bridge fdb add " + mac( 1 ) + " dev p1 master dynamic" );
   expectSoon( std::string( "vx10 192.0.2.1" ), [ & ] { return at( *there, 11 ); } );
   expectSoon( std::string( "vx10 192.0.2.2" ), [ & ] { return at( *here, 1 ); } );
   configure( *there, "there",
              { "router bgp 65000", "address-family l2vpn evpn", "vni 10010", "rd 192.0.2.2:77",
                "route-target import 65001:5", "route-target export 65001:5" } );
   expectSoon( std::string( "none" ), [ & ] { return won( 1 ); } );
   expectSoon( std::string( "p1" ), [ & ] { return at( *here, 11 ); } );
   kill( evpn );
   startEvpn( { "--rt", "10=65000:10010", "--rt", "10=65001:5", "--rd", "10=192.0.2.1:999" } );
   expectSoon( std::string( "vx10 192.0.2.2" ), [ & ] { return at( *here, 1 ); } );
   expectSoon( std::string( "vx10 192.0.2.1" ), [ & ] { return at( *there, 11 ); } );
   expectSoon( std::multiset<std::string>{ "192.0.2.1" }, [ & ] { return there->flood(); } );
   expectSoon( size_t( 1 ), [ & ] { return routesOf( 11 ); } );
   const std::string all = gobgp( "global rib -a evpn" );
   EXPECT_EQ( occurrences( "192.0.2.1:999", all ), 2u ) << all;
   EXPECT_EQ( occurrences( "192.0.2.1:10]", all ), 0u ) << all;
}

// Routes that are not imported are not kept, however many. (Of type 3, for which gobgpd needs no
// more time the more there are.)
TEST_F( EvpnTest, FloodOfOthersRoutes ) {
   constexpr unsigned many = 50000;
   const auto flood = [ & ]( const std::string& pe ) {
      const uint64_t before = otherTargets();
      injectHosts( 0, many, pe, 0, "flood", 7 );
      expectSoon(
         before + many, [ & ] { return otherTargets(); }, 60 );
   };
   flood( "192.0.2.33" );
   const uint64_t memory = residentOf( *evpn );
   flood( "192.0.2.34" );
   EXPECT_LT( residentOf( *evpn ), memory + many * 50 );
   there->run( "bridge fdb add " + mac( 1 ) + " dev p1 master dynamic" );
   expectSoon( std::string( "vx10 192.0.2.2" ), [ & ] { return at( *here, 1 ); } );
}

} // namespace
