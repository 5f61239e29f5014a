// Files that somebody writes nonsense into: the tables of one source under an agent that runs and
// one that starts, and the output under one that does not run. Whatever stands there, the agent
// neither hangs nor loses a row of another source, and ends only by an assertion that is made for
// such a record; its own output it heals.
//
// L2RIB_DAMAGE_ROUNDS says how often each is done; a long run takes some milliseconds a round.
#include "tests/ProcessSupport.h"

#include "client/SourcePublisher.h"
#include "runtime/Trace.h"
#include "tests/Records.h"

#include <algorithm>
#include <ctime>
#include <set>
#include <sys/stat.h>

namespace {

using namespace L2Rib;
using namespace L2Rib::Test;
using namespace ProcessSupport;
using Client::SourcePublisher;
using TestSupport::Random;

unsigned rounds() {
   const char* const given = std::getenv( "L2RIB_DAMAGE_ROUNDS" );
   return given ? static_cast<unsigned>( std::atoi( given ) ) : 40;
}

// The assertions that a record of a source may end the agent by; docs/operation.md says of each
// what to do.
const std::set<std::string> madeForRecords{
   "h.next() != Util::objTupleInvalid() || validDest( h.ciDest() )",
   "inLb.nexts() > 0",
   "*it != Util::objTupleInvalid()",
   "inLabel.next() != Util::objTupleInvalid()",
   "key != Util::lbIdInvalid()",
   "key != Util::labelIdInvalid()",
   "key != Util::destIdInvalid()",
   "source()->source() != sourceNone_",
   "! policySm()->sourceSmByEnum( source()->source() ) || policySm()->sourceSmByEnum( "
   "source()->source() ) == this",
   "source()->destTableTarnPath().empty()",
   "source()->labelTableTarnPath().empty()" };

// --- the sources

constexpr unsigned hostsOfEach = 6;

// Publishes hosts, a group of a dest and a label, and a flood member; from is the first host.
std::unique_ptr<SourcePublisher> published( const std::string& state, const std::string& name,
                                            Source value, unsigned from ) {
   auto source =
      std::make_unique<SourcePublisher>( Client::SourceOptions{ state, name, value, 32, 8, 8 } );
   const auto must = []( const Client::Rejection& refused ) {
      EXPECT_FALSE( refused ) << *refused;
   };
   must( source->destIs( intfDest( 1, from ) ) );
   must( source->labelIs( push( 3, 99, dest( 1 ) ) ) );
   must( source->lbIs( Test::group( 7, { dest( 1 ), label( 3 ) } ) ) );
   for( unsigned number = from; number < from + hostsOfEach; ++number )
      must( source->hostIs( number % 2 ? objectHost( mvp( number ), lb( 7 ) )
                                       : vtepHost( mvp( number ), {} ) ) );
   must( source->floodIs( floodMember( 10, from, from ) ) );
   source->initializedIs( true );
   source->flush();
   return source;
}

// --- the output, in terms that no id and no time changes

std::string textOf( const FloodMember& member ) {
   return member.triple.str() + " " + Vexil::enumText( member.floodSetType );
}
// The rows of the sources in the mask; all flood members, if the victim is one of them.
std::set<std::string> rowsOf( const OutputFiles& output, uint32_t sources ) {
   std::set<std::string> rows;
   output.host->forEach( [ & ]( const HostAndSource& row ) {
      if( row.source() & sources )
         rows.insert( row.key().str() + " pref " + std::to_string( row.host().pref() ) + " " +
                      sourceStr( row.source() ) + " " + resolved( output, row ) );
   } );
   if( sources & sourceBit8_ )
      output.flood->forEach( [ & ]( const FloodMember& row ) { rows.insert( textOf( row ) ); } );
   return rows;
}

// --- damage

// Some words of the file overwritten, in any of its parts; now and then all of it spoiled.
void damage( const std::string& file, Random& random, bool liveOnly ) {
   const int fd = open( file.c_str(), O_RDWR | O_CLOEXEC );
   struct stat status {};
   if( fd < 0 || fstat( fd, &status ) != 0 )
      return;
   const auto size = static_cast<uint64_t>( status.st_size );
   const auto put = [ & ]( uint64_t at, uint64_t word, size_t bytes ) {
      const bool inside = at + bytes <= size;
      EXPECT_TRUE( !inside || pwrite( fd, &word, bytes, static_cast<off_t>( at ) ) > 0 );
   };
   const uint64_t words[] = {
      0, 1, 2, 3, 17, 0x7fffffff, 0xffffffff, ~0ull, random.below( 256 ), random.below( ~0u ) };
   const unsigned kind = random.below( liveOnly ? 24 : 20 );
   if( kind == 0 ) {
      EXPECT_EQ( ftruncate( fd, static_cast<off_t>( random.below( size + 1 ) ) ), 0 );
   } else if( kind == 1 ) {
      put( 8, 2, 4 ); // the version of the format
   } else {
      for( unsigned left = 1 + random.below( 4 ); left > 0; --left ) {
         // Records and what leads to them stand in the first kilobytes of each part.
         const uint64_t part[] = { 0, 128, 256, 4096, 8192, 8192, 8192, size - size / 2 };
         const uint64_t at =
            part[ random.below( std::size( part ) ) ] + random.below( 1200 ) / 4 * 4;
         if( random.percent( 50 ) )
            put( at, words[ random.below( std::size( words ) ) ], random.percent( 70 ) ? 4 : 8 );
         else
            put( at + random.below( 4 ), random.below( 256 ), 1 );
      }
   }
   close( fd );
}

class DamageTest : public ProcessTest {
 protected:
   DamageTest() {
      Vexil::logSinkIs( []( std::string_view ) {} );
      std::filesystem::create_directory( state );
      healthy_ = published( state, "healthy", sourceBit6_, 100 );
      victim_ = published( state, "victim", sourceBit8_, 200 );
   }
   ~DamageTest() override { Vexil::logSinkIs( {} ); }

