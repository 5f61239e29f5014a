// The static configuration between processes: written by l2ribctl, followed by the agent's process.
#include "L2Rib/ConfigRecords.h"
#include "bindings/Bindings.h"
#include "static/L2RibStaticHostSm.h"
#include "tests/ProcessSupport.h"

#include <algorithm>
#include <fstream>

namespace {

using namespace ProcessSupport;
using Bridging::ConfiguredHostRecord;
using Bridging::ConfiguredHostTable;
using Bridging::TunnelId;
using Bridging::TunnelTable;
using Vexil::EthAddr;

const std::string twoHosts = R"({"tunnels":[{"id":5,"source":"10.0.0.1","destination":"10.0.0.2"}],
"hosts":[{"vlan":10,"mac":"02:00:00:00:00:01","interface":5},
{"vlan":10,"mac":"02:00:00:00:00:02","label":1000,"tunnel":5}]})";

class ConfigTest : public ProcessTest {
 protected:
   Result apply( const std::string& document ) {
      return ctl( { "config", "apply", "-" }, document );
   }
   Json config() { return json( { "show", "config" } ); }
   std::string file( const std::string& name ) {
      return state + "/bridging/config/" + Bridging::configLink + "/" + name;
   }
   // A file with that content.
   std::string documentOf( const std::string& content ) {
      const std::string name = folder.file( "doc.json" );
      TestSupport::replace( name, content );
      return name;
   }
   // A document with that many hosts, each on the interface of its number plus offset.
   static std::string many( unsigned count, unsigned offset ) {
      std::string hosts;
      for( unsigned i = 1; i <= count; ++i )
         hosts += std::string( hosts.empty() ? "" : "," ) + R"({"vlan":)" +
                  std::to_string( 1 + i % 7 ) + R"(,"mac":")" + mac( i ) + R"(","interface":)" +
                  std::to_string( i + offset ) + "}\n";
      return R"({"hosts":[)" + hosts + "]}";
   }
};

// The agent's side, in this process: the entity, and the static source on it.
class Following {
 public:
   explicit Following( const std::string& state )
      : manager( Vexil::makeEntity<Vexil::EntityManager>( loop, state ) ) {
      [[maybe_unused]] static const bool registered = ( L2Rib::registerEntityTypes(), true );
      const auto group = manager->mountGroup(); // as at an agent's start
      group->doMount( L2Rib::Path::bridgingConfig, "Bridging::Config", "r" );
      group->doClose();
      config =
         dynamic_cast<Bridging::Config*>( manager->entity( L2Rib::Path::bridgingConfig ).get() );
      sm = Vexil::makeEntity<L2Rib::StaticHostSm>(
         manager, Vexil::makeEntity<L2Rib::AgentSourceDir>(), config );
   }
   uint32_t hosts() const { return sm->staticInputTable()->count(); }
   // "intf 5", "tunnel 5 label 1000"; "none".
   std::string host( unsigned number, uint32_t vlan ) const {
      const auto fdb = config->fdbConfig( Bridging::Fid( vlan ) );
      const auto* const found =
         fdb ? fdb->configuredHost( EthAddr( 0x020000000000 + number ) ) : nullptr;
      if( !found )
         return "none";
      return found->intf.str() +
             ( found->mplsLabel.valid() ? " label " + found->mplsLabel.str() : "" );
   }
   template<class Condition>
   bool until( Condition condition ) {
      return waitFor( [ & ] { return loop.turn( 0.01 ), condition(); } );
   }

   Vexil::ActivityManager loop;
   Vexil::Ptr<Vexil::EntityManager> manager;
   Vexil::Ptr<Bridging::Config> config;
   Vexil::Ptr<L2Rib::StaticHostSm> sm;
};

