// The engine's decisions and its behaviour over time, as stories.
#include "tests/EngineLab.h"

#include "engine/HostRank.h"
#include "runtime/Trace.h"

#include <functional>
#include <random>

namespace L2Rib::Test {
namespace {

constexpr uint32_t a = 0x40, b = 0x100, c = 0x80000000;

// --- ranking -----------------------------------------------------------------------------------

TEST( Ranking, FirstRuleThatTellsTwoHostsApartDecides ) {
   const MacVlanPair key = mvp( 1 );
   const Host one = vtepHost( key, { "10.0.0.9" } );
   const Host two = vtepHost( key, { "10.0.0.1", "10.0.0.2" } );
   const struct {
      const char* what;
      Host host;
      Source source;
      Host current;
      Source currentSource;
      bool better;
      RankRule rule;
   } cases[] = {
      { "pref is unsigned", inlineHost( key, 1, 0xffffffff ), Source( a ), inlineHost( key, 1, 1 ),
        Source( b ), true, RankRule::pref },
      { "pref before seqNo", inlineHost( key, 1, 99, 9 ), Source( a ), inlineHost( key, 1, 100, 1 ),
        Source( b ), false, RankRule::pref },
      { "a wrapped seqNo is newer", inlineHost( key, 1, 100, 1 ), Source( a ),
        inlineHost( key, 1, 100, 0xffffffff ), Source( b ), true, RankRule::seqNo },
      { "half a circle apart nobody is newer", inlineHost( key, 2, 100, 0 ), Source( a ),
        inlineHost( key, 1, 100, 0x80000000 ), Source( b ), true, RankRule::ciDest },
      { "inline beats object", inlineHost( key, 1 ), Source( a ), objectHost( key, dest( 1 ) ),
        Source( b ), true, RankRule::inlineOverObject },
      { "more VTEPs beat fewer", two, Source( a ), one, Source( b ), true, RankRule::ciDest },
      { "VXLAN beats the default kind", one, Source( a ), inlineHost( key, ~0ull ), Source( b ),
        true, RankRule::ciDest },
      { "equal: the greater source, unsigned", inlineHost( key, 1 ), Source( c ),
        inlineHost( key, 1 ), Source( 1 ), true, RankRule::source },
      { "objects: the greater source, whatever they are", objectHost( key, dest( 9 ) ), Source( a ),
        objectHost( key, dest( 1 ) ), Source( b ), false, RankRule::source },
   };
   for( const auto& test : cases ) {
      SCOPED_TRACE( test.what );
      const Ranking there = rankHost( test.host, test.source, test.current, test.currentSource );
      const Ranking back = rankHost( test.current, test.currentSource, test.host, test.source );
      EXPECT_EQ( test.better, there.better );
      EXPECT_EQ( !test.better, back.better );
      EXPECT_EQ( test.rule, there.rule );
      EXPECT_EQ( test.rule, back.rule );
   }
}

Host randomHost( std::mt19937_64& random, const MacVlanPair& key ) {
   // The last three make a circle: each is newer than the one before it.
   static constexpr uint32_t seqNos[] = { 0, 1, 0x50000000, 0xa0000000, 0xf0000000 };
   const uint32_t seqNo = seqNos[ random() % 5 ];
   const uint32_t pref = 100 + static_cast<uint32_t>( random() % 4 == 0 );
   return random() % 3 == 0 ? objectHost( key, dest( 1 + random() % 2 ), pref, seqNo )
                            : inlineHost( key, random() % 3, pref, seqNo );
}

// The decision depends on what the sources hold now, not on who came first: any order of arrival
// ends in the same row, also where the sequence numbers run in a circle.
TEST( Ranking, DecisionIsAFunctionOfTheContent ) {
   std::mt19937_64 random( 7 );
   for( int round = 0; round < 200; ++round ) {
      const MacVlanPair key = mvp( 1 );
      std::vector<std::pair<std::string, uint32_t>> order{
         { "red", a }, { "green", b }, { "blue", c } };
      std::map<std::string, Host> hosts;
      for( const auto& [ name, value ] : order )
         hosts[ name ] = randomHost( random, key );
      std::set<std::string> outcomes;
      for( int arrival = 0; arrival < 3; ++arrival ) {
         Lab lab;
         std::shuffle( order.begin(), order.end(), random );
         for( const auto& [ name, value ] : order ) {
            LabSource& source = lab.source( name, value );
            source.set( intfDest( 1, 1 ) );
            source.set( intfDest( 2, 2 ) );
            lab.settle();
         }
         std::shuffle( order.begin(), order.end(), random );
         for( const auto& [ name, value ] : order ) {
            lab.sources[ name ].set( hosts[ name ] );
            lab.settle();
         }
         outcomes.insert( sourceStr( lab.row( key ).source() ) );
      }
      EXPECT_EQ( 1u, outcomes.size() ) << "round " << round;
   }
}

// --- best host ---------------------------------------------------------------------------------

TEST( BestHost, FollowsTheSourcesLive ) {
   Lab lab;
   LabSource& weak = lab.source( "weak", a );
   LabSource& strong = lab.source( "strong", b, false );
   weak.set( inlineHost( mvp( 1 ), 1 ) );
   strong.set( inlineHost( mvp( 1 ), 2 ) );
   strong.set( inlineHost( mvp( 2 ), 2 ) );
   lab.settle();
   EXPECT_EQ( "value 1 from 0x40", lab.outcome( mvp( 1 ) ) ) << "not initialized, not counted";
   strong.entry->initializedIs( true );
   lab.settle();
   EXPECT_EQ( "value 2 from 0x100", lab.outcome( mvp( 1 ) ) );
   EXPECT_EQ( "value 2 from 0x100", lab.outcome( mvp( 2 ) ) );
   const uint64_t writes = lab.writes;
   strong.set( inlineHost( mvp( 1 ), 2 ) );
   lab.settle();
   EXPECT_EQ( writes, lab.writes ) << "an unchanged decision is not written again";
   strong.host->hostDel( mvp( 1 ) );
   lab.settle();
   EXPECT_EQ( "value 1 from 0x40", lab.outcome( mvp( 1 ) ) );
   strong.entry->initializedIs( false );
   lab.settle();
   EXPECT_EQ( "none", lab.outcome( mvp( 2 ) ) );
   EXPECT_EQ( a, lab.output.flood->source() );
}

TEST( BestHostDeath, BrokenInvariantsStopTheProcessWithTheirText ) {
   const auto publish = []( const Host& host ) {
      Lab lab;
      lab.source( "one", a ).set( host );
      lab.settle();
   };
   const char* const text =
      "assertion failed: h.next\\(\\) != Util::objTupleInvalid\\(\\) \\|\\| "
      "validDest\\( h.ciDest\\(\\) \\), file engine/BestHost.cpp, line [0-9]+, "
      "function bool L2Rib::PolicySm::processHost\\(const "
      "Bridging::MacVlanPair&\\)";
   EXPECT_DEATH( publish( vtepHost( mvp( 1 ), { "10.0.0.1", "10.0.0.1" } ) ), text );
   EXPECT_DEATH( publish( vtepHost( mvp( 1 ), { "10.0.0.2", "10.0.0.1" } ) ), text );
   const auto sameValue = [] {
      Lab lab;
      lab.source( "one", a );
      lab.source( "two", a );
   };
   EXPECT_DEATH( sameValue(), "! policySm\\(\\)->sourceSmByEnum\\( source\\(\\)->source\\(\\) \\) "
                              "\\|\\| policySm\\(\\)->sourceSmByEnum\\( "
                              "source\\(\\)->source\\(\\) \\) == this" );
   const auto noValue = [] {
      Lab lab;
      lab.source( "one", 0 );
   };
   EXPECT_DEATH( noValue(), "source\\(\\)->source\\(\\) != sourceNone_" );
   const auto bothDirectories = [] {
      Lab lab;
      lab.source( "one", a );
      lab.agentInputDir->sourceIs( "one" );
   };
   EXPECT_DEATH( bothDirectories(), "!externalSource" );
}

TEST( BestHost, TracesSayWhatWasDecided ) {
   const TraceLines lines;
   Lab lab;
   lab.source( "one", a ).set( inlineHost( mvp( 1 ), 1, 100 ) );
   lab.source( "two", b ).set( inlineHost( mvp( 1 ), 1, 200 ) );
   lab.settle();
   lines.expect(
      { " 0 BestHost:",
        "void L2Rib::PolicySm::handleHost(const Bridging::MacVlanPair&) (02:00:00:00:00:01/10)",
        "maybeRescheduleHostReview rescheduling host review.",
        "bool L2Rib::PolicySm::processHost(const Bridging::MacVlanPair&) (02:00:00:00:00:01/10)",
        "processHost found host (02:00:00:00:00:01/10) in source 0x",
        "bool L2Rib::PolicySm::hostIsBetter(const L2Rib::Host&, L2Rib::Source, const "
        "L2Rib::Host&, L2Rib::Source) const comparing ",
        " on pref", "processHost Looking up (02:00:00:00:00:01/10) in output.",
        "processHost pushing ", "handleReviewTimer host check complete with 1 hosts",
        "handleReviewTimer otas check complete with 0 otass" } );
}

TEST( BestHost, TracesSayWhichRuleDecided ) {
   const MacVlanPair key = mvp( 1 );
   const struct {
      Host host, current;
      const char* text;
   } cases[] = {
      { inlineHost( key, 1, 9 ), inlineHost( key, 1, 8 ), "hostIsBetter win on pref" },
      { inlineHost( key, 1, 8 ), inlineHost( key, 1, 9 ), "hostIsBetter lose on pref" },
      { inlineHost( key, 1, 9, 2 ), inlineHost( key, 1, 9, 1 ), "hostIsBetter win on seqNo" },
      { inlineHost( key, 1, 9, 1 ), inlineHost( key, 1, 9, 2 ), "hostIsBetter lose on seqNo" },
      { inlineHost( key, 1 ), objectHost( key, dest( 1 ) ), "hostIsBetter win because MT > CI" },
      { objectHost( key, dest( 1 ) ), inlineHost( key, 1 ), "hostIsBetter lose because CI < MT" },
      { objectHost( key, dest( 1 ) ), objectHost( key, dest( 2 ) ),
        "hostIsBetter tie break comparing source enum, 0x40 vs 0x100" },
      { inlineHost( key, 1 ), inlineHost( key, 1 ),
        "hostIsBetter dests are same, tie break comparing source enum, 0x40 vs 0x100" },
   };
   const Lab lab;
   TraceLines lines;
   for( const auto& test : cases ) {
      lines.clear();
      lab.engine->hostIsBetter( test.host, Source( a ), test.current, Source( b ) );
      lines.expect( { test.text } );
   }
}

// --- review ------------------------------------------------------------------------------------

TEST( Review, SlicesOfQuantumZeroTakeOneEntryEach ) {
   Lab lab;
   lab.engine->reviewQuantumIs( 0 );
   lab.clock->tickIs( 0.001 );
   LabSource& source = lab.source( "one", a );
   lab.settle();
   for( uint64_t mac = 1; mac <= 40; ++mac )
      source.set( inlineHost( mvp( mac ), mac ) );
   for( uint64_t slices = 1; slices <= 40; ++slices ) {
      lab.turn();
      EXPECT_EQ( slices, lab.output.host->count() );
   }
   EXPECT_TRUE( lab.engine->hostList().empty() );
   EXPECT_EQ( Util::mvpInvalid(), lab.engine->hostBookmark() );
}

// A slice that runs out of time at the last host leaves the objects to the next pass, which begins
// with what failed.
TEST( Review, TracesOfSlicesAndOfFailures ) {
   TraceLines lines;
   Lab lab;
   LabSource& source = lab.source( "one", a );
   lab.settle();
   lab.engine->reviewQuantumIs( 0 );
   lab.clock->tickIs( 0.001 );
   source.set( group( 1, { label( 1 ) } ) );
   source.set( push( 1, 5, dest( 1 ) ) );
   source.set( objectHost( mvp( 1 ), lb( 1 ) ) );
   lines.clear();
   lab.turn();
   lines.expect( { "processLabel failed to processdest/1 from 0x40",
                   "processLb failed to process label/1 from 0x40 (cascading)",
                   "processHost failed to process lb/1 from 0x40 (cascading)",
                   "handleReviewTimer processing failure on (02:00:00:00:00:01/10)",
                   "handleReviewTimer ending review run after 1 hosts",
                   "handleReviewTimer host check complete (at timeout) with 1 hosts" } );
   EXPECT_TRUE( lab.engine->failedHost( mvp( 1 ) ) );
   EXPECT_EQ( 2u, lab.engine->otasList().size() );
   lab.turn();
   lines.expect( { "handleReviewTimer looking at host (02:00:00:00:00:01/10)",
                   "handleReviewTimer looking at host (02:00:00:00:00:01/10)" } );

   lab.newEngine();
   lines.clear();
   lab.engine->handleReviewTimer();
   lines.expect( { "handleReviewTimer initial sync still running." } );
}

TEST( Review, ChangesAheadOfAndBehindTheBookmarkAreAllMet ) {
   std::mt19937_64 random( 11 );
   Lab lab;
   lab.engine->reviewQuantumIs( 0 );
   lab.clock->tickIs( 0.001 );
   LabSource& source = lab.source( "one", a );
   std::map<uint64_t, uint64_t> model;
   for( int step = 0; step < 4000; ++step ) {
      const uint64_t mac = 1 + random() % 100;
      if( random() % 3 == 0 ) {
         source.host->hostDel( mvp( mac ) );
         model.erase( mac );
      } else {
         model[ mac ] = random() % 1000;
         source.set( inlineHost( mvp( mac ), model[ mac ] ) );
      }
      if( random() % 2 )
         lab.turn();
   }
   lab.settle();
   EXPECT_EQ( model.size(), lab.output.host->count() );
   for( const auto& [ mac, value ] : model )
      EXPECT_EQ( "value " + std::to_string( value ) + " from 0x40", lab.outcome( mvp( mac ) ) );
}

TEST( Review, FullOutputParksTheHostUntilAnotherGoes ) {
   Lab lab( { .host = 4 } );
   LabSource& source = lab.source( "one", a );
   source.set( intfDest( 1, 12 ) );
   for( uint64_t mac = 1; mac <= 4; ++mac )
      source.set( inlineHost( mvp( mac ), mac ) );
   lab.settle();
   source.set( objectHost( mvp( 5 ), dest( 1 ) ) );
   lab.settle();
   EXPECT_EQ( "none", lab.outcome( mvp( 5 ) ) );
   EXPECT_TRUE( lab.engine->failedHost( mvp( 5 ) ) );
   const uint64_t writes = lab.writes;
   for( int tick = 0; tick < 3; ++tick )
      lab.hammer();
   EXPECT_EQ( writes, lab.writes ) << "objects of a host that has no room are left alone";
   EXPECT_EQ( 1u, lab.engine->awaited().count( parkedTableFull_ ) );
   source.host->hostDel( mvp( 1 ) );
   lab.settle();
   EXPECT_EQ( 4u, lab.output.host->count() ) << "room came";
   EXPECT_TRUE( lab.exists( dest( 1 ) ) ) << "no id was given before";
   EXPECT_TRUE( lab.engine->awaited().empty() );
}

// Slices that end with every host, one of which fails each time: the others get their turn all the
// same, and so do the objects.
TEST( Review, FailingHostStarvesNobody ) {
   Lab lab;
   LabSource& source = lab.source( "one", a );
   source.set( intfDest( 1, 1 ) );
   source.set( objectHost( mvp( 1 ), dest( 1 ) ) );
   source.set( objectHost( mvp( 2 ), lb( 9 ) ) );
   lab.settle();
   lab.engine->reviewQuantumIs( 0 );
   lab.clock->tickIs( 0.0001 );
   source.set( objectHost( mvp( 2 ), lb( 8 ) ) );
   source.set( inlineHost( mvp( 3 ), 3 ) );
   source.set( intfDest( 1, 2 ) );
   for( int turn = 0; turn < 10; ++turn )
      lab.turn();
   EXPECT_EQ( "value 3 from 0x40", lab.outcome( mvp( 3 ) ) );
   EXPECT_EQ( 2u, lab.output.dest->dest( DestId( 1 ) ).dest().intf().intf.value() );
   EXPECT_TRUE( lab.engine->otasList().empty() );
   EXPECT_TRUE( lab.engine->failedHost( mvp( 2 ) ) );
}

TEST( Review, HammerTicksForEverAndRetriesWhatIsParked ) {
   Lab lab;
   LabSource& source = lab.source( "one", a );
   source.set( objectHost( mvp( 1 ), lb( 1 ) ) );
   source.set( group( 1, { dest( 1 ) } ) );
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
   source.set( intfDest( 1, 7 ) );
   source.set( objectHost( mvp( 1 ), dest( 1 ) ) );
   for( uint64_t mac = 2; mac <= 4; ++mac )
      source.set( inlineHost( mvp( mac ), mac ) );
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
   back.set( inlineHost( mvp( 2 ), 2 ) );
   back.set( inlineHost( mvp( 4 ), 44 ) );
   lab.settle();
   EXPECT_EQ( writes, lab.writes ) << "back, but not initialized: nothing is touched";
   back.entry->initializedIs( true );
   lab.settle();
   EXPECT_EQ( writes + 4, lab.writes ) << "one withdrawn with its dest, one new, one changed";
   EXPECT_EQ( "none", lab.outcome( mvp( 1 ) ) );
   EXPECT_EQ( 0u, lab.output.dest->count() );

   lab.inputDir->entryDel( "one" );
   lab.pass( 31 );
   EXPECT_EQ( 0u, lab.output.host->count() ) << "the hold time is over";
}

TEST( SourceHold, WhoSaidGoodbyeIsNotHeld ) {
   Lab lab;
   lab.source( "one", a ).set( inlineHost( mvp( 1 ), 1 ) );
   lab.settle();
   lab.sources[ "one" ].entry->initializedIs( false );
   lab.inputDir->entryDel( "one" );
   lab.settle();
   EXPECT_EQ( "none", lab.outcome( mvp( 1 ) ) );
}

// Whatever happens to others, what a source left is kept to the end of its own hold, and goes then.
TEST( SourceHold, EachSourceHasItsOwnEnd ) {
   Lab lab;
   lab.source( "one", a ).set( inlineHost( mvp( 1 ), 1 ) );
   lab.source( "two", b ).set( inlineHost( mvp( 2 ), 2 ) );
   lab.source( "three", c ).set( inlineHost( mvp( 3 ), 3 ) );
   lab.settle();
   lab.inputDir->entryDel( "one" );
   lab.pass( 1 );
   lab.inputDir->entryDel( "two" );
   const auto all = [ & ] {
      std::string text;
      for( uint64_t mac = 1; mac <= 3; ++mac )
         text += lab.outcome( mvp( mac ) ) == "none" ? "-" : std::to_string( mac );
      return text;
   };
   const struct {
      Vexil::Seconds passes;
      std::function<void()> then;
      const char* left;
   } story[] = {
      { 1, [] {}, "123" },
      { 1, [ & ] { lab.engine->sourceSm( "three" )->handleOvertaken(); }, "123" },
      { 1, [ & ] { lab.inputDir->entryDel( "three" ); }, "123" },
      { 1, [ & ] { lab.source( "three", c ); }, "12-" }, // back without its host
      { 24, [] {}, "12-" },
      { 1.5, [] {}, "-2-" },
      { 1, [] {}, "---" },
   };
   for( const auto& step : story ) {
      lab.pass( step.passes );
      step.then();
      lab.settle();
      EXPECT_EQ( step.left, all() );
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

// Each of the three is newer than one of the others: which one is taken depends on all of them, and
// on the ones that are there alone.
TEST( SourceHold, EndOfAHoldIsForAllHosts ) {
   for( const char* leaver : { "one", "two", "three" } ) {
      Lab lab;
      lab.source( "one", a ).set( inlineHost( mvp( 1 ), 1, 100, 0 ) );
      lab.source( "two", b ).set( inlineHost( mvp( 1 ), 2, 100, 0x60000000 ) );
      lab.source( "three", c ).set( inlineHost( mvp( 1 ), 3, 100, 0xc0000000 ) );
      lab.settle();
      lab.inputDir->entryDel( leaver );
      lab.pass( 31 );
      const std::string outcome = lab.outcome( mvp( 1 ) );
      lab.newEngine();
      lab.settle();
      EXPECT_EQ( lab.outcome( mvp( 1 ) ), outcome ) << "without " << leaver;
   }
}

// Entries go and come with all kinds of work queued; nothing may stop the engine.
TEST( SourceHold, VanishingWithWorkQueuedNeverStopsTheEngine ) {
   std::mt19937_64 random( 5 );
   Lab lab;
   lab.engine->reviewQuantumIs( 0 );
   lab.clock->tickIs( 0.0001 );
   for( int step = 0; step < 3000; ++step ) {
      const std::string name( 1, static_cast<char>( 'a' + random() % 3 ) );
      const uint32_t value = 1u << ( 6 + ( name[ 0 ] - 'a' ) );
      switch( random() % 8 ) {
      case 0:
         lab.inputDir->entryDel( name );
         break;
      case 1:
         lab.source( name, value, random() % 2 ); // replaces the entry, with other tables
         break;
      case 2:
         if( lab.sources.contains( name ) )
            lab.sources[ name ].entry->initializedIs( random() % 2 );
         break;
      case 3:
         lab.clock->nowIs( lab.clock->now() + static_cast<double>( random() % 12 ) );
         break;
      default:
         if( lab.sources.contains( name ) ) {
            LabSource& source = lab.sources[ name ];
            source.set( objectHost( mvp( 1 + random() % 5 ), lb( 1 + random() % 3 ) ) );
            source.set( group( 1 + random() % 3, { dest( 1 + random() % 3 ), label( 1 ) } ) );
            source.set( push( 1, 100, dest( 1 + random() % 3 ) ) );
            source.set( intfDest( 1 + random() % 3, random() % 3 ) );
         }
      }
      if( random() % 2 )
         lab.turn();
      if( HasFailure() )
         return;
   }
   for( const char* name : { "a", "b", "c" } )
      lab.inputDir->entryDel( name );
   lab.pass( 31 );
   lab.hammer();
   EXPECT_EQ( 0u, lab.output.host->count() + lab.output.lb->count() + lab.output.label->count() +
                     lab.output.dest->count() );
   EXPECT_TRUE( lab.engine->usersMap().empty() );
   for( const TableType type : { tableTypeDest_, tableTypeLoadBalance_, tableTypeLabel_ } )
      EXPECT_EQ( 0u, lab.engine->tupleManager( type )->size() );
}

TEST( Sources, EntryIsMadeAgainOnlyWithAllItsArguments ) {
   Lab lab;
   LabSource& source = lab.source( "one", a );
   const auto sm = lab.engine->sourceSm( "one" );
   EXPECT_EQ( sm, lab.engine->sourceSmIs( "one", source.entry, lab.engine.get(), lab.manager ) );
   const auto refusal = [ & ]( Ptr<SourceDirEntry> entry ) -> std::string {
      try {
         lab.engine->sourceSmIs( "one", entry, lab.engine.get(), lab.manager );
      } catch( const Vexil::MutatorFailure& failure ) {
         return failure.what();
      }
      return "accepted";
   };
   EXPECT_EQ( "null ValidPtr", refusal( nullptr ) );
   EXPECT_NE( std::string::npos,
              refusal( makeEntity<SourceDirEntry>( "one" ) )
                 .find( "Reinstantiating the pointer interface where constructor parameter "
                        "attribute _source has a different value of " ) );
}

// A change of attributes in the same entry is no new source; another entity under the name is.
TEST( Sources, EntityOfTheEntryTellsWhetherItIsTheSameSource ) {
   Lab lab;
   LabSource source = lab.source( "one", a );
   source.set( inlineHost( mvp( 1 ), 1 ) );
   lab.settle();
   const auto sm = lab.engine->sourceSm( "one" );
   source.entry->hostTableTarnPathIs( "elsewhere" );
   source.entry->hostTableLenIs( 7 );
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

TEST( Sources, TablesAreReplayedObjectsBeforeHosts ) {
   Lab lab;
   LabSource& source = lab.source( "one", a, false );
   source.set( inlineHost( mvp( 1 ), 1 ) );
   source.set( push( 3, 5, dest( 1 ) ) );
   source.set( group( 2, { dest( 1 ) } ) );
   source.set( intfDest( 1, 1 ) );
   const TraceLines lines;
   source.entry->initializedIs( true );
   lines.expect( { "handleSourceInitialized() for one", "handleDest(const L2Rib::DestId&) for one",
                   "handleOtas(const L2Rib::ObjTupleAndSource&) dest/1 from 0x40",
                   "handleOtas(const L2Rib::ObjTupleAndSource&) lb/2 from 0x40",
                   "handleOtas(const L2Rib::ObjTupleAndSource&) label/3 from 0x40",
                   "PolicySm::handleHost(const Bridging::MacVlanPair&) (02:00:00:00:00:01/10)",
                   "setFloodSetOutputType()", "setFloodSetOutputType new source is 40" } );
}

TEST( SourcesDeath, ContradictoryEntriesStopTheProcess ) {
   const auto publish = []( const std::function<void( Lab&, SourceDirEntry& )>& spoil ) {
      Lab lab;
      LabSource& source = lab.source( "one", a, false );
      spoil( lab, *source.entry );
      source.entry->initializedIs( true );
      lab.source( "two", b ).set( inlineHost( mvp( 1 ), 1 ) );
      lab.settle();
   };
   const struct {
      const char* what;
      std::function<void( Lab&, SourceDirEntry& )> spoil;
      const char* text;
   } cases[] = {
      { "no host table at all",
        []( Lab&, SourceDirEntry& entry ) { entry.hostTableTarnPathIs( "" ); }, "hostTable_" },
      { "a host-only source with dests",
        []( Lab&, SourceDirEntry& entry ) { entry.lbTableTarnPathIs( "" ); },
        "source\\(\\)->destTableTarnPath\\(\\).empty\\(\\)" },
      { "a table of another type",
        []( Lab& lab, SourceDirEntry& entry ) {
           lab.manager->entityIs( "odd", makeEntity<DestTable>( 8u ) );
           entry.labelTableTarnPathIs( "odd" );
        },
        "assertion failed: labelTable," },
   };
   for( const auto& test : cases ) {
      SCOPED_TRACE( test.what );
      EXPECT_DEATH( publish( test.spoil ), test.text );
   }
}

} // namespace
} // namespace L2Rib::Test
