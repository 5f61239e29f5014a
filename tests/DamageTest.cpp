// Files that somebody writes nonsense into: the tables of one source under an agent that runs and
// one that starts, and the output under one that does not run. Whatever stands there, the agent
// neither hangs nor loses a row of another source, and ends only by an assertion that is made for
// such a record; its own output it heals.
//
// L2RIB_DAMAGE_ROUNDS says how often each is done; a long run takes some milliseconds a round.
#include "tests/ProcessSupport.h"

#include "L2Rib/Fault.h"
#include "client/OutputReader.h"
#include "client/SourcePublisher.h"
#include "runtime/Trace.h"

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/stat.h>

namespace {

using namespace L2Rib;
using namespace ProcessSupport;
using Bridging::MacVlanPair;
using Client::OutputReader;
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
   auto source = std::make_unique<SourcePublisher>( Client::SourceOptions{ .stateDirectory = state,
                                                                           .name = name,
                                                                           .value = value,
                                                                           .hostCapacity = 32,
                                                                           .objectCapacity = 8,
                                                                           .floodCapacity = 8 } );
   const auto must = []( const Client::Rejection& refused ) {
      EXPECT_FALSE( refused ) << *refused;
   };
   Dest dest( DestId( 1 ) ), member( Util::destIdNotInTarn() );
   dest.vxlanIs( { *Vexil::IpGenAddr::parse( "10.0.0.1" ), 10000 + from } );
   member.intfIs( { from } );
   must( source->destIs( dest ) );
   must(
      source->labelIs( Label( LabelId( 3 ), ObjTuple( DestId( 1 ) ), Vexil::MplsLabel( 99 ) ) ) );
   LoadBalance lb( LoadBalanceId( 7 ) );
   lb.nextIs( EcmpIndex( 0 ), ObjTuple( DestId( 1 ) ) );
   lb.nextIs( EcmpIndex( 1 ), ObjTuple( LabelId( 3 ) ) );
   must( source->lbIs( lb ) );
   for( unsigned number = from; number < from + hostsOfEach; ++number ) {
      Host host( { Vexil::EthAddr( 0x020000000000 + number ), Bridging::VlanId( 10 ) } );
      if( number % 2 )
         host.nextIs( ObjTuple( LoadBalanceId( 7 ) ) );
      else
         host.ciDestIs( CiDest( destTypeVxlan_ ) );
      must( source->hostIs( host ) );
   }
   must(
      source->floodIs( { FloodSetTriple( Bridging::VlanId( 10 ), Vexil::EthAddr( from ), member ),
                         floodSetTypeAny_ } ) );
   source->initializedIs( true );
   source->flush();
   return source;
}

// --- the output, in terms that no id and no time changes

std::string shapeOf( const OutputReader& output, const ObjTuple& ot, unsigned depth = 0 ) {
   if( depth > 4 )
      return "deeper";
   if( ot.tableType() == tableTypeDest_ ) {
      Dest dest = output.dests.get( ot.destId() ).value_or( DestAndSource() ).dest();
      dest.keyIs( DestId( 1 ) );
      return dest.str();
   }
   if( ot.tableType() == tableTypeLabel_ ) {
      const Label label = output.labels.get( ot.labelId() ).value_or( LabelAndSource() ).label();
      return "push " + label.label().str() + " " + shapeOf( output, label.next(), depth + 1 );
   }
   std::string text = "group";
   if( ot.tableType() == tableTypeLoadBalance_ )
      for( const ObjTuple& next :
           output.groups.get( ot.lbId() ).value_or( LoadBalanceAndSource() ).lb().used() )
         text += " [" + shapeOf( output, next, depth + 1 ) + "]";
   return text;
}