TEST_F( ConfigTest, CommandsSayWhatTheyDid ) {
   const struct {
      const char* words;
      int status;
      const char* error;
   } steps[] = {
      { "show config", 1, "there is no such state directory" },
      { "config set 10 02:00:00:00:00:01 --interface 5", 0, "" },
      { "show config", 0, "" },
      { "config set 10 02:00:00:00:00:01 --interface 6", 0, "" },
      { "config set 10 02:00:00:00:00:02 --label 1 --tunnel 5", 3, "tunnel 5 is not configured" },
      { "config tunnel 5 --source 10.0.0.1 --destination 2001:db8::1", 3, "of one family" },
      { "config tunnel 5 --source 10.0.0.1 --destination 10.0.0.2 --tos 256", 3, "0 to 255" },
      { "config tunnel 0 --source 10.0.0.1 --destination 10.0.0.2", 3, "1 or more" },
      { "config tunnel 5 --source 10.0.0.1", 2, "--destination" },
      { "config tunnel 5 --source 10.0.0.999 --destination 10.0.0.2", 2, "such as 10.0.0.1" },
      { "config tunnel 5 --source 10.0.0.1 --destination 10.0.0.2 --ttl 9", 0, "" },
      { "config set 10 02:00:00:00:00:02 --label 1048576 --tunnel 5", 3, "0 to 1048575" },
      { "config set 10 02:00:00:00:00:02 --label 1048575 --tunnel 5", 0, "" },
      { "config set 20 02:00:00:00:00:02 --label 0 --tunnel 5", 0, "" },
      { "config set 0 02:00:00:00:00:02 --interface 1", 3, "1 to 4094" },
      { "config set 4095 02:00:00:00:00:02 --interface 1", 3, "1 to 4094" },
      { "config set 10 01:00:00:00:00:02 --interface 1", 3, "a unicast address" },
      { "config set 10 00:00:00:00:00:00 --interface 1", 3, "a unicast address" },
      { "config set 10 2:0:0:0:0:2 --interface 1", 2, "such as 02:00:00:00:00:01" },
      { "config set 10 02:00:00:00:00:03", 2, "--interface" },
      { "config set 10 02:00:00:00:00:03 --label 7", 2, "--tunnel" },
      { "config set 10 02:00:00:00:00:03 --interface 1 --label 7 --tunnel 5", 2, "--interface" },
      { "config tunnel 5 --delete", 1, "used by host (02:00:00:00:00:02/10)" },
      { "config tunnel 6 --delete", 1, "tunnel 6 is not configured" },
      { "config delete 10 02:00:00:00:00:09", 1, "is not configured" },
      { "config delete 10 02:00:00:00:00:02", 0, "" },
      { "config delete-vlan 20", 0, "" },
      { "config delete-vlan 20", 1, "VLAN 20 has no configured hosts" },
      { "config tunnel 5 --delete", 0, "" },
      { "config apply nowhere.json", 1, "nowhere.json: reading: No such file" },
      { "config apply /", 1, "/: reading: Is a directory" },
   };
   for( const auto& step : steps ) {
      SCOPED_TRACE( step.words );
      std::istringstream in( step.words );
      const Words words{ std::istream_iterator<std::string>( in ), {} };
      const Result result = ctl( words );
      EXPECT_EQ( step.status, result.status );
      expectIn( result.err, step.error );
      EXPECT_EQ( *step.error != '\0', !result.err.empty() ) << result.err;
   }
   EXPECT_EQ( Json::parse( R"({"tunnels":[],"hosts":[{"vlan":10,"mac":"02:00:00:00:00:01",
                              "interface":6}]})" ),
              config() );
}

