// Sources whose tables can't be attached: not ready, named with the reason, tried again; and what
// they had published before stays where it is.
#include "L2Rib/Status.h"
#include "client/SourceFolder.h"
#include "tests/ProcessSupport.h"
#include "tests/Records.h"

#include <filesystem>

namespace {

using namespace ProcessSupport;
using namespace L2Rib;
namespace fs = std::filesystem;

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
      return waitFor( [ & ] {
         const Json row = shownSource( name );
         return row[ "ready" ] == ready && row[ "reason" ].is_null() == ready;
      } );
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
   const auto writes = [ this ] {
      auto all = L2Rib::Test::OutputFiles( state ).writes();
      all.pop_back(); // the mask of the sources that are ready
      return all;
   };
   const auto before = writes();
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
         expectIn( waiting.err, "source evpn to be ready: " + table );
         fs::rename( away, file );
         ASSERT_TRUE( waitUntilReady( "evpn", true ) ) << agent->err();
         settle();
         EXPECT_EQ( writes(), before );
      }
   EXPECT_EQ( json( { "show", "hosts" } ).size(), 2u );
   EXPECT_EQ( ctl( { "check" } ).status, 0 );
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
   ASSERT_TRUE( waitFor( [ & ] { return known() > 1; } ) ) << agent->err();
   EXPECT_LT( known(), 65u ) << "of 64 descriptors beside the reserve";
   EXPECT_EQ( agent->err().find( "no known entity type" ), std::string::npos ) << agent->err();
   expectIn( agent->err(), "Too many open files" );
   EXPECT_EQ( ctl( { "config", "set", "10", mac( 1 ), "--interface", "12" } ).status, 0 );
   EXPECT_TRUE( waitFor( [ & ] { return winner( 1 ) == "static"; } ) )
      << "the agent's own tables have descriptors";
   for( int number = 0; number < 60; ++number )
      fs::remove( entryFile( number ) );
   EXPECT_TRUE( waitFor( [ & ] { return known() == entries - 60 + 1; } ) ) << known();
   EXPECT_NE( shownSource( "s99" )[ "ready" ], Json() );

   // With as many as the system allows, more sources than the table of their status began with.
   stopAgent();
   for( int number = 0; number < 60; ++number )
      fs::copy_file( entryFile( 99 ), entryFile( number ) );
   startAgent();
   EXPECT_TRUE( waitFor( [ & ] { return known() == entries + 1; } ) ) << known();
}

} // namespace