   void startAgentHere() { startAgent( { "--hammer-interval", "0.05", "--source-hold", "0.05" } ); }
   // The one that was there before, and what it published, go.
   void renewVictim() {
      victim_->withdraw();
      victim_ = published( state, "victim", sourceBit8_, 200 );
   }
   std::string fileOf( const std::string& path ) const { return state + "/bridging/l2Rib/" + path; }

   // What the healthy source's rows are in a sound output, with that preference of its first host.
   std::set<std::string> expected( uint32_t sources, unsigned pref ) const {
      std::set<std::string> rows;
      for( const auto& [ value, from ] :
           { std::pair( sourceBit6_, 100u ), { sourceBit8_, 200u } } ) {
         if( !( value & sources ) )
            continue;
         if( sources & sourceBit8_ )
            rows.insert( textOf( floodMember( 10, from, from ) ) );
         const std::string dest = "intf " + std::to_string( from );
         for( unsigned number = from; number < from + hostsOfEach; ++number )
            rows.insert(
               "(" + mac( number ) + "/10) pref " + std::to_string( number == 100 ? pref : 100 ) +
               " " + sourceStr( value ) + " " +
               ( number % 2 ? "group ( " + dest + " push 99 ( " + dest + " ) )" : "vteps [ ]" ) );
      }
      return rows;
   }
   // The healthy source changes its first host.
   void changeHealthy( unsigned pref ) {
      Host host = vtepHost( mvp( 100 ), {} );
      host.prefIs( pref );
      EXPECT_FALSE( healthy_->hostIs( host ) );
      healthy_->flush();
   }
   double agentSeconds() const {
      clockid_t clock;
      timespec used{};
      if( clock_getcpuclockid( agent->id(), &clock ) == 0 ) // else it has ended
         clock_gettime( clock, &used );
      return static_cast<double>( used.tv_sec ) + 1e-9 * static_cast<double>( used.tv_nsec );
   }
   // Whether the output of these sources came to be as it should, or the agent has ended.
   bool comesRight( uint32_t sources, unsigned pref ) {
      const std::set<std::string> wanted = expected( sources, pref );
      const double before = agentSeconds();
      std::set<std::string> found;
      const bool right = waitFor( [ & ] {
         try {
            found = rowsOf( OutputFiles( state ), sources );
         } catch( const Vexil::TableError& ) { // it is not there yet, or not yet made anew
         }
         return found == wanted || agent->ended();
      } );
      if( !agent->ended() )
         longest_ = std::max( longest_, agentSeconds() - before );
      EXPECT_TRUE( right ) << testing::PrintToString( found ) << agent->err();
      return right;
   }
   // The agent has ended: by an assertion that is made for a record?
   void requireKnownEnd() {
      EXPECT_EQ( agent->status(), -SIGABRT ) << agent->err();
      const std::string log = agent->err();
      const std::string before = "assertion failed: ";
      const size_t at = log.rfind( before ) + before.size();
      const std::string expression = log.substr( at, log.find( ", file ", at ) - at );
      EXPECT_TRUE( madeForRecords.contains( expression ) ) << log;
   }

   const std::vector<std::string> tablesOfVictim_{ "hostInput", "loadBalanceTable", "labelTable",
                                                   "destTable", "floodSets" };
   std::string anyOfVictim( Random& random ) const {
      const size_t one = random.below( tablesOfVictim_.size() + 1 );
      return fileOf( one < tablesOfVictim_.size() ? "input/victim/" + tablesOfVictim_[ one ]
                                                  : "inputDir/victim" );
   }

