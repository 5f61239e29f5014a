// The engine's decisions and its behaviour over time, as stories.
#include "tests/EngineLab.h"

#include "L2Rib/HostRank.h"
#include "runtime/Trace.h"

#include <functional>

namespace L2Rib::Test {
namespace {

constexpr uint32_t a = 0x40, b = 0x100, c = 0x80000000;

TEST( Ranking, FirstRuleThatTellsTwoHostsApartDecides ) {
   const MacVlanPair key = mvp( 1 );
   const Host one = vtepHost( key, { "10.0.0.9" } );
   const Host two = vtepHost( key, { "10.0.0.1", "10.0.0.2" } );
   const struct {
      const char* what;
      Host host, current;
      bool better;
      RankRule rule;
      const char *there, *back; // as the trace tells it
      uint32_t source = a, currentSource = b;
   } cases[] = {
      { "pref is unsigned", inlineHost( key, 1, 0xffffffff ), inlineHost( key, 1, 1 ), true,
        RankRule::pref, " win on pref", " lose on pref" },
      { "pref before seqNo", inlineHost( key, 1, 99, 9 ), inlineHost( key, 1, 100, 1 ), false,
        RankRule::pref, " lose on pref", " win on pref" },
      { "a wrapped seqNo is newer", inlineHost( key, 1, 100, 1 ),
        inlineHost( key, 1, 100, 0xffffffff ), true, RankRule::seqNo, " win on seqNo",
        " lose on seqNo" },
      { "half a circle apart nobody is newer", inlineHost( key, 2, 100, 0 ),
        inlineHost( key, 1, 100, 0x80000000 ), true, RankRule::ciDest, "", "" },
      { "inline beats object", inlineHost( key, 1 ), objectHost( key, dest( 1 ) ), true,
        RankRule::inlineOverObject, " win because MT > CI", " lose because CI < MT" },
      { "more VTEPs beat fewer", two, one, true, RankRule::ciDest, "", "" },
      { "VXLAN beats the default kind", one, inlineHost( key, ~0ull ), true, RankRule::ciDest, "",
        "" },
      { "equal: the greater source, unsigned", inlineHost( key, 1 ), inlineHost( key, 1 ), true,
        RankRule::source, " dests are same, tie break comparing source enum, 0x80000000 vs 0x1",
        " dests are same, tie break comparing source enum, 0x1 vs 0x80000000", c, 1 },
      { "objects: the greater source, whatever they are", objectHost( key, dest( 9 ) ),
        objectHost( key, dest( 1 ) ), false, RankRule::source,
        " tie break comparing source enum, 0x40 vs 0x100",
        " tie break comparing source enum, 0x100 vs 0x40" },
   };
   const Lab lab;
   TraceLines lines;
   for( const auto& test : cases ) {
      SCOPED_TRACE( test.what );
      const auto check = [ & ]( const Host& host, uint32_t source, const Host& current,
                                uint32_t currentSource, bool better, const std::string& text ) {
         const auto of = Source( source ), ofCurrent = Source( currentSource );
         EXPECT_EQ( test.rule, rankHost( host, of, current, ofCurrent ).rule );
         lines.clear();
         EXPECT_EQ( better, lab.engine->hostIsBetter( host, of, current, ofCurrent ) );
         EXPECT_EQ( 1, lines.count( "hostIsBetter" + text ) );
      };
      check( test.host, test.source, test.current, test.currentSource, test.better, test.there );
      check( test.current, test.currentSource, test.host, test.source, !test.better, test.back );
   }
}

// --- review ------------------------------------------------------------------------------------

TEST( Review, HammerTicksForEverAndRetriesWhatIsParked ) {
   Lab lab;
   LabSource& source = lab.source( "one", a );
   source.set( objectHost( mvp( 1 ), lb( 1 ) ), group( 1, { dest( 1 ) } ) );
   const Vexil::Seconds start = lab.clock->now();
   lab.settle();
   EXPECT_EQ( "none", lab.outcome( mvp( 1 ) ) );
   lab.hammer();
   EXPECT_EQ( lab.engine->retries(), 2u ) << "the host and its group";
   source.set( objectHost( mvp( 2 ), lb( 1 ) ) ); // fails for less long
   lab.settle();
   EXPECT_TRUE( lab.engine->failedHost( mvp( 2 ) ) );
   lab.hammer();
   EXPECT_EQ( lab.engine->retries(), 2u + 3 ) << "in the pass of the second host none of them";
   EXPECT_EQ( lab.engine->awaited().oldest(), start ) << "retries do not make a failure younger";
   source.set( intfDest( 2, 7 ) );
   lab.settle();
   EXPECT_EQ( lab.engine->retries(), 2u + 3 ) << "nobody waits for this one";
   source.set( intfDest( 1, 7 ) );
   lab.settle();
   EXPECT_EQ( "lb/1 from 0x40", lab.outcome( mvp( 1 ) ) ) << "what it lacked has come";
   EXPECT_EQ( lab.engine->awaited().oldest(), Vexil::never );
   EXPECT_TRUE( lab.engine->failedHost().empty() );
   EXPECT_TRUE( lab.engine->failedOtas().empty() );
   EXPECT_LT( lab.clock->nextWake(), Vexil::never );
}

// --- sources that vanish -----------------------------------------------------------------------

TEST( SourceHold, HostsStayAndAreExaminedWhenItIsBackOrTheTimeIsOver ) {
   Lab lab;
   LabSource& source = lab.source( "one", a );
   source.set( intfDest( 1, 7 ), objectHost( mvp( 1 ), dest( 1 ) ), inlineHost( mvp( 2 ), 2 ),
               inlineHost( mvp( 3 ), 3 ), inlineHost( mvp( 4 ), 4 ) );
   lab.settle();
   source.set( objectHost( mvp( 2 ), lb( 1 ) ) ); // parked,
   lab.settle();
   source.host->hostDel( mvp( 3 ) ); // and queued, when it goes: decided like anything else
   lab.inputDir->entryDel( "one" );
   lab.settle();
   EXPECT_EQ( "none", lab.outcome( mvp( 3 ) ) );
   lab.pass( 11 );
   EXPECT_EQ( "none", lab.outcome( mvp( 2 ) ) );
   const uint64_t writes = lab.writes;
   lab.pass( 18 );
   EXPECT_EQ( writes, lab.writes );
   EXPECT_EQ( "dest/1 from 0x40", lab.outcome( mvp( 1 ) ) );

   LabSource& back = lab.source( "one", a, false );
   back.set( inlineHost( mvp( 2 ), 2 ), inlineHost( mvp( 4 ), 44 ) );
   lab.settle();
   EXPECT_EQ( writes, lab.writes ) << "back, but not initialized: nothing is touched";
   back.entry->initializedIs( true );
   lab.settle();
   EXPECT_EQ( writes + 4, lab.writes ) << "one withdrawn with its dest, one new, one changed";
   EXPECT_EQ( "none", lab.outcome( mvp( 1 ) ) );
   EXPECT_EQ( 0u, lab.output.dest->count() );

   back.entry->initializedIs( false );
   lab.inputDir->entryDel( "one" );
   lab.settle();
   EXPECT_EQ( 0u, lab.output.host->count() ) << "who said goodbye is not held";
}

// Whatever happens to others, hosts and flood members of a source are kept to the end of its own
// hold, and go then.
TEST( SourceHold, EachSourceHasItsOwnEnd ) {
   Lab lab;
   const std::pair<const char*, uint32_t> sources[] = {
      { "one", a }, { "two", b }, { "three", c } };
   for( uint64_t mac = 1; const auto& [ name, value ] : sources ) {
      lab.source( name, value ).set( inlineHost( mvp( mac ), mac ) );
      lab.sources[ name ].flood( 10, mac, { mac } );
      ++mac;
   }
   lab.settle();
   lab.inputDir->entryDel( "one" );
   lab.pass( 1 );
   lab.inputDir->entryDel( "two" );
   const auto left = [ & ] {
      const auto sets = lab.output.flood->vlanFloodSet( Bridging::VlanId( 10 ) );
      std::string text;
      for( uint64_t mac = 1; mac <= 3; ++mac ) {
         const bool host = lab.outcome( mvp( mac ) ) != "none";
         EXPECT_EQ( host, sets && sets->floodSet( Vexil::EthAddr( mac ) ) ) << mac;
         text += host ? std::to_string( mac ) : "-";
      }
      return text;
   };
   const struct {
      Vexil::Seconds passes;
      std::function<void()> then;
      const char* left;
      unsigned mask = 0;
   } story[] = {
      { 1, [] {}, "123", c },
      { 1, [ & ] { lab.engine->sourceSm( "three" )->handleOvertaken(); }, "123", c },
      { 1, [ & ] { lab.inputDir->entryDel( "three" ); }, "123" },
      { 1, [ & ] { lab.source( "three", c ); }, "12-", c }, // back without its host
      { 24, [] {}, "12-", c },
      { 1.5, [] {}, "-2-", c },
      { 1, [] {}, "---", c },
   };
   for( const auto& step : story ) {
      lab.pass( step.passes );
      step.then();
      lab.settle();
      EXPECT_EQ( step.left, left() );
      EXPECT_EQ( step.mask, lab.output.flood->source() );
   }

   // Others come and go with every turn, so that a walk over the output is always under way.
   for( uint64_t mac = 1; mac <= 200; ++mac )
      lab.sources[ "three" ].set( inlineHost( mvp( mac ), 3 ) );
   lab.settle();
   lab.inputDir->entryDel( "three" );
   lab.settle();
   lab.clock->nowIs( lab.clock->now() + 31 );
   lab.engine->reviewQuantumIs( 0 );
   lab.clock->tickIs( 0.001 );
   for( int turn = 0; turn < 2000 && lab.output.host->count() != 0; ++turn ) {
      lab.source( "other", b );
      lab.turn();
      lab.sources[ "other" ].entry->initializedIs( false );
      lab.inputDir->entryDel( "other" );
      lab.turn();
   }
   EXPECT_EQ( 0u, lab.output.host->count() );
}

// A change of attributes in the same entry is no new source; another entity under the name is.
TEST( Sources, EntityOfTheEntryTellsWhetherItIsTheSameSource ) {
   Lab lab;
   LabSource source = lab.source( "one", a );
   source.set( inlineHost( mvp( 1 ), 1 ) );
   lab.settle();
   const auto sm = lab.engine->sourceSm( "one" );
   source.entry->hostTableTarnPathIs( "elsewhere" );
   lab.engine->handleSource( "one" );
   source.set( inlineHost( mvp( 1 ), 2 ) );
   lab.settle();
   EXPECT_EQ( sm, lab.engine->sourceSm( "one" ) );
   EXPECT_EQ( "value 2 from 0x40", lab.outcome( mvp( 1 ) ) ) << "it goes on with its tables";
   lab.source( "one", a ).set( inlineHost( mvp( 1 ), 3 ) );
   lab.settle();
   EXPECT_NE( sm, lab.engine->sourceSm( "one" ) );
   EXPECT_EQ( "value 3 from 0x40", lab.outcome( mvp( 1 ) ) );

   lab.inputDir->entryIs( "one", makeEntity<Vexil::Directory>() ); // not an entry: counts as absent
   EXPECT_FALSE( lab.engine->sourceSm( "one" ) );
   EXPECT_FALSE( lab.engine->sourceSmByEnum( Source( a ) ) );
   EXPECT_EQ( 0u, lab.output.flood->source() );
}

} // namespace
} // namespace L2Rib::Test