TEST_F( ConfigTest, RefusedDocumentChangesNothing ) {
   ASSERT_EQ( 0, apply( twoHosts ).status );
   const Json before = config();
   const std::string tunnel =
      R"({"tunnels":[{"id":5,"source":"10.0.0.1","destination":"10.0.0.2"}],)";
   const std::string host = R"({"vlan":10,"mac":"02:00:00:00:00:01",)";
   const struct {
      std::string document;
      Words errors; // all of them, each with its place
   } cases[] = {
      { "", { ":1:1: syntax error" } },
      { "{\n \"hosts\": [\n  12,,\n ]}",
        { ":3:6: syntax error while parsing value - unexpected ','" } },
      { "{\"hosts\":[]} x", { ":1:14: syntax error" } },
      { "[]", { ":1:1: this is a list; expected a document, {...}" } },
      { "{\"hosts\":[],\n\"host\":[]}",
        { ":2:1: unknown key \"host\"; a document takes tunnels, hosts" } },
      { "{\"hosts\":5}", { ":1:10: \"hosts\" is 5; expected a list" } },
      { "{\"hosts\":[\n" + host + "\"interface\":5},\n  7]}",
        { ":3:3: this is 7; expected a host" } },
      { "{\"hosts\":[" + host + "\n\"interface\":-5}]}",
        { ":2:13: \"interface\" is -5; expected" } },
      { "{\"hosts\":[\n" + host + "\"label\":5}]}",
        { ":2:1: this host has no \"tunnel\", and needs one" } },
      { "{\"hosts\":[{\"vlan\": 4095,\"mac\":\"02:00:00:00:00:01\",\"interface\":1}]}",
        { ":1:20: VLAN 4095 does not exist; expected 1 to 4094" } },
      { "{\"hosts\":[{\"vlan\":1,\"mac\":\"ff:ff:ff:ff:ff:ff\",\"interface\":1}]}",
        { ":1:27: MAC address ff:ff:ff:ff:ff:ff is a multicast address" } },
      { "{\"hosts\":[{\"vlan\":1,\"mac\":\"\xc3\xa4\",\"interface\":1},\n{\"vlan\":1,\"mac\":12,"
        "\"interface\":1}]}",
        { ":1:27: \"mac\" is \"\xc3\xa4\"; expected an address such as \"02:",
          ":2:17: \"mac\" is 12" } },
      { "{\"hosts\":[" + host + "\"interface\":1},\n" + host + "\"interface\":2}]}",
        { ":2:1: host (02:00:00:00:00:01/10) is already in line 1; expected once" } },
      { "{\"hosts\":[" + host + "\"interface\":1,\n\"vlan\":11}]}",
        { ":2:1: \"vlan\" stands twice" } },
      { tunnel + "\"hosts\":[\n" + host + "\"label\":5,\"tunnel\":6}]}",
        { ":2:57: tunnel 6 is not in this document" } },
      { tunnel + "\"hosts\":[\n" + host + "\"interface\":5,\"tunnel\":5}]}",
        { ":2:1: a host has either \"interface\", or" } },
      { "{\"tunnels\":[{\"id\":1,\"source\":\"10.0.0.1\",\n\"destination\":\"::1\"},\n"
        "{\"id\":1,\"source\":\"10.0.0.1\",\"destination\":\"10.0.0.2\",\"ttl\":256}]}",
        { ":2:15: destination ::1 and source 10.0.0.1", ":3:1: tunnel 1 is already in line 1",
          ":3:60: ttl 256; expected 0 to 255" } },
      { std::string( 100000, '[' ), { ":1:17: nested too deep" } },
      { "{\"hosts\":[\n " + host + "\"interface\":1e999}]}",
        { ":2:51: the number 1e999 is too large" } },
   };
   for( const auto& [ document, errors ] : cases ) {
      SCOPED_TRACE( document.substr( 0, 200 ) );
      const std::string name = documentOf( document );
      const Result result = ctl( { "config", "apply", name } );
      EXPECT_EQ( 3, result.status );
      for( const std::string& error : errors )
         expectIn( result.err, name + error );
      EXPECT_EQ( errors.size() + 1, // and that nothing was changed
                 static_cast<size_t>( std::count( result.err.begin(), result.err.end(), '\n' ) ) )
         << result.err;
   }
   EXPECT_EQ( before, config() );
}

TEST_F( ConfigTest, ApplyWritesOnlyWhatDiffers ) {
   EXPECT_EQ( "hosts: 2 set, 0 deleted; tunnels: 1 set, 0 deleted\n", apply( twoHosts ).out );
   EXPECT_EQ( "hosts: 0 set, 0 deleted; tunnels: 0 set, 0 deleted\n",
              apply( config().dump() ).out );
   const Json shown = json( { "show", "config", "--vlan", "10", "--mac", mac( 1 ) } );
   EXPECT_TRUE( shown[ "tunnels" ].empty() ) << "its hosts are on none";
   EXPECT_EQ( "hosts: 0 set, 1 deleted; tunnels: 0 set, 1 deleted\n", apply( shown.dump() ).out );
   EXPECT_EQ( shown, config() );
}