// The rows of the sources in the mask, and the flood members in which they are interfaces.
std::set<std::string> rowsOf( const OutputReader& output, uint32_t sources ) {
   std::set<std::string> rows;
   for( const HostAndSource& row : output.hosts.list() )
      if( row.source() & sources )
         rows.insert( row.key().str() + " pref " + std::to_string( row.host().pref() ) + " " +
                      sourceStr( row.source() ) + " " +
                      ( row.next() == Util::objTupleInvalid() ? row.host().ciDest().str()
                                                              : shapeOf( output, row.next() ) ) );
   return rows;
}
std::set<std::string> floodRows( const OutputReader& output ) {
   std::set<std::string> rows;
   for( const FloodMember& member : output.flood.list() )
      rows.insert( member.triple.str() + " " + Vexil::enumText( member.floodSetType ) );
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
         const std::string dest =
            "{ dest/1 vxlan 10.0.0.1 vni " + std::to_string( 10000 + from ) + " }";
         for( unsigned number = from; number < from + hostsOfEach; ++number )
            rows.insert(
               "(" + mac( number ) + "/10) pref " + std::to_string( number == 100 ? pref : 0 ) +
               " " + sourceStr( value ) + " " +
               ( number % 2 ? "group [" + dest + "] [push 99 " + dest + "]" : "vteps [ ]" ) );
      }
      return rows;
   }
   // The healthy source changes its first host.
   void changeHealthy( unsigned pref ) {
      Host host( { Vexil::EthAddr( 0x020000000000 + 100 ), Bridging::VlanId( 10 ) } );
      host.prefIs( pref );
      host.ciDestIs( CiDest( destTypeVxlan_ ) );
      EXPECT_FALSE( healthy_->hostIs( host ) );
      healthy_->flush();
   }
   double agentSeconds() const {
      std::ifstream stat( "/proc/" + std::to_string( agent->id() ) + "/stat" );
      std::string text( ( std::istreambuf_iterator<char>( stat ) ), {} );
      std::istringstream fields( text.substr( std::min( text.rfind( ')' ) + 1, text.size() ) ) );
      std::string skipped;
      for( int i = 0; i < 11; ++i )
         fields >> skipped;
      double user = 0, system = 0;
      fields >> user >> system;
      return ( user + system ) / static_cast<double>( sysconf( _SC_CLK_TCK ) );
   }
   // Whether the output of these sources came to be as it should, or the agent has ended.
   bool comesRight( uint32_t sources, unsigned pref ) {
      const std::set<std::string> wanted = expected( sources, pref );
      const double before = agentSeconds();
      std::set<std::string> found;
      const bool right = waitFor(
         [ & ] {
            try {
               found = rowsOf( OutputReader( state ), sources );
            } catch( const Vexil::TableError& ) { // it is not there yet, or not yet made anew
            }
            return found == wanted || agent->ended();
         },
         patience );
      if( !agent->ended() )
         longest_ = std::max( longest_, agentSeconds() - before );
      std::string is;
      for( const std::string& row : found )
         is += row + "\n";
      EXPECT_TRUE( right ) << is << agent->err();
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
      ++ends_[ expression ];
   }
   void report( const char* what ) {
      std::fprintf( stderr, "%s: %u rounds, longest %.2f s of the agent's time", what, rounds(),
                    longest_ );
      for( const auto& [ expression, times ] : ends_ )
         std::fprintf( stderr, "; %u times '%s'", times, expression.c_str() );
      std::fprintf( stderr, "\n" );
      EXPECT_LT( longest_, 1 );
   }

   const std::vector<std::string> tablesOfVictim_{ "hostInput", "loadBalanceTable", "labelTable",
                                                   "destTable", "floodSets" };
   std::string anyOfVictim( Random& random ) const {
      const size_t one = random.below( tablesOfVictim_.size() + 1 );
      return fileOf( one < tablesOfVictim_.size() ? "input/victim/" + tablesOfVictim_[ one ]
                                                  : "inputDir/victim" );
   }

   std::unique_ptr<SourcePublisher> healthy_, victim_;
   double longest_ = 0;
   std::map<std::string, unsigned> ends_;
};

