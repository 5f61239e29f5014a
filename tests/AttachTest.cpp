// Sources whose tables can't be attached: not ready, named with the reason, tried again; and what
// they had published before stays where it is.
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/Status.h"
#include "client/SourceFolder.h"
#include "tests/ProcessSupport.h"

#include <filesystem>

namespace {

using namespace ProcessSupport;
using namespace L2Rib;
namespace fs = std::filesystem;

const std::string flood = R"({"op":"flood","vlan":10,"mac":"ff:ff:ff:ff:ff:ff","type":"vxlan",)"
                          R"("dest":{"vxlan":{"vtep":"10.0.0.9","vni":10010}}})"
                          "\n";

class AttachTest : public ProcessTest {
 protected:
   // Publishes the entry of a kept source again, as its next process would: another file.
   void republish( const std::string& name ) {
      const fs::path entry = sources.entryFile( name );
      const fs::path copy = entry.parent_path() / ".copy";
      fs::copy_file( entry, copy, fs::copy_options::overwrite_existing );
      fs::rename( copy, entry );
   }
   Json shownSource( const std::string& name ) {
      for( const Json& row : json( { "show", "sources" } ) )
         if( row[ "name" ] == name )
            return row;
      return {};
   }
   bool waitUntilReady( const std::string& name, bool ready ) {
      return waitFor(
         [ & ] {
            const Json row = shownSource( name );
            return row[ "ready" ] == ready && row[ "reason" ].is_null() == ready;
         },
         patience );
   }
   // How often the hosts, dests, groups, labels and flood members of the output were written.
   std::vector<uint64_t> writes() {
      const std::string l2Rib = state + "/";
      return {
         HostOutput( l2Rib + Path::hostOutput, HostOutput::Mode::read ).journalHead(),
         DestOutput( l2Rib + Path::destOutput, DestOutput::Mode::read ).journalHead(),
         LoadBalanceOutput( l2Rib + Path::lbOutput, LoadBalanceOutput::Mode::read ).journalHead(),
         LabelOutput( l2Rib + Path::labelOutput, LabelOutput::Mode::read ).journalHead(),
         FloodMemberTable( l2Rib + Path::floodOutput, FloodMemberTable::Mode::read )
            .journalHead() };
   }

   const Client::SourceFolder sources{ state };
};

// A source that is held returns, and one of its tables is not there yet, or damaged. Nothing of it
// is withdrawn, however often it is tried; when the table is back, nothing is written either.
TEST_F( AttachTest, SourceWithoutItsTablesIsNotReadyAndLosesNothing ) {
   startAgent( { "--source-hold", "1000" } );
   keep( "evpn", "0x40",
         objects + host( 1, 100, group ) + host( 2, 100, inlineDest ) + flood +
            initialized( true ) );
   settle();
   const std::vector<uint64_t> before = writes();
   for( const std::string table :
        { "hostInput", "labelTable", "loadBalanceTable", "destTable", "floodSets" } )
      for( const bool damaged : { false, true } ) {
         SCOPED_TRACE( table + ( damaged ? " damaged" : " absent" ) );
         const fs::path file = sources.tableFolder( "evpn" ) + "/" + table;
         const fs::path away = file.parent_path() / ".away";
         fs::rename( file, away );
         if( damaged )
            TestSupport::replace( file, std::string( 5000, 'x' ) );
         republish( "evpn" );
         ASSERT_TRUE( waitUntilReady( "evpn", false ) );
         EXPECT_EQ( shownSource( "evpn" )[ "reason" ],
                    table + ( damaged ? ": is no shared table: wrong magic number"
                                      : ": opening: No such file or directory" ) );
         const Result waiting = ctl( { "settle", "--timeout", "0.01" } );
         EXPECT_EQ( waiting.status, 1 );
         EXPECT_NE( waiting.err.find( "source evpn to be ready: " + table ), std::string::npos )
            << waiting.err;
         fs::rename( away, file );
         ASSERT_TRUE( waitUntilReady( "evpn", true ) ) << agent->err();
         settle();
         EXPECT_EQ( writes(), before );
      }
   EXPECT_EQ( json( { "show", "hosts" } ).size(), 2u );
   EXPECT_EQ( ctl( { "check" } ).status, 0 );

   // A table of another type is an error in the source's program.
   fs::copy_file( sources.tableFolder( "evpn" ) + "/hostInput",
                  sources.tableFolder( "evpn" ) + "/labelTable",
                  fs::copy_options::overwrite_existing );
   republish( "evpn" );
   EXPECT_EQ( agent->status(), -SIGABRT );
   EXPECT_NE( agent->err().find( "assertion failed: labelTable," ), std::string::npos )
      << agent->err();
}

// More entries than there are descriptors. The agent starts, keeps what it needs for its own
// tables, and takes the rest in as descriptors come free.
TEST_F( AttachTest, ScarceDescriptorsGoRound ) {
   constexpr int entries = 100;
   const auto entryFile = [ & ]( int number ) {
      return sources.entryFile( "s" + std::to_string( number ) );
   };
   Vexil::makeFoldersFor( entryFile( 0 ) );
   for( int number = 0; number < entries; ++number ) {
      SourceEntryRecord record;
      record.name = SourceName::of( "s" + std::to_string( number ) ).value();
      record.source = Source( 0x40 );
      const SourceEntryTable written( entryFile( number ), 1u, record );
   }
   agent = std::make_unique<Program>(
      folder,
      Words{ "/bin/sh", "-c", "ulimit -n 128; exec " L2RIBD_PATH " --state-dir " + state } );
   const auto known = [ & ] {
      const std::string file = state + "/" + Path::sourceStatus;
      return fs::exists( file ) ? SourceStatusTable( file, SourceStatusTable::Mode::read ).count()
                                : 0;
   };
   ASSERT_TRUE( waitFor( [ & ] { return known() > 1; }, patience ) ) << agent->err();
   EXPECT_LT( known(), 65u ) << "of 64 descriptors beside the reserve";
   EXPECT_EQ( agent->err().find( "no known entity type" ), std::string::npos ) << agent->err();
   EXPECT_NE( agent->err().find( "Too many open files" ), std::string::npos );
   EXPECT_EQ( ctl( { "config", "set", "10", mac( 1 ), "--interface", "12" } ).status, 0 );
   EXPECT_TRUE( waitFor( [ & ] { return winner( 1 ) == "static"; }, patience ) )
      << "the agent's own tables have descriptors";
   for( int number = 0; number < 60; ++number )
      fs::remove( entryFile( number ) );
   EXPECT_TRUE( waitFor( [ & ] { return known() == entries - 60 + 1; }, patience ) ) << known();
   EXPECT_NE( shownSource( "s99" )[ "ready" ], Json() );

   // With as many as the system allows, more sources than the table of their status began with.
   agent->signal( SIGTERM );
   EXPECT_EQ( agent->status(), 0 );
   for( int number = 0; number < 60; ++number )
      fs::copy_file( entryFile( 99 ), entryFile( number ) );
   startAgent();
   EXPECT_TRUE( waitFor( [ & ] { return known() == entries + 1; }, patience ) ) << known();
}

} // namespace
