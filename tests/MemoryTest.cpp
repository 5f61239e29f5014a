// The state directory runs out of memory, or its files are cut short under their writers: on a
// small tmpfs in a mount namespace of the test's own, which takes the right to mount.
#include "runtime/TableFile.h"
#include "tests/ProcessSupport.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>

namespace {

using namespace ProcessSupport;

class MemoryTest : public ProcessTest {
 protected:
   void SetUp() override {
      std::filesystem::create_directory( state );
      if( unshare( CLONE_NEWNS ) != 0 ||
          mount( nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr ) != 0 ||
          mount( "l2rib-test", state.c_str(), "tmpfs", 0, "size=8m,mode=750" ) != 0 )
         GTEST_SKIP() << "no right to mount a file system";
   }
   void TearDown() override {
      agent = nullptr;
      umount2( state.c_str(), MNT_DETACH );
   }
   // Takes memory until no more than so many bytes are left; gives back what it took before.
   void leave( uint64_t bytes ) {
      std::filesystem::remove( ballast );
      struct statvfs space {};
      ASSERT_EQ( statvfs( state.c_str(), &space ), 0 );
      const uint64_t left = space.f_bavail * space.f_frsize;
      if( left <= bytes )
         return;
      const int fd = open( ballast.c_str(), O_WRONLY | O_CREAT, 0600 );
      EXPECT_EQ( posix_fallocate( fd, 0, static_cast<off_t>( left - bytes ) ), 0 );
      close( fd );
   }
   void giveBack() { leave( UINT64_MAX ); }
   std::string fileOf( const std::string& table ) const {
      return state + "/bridging/l2Rib/" + table;
   }

   const std::string ballast = state + "/ballast";
};

// Wherever the memory ends in the agent's first start, it runs or says why it doesn't, and what it
// leaves is no hindrance to the next one.
TEST_F( MemoryTest, StartsOrSaysWhyNot ) {
   unsigned failed = 0, ran = 0;
   for( uint64_t free = 0; ran < 3; free += 96 << 10 ) {
      SCOPED_TRACE( "free: " + std::to_string( free ) );
      ASSERT_LT( free, 6u << 20 );
      std::filesystem::remove_all( state + "/bridging" );
      leave( free );
      startAgent();
      ASSERT_TRUE( waitFor( [ & ] {
         return agent->ended() || ctl( { "settle", "--timeout", "1" } ).status == 0;
      } ) );
      if( agent->ended() ) {
         ++failed;
         ASSERT_EQ( agent->status(), 1 ) << agent->err();
         ASSERT_NE( agent->err().find( "l2ribd: " ), std::string::npos ) << agent->err();
      } else {
         ++ran;
         stopAgent( SIGKILL );
      }
      std::error_code absent; // it could not even make that folder
      for( const auto& file :
           std::filesystem::recursive_directory_iterator( state + "/bridging", absent ) )
         ASSERT_TRUE( file.is_directory() || file.path().filename().string()[ 0 ] == '.' ||
                      !Vexil::tableTypeName( file.path() ).empty() )
            << file.path();
      giveBack();
      startAgent();
      settle();
      agent = nullptr;
   }
   EXPECT_GT( failed, 5u );
}

// Hosts that find no memory are refused to their source, or wait in the agent; no mapping is lost,
// what is there can be changed, an agent can start, and all come in when there is memory.
TEST_F( MemoryTest, NothingIsLostForWantOfMemory ) {
   constexpr unsigned hosts = 12000;
   const Words options = { "--hammer-interval", "0.1", "--output-capacity", "1000" };
   startAgent( options );
   settle();
   Program evpn = source( "evpn", "0x40", { "--host-capacity", "1000" } );
   publish( evpn, objects + host( 1, 1, group ) + initialized( true ) );
   const auto all = []( unsigned pref ) {
      std::string operations;
      for( unsigned number = 1; number <= hosts; ++number )
         operations += host( number, pref, inlineDest );
      return operations;
   };
   leave( 2 << 20 );
   evpn.write( all( 100 ) + syncOp );
   evpn.expectOut( "synced", 2 );
   expectIn( evpn.err(), "the table of hosts takes nothing more: the state directory has no "
                         "memory for it" );
   const auto rows = [ & ] { return json( { "show", "hosts" } ).size(); };
   EXPECT_TRUE( waitFor( [ & ] { return rows() > 500; } ) );
   EXPECT_LT( rows(), hosts );
   leave( 0 ); // a kill, and a start without any memory left
   stopAgent( SIGKILL );
   startAgent( options );
   evpn.write( host( 1, 107, inlineDest ) + syncOp );
   evpn.expectOut( "synced", 3 );
   EXPECT_TRUE( waitFor( [ & ] {
      const Json row = json( { "show", "hosts", "--mac", mac( 1 ) } );
      return !row.empty() && row[ 0 ][ "pref" ] == 107;
   } ) )
      << agent->err();
   ASSERT_FALSE( agent->ended() ) << agent->err();
   giveBack();
   EXPECT_TRUE( waitFor( [ & ] {
      const size_t synced = evpn.count( "synced" );
      evpn.write( all( 101 ) + syncOp );
      evpn.expectOut( "synced", synced + 1 );
      return rows() == hosts;
   } ) )
      << rows() << agent->err();
   settle();
   EXPECT_EQ( ctl( { "check" } ).status, 0 );
   EXPECT_EQ( agent->err().find( "corruption" ), std::string::npos ) << agent->err();
}

// A file that is cut short under the agent ends it, and the next one has all of it again.
TEST_F( MemoryTest, AgentThatLosesATableEnds ) {
   startAgent();
   keep( "evpn", "0x40", objects + host( 1, 100, group ) + flood + initialized( true ) );
   settle();
   const Json shownFlood = json( { "show", "flood" } );
   for( const char* table : { "hostOutput", "destOutput", "floodOutput", "agentStatus" } )
      for( const off_t length : { 0, 4096 } ) {
         SCOPED_TRACE( std::string( table ) + " cut to " + std::to_string( length ) );
         ASSERT_EQ( truncate( fileOf( table ).c_str(), length ), 0 );
         Program other = source( "other", "0x80" ); // something to write to each of them
         other.write( objects + host( 2, 100, group ) + R"({"op":"flood","vlan":11,)" +
                      flood.substr( flood.find( R"("mac")" ) ) + initialized( true ) + syncOp );
         EXPECT_EQ( agent->status(), 1 );
         expectIn( agent->err(), std::string( table ) + ": the file was cut short" );
         EXPECT_EQ( other.status(), 0 );
         startAgent( { "--source-hold", "0.01" } );
         settle();
         EXPECT_EQ( winner( 1 ), "evpn" );
         EXPECT_EQ( winner( 2 ), "none" );
         EXPECT_EQ( json( { "show", "flood" } ), shownFlood );
         EXPECT_EQ( ctl( { "check" } ).status, 0 );
      }
}

} // namespace