TEST_F( DamageTest, TablesOfASourceUnderARunningAgent ) {
   Random random;
   startAgentHere();
   for( unsigned round = 1; round <= rounds() && !HasFailure(); ++round ) {
      damage( anyOfVictim( random ), random, true );
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
   comesRight( sourceBit6_ | sourceBit8_, rounds() );
   report( "tables of a source, running" );
}

TEST_F( DamageTest, TablesOfASourceUnderAStartingAgent ) {
   Random random( 1 );
   for( unsigned round = 1; round <= rounds() && !HasFailure(); ++round ) {
      renewVictim();
      damage( anyOfVictim( random ), random, false );
      startAgentHere();
      changeHealthy( round );
      comesRight( sourceBit6_, round );
      if( agent->ended() )
         requireKnownEnd();
      agent->signal( SIGKILL );
      agent->status();
   }
   report( "tables of a source, starting" );
}

TEST_F( DamageTest, OutputOfAStoppedAgent ) {
   Random random( 2 );
   const std::string own[] = { "hostOutput",   "lbOutput",          "labelOutput",    "destOutput",
                               "floodOutput",  "floodOutputSource", "policySmStatus", "agentStatus",
                               "sourceStatus", "static/hostInput" };
   startAgentHere();
   comesRight( sourceBit6_ | sourceBit8_, 0 );
   const auto flood = [ this ] { return floodRows( OutputReader( state ) ); };
   EXPECT_TRUE( waitFor( [ & ] { return flood().size() == 2; }, patience ) );
   const std::set<std::string> floodBefore = flood();
   for( unsigned round = 1; round <= rounds() && !HasFailure(); ++round ) {
      agent->signal( round % 2 ? SIGKILL : SIGTERM );
      agent->status();
      for( unsigned files = 1 + random.below( 2 ); files > 0; --files )
         damage( fileOf( own[ random.below( std::size( own ) ) ] ), random, false );
      startAgentHere();
      changeHealthy( round );
      comesRight( sourceBit6_ | sourceBit8_, round );
      ASSERT_FALSE( agent->ended() ) << agent->err();
      EXPECT_TRUE( waitFor( [ & ] { return flood() == floodBefore; }, patience ) ) << agent->err();
      const OutputReader output( state );
      const auto requireSound = [ & ]( const auto& rows ) {
         for( const auto& row : rows )
            EXPECT_FALSE( faultIn( row ) ) << row << faultIn( row )->text;
      };
      requireSound( output.hosts.list() );
      requireSound( output.groups.list() );
      requireSound( output.labels.list() );
      requireSound( output.dests.list() );
   }
   report( "output of a stopped agent" );
}

// What people are told of it.
TEST_F( DamageTest, IsNamedOnceAndHealed ) {
   const auto keep = [ this ] {
      victim_ = nullptr;
      return HostInput( fileOf( "input/victim/hostInput" ), HostInput::Mode::write, 32 );
   };
   const MacVlanPair key( Vexil::EthAddr( 0x020000000000 + 200 ), Bridging::VlanId( 10 ) );
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
      EXPECT_NE( log.find( what ), log.npos ) << log;
      EXPECT_EQ( log.find( what ), log.rfind( what ) ) << log;
   }
   {
      HostInput hosts = keep(); // the next writer drops it
      EXPECT_FALSE( hosts.contains( key ) );
      EXPECT_TRUE( hosts.set( sound ) );
   }

   agent->signal( SIGTERM );
   EXPECT_EQ( agent->status(), 0 );
   const auto patch = [ this ]( const std::string& path, uint64_t at, uint32_t word ) {
      const int fd = open( fileOf( path ).c_str(), O_WRONLY | O_CLOEXEC );
      EXPECT_EQ( pwrite( fd, &word, sizeof word, static_cast<off_t>( at ) ), 4 );
      close( fd );
   };
   for( const char* path : { "hostOutput", "floodOutput", "policySmStatus" } )
      patch( path, 8, 2 ); // the version of the format
   startAgentHere();
   comesRight( sourceBit6_ | sourceBit8_, 0 );
   for( const char* path : { "hostOutput", "floodOutput", "policySmStatus" } ) {
      EXPECT_TRUE( std::filesystem::exists( fileOf( path ) + ".unreadable" ) ) << path;
      EXPECT_NE( agent->err().find( std::string( path ) + ".unreadable" ), std::string::npos );
   }
}

} // namespace
