// The agent's stages, the order in which it makes and releases its parts, and its plug-ins.
#include "agent/L2RibAgent.h"
#include "runtime/Trace.h"
#include "tests/ProcessSupport.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sys/stat.h>

namespace {

using namespace L2Rib;
using namespace ProcessSupport;
using TestSupport::Random;

// Looks, when the plug-ins go, at who else of the agent is still there.
class Witness : public Vexil::Entity {
 public:
   Witness( const Agent& agent, std::string& seen )
      : seen_( seen ), inputDir_( dynamic_cast<const Vexil::Directory*>(
                          agent.entityManager()->entity( Path::inputDir ).get() ) ),
        config_( agent.bridgingConfig() ) {}
   ~Witness() override {
      seen_ = std::string( inputDir_->notifiees.empty() ? "no engine" : "engine" ) +
              ( config_->notifiees.empty() ? ", no static source" : ", static source" );
   }

 private:
   std::string& seen_;
   Vexil::Ptr<const Vexil::Directory> inputDir_; // the engine alone reacts to it
   Vexil::Ptr<Bridging::Config> config_;         // the static source alone does
};

TEST( Agent, StagesMakeEverythingAndReleaseItInOrder ) {
   const TestSupport::TemporaryFolder folder;
   std::vector<std::string> traced;
   Vexil::traceSettingIs( "L2RibAgent=0,5" );
   Vexil::logSinkIs( [ & ]( std::string_view line ) {
      traced.emplace_back( line.substr( line.rfind( "L2RibAgent:" ) ) );
      traced.back().erase( 0, traced.back().find( ' ' ) + 1 );
   } );
   std::string seen;
   {
      Vexil::ActivityManager loop;
      const auto manager = Vexil::makeEntity<Vexil::EntityManager>( loop, folder.file( "state" ) );
      auto started = Vexil::startAgent( "libL2Rib.so", "L2Rib::Agent", "L2Rib", loop, manager,
                                        { { "test-plugins", "1" } } );
      auto* const agent = dynamic_cast<Agent*>( started.get() );
      ASSERT_TRUE( agent );
      EXPECT_EQ( agent->mountStatus(), Vexil::MountStatus::success );
      EXPECT_EQ( agent->entityManager(), manager );
      EXPECT_TRUE( agent->l2RibAgentSourceDir()->source( "static" ) );
      const auto& context = agent->pluginContext();
      EXPECT_EQ( context->entityManager(), manager );
      EXPECT_EQ( context->l2RibOutput(), agent->policySm()->hostOutput().get() );
      EXPECT_EQ( context->clock(), loop.clock() );
      context->pluginIs( { Vexil::makeEntity<Witness>( *agent, seen ) } );
      const auto config = agent->bridgingConfig();
      EXPECT_FALSE( config->notifiees.empty() );
      started = nullptr;
      EXPECT_TRUE( config->notifiees.empty() );
   }
   Vexil::logSinkIs( nullptr );
   Vexil::traceSettingIs( "L2RibAgent=9" );
   EXPECT_EQ( seen, "no engine, static source" );
   ASSERT_EQ( traced.size(), 3u );
   EXPECT_EQ( traced[ 0 ].rfind( "doInit() virtual void L2Rib::Agent::doInit() em is ", 0 ), 0u );
   EXPECT_EQ(
      traced[ 1 ].rfind( "doMountsComplete() virtual void L2Rib::Agent::doMountsComplete(", 0 ),
      0u );
   EXPECT_EQ( traced[ 2 ], "loadPlugins() doMountsComplete Loading L2RibTestPlugins" );
}

// For reading nothing is made, nothing locked, and the entity follows what another process writes.
// A writer locks out others, and finds nothing of what the run before it had for its own sources.
TEST( Mounts, ForReadingOnlyRead ) {
   const TestSupport::TemporaryFolder folder;
   Vexil::ActivityManager loop;
   struct Run {
      Run( Vexil::ActivityManager& loop, const std::string& state, const std::string& mode )
         : manager( Vexil::makeEntity<Vexil::EntityManager>( loop, state ) ) {
         const auto group = manager->mountGroup();
         group->doMount( Path::agentInputDir, "L2Rib::AgentSourceDir", mode );
         group->doMount( Path::floodOutput, "L2Rib::FloodSetOutput", mode );
         group->doMount( Path::policySmStatus, "L2Rib::PolicySmStatus", mode );
         group->doClose();
         mounted = manager->mountStatus() == Vexil::MountStatus::success;
         sources = dynamic_cast<AgentSourceDir*>( manager->entity( Path::agentInputDir ).get() );
         flood = dynamic_cast<FloodSetOutput*>( manager->entity( Path::floodOutput ).get() );
         status = dynamic_cast<PolicySmStatus*>( manager->entity( Path::policySmStatus ).get() );
      }
      const Vexil::Ptr<Vexil::EntityManager> manager;
      bool mounted;
      AgentSourceDir* sources;
      FloodSetOutput* flood;
      PolicySmStatus* status;
   };
   const std::string state = folder.file( "state" );
   const std::string entry = state + "/" + Path::agentInputDir + "/inside";
   Vexil::logSinkIs( []( std::string_view ) {} );
   EXPECT_FALSE( Run( loop, state, "r" ).mounted );
   EXPECT_FALSE( std::filesystem::exists( state + "/bridging" ) );
   for( int run = 0; run < 2; ++run ) {
      const Run writer( loop, state, "w" );
      ASSERT_TRUE( writer.mounted );
      EXPECT_TRUE( writer.sources->source().empty() );
      EXPECT_FALSE( std::filesystem::exists( entry ) ) << "of the run before";
      const auto source = writer.sources->sourceIs( "inside" );
      source->hostTableTarnPathIs( "a/path" );
      EXPECT_FALSE( std::filesystem::exists( entry ) ) << "before anybody can use it";
      source->initializedIs( true );
      EXPECT_FALSE( Run( loop, state, "w" ).mounted );
      const Run reader( loop, state, "r" );
      ASSERT_TRUE( reader.mounted && reader.sources->source( "inside" ) );
      EXPECT_EQ( reader.sources->source( "inside" )->hostTableTarnPath(), "a/path" );
      const Bridging::VlanId vlan( 10 );
      const Vexil::EthAddr mac( 1 );
      const Dest dest( Util::destIdNotInTarn() );
      const auto follow = [ & ]( auto came ) {
         return TestSupport::waitFor( [ & ] { return loop.turn( 0 ), came(); } );
      };
      source->initializedIs( false );
      writer.status->maxLbIdIs( LoadBalanceId( 7 + run ) );
      writer.flood->sourceIs( 0x50 );
      const auto set = writer.flood->vlanFloodSetIs( vlan )->floodSetIs( mac );
      set->floodSetTypeIs( floodSetTypeAny_ );
      set->destSetIs( dest, true );
      EXPECT_TRUE( follow( [ & ] {
         const auto sets = reader.flood->vlanFloodSet( vlan );
         return reader.status->maxLbId().value() == 7u + run && reader.flood->source() == 0x50 &&
                sets && sets->floodSet( mac )->destSet( dest ) &&
                !reader.sources->source( "inside" )->initialized();
      } ) );
      writer.flood->vlanFloodSetDel( vlan );
      if( run == 1 )
         writer.sources->sourceDel( "inside" );
      EXPECT_TRUE( follow( [ & ] {
         return reader.flood->vlanFloodSet().empty() &&
                reader.sources->source().empty() == ( run == 1 );
      } ) );
   }
   Vexil::logSinkIs( nullptr );
}

TEST( AgentDeathTest, FailedMountIsFatal ) {
   const auto agent = agentFactory( "L2Rib" );
   EXPECT_DEATH( agent->doMountsComplete( Vexil::MountStatus::failed, nullptr ),
                 "assertion failed: mountStatus == Vexil::MountStatus::success" );
}

using PluginTest = ProcessTest;

// What the log says of plug-ins, in its order, without times and folders.
std::vector<std::string> pluginLines( const std::string& log ) {
   std::vector<std::string> found;
   std::istringstream lines( log );
   for( std::string line; std::getline( lines, line ); ) {
      line.erase( 0, std::string( "2026-01-01 00:00:00.000000 " ).size() );
      if( const size_t at = line.find( TEST_PLUGIN_DIRECTORY "/" ); at != line.npos )
         line.erase( at, std::strlen( TEST_PLUGIN_DIRECTORY "/" ) );
      if( line.starts_with( "plug-in" ) || line.find( " made with " ) != line.npos ||
          line.ends_with( " gone" ) )
         found.push_back( line );
   }
   return found;
}

TEST_F( PluginTest, OneCategoryIsLoadedAndBrokenOnesAreNamed ) {
   const std::string broken = "plug-in A_NoEntryPoint.so can't be loaded: it has no entry point "
                              "vexilPlugin()";
   const std::string pipe = "plug-in J_Pipe.so can't be loaded: it is no regular file";
   mkfifo( TEST_PLUGIN_DIRECTORY "/J_Pipe.so", 0600 );
   const std::vector<std::string> normal{
      broken,
      "plug-in B_MissingSymbol.so can't be loaded: ",
      "C_Normal made with 16384",
      "plug-in C_Normal loaded from C_Normal.so",
      "plug-in D_ThrowsInCreate.so can't be loaded: its work is impossible",
      "plug-in E_MakesNothing.so can't be loaded: it made no object",
      "plug-in F_OtherInterface.so can't be loaded: it was made for plug-in interface 2, this "
      "process has 1",
      "plug-in G_NoCategory.so can't be loaded: its description lacks category, name or create",
      "plug-in H_Test.so is passed over: its category is L2RibTestPlugin",
      "I_Normal made with 16384",
      "plug-in I_Normal loaded from I_Normal.so",
      pipe,
      "I_Normal gone",
      "C_Normal gone" };
   const std::string otherCategory = " is passed over: its category is L2RibPlugin";
   const std::vector<std::string> test{ broken,
                                        normal[ 1 ],
                                        "plug-in C_Normal.so" + otherCategory,
                                        "plug-in D_ThrowsInCreate.so" + otherCategory,
                                        "plug-in E_MakesNothing.so" + otherCategory,
                                        normal[ 6 ],
                                        normal[ 7 ],
                                        "H_Test made with 16384",
                                        "plug-in H_Test loaded from H_Test.so",
                                        "plug-in I_Normal.so" + otherCategory,
                                        pipe,
                                        "H_Test gone" };
   for( const bool testPlugins : { false, true } ) {
      Words words{ "--plugin-dir", TEST_PLUGIN_DIRECTORY };
      if( testPlugins )
         words.push_back( "--test-plugins" );
      startAgent( words );
      EXPECT_TRUE(
         waitFor( [ this ] { return agent->err().find( "running on" ) != std::string::npos; } ) );
      stopAgent();
      std::vector<std::string> lines = pluginLines( agent->err() );
      ASSERT_GT( lines.size(), 1u ) << agent->err();
      expectIn( lines[ 1 ], "undefined symbol" );
      lines[ 1 ].resize( normal[ 1 ].size() );
      EXPECT_EQ( lines, testPlugins ? test : normal );
   }
}

// The host output as the journal's lines tell it, from nothing on.
std::map<std::string, Json> replayed( const std::string& journal ) {
   std::map<std::string, Json> rows;
   double last = 0;
   std::istringstream lines( journal );
   for( std::string line; std::getline( lines, line ); ) {
      const Json change = Json::parse( line );
      EXPECT_EQ( change[ "table" ], "hosts" );
      EXPECT_LE( last, change[ "time" ].get<double>() );
      last = change[ "time" ];
      const std::string key = change[ "key" ].dump();
      if( change[ "event" ] == "set" )
         rows[ key ] = change[ "value" ];
      else
         EXPECT_EQ( rows.erase( key ), 1u ) << line;
   }
   return rows;
}

TEST_F( PluginTest, JournalIsWitnessOfEveryChange ) {
   const std::string journal = folder.file( "journal" );
   setenv( "L2RIB_JOURNAL", journal.c_str(), 1 );
   startAgent();
   unsetenv( "L2RIB_JOURNAL" );
   Program evpn = source( "evpn", "0x40" );
   Program mlag = source( "mlag", "0x8" );
   publish( evpn, objects + initialized( true ) );
   publish( mlag, objects + initialized( true ) );
   Random random;
   for( int round = 0; round < 30; ++round ) {
      std::string operations;
      for( int i = 0; i < 40; ++i ) {
         const unsigned number = 1 + random.below( 50 );
         operations += random.percent( 30 ) ? hostDel( number )
                                            : host( number, random.below( 3 ),
                                                    random.percent( 50 ) ? group : inlineDest );
      }
      publish( random.percent( 50 ) ? evpn : mlag, operations );
   }
   std::map<std::string, Json> rows;
   for( Json row : json( { "show", "hosts" } ) ) {
      row.erase( "sourceName" ); // a reader's knowledge
      const std::string key = Json( { { "mac", row[ "mac" ] }, { "vlan", row[ "vlan" ] } } ).dump();
      rows[ key ] = row;
   }
   stopAgent();
   EXPECT_EQ( replayed( bytesOf( journal ) ), rows );

   // The next run appends, on a line of its own also when the last one was killed in the middle of
   // a line; a place that can't be written is the plug-in's trouble alone.
   std::ofstream( journal, std::ios::app ) << "{\"time\":";
   const std::string before = bytesOf( journal ) + "\n";
   setenv( "L2RIB_JOURNAL", journal.c_str(), 1 );
   startAgent();
   setenv( "L2RIB_JOURNAL", folder.file( "absent/journal" ).c_str(), 1 );
   publish( evpn, host( 99, 1, inlineDest ) );
   EXPECT_TRUE( waitFor( [ & ] { return bytesOf( journal ).size() > before.size(); } ) );
   EXPECT_TRUE( bytesOf( journal ).starts_with( before ) );
   stopAgent();
   startAgent();
   unsetenv( "L2RIB_JOURNAL" );
   settle();
   expectIn( agent->err(), "absent/journal: No such file or directory" );
}

} // namespace