// Killed at each step of its way, and somewhere between: what is configured is what was before or
// what was to be, of hosts and tunnels alike, and nobody who follows it sees anything else.
TEST_F( ConfigTest, ApplyThatIsKilledIsAllOrNothing ) {
   constexpr unsigned count = 2000;
   const auto document = [ & ]( unsigned version ) { // all hosts change, and the tunnel
      const std::string hosts = many( count, version );
      return R"({"tunnels":[{"id":5,"source":"10.0.0.1","destination":"10.0.1.)" +
             std::to_string( version ) + R"("}],"hosts":[{"vlan":20,"mac":"02:00:00:00:00:01",)" +
             R"("label":)" + std::to_string( 100 + version ) + R"(,"tunnel":5},)" +
             hosts.substr( hosts.find( '[' ) + 1 );
   };
   ASSERT_EQ( 0, apply( document( 0 ) ).status );
   Following agent( state );
   const auto followed = [ & ] { // the version of what the agent's side knows; -1: of several
      const std::string tunnel = agent.config->tunnel( TunnelId( 5 ) )->destination.str();
      const std::string version = tunnel.substr( tunnel.rfind( '.' ) + 1 );
      return agent.host( 1, 20 ) == "tunnel 5 label " + std::to_string( 100 + std::stoi( version ) )
                ? std::stoi( version )
                : -1;
   };
   Json before = config();
   TestSupport::Random random;
   int taken = 0;
   const std::string folder = state + "/bridging/config";
   for( unsigned round = 1; round <= 60 && !HasFailure(); ++round ) {
      const std::string name = documentOf( document( round ) );
      const auto inForce = Bridging::configGeneration( folder );
      Program applying = start( L2RIBCTL_PATH, { "config", "apply", name } );
      // A folder of the next generation; one table, the other, in force, and then the end. Some
      // come to it, however slow the kill is.
      const size_t step = round % 6 == 0 ? SIZE_MAX : random.below( 5 );
      waitFor( [ & ] {
         size_t seen = Bridging::configGeneration( folder ) != inForce ? 4 : 0;
         std::error_code gone;
         for( std::filesystem::recursive_directory_iterator at( folder, gone ), end;
              !gone && at != end; at.increment( gone ) ) // folders go while they are read
            seen += at->path().string().find( inForce ) == std::string::npos &&
                    at->path().string().find( "/.tables." ) != std::string::npos;
         return seen > step || applying.ended();
      } );
      applying.signal( SIGKILL );
      applying.status();
      const Json after = config();
      ASSERT_EQ( after[ "hosts" ].size(), count + 1 );
      if( after != before ) {
         ASSERT_EQ( apply( document( round ) ).out,
                    "hosts: 0 set, 0 deleted; tunnels: 0 set, 0 deleted\n" );
         ++taken;
      }
      before = after;
      const int version = before[ "tunnels" ][ 0 ][ "destination" ].get<std::string>().back();
      EXPECT_TRUE( agent.until( [ & ] { return followed() % 10 == version - '0'; } ) );
   }
   EXPECT_GT( taken, 5 );
   EXPECT_LT( taken, 60 );
   ASSERT_EQ( 0, apply( twoHosts ).status );
   EXPECT_EQ( 3, std::distance( std::filesystem::directory_iterator( folder ), {} ) )
      << "the lock, the link and the generation in force";
}

TEST_F( ConfigTest, RacingCommandsLoseNothing ) {
   const auto series = [ & ]( const std::string& vlan ) {
      return Words{ "/bin/sh", "-c",
                    "i=10; while [ $i -lt 30 ]; do '" L2RIBCTL_PATH "' --state-dir '" + state +
                       "' config set " + vlan +
                       " 02:00:00:00:00:$i --interface $i || exit 1; i=$((i+1)); done" };
   };
   Program one( folder, series( "1" ) );
   Program two( folder, series( "2" ) );
   EXPECT_EQ( 0, one.status() ) << one.err();
   EXPECT_EQ( 0, two.status() ) << two.err();
   EXPECT_EQ( 40u, config()[ "hosts" ].size() );
}