   std::unique_ptr<SourcePublisher> healthy_, victim_;
   double longest_ = 0; // seconds of the agent's time until its output was right
};

// Under an agent that runs, and under one that starts.
TEST_F( DamageTest, TablesOfASource ) {
   Random random;
   startAgentHere();
   for( unsigned round = 1; round <= 2 * rounds() && !HasFailure(); ++round ) {
      const bool running = random.percent( 50 );
      if( !running ) {
         renewVictim();
         agent->signal( SIGKILL );
         if( agent->status() != -SIGKILL )
            requireKnownEnd();
      }
      damage( anyOfVictim( random ), random, running );
      if( !running )
         startAgentHere();
      changeHealthy( round );
      comesRight( sourceBit6_, round );
      if( agent->ended() ) {
         requireKnownEnd();
         renewVictim();
         startAgentHere();
      } else if( round % 16 == 0 ) {
         renewVictim();
      }
   }
   renewVictim();
   if( agent->ended() ) {
      requireKnownEnd();
      startAgentHere();
   }
   comesRight( sourceBit6_ | sourceBit8_, 2 * rounds() );
   EXPECT_LT( longest_, 1 );
}

TEST_F( DamageTest, OutputOfAStoppedAgent ) {
   Random random( 2 );
   const std::string own[] = { "hostOutput",   "lbOutput",          "labelOutput",    "destOutput",
                               "floodOutput",  "floodOutputSource", "policySmStatus", "agentStatus",
                               "sourceStatus", "static/hostInput" };
   startAgentHere();
   comesRight( sourceBit6_ | sourceBit8_, 100 );
   for( unsigned round = 1; round <= rounds() && !HasFailure(); ++round ) {
      stopAgent( round % 2 ? SIGKILL : SIGTERM );
      for( unsigned files = 1 + random.below( 2 ); files > 0; --files )
         damage( fileOf( own[ random.below( std::size( own ) ) ] ), random, false );
      startAgentHere();
      changeHealthy( round );
      comesRight( sourceBit6_ | sourceBit8_, round );
      ASSERT_FALSE( agent->ended() ) << agent->err();
      const OutputFiles output( state );
      const auto requireSound = []( const auto& row ) {
         EXPECT_FALSE( faultIn( row ) ) << row << faultIn( row )->text;
      };
      output.host->forEach( requireSound );
      output.lb->forEach( requireSound );
      output.label->forEach( requireSound );
      output.dest->forEach( requireSound );
   }
   EXPECT_LT( longest_, 1 );
}

// What people are told of it.
TEST_F( DamageTest, IsNamedOnceAndHealed ) {
   const auto keep = [ this ] {
      victim_ = nullptr;
      return HostInput( fileOf( "input/victim/hostInput" ), HostInput::Mode::write, 32 );
   };
   const MacVlanPair key = mvp( 200 );
   startAgentHere();
   settle();
   Host sound;
   {
      HostInput hosts = keep();
      sound = hosts.host( key );
      Host broken = sound;
      const uint32_t three = 3;
      std::memcpy( reinterpret_cast<char*>( &broken ) + 56, &three, sizeof three ); // VTEPs
      ASSERT_TRUE( hosts.set( broken ) );
      hosts.ring();
      settle();
      EXPECT_EQ( winner( 200 ), "none" );
      EXPECT_EQ( winner( 202 ), "victim" );
      const std::string what = "hostInput: " + key.str() + ": 3 VTEPs, 2 are the most";
      for( const Json& source : json( { "show", "sources" } ) )
         EXPECT_EQ( source[ "reason" ],
                    source[ "name" ] == "victim" ? Json( "corrupt: " + what ) : Json() );
      const std::string log = agent->err();
      expectIn( log, what );
      EXPECT_EQ( log.find( what ), log.rfind( what ) ) << log;
   }
   {
      HostInput hosts = keep(); // the next writer drops it
      EXPECT_FALSE( hosts.contains( key ) );
      EXPECT_TRUE( hosts.set( sound ) );
   }

   stopAgent();
   const auto patch = [ this ]( const std::string& path, uint64_t at, uint32_t word ) {
      const int fd = open( fileOf( path ).c_str(), O_WRONLY | O_CLOEXEC );
      EXPECT_EQ( pwrite( fd, &word, sizeof word, static_cast<off_t>( at ) ), 4 );
      close( fd );
   };
   for( const char* path :
        { "hostOutput", "floodOutput", "policySmStatus", "agentStatus", "static/labelTable" } )
      patch( path, 8, 2 ); // the version of the format
   startAgentHere();
   comesRight( sourceBit6_ | sourceBit8_, 100 );
   for( const char* path : { "hostOutput", "floodOutput", "policySmStatus" } ) {
      EXPECT_TRUE( std::filesystem::exists( fileOf( path ) + ".unreadable" ) ) << path;
      expectIn( agent->err(), std::string( path ) + ".unreadable" );
   }
}

} // namespace
