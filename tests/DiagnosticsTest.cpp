// What the engine says: the texts of its assertions, its refusals and its trace, in the words that
// people and scripts look for.
#include "tests/EngineLab.h"

#include <functional>

namespace L2Rib::Test {
namespace {

constexpr uint32_t a = 0x40, b = 0x100, c = 0x80000000;

// A regular expression that matches this text alone.
std::string literally( const std::string& text ) {
   std::string all;
   for( const char c : text )
      all += ( std::string( "().*|" ).find( c ) == std::string::npos ? "" : "\\" ) +
             std::string( 1, c );
   return all;
}

TEST( EngineDeath, BrokenInvariantsStopTheProcessWithTheirText ) {
   constexpr auto invalid = Util::objTupleInvalid;
   constexpr auto noHost = Util::mvpInvalid;
   std::unique_ptr<Lab> lab; // made anew in each of the processes that die
   LabSource *one = nullptr, *two = nullptr;
   const auto process = [ & ]( const ObjTuple& object, uint32_t source ) {
      lab->engine->processOtas( ObjTupleAndSource( object, Source( source ) ), true );
   };
   const char* const vteps = "h.next() != Util::objTupleInvalid() || validDest( h.ciDest() )";
   const struct {
      const char* text;
      std::function<void()> spoil;
      const char* function = "";
   } cases[] = {
      { vteps,
        [ & ] {
           one->set( vtepHost( mvp( 1 ), { "10.0.0.1", "10.0.0.1" } ) );
        },
        "function bool L2Rib::PolicySm::processHost(const Bridging::MacVlanPair&)" },
      { vteps,
        [ & ] {
           one->set( vtepHost( mvp( 1 ), { "10.0.0.2", "10.0.0.1" } ) );
        } },
      { "! policySm()->sourceSmByEnum( source()->source() ) || "
        "policySm()->sourceSmByEnum( source()->source() ) == this",
        [ & ] { lab->source( "three", a ); } },
      { "source()->source() != sourceNone_", [ & ] { lab->source( "three", 0 ); } },
      { "!externalSource", [ & ] { lab->agentInputDir->sourceIs( "one" ); } },
      { "hostTable_",
        [ & ] {
           two->entry->hostTableTarnPathIs( "" );
           one->set( inlineHost( mvp( 2 ), 1 ) );
        } },
      { "source()->destTableTarnPath().empty()", [ & ] { two->entry->lbTableTarnPathIs( "" ); } },
      { "labelTable",
        [ & ] {
           lab->manager->entityIs( "odd", makeEntity<DestTable>( 8u ) );
           two->entry->labelTableTarnPathIs( "odd" );
        } },
      { "inLb.nexts() > 0", [ & ] { one->set( group( 1, {} ) ); } },
      { "*it != Util::objTupleInvalid()",
        [ & ] {
           one->set( group( 1, { invalid(), dest( 1 ) } ) );
        } },
      { "inLabel.next() != Util::objTupleInvalid()",
        [ & ] { one->set( group( 1, { label( 1 ) } ), push( 1, 1, invalid() ) ); } },
      { "otas.tableType() != tableTypeInvalid_", [ & ] { lab->engine->processOtas( {}, true ); } },
      { "otas.destId() != Util::destIdInvalid()", [ & ] { process( dest( 0 ), a ); } },
      { "sm", [ & ] { process( dest( 1 ), c ); } },
      { "otUsed != Util::objTupleInvalid()",
        [ & ] { lab->engine->addUser( invalid(), dest( 1 ), noHost() ); } },
      { "( otUser != Util::objTupleInvalid() && mvpUser == Util::mvpInvalid() ) || "
        "( otUser == Util::objTupleInvalid() && mvpUser != Util::mvpInvalid() )",
        [ & ] { lab->engine->isUser( dest( 1 ), lb( 1 ), mvp( 1 ) ); } },
      { "otu", [ & ] { lab->engine->rmUser( dest( 1 ), invalid(), mvp( 1 ) ); } },
      { "otu->otUser( otUser )",
        [ & ] {
           lab->engine->addUser( dest( 1 ), lb( 1 ), noHost() );
           lab->engine->rmUser( dest( 1 ), lb( 2 ), noHost() );
        } },
      { "restartState() == otSourceCheck_",
        [ & ] {
           lab->engine->restoreMapping( ObjTupleAndSource( dest( 1 ), Source( a ) ), dest( 1 ) );
        } },
      { "dest.key() == Util::destIdNotInTarn()",
        [ & ] { floodIs( *one->entry, 10, 1, intfDest( 1, 1 ) ); } },
      { "ifs->floodSetType() != floodSetTypeInvalid_",
        [ & ] { floodIs( *one->entry, 10, 1, floodDest( 1 ), floodSetTypeInvalid_ ); } },
   };
   for( const auto& test : cases ) {
      const auto run = [ & ] {
         lab = std::make_unique<Lab>();
         one = &lab->source( "one", a );
         two = &lab->source( "two", b, false );
         one->set( objectHost( mvp( 1 ), lb( 1 ) ) );
         test.spoil();
         two->entry->initializedIs( true );
         lab->settle();
      };
      EXPECT_DEATH( run(), "assertion failed: " + literally( test.text ) +
                              ", file engine/[A-Za-z0-9]+.cpp, line [0-9]+, .*" +
                              literally( test.function ) )
         << test.text;
   }
}

TEST( EngineRefusal, EntryIsMadeAgainOnlyWithAllItsArguments ) {
   Lab lab;
   const LabSource& source = lab.source( "one", a );
   const auto again = [ & ]( Ptr<SourceDirEntry> entry ) -> std::string {
      try {
         const auto before = lab.engine->sourceSm( "one" );
         return before == lab.engine->sourceSmIs( "one", entry, lab.engine.get(), lab.manager )
                   ? "the same"
                   : "another";
      } catch( const Vexil::MutatorFailure& failure ) {
         return failure.what();
      }
   };
   EXPECT_EQ( "the same", again( source.entry ) );
   EXPECT_EQ( "null ValidPtr", again( nullptr ) );
   EXPECT_EQ( 0u, again( makeEntity<SourceDirEntry>( "one" ) )
                     .find( "Reinstantiating the pointer interface where constructor parameter "
                            "attribute _source has a different value of " ) );
}

struct EngineTrace : ::testing::Test {
   TraceLines lines;
   Lab lab;
   LabSource& source = lab.source( "one", a );
   void oneEntryASlice() {
      lab.settle();
      lab.engine->reviewQuantumIs( 0 );
      lab.engine->floodReviewQuantumIs( 0 );
      lab.clock->tickIs( 0.001 );
      lines.clear();
   }
};

TEST_F( EngineTrace, SaysWhatWasDecided ) {
   source.set( inlineHost( mvp( 1 ), 1, 100 ) );
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

// A slice that runs out of time at the last host leaves the objects to the next pass.
TEST_F( EngineTrace, TellsOfSlicesAndOfFailures ) {
   oneEntryASlice();
   source.set( group( 1, { label( 1 ) } ), push( 1, 5, dest( 1 ) ),
               objectHost( mvp( 1 ), lb( 1 ) ) );
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
   EXPECT_EQ( 1u, lab.engine->otasList().size() );

   lab.newEngine();
   lab.engine->handleReviewTimer();
   lines.expect( { "handleReviewTimer initial sync still running." } );
}

TEST_F( EngineTrace, TellsTheOrderOfWritesAndUsers ) {
   source.set( objectHost( mvp( 1 ), label( 1 ) ), push( 1, 100, lb( 1 ) ),
               group( 1, { dest( 1 ), dest( 2 ) } ), intfDest( 1, 1 ) );
   lab.settle();
   lines.expect( { "processDest No such output dest, new destId is ", "processDest writing ",
                   "addUser instantiating new otu for dest/1",
                   "processDest mismatched keys, delete not handled here.",
                   "processLb failed to process dest/2", "rmUser no users left for dest/1",
                   "onZeroRefs deleting otu for dest/1", "foundFailedOtas(",
                   "processLabel failed to processlb/1", " (cascading)", "foundFailedOtas(",
                   "processHost failed to process label/1", " (cascading)",
                   "handleReviewTimer processing failure on " } );
   source.set( intfDest( 2, 2 ) );
   lab.hammer();
   source.set( push( 1, 100, dest( 3 ) ), intfDest( 3, 3 ) );
   lines.clear();
   lab.settle();
   lines.expect( { "processLabel writing ", "addUser(", "using dest/", "rmUser(", "using lb/",
                   "rmUser no users left for lb/", "onLbZeroRefs(", "rmUser(", "using dest/",
                   "onDestZeroRefs(", "rmUser(", "using dest/", "onDestZeroRefs(" } );
   EXPECT_EQ( "push 100 ( intf 3 )", lab.resolved( mvp( 1 ) ) );
   lines.clear();
   source.set( intfDest( 3, 3 ), intfDest( 9, 9 ), push( 9, 9, dest( 3 ) ),
               group( 9, { dest( 3 ) } ) );
   lab.settle();
   for( const char* text : { "processDest no change in dest, ignoring update",
                             "processDest No such output dest, create not handled now.",
                             "processLabel no such output Label, create not handled here.",
                             "processLb no such output LB, create not handled here." } )
      lines.expect( { text } ); // in whatever order they are looked at
}

TEST_F( EngineTrace, TellsOfTheMergedFloodSets ) {
   oneEntryASlice();
   source.flood( 10, 1, { 1, 2 } );
   lab.settle();
   source.entry->vlanFloodSetDel( Bridging::VlanId( 10 ) );
   lab.settle();
   // An empty VLAN that something else left goes with the next removal, whatever that is of.
   lab.output.flood->vlanFloodSetIs( Bridging::VlanId( 20 ) );
   lab.engine->handleFloodSetDest( Bridging::VlanId( 20 ), Vexil::EthAddr(), floodDest( 3 ) );
   lab.engine->setFloodSetOutputType();
   EXPECT_TRUE( lab.output.flood->vlanFloodSet().empty() );
   const std::string judge = "void L2Rib::PolicySm::handleFloodSetDest(const Bridging::VlanId&, "
                             "const Vexil::EthAddr&, const L2Rib::Dest&)";
   const std::string work = "void L2Rib::PolicySm::processFloodSetBacklog()";
   for( const auto& [ times, text ] : std::vector<std::pair<long, std::string>>{
           { 2, work + " floodSet length: 2" },
           { 2, work + " processed 1 from backlog" },
           { 4, judge + " vlan: 10 mac: 00:00:00:00:00:01 dest: { flood dest intf " },
           { 2, judge + " deleting { flood dest intf " },
           { 1, judge + " deleting output FloodSet for 10/00:00:00:00:00:01" },
           { 1, judge + " deleting output VlanFloodSet for 10" },
           { 1, judge + " deleting output VlanFloodSet for 20" },
           { 1, "setFloodSetOutputType adding one (0x40) to type." },
           { 1, "setFloodSetOutputType new source is 40, old is 40" } } )
      EXPECT_EQ( times, lines.count( text ) ) << text;
}

TEST_F( EngineTrace, TablesAreReplayedObjectsBeforeHosts ) {
   source.entry->initializedIs( false );
   LabSource& two = lab.source( "two", b, false );
   two.set( inlineHost( mvp( 1 ), 1 ), push( 3, 5, dest( 1 ) ), group( 2, { dest( 1 ) } ),
            intfDest( 1, 1 ) );
   lines.clear();
   two.entry->initializedIs( true );
   lines.expect( { "handleSourceInitialized() for two", "handleDest(const L2Rib::DestId&) for two",
                   "handleOtas(const L2Rib::ObjTupleAndSource&) dest/1 from 0x100",
                   "handleOtas(const L2Rib::ObjTupleAndSource&) lb/2 from 0x100",
                   "handleOtas(const L2Rib::ObjTupleAndSource&) label/3 from 0x100",
                   "PolicySm::handleHost(const Bridging::MacVlanPair&) (02:00:00:00:00:01/10)",
                   "setFloodSetOutputType()", "setFloodSetOutputType new source is 100" } );
}

} // namespace
} // namespace L2Rib::Test