TEST_F( ConfigTest, AgentFindsAndFollowsIt ) {
   { // before there is anything
      Following agent( state );
      EXPECT_EQ( 0u, agent.hosts() );
      ASSERT_EQ( 0, apply( twoHosts ).status );
      EXPECT_TRUE( agent.until( [ & ] { return agent.hosts() == 2; } ) );
      EXPECT_EQ( "intf 5", agent.host( 1, 10 ) );
      EXPECT_EQ( "tunnel 5 label 1000", agent.host( 2, 10 ) );
   }
   ctl( { "config", "delete", "10", mac( 1 ) } ); // while no agent runs
   Following agent( state );
   EXPECT_EQ( "none", agent.host( 1, 10 ) );
   EXPECT_EQ( 1u, agent.hosts() ) << "and none is left of the run before";
   ctl( { "config", "tunnel", "5", "--source", "10.0.0.1", "--destination", "10.0.0.9" } );
   EXPECT_TRUE( agent.until(
      [ & ] { return agent.config->tunnel( TunnelId( 5 ) )->destination.str() == "10.0.0.9"; } ) );
   // More than the tables had room for, and more than their journals hold; then other values.
   for( const unsigned offset : { 0, 1 } ) {
      ASSERT_EQ( 0, apply( many( 3000, offset ) ).status );
      EXPECT_TRUE( agent.until( [ & ] {
         return agent.hosts() == 3000 &&
                agent.host( 2999, 1 + 2999 % 7 ) == "intf " + std::to_string( 2999 + offset );
      } ) );
   }
   EXPECT_TRUE( agent.until( [ & ] { return agent.config->tunnel().empty(); } ) );
   for( unsigned i = 1; i <= 3000; ++i )
      EXPECT_EQ( "intf " + std::to_string( i + 1 ), agent.host( i, 1 + i % 7 ) );
   ctl( { "config", "delete-vlan", "3" } );
   EXPECT_TRUE( agent.until( [ & ] { return agent.hosts() == 3000 - 429; } ) );
   std::filesystem::remove( state + "/bridging/config/" + Bridging::configLink );
   EXPECT_TRUE( agent.until( [ & ] { return agent.hosts() == 0; } ) );
   ctl( { "config", "set", "4", mac( 7 ), "--interface", "7" } );
   EXPECT_TRUE( agent.until( [ & ] { return agent.host( 7, 4 ) == "intf 7"; } ) );
}

TEST_F( ConfigTest, NonsenseReadsAsAbsent ) {
   ASSERT_EQ( 0, apply( twoHosts ).status );
   const EthAddr good( 0x020000000003 );
   const ConfiguredHostRecord nonsense[] = {
      { { good, Bridging::VlanId( 4095 ) }, 0, 1 },
      { { EthAddr( 0x010000000003 ), Bridging::VlanId( 10 ) }, 0, 1 },
      { { good, Bridging::VlanId( 10 ) }, 2, 1 },
      { { good, Bridging::VlanId( 11 ) }, 0, 0 },
      { { good, Bridging::VlanId( 12 ) }, 1, 5 },
      { { good, Bridging::VlanId( 13 ) }, 0, 5, Vexil::MplsLabel( 3 ) },
   };
   Following agent( state );
   {
      const auto hosts = Vexil::makeEntity<ConfiguredHostTable>(
         file( ConfiguredHostTable::fileName ), ConfiguredHostTable::Mode::write, 1024u );
      for( const ConfiguredHostRecord& record : nonsense )
         ASSERT_TRUE( hosts->set( record ) );
      hosts->ring();
      const auto tunnels = Vexil::makeEntity<TunnelTable>( file( TunnelTable::fileName ),
                                                           TunnelTable::Mode::write, 1024u );
      ASSERT_TRUE( tunnels->set( { TunnelId( 5 ), {} } ) ); // no addresses
      tunnels->ring();
   }
   ASSERT_EQ( 0, ctl( { "config", "set", "10", mac( 4 ), "--interface", "4" } ).status );
   EXPECT_TRUE( agent.until(
      [ & ] { return agent.host( 4, 10 ) == "intf 4" && agent.config->tunnel().empty(); } ) );
   EXPECT_EQ( 2u, agent.hosts() ) << "host 2 has lost its tunnel";
   EXPECT_EQ( 3u, config()[ "hosts" ].size() );
   EXPECT_EQ( 0, apply( twoHosts ).status ) << "a whole document sweeps the nonsense";
   EXPECT_EQ( "", ctl( { "show", "config" } ).err );
   EXPECT_TRUE(
      agent.until( [ & ] { return agent.hosts() == 2 && agent.host( 4, 10 ) == "none"; } ) );
   EXPECT_EQ( 1u, agent.sm->staticLabelTable()->count() );
}

} // namespace
