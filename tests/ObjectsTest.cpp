// Objects in the output: copied members first, counted by their users, gone with the last one.
#include "tests/EngineLab.h"
#include "tests/TestSupport.h"

#include <functional>
#include <optional>

namespace L2Rib::Test {
namespace {

constexpr uint32_t a = 0x40, b = 0x100, c = 0x80000000;

// What an object comes to, written out to its leaves: the same for a source's object and for its
// output copy, whatever their ids. nullopt when something is missing or the chain has no end.
template<class LookUp>
std::optional<std::string> expansion( const LookUp& lookUp, const ObjTuple& ot,
                                      unsigned depth = 1 ) {
   if( depth > 64 )
      return std::nullopt;
   switch( ot.tableType() ) {
   case tableTypeDest_: {
      const Dest found = lookUp.dest( ot.destId() );
      if( found.key() != ot.destId() )
         return std::nullopt;
      return "intf " + std::to_string( found.intf().intf.value() );
   }
   case tableTypeLabel_: {
      const Label found = lookUp.label( ot.labelId() );
      if( found.key() != ot.labelId() )
         return std::nullopt;
      const auto below = expansion( lookUp, found.next(), depth + 1 );
      if( !below )
         return std::nullopt;
      return "push " + found.label().str() + " ( " + *below + " )";
   }
   case tableTypeLoadBalance_: {
      const LoadBalance found = lookUp.lb( ot.lbId() );
      if( found.key() != ot.lbId() )
         return std::nullopt;
      std::string text = "group (";
      for( const ObjTuple& next : found.used() ) {
         const auto below = expansion( lookUp, next, depth + 1 );
         if( !below )
            return std::nullopt;
         text += " " + *below;
      }
      return text + " )";
   }
   default:
      return std::nullopt;
   }
}

struct InSource {
   const LabSource& source;
   Dest dest( DestId id ) const { return source.dest->dest( id ); }
   Label label( LabelId id ) const { return source.label->label( id ); }
   LoadBalance lb( LoadBalanceId id ) const { return source.lb->lb( id ); }
};

struct InOutput {
   const PolicySm::Tables& output;
   Dest dest( DestId id ) const { return output.dest->dest( id ).dest(); }
   Label label( LabelId id ) const { return output.label->label( id ).label(); }
   LoadBalance lb( LoadBalanceId id ) const { return output.lb->lb( id ).lb(); }
};

// "none", or what the host's row comes to.
std::string resolved( const Lab& lab, const MacVlanPair& key ) {
   const HostAndSource row = lab.row( key );
   if( row.key() != key )
      return "none";
   if( row.next() == Util::objTupleInvalid() )
      return row.host().ciDest().str();
   return expansion( InOutput{ lab.output }, row.next() ).value_or( "dangling" );
}

size_t objectCount( const Lab& lab ) {
   return lab.output.dest->count() + lab.output.lb->count() + lab.output.label->count();
}

struct Objects : ::testing::Test {
   Lab lab;
   LabSource& source = lab.source( "one", a );
   // Between any two steps of a story.
   void check( const std::string& expected, size_t objects ) {
      EXPECT_EQ( expected, resolved( lab, mvp( 1 ) ) );
      EXPECT_EQ( objects, objectCount( lab ) );
      EXPECT_EQ( lab.relationsOfRows(), lab.relationsOfUsers() );
   }
};

TEST_F( Objects, ChainComesUpInAnyOrderAndGoesWithItsLastUser ) {
   source.set( objectHost( mvp( 1 ), lb( 7 ) ) );
   lab.settle();
   check( "none", 0 );
   source.set( group( 7, { label( 1 ), label( 2 ), label( 1 ) } ) );
   lab.hammer();
   check( "none", 0 );
   source.set( push( 1, 100, dest( 1 ) ) );
   source.set( push( 2, 200, dest( 2 ) ) );
   source.set( intfDest( 1, 11 ) );
   lab.hammer();
   check( "none", 0 );
   source.set( intfDest( 2, 22 ) );
   lab.hammer();
   check( "group ( push 100 ( intf 11 ) push 200 ( intf 22 ) push 100 ( intf 11 ) )", 5 );
   source.set( group( 7, { label( 2 ), label( 1 ) } ) );
   lab.settle();
   check( "group ( push 200 ( intf 22 ) push 100 ( intf 11 ) )", 5 );
   source.set( push( 2, 200, dest( 1 ) ) );
   lab.settle();
   check( "group ( push 200 ( intf 11 ) push 100 ( intf 11 ) )", 4 );
   source.set( group( 7, { dest( 2 ) } ) );
   lab.settle();
   check( "group ( intf 22 )", 2 );
   source.lb->lbDel( LoadBalanceId( 7 ) );
   lab.settle();
   check( "group ( intf 22 )", 2 ); // deletion follows from users going away
   source.set( inlineHost( mvp( 1 ), 5 ) );
   lab.settle();
   check( "value 5", 0 );
}

// An object's only user becomes its member, while the object is at work.
TEST_F( Objects, HierarchyIsTurnedUpsideDown ) {
   source.set( intfDest( 1, 1 ) );
   source.set( group( 1, { lb( 2 ) } ) );
   source.set( group( 2, { dest( 1 ) } ) );
   source.set( objectHost( mvp( 1 ), lb( 1 ) ) );
   lab.settle();
   check( "group ( group ( intf 1 ) )", 3 );
   const ObjTuple upper = lab.row( mvp( 1 ) ).next();
   source.set( group( 1, { dest( 1 ), dest( 1 ) } ) );
   source.set( group( 2, { lb( 1 ), dest( 1 ) } ) );
   source.set( objectHost( mvp( 1 ), lb( 2 ) ) );
   lab.settle();
   check( "group ( group ( intf 1 intf 1 ) intf 1 )", 3 );
   EXPECT_EQ( upper,
              lab.output.lb->lb( lab.row( mvp( 1 ) ).next().lbId() ).lb().next( EcmpIndex( 0 ) ) );
   // Back again, but one member is missing: the host stays where it is, over what changed below.
   source.set( group( 1, { lb( 2 ), dest( 9 ) } ) );
   source.set( group( 2, { dest( 1 ) } ) );
   source.set( objectHost( mvp( 1 ), lb( 1 ) ) );
   lab.settle();
   check( "group ( intf 1 )", 2 );
   source.set( intfDest( 9, 9 ) );
   lab.hammer();
   check( "group ( group ( intf 1 ) intf 9 )", 4 );
}

TEST_F( Objects, UnusedChangesAreDroppedAndUnchangedOnesNotWritten ) {
   source.set( intfDest( 1, 1 ) );
   source.set( intfDest( 1, 2 ) );
   lab.settle();
   check( "none", 0 );
   source.set( objectHost( mvp( 1 ), dest( 1 ) ) );
   lab.settle();
   check( "intf 2", 1 );
   const uint64_t writes = lab.writes;
   source.set( intfDest( 1, 2 ) );
   source.set( objectHost( mvp( 1 ), dest( 1 ) ) );
   lab.settle();
   EXPECT_EQ( writes, lab.writes );
}

TEST_F( Objects, FailedChangeLeavesTheGroupAsItWas ) {
   source.set( intfDest( 1, 1 ) );
   source.set( intfDest( 2, 2 ) );
   source.set( group( 1, { dest( 1 ) } ) );
   source.set( objectHost( mvp( 1 ), lb( 1 ) ) );
   lab.settle();
   source.set( group( 1, { dest( 2 ), dest( 3 ) } ) );
   lab.settle();
   check( "group ( intf 1 )", 2 );
   source.set( group( 4, { dest( 4 ), dest( 3 ) } ) ); // the same for a new one with many hosts
   source.set( intfDest( 4, 4 ) );
   for( uint64_t mac = 2; mac <= 50; ++mac )
      source.set( objectHost( mvp( mac ), lb( 4 ) ) );
   const uint64_t writes = lab.writes;
   lab.hammer();
   EXPECT_EQ( writes + 2 + 4, lab.writes ) << "a member comes and goes once, of the first group "
                                              "only when the hammer ticks";
   check( "group ( intf 1 )", 2 );
   EXPECT_TRUE( lab.engine->failedOtas( ObjTupleAndSource( lb( 1 ), Source( a ) ) ) );
   source.set( intfDest( 3, 3 ) );
   lab.hammer();
   check( "group ( intf 2 intf 3 )", 5 );
   EXPECT_EQ( 50u, lab.output.host->count() );
}

TEST_F( Objects, LoopsAndEndlessChainsFailUntilTheyAreMended ) {
   source.set( group( 1, { dest( 1 ), lb( 2 ) } ) );
   source.set( group( 2, { label( 1 ) } ) );
   source.set( push( 1, 1, lb( 1 ) ) );
   source.set( intfDest( 1, 1 ) );
   source.set( objectHost( mvp( 1 ), lb( 1 ) ) );
   lab.hammer();
   check( "none", 0 );
   source.set( push( 1, 1, dest( 1 ) ) );
   lab.hammer();
   check( "group ( intf 1 group ( push 1 ( intf 1 ) ) )", 4 );
   source.set( push( 1, 1, label( 1 ) ) ); // a loop while in use: the output stays as it was
   lab.hammer();
   check( "group ( intf 1 group ( push 1 ( intf 1 ) ) )", 4 );
   // One that leads through the copy of an object that the source has deleted meanwhile.
   source.set( push( 1, 1, dest( 1 ) ) );
   lab.settle();
   source.lb->lbDel( LoadBalanceId( 2 ) );
   lab.settle();
   source.set( push( 1, 1, lb( 1 ) ) );
   lab.hammer();
   check( "group ( intf 1 group ( push 1 ( intf 1 ) ) )", 4 );
   source.host->hostDel( mvp( 1 ) );
   lab.hammer();
   check( "none", 0 );

   Lab deep;
   const auto table = makeEntity<LabelTable>( 100000u );
   deep.manager->entityIs( "deep", table );
   LabSource& chain = deep.source( "chain", b, false );
   chain.entry->labelTableTarnPathIs( "deep" );
   chain.label = table;
   for( uint64_t id = 1; id < 100000; ++id )
      chain.set( push( id, 1, label( id + 1 ) ) );
   chain.set( push( 100000, 1, dest( 1 ) ) );
   chain.set( intfDest( 1, 1 ) );
   chain.set( objectHost( mvp( 1 ), label( 1 ) ) );
   chain.set( objectHost( mvp( 2 ), label( 99970 ) ) );
   chain.entry->initializedIs( true );
   deep.hammer();
   EXPECT_EQ( "none", deep.outcome( mvp( 1 ) ) );
   EXPECT_EQ( 32u, objectCount( deep ) ) << "a chain of 31 labels and a dest is none too long";
   chain.set( push( 2, 1, dest( 1 ) ) );
   deep.hammer();
   EXPECT_EQ( "push 1 ( push 1 ( intf 1 ) )", resolved( deep, mvp( 1 ) ) );
}

// The order of the writes and of the users is in the log, in the words that are looked for there.
TEST_F( Objects, TracesTellTheOrder ) {
   TraceLines lines;
   source.set( objectHost( mvp( 1 ), label( 1 ) ) );
   source.set( push( 1, 100, lb( 1 ) ) );
   source.set( group( 1, { dest( 1 ), dest( 2 ) } ) );
   source.set( intfDest( 1, 1 ) );
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
   source.set( push( 1, 100, dest( 3 ) ) );
   source.set( intfDest( 3, 3 ) );
   lines.clear();
   lab.settle();
   lines.expect( { "processLabel writing ", "addUser(", "using dest/", "rmUser(", "using lb/",
                   "rmUser no users left for lb/", "onLbZeroRefs(", "rmUser(", "using dest/",
                   "onDestZeroRefs(", "rmUser(", "using dest/", "onDestZeroRefs(" } );
   check( "push 100 ( intf 3 )", 2 );
   lines.clear();
   source.set( intfDest( 3, 3 ) );
   source.set( intfDest( 9, 9 ) );
   source.set( push( 9, 9, dest( 3 ) ) );
   source.set( group( 9, { dest( 3 ) } ) );
   lab.settle();
   for( const char* text : { "processDest no change in dest, ignoring update",
                             "processDest No such output dest, create not handled now.",
                             "processLabel no such output Label, create not handled here.",
                             "processLb no such output LB, create not handled here." } )
      lines.expect( { text } ); // in whatever order they are looked at
}

// A regular expression that matches this text alone.
std::string literally( const std::string& text ) {
   std::string all;
   for( const char c : text )
      all += ( std::string( "().*|" ).find( c ) == std::string::npos ? "" : "\\" ) +
             std::string( 1, c );
   return all;
}

TEST( ObjectsDeath, BrokenInvariantsStopTheProcessWithTheirText ) {
   constexpr auto invalid = Util::objTupleInvalid;
   constexpr auto noHost = Util::mvpInvalid;
   const struct {
      std::function<void( Lab&, LabSource& )> spoil;
      const char* text;
   } cases[] = {
      { []( Lab&, LabSource& source ) { source.set( group( 1, {} ) ); }, "inLb.nexts() > 0" },
      { []( Lab&, LabSource& source ) {
          source.set( group( 1, { invalid(), dest( 1 ) } ) );
       },
        "*it != Util::objTupleInvalid()" },
      { []( Lab&, LabSource& source ) {
          source.set( group( 1, { label( 1 ) } ) );
          source.set( push( 1, 1, invalid() ) );
       },
        "inLabel.next() != Util::objTupleInvalid()" },
      { []( Lab& lab, LabSource& ) { lab.engine->processOtas( {}, true ); },
        "otas.tableType() != tableTypeInvalid_" },
      { []( Lab& lab, LabSource& ) {
          lab.engine->processOtas( ObjTupleAndSource( dest( 0 ), Source( a ) ), true );
       },
        "otas.destId() != Util::destIdInvalid()" },
      { []( Lab& lab, LabSource& ) {
          lab.engine->processOtas( ObjTupleAndSource( dest( 1 ), Source( b ) ), true );
       },
        "sm" },
      { []( Lab& lab, LabSource& ) { lab.engine->addUser( invalid(), dest( 1 ), noHost() ); },
        "otUsed != Util::objTupleInvalid()" },
      { []( Lab& lab, LabSource& ) { lab.engine->isUser( dest( 1 ), lb( 1 ), mvp( 1 ) ); },
        "( otUser != Util::objTupleInvalid() && mvpUser == Util::mvpInvalid() ) || "
        "( otUser == Util::objTupleInvalid() && mvpUser != Util::mvpInvalid() )" },
      { []( Lab& lab, LabSource& ) { lab.engine->rmUser( dest( 1 ), invalid(), mvp( 1 ) ); },
        "otu" },
      { []( Lab& lab, LabSource& ) {
          lab.engine->addUser( dest( 1 ), lb( 1 ), noHost() );
          lab.engine->rmUser( dest( 1 ), lb( 2 ), noHost() );
       },
        "otu->otUser( otUser )" },
      { []( Lab& lab, LabSource& ) {
          lab.engine->restoreMapping( ObjTupleAndSource( dest( 1 ), Source( a ) ), dest( 1 ) );
       },
        "restartState() == otSourceCheck_" },
   };
   for( const auto& test : cases ) {
      const auto run = [ & ] {
         Lab lab;
         LabSource& source = lab.source( "one", a );
         source.set( objectHost( mvp( 1 ), lb( 1 ) ) );
         test.spoil( lab, source );
         lab.settle();
      };
      EXPECT_DEATH( run(), "assertion failed: " + literally( test.text ) + ", file engine/" );
   }
}

// Every group points 16 times to the next one: 16^20 ways lead from top to bottom. The source goes
// on changing another row meanwhile.
TEST_F( Objects, SharedMembersAreLookedAtOnce ) {
   for( uint64_t id = 1; id < 20; ++id )
      source.set( group( id, std::vector<ObjTuple>( 16, lb( id + 1 ) ) ) );
   source.set( group( 20, { dest( 1 ) } ) );
   source.set( intfDest( 1, 1 ) );
   source.set( objectHost( mvp( 1 ), lb( 1 ) ) );
   lab.atWrite = [ & ] { source.set( intfDest( 2, lab.writes ) ); };
   lab.settle();
   EXPECT_EQ( 21u, objectCount( lab ) );
   source.set( group( 20, { dest( 1 ), dest( 1 ) } ) );
   lab.settle();
   source.host->hostDel( mvp( 1 ) );
   lab.settle();
   EXPECT_EQ( 0u, objectCount( lab ) );
}

// The bound of the depth holds on every way, though each change is small enough by itself: through
// copies of objects that the source has deleted, and from below.
TEST_F( Objects, BoundOfTheDepthHoldsOnEveryWay ) {
   const auto chain = [ & ]( uint64_t first, uint64_t last, const ObjTuple& end ) {
      for( uint64_t id = first; id < last; ++id )
         source.set( push( id, 1, label( id + 1 ) ) );
      source.set( push( last, 1, end ) );
   };
   const auto depth = [ & ]( uint64_t mac ) {
      const std::string text = resolved( lab, mvp( mac ) );
      return 1 + std::count( text.begin(), text.end(), '(' );
   };
   source.set( intfDest( 1, 1 ) );
   chain( 1, 40, dest( 1 ) );
   chain( 41, 80, dest( 1 ) );
   source.set( objectHost( mvp( 1 ), label( 1 ) ) );
   source.set( objectHost( mvp( 2 ), label( 41 ) ) );
   lab.settle();
   EXPECT_EQ( 41, depth( 1 ) );
   source.set( push( 40, 1, label( 41 ) ) ); // from below
   lab.hammer();
   EXPECT_EQ( 41, depth( 1 ) );
   source.set( push( 40, 1, label( 62 ) ) );
   lab.hammer();
   EXPECT_EQ( 60, depth( 1 ) );
   for( uint64_t id = 1; id <= 40; ++id )
      source.label->labelDel( LabelId( id ) );
   source.set( push( 90, 1, label( 1 ) ) ); // onto what the source has deleted
   chain( 92, 99, label( 1 ) );
   source.set( objectHost( mvp( 3 ), label( 90 ) ) );
   source.set( objectHost( mvp( 4 ), label( 92 ) ) );
   lab.hammer();
   EXPECT_EQ( 61, depth( 3 ) );
   EXPECT_EQ( "none", resolved( lab, mvp( 4 ) ) );
   EXPECT_EQ( 1u, lab.engine->failedHost().size() );
   EXPECT_EQ( lab.relationsOfRows(), lab.relationsOfUsers() );
}

TEST_F( Objects, CorruptRecordsReadAsAbsent ) {
   LoadBalance tooMany = group( 1, { dest( 1 ) } );
   tooMany.nextsIs( 17 );
   source.set( tooMany );
   source.set( push( 1, 1, ObjTuple( ObjId( 1 ), TableType( 9 ) ) ) );
   source.set( intfDest( 1, 1 ) );
   source.set( objectHost( mvp( 1 ), lb( 1 ) ) );
   source.set( objectHost( mvp( 2 ), label( 1 ) ) );
   source.set( objectHost( mvp( 3 ), ObjTuple( ObjId( 1 ), TableType( 9 ) ) ) );
   source.set( objectHost( mvp( 4 ), ObjTuple( ObjId( 1 ), tableTypeInvalid_ ) ) );
   source.set( objectHost( mvp( 5 ), ObjTuple( ObjId( 0 ), tableTypeDest_ ) ) );
   source.set( inlineHost( Util::mvpInvalid(), 1 ) );
   lab.hammer();
   check( "none", 0 );
   EXPECT_EQ( 0u, lab.output.host->count() );
   EXPECT_GT( source.lb->corruptions(), 0u );
   EXPECT_GT( source.label->corruptions(), 0u );
   EXPECT_GT( source.host->corruptions(), 0u );
}

// Each output table in turn has room for one row only, which the first host takes.
TEST( ObjectsFull, NothingDanglesWhenAnOutputTableIsFull ) {
   const struct {
      const char* what;
      Room room;
   } cases[] = { { "hosts", { .host = 1 } },
                 { "groups", { .lb = 1 } },
                 { "labels", { .label = 1 } },
                 { "dests", { .dest = 1 } } };
   for( const auto& test : cases ) {
      SCOPED_TRACE( test.what );
      Lab lab( test.room );
      LabSource& source = lab.source( "one", a );
      for( uint64_t id = 1; id <= 2; ++id ) {
         source.set( intfDest( id, id ) );
         source.set( push( id, 1, dest( id ) ) );
         source.set( group( id, { label( id ), dest( id ) } ) );
      }
      source.set( objectHost( mvp( 1 ), lb( 1 ) ) );
      lab.settle();
      source.set( objectHost( mvp( 2 ), lb( 2 ) ) );
      lab.hammer();
      EXPECT_EQ( "none", lab.outcome( mvp( 2 ) ) );
      EXPECT_EQ( lab.relationsOfRows(), lab.relationsOfUsers() );
      EXPECT_EQ( 3u, objectCount( lab ) ) << "only what the first host uses";
      source.host->hostDel( mvp( 1 ) );
      lab.hammer();
      EXPECT_EQ( "group ( push 1 ( intf 2 ) intf 2 )", resolved( lab, mvp( 2 ) ) );
      EXPECT_EQ( lab.relationsOfRows(), lab.relationsOfUsers() );
   }
}

TEST( ObjTupleManager, GivesEachIdOnceUpToItsBound ) {
   ObjTupleManager manager( tableTypeDest_, 5, 7 );
   const auto otas = []( uint64_t id ) { return ObjTupleAndSource( dest( id ), Source( a ) ); };
   EXPECT_EQ( dest( 5 ), manager.newOutputOt( otas( 1 ) ) );
   EXPECT_EQ( dest( 6 ), manager.newOutputOt( otas( 2 ) ) );
   manager.delOutputOt( dest( 6 ) );
   EXPECT_EQ( Util::objTupleInvalid(), manager.inputToOutput( otas( 2 ) ) );
   EXPECT_EQ( dest( 7 ), manager.newOutputOt( otas( 2 ) ) );
   EXPECT_EQ( Util::objTupleInvalid(), manager.newOutputOt( otas( 3 ) ) );
   EXPECT_EQ( otas( 2 ), manager.outputToInput( dest( 7 ) ) );
   EXPECT_EQ( 2u, manager.size() );
}

// --- the whole engine against a model ----------------------------------------------------------

// Sources change hosts and objects at random, vanish and come back; reviews run in slices of one
// entry, with changes between them; the engine is dropped, also in the middle of its work, and
// built anew on what it left, sometimes with a row missing. At rest the output must be what the
// sources' present content says, as far as there is room for it.
class RandomEngine {
 public:
   explicit RandomEngine( uint64_t stream ) : random_( stream ), lab_( room() ) {
      lab_.clock->tickIs( 0.0001 );
      for( const auto& [ name, value ] : values_ )
         lab_.source( name, value );
   }

   void run( int rounds ) {
      for( int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round ) {
         lab_.engine->reviewQuantumIs( 0 ); // a slice for every entry
         for( uint32_t changes = random_.below( 12 ); changes > 0; --changes ) {
            change();
            if( random_.percent( 60 ) )
               untilKilled( [ this ] { lab_.turn(); } );
            if( random_.percent( 2 ) ) // the hammer ticks; what vanished sources left may go
               lab_.clock->nowIs( lab_.clock->now() + 4 + random_.below( 30 ) );
            if( random_.percent( 4 ) )
               restart();
         }
         lab_.engine->reviewQuantumIs( 0.05 ); // so that a pass with parked hosts gets to its end
         untilKilled( [ this ] { lab_.hammer(); } );
         lab_.killAt = 0;
         lab_.engine->reviewQuantumIs( 0.05 );
         lab_.pass( lab_.engine->sourceHoldTime() + 1 );
         for( int tick = 0; tick < 3; ++tick ) // what one pass makes possible for others
            lab_.hammer();
         compare( round );
         if( random_.percent( 20 ) )
            restartUnchanged();
      }
   }

 private:
   // Now and then the engine dies in it, after one of its writes.
   template<class Work>
   void untilKilled( Work work ) {
      if( lab_.killAt <= lab_.writes && random_.percent( 20 ) )
         lab_.killAt = lab_.writes + 1 + random_.below( 10 );
      try {
         work();
      } catch( const Killed& ) {
         lab_.danglesInRestart.clear(); // the wipe has not come to its end
         lab_.newEngine();
         lab_.engine->reviewQuantumIs( 0 );
      }
   }

   void restart() {
      lab_.engine = nullptr;
      if( random_.percent( 20 ) ) {
         const uint64_t id = 1 + random_.below( lab_.output.status->maxDestId().value() + 1 );
         lab_.output.dest->destDel( DestId( id ) );
         lab_.output.lb->lbDel( LoadBalanceId( id ) );
      }
      lab_.newEngine();
      lab_.engine->reviewQuantumIs( 0 );
   }

   // Nothing is parked, no source has changed: readers see no write at all.
   void restartUnchanged() {
      if( !lab_.engine->failedHost().empty() || !lab_.engine->failedOtas().empty() )
         return;
      const uint64_t writes = lab_.writes;
      lab_.newEngine();
      lab_.settle();
      EXPECT_EQ( running_, lab_.engine->restartState() );
      EXPECT_EQ( writes, lab_.writes );
      EXPECT_EQ( lab_.relationsOfRows(), lab_.relationsOfUsers() );
   }

   ObjTuple someObject() {
      const uint64_t id = 1 + random_.below( 5 );
      switch( random_.below( 3 ) ) {
      case 0:
         return lb( id );
      case 1:
         return label( id );
      default:
         return dest( id );
      }
   }

   // Any two of the last three are a third of the circle apart: each is newer than one of the
   // others, and older than the other one.
   uint32_t seqNo() {
      constexpr uint32_t numbers[] = { 1, 2, 0, 0x60000000, 0xc0000000 };
      return numbers[ random_.below( std::size( numbers ) ) ];
   }

   void change() {
      auto at = lab_.sources.begin();
      std::advance( at, random_.below( lab_.sources.size() ) );
      LabSource& source = at->second;
      const uint64_t id = 1 + random_.below( 5 );
      const MacVlanPair key = mvp( 1 + random_.below( 8 ) );
      const uint32_t pref = 100 + random_.below( 2 );
      switch( random_.below( 11 ) ) {
      case 0:
         source.host->hostDel( key );
         break;
      case 1:
         source.set( inlineHost( key, random_.below( 3 ), pref, seqNo() ) );
         break;
      case 2:
      case 3:
         source.set( objectHost( key, someObject(), pref, seqNo() ) );
         break;
      case 4:
         source.dest->destDel( DestId( id ) );
         break;
      case 5:
      case 6:
         source.set( intfDest( id, random_.below( 4 ) ) );
         break;
      case 7:
         source.set( push( id, 100 + random_.below( 3 ), someObject() ) );
         break;
      case 8: {
         std::vector<ObjTuple> nexts( 1 + random_.below( random_.percent( 10 ) ? 16 : 4 ) );
         std::generate( nexts.begin(), nexts.end(), [ & ] { return someObject(); } );
         source.set( group( id, nexts ) );
         break;
      }
      case 9:
         if( random_.percent( 50 ) )
            source.lb->lbDel( LoadBalanceId( id ) );
         else
            source.label->labelDel( LabelId( id ) );
         break;
      default:
         if( random_.percent( 20 ) )
            source.entry->initializedIs( !source.entry->initialized() );
         else if( random_.percent( 20 ) )
            comeOrGo( source );
      }
   }

   // A source vanishes, or comes back with the tables that it left or with new ones.
   void comeOrGo( LabSource& source ) {
      if( gone_.insert( source.name ).second ) {
         lab_.inputDir->entryDel( source.name );
         return;
      }
      gone_.erase( source.name );
      if( random_.percent( 30 ) )
         lab_.source( source.name, values_.at( source.name ), random_.percent( 50 ) );
      else
         lab_.publishAgain( source, random_.percent( 70 ) );
   }

   // The best of the sources' present hosts, by rules written down once more.
   const LabSource* best( const MacVlanPair& key, Host& host ) const {
      const LabSource* found = nullptr;
      for( const auto& entry : order_ ) {
         const LabSource& source = lab_.sources.at( entry.key );
         const Host candidate = source.host->host( key );
         if( gone_.contains( source.name ) || !source.entry->initialized() ||
             candidate.key() != key )
            continue;
         if( !found || beats( candidate, source, host, *found ) ) {
            found = &source;
            host = candidate;
         }
      }
      return found;
   }
   static bool beats( const Host& one, const LabSource& oneSource, const Host& two,
                      const LabSource& twoSource ) {
      if( one.pref() != two.pref() )
         return one.pref() > two.pref();
      if( const auto ahead = static_cast<int32_t>( one.seqNo().value() - two.seqNo().value() ) )
         return ahead > 0;
      const auto rank = []( const Host& host, const LabSource& source ) {
         const bool isInline = host.next() == Util::objTupleInvalid();
         return std::tuple( isInline, isInline ? host.ciDest().payload() : 0,
                            static_cast<uint32_t>( source.entry->source() ) );
      };
      return rank( one, oneSource ) > rank( two, twoSource );
   }

   void compare( int round ) {
      SCOPED_TRACE( "round " + std::to_string( round ) );
      for( uint64_t mac = 1; mac <= 8; ++mac ) {
         const MacVlanPair key = mvp( mac );
         Host host;
         const LabSource* const winner = best( key, host );
         const std::string row = resolved( lab_, key );
         const HostAndSource found = lab_.row( key );
         if( !winner ) {
            EXPECT_EQ( "none", row ) << mvpStr( key );
            continue;
         }
         const bool isInline = host.next() == Util::objTupleInvalid();
         const auto expected = isInline ? std::optional( host.ciDest().str() )
                                        : expansion( InSource{ *winner }, host.next() );
         if( !expected ) // what was there stays, also copies of objects that the source deleted
            continue;    // while they were in use; that all of it is whole is checked below
         if( lacksRoom() &&
             ( lab_.engine->failedHost( key ) || !lab_.engine->failedOtas().empty() ) )
            continue;
         EXPECT_FALSE( lab_.engine->failedHost( key ) ) << mvpStr( key );
         EXPECT_EQ( *expected, row ) << mvpStr( key );
         EXPECT_EQ( winner->entry->source(), found.source() );
         if( !isInline ) {
            EXPECT_EQ( ObjTupleAndSource( host.next(), found.source() ),
                       lab_.engine->tupleManager( found.next().tableType() )
                          ->outputToInput( found.next() ) );
         }
      }
      const auto rows = lab_.relationsOfRows();
      EXPECT_EQ( rows, lab_.relationsOfUsers() );
      std::set<std::string> reached; // from the hosts, which alone are in parentheses
      for( size_t before = ~size_t( 0 ); before != reached.size(); ) {
         before = reached.size();
         for( const auto& [ used, user ] : rows )
            if( user[ 0 ] == '(' || reached.contains( user ) )
               reached.insert( used );
      }
      EXPECT_EQ( reached.size(), objectCount( lab_ ) ) << "an object that serves no host";
      EXPECT_LE( lab_.output.status->maxDestId().value(), 1u << 20 );
      const bool nothingFails =
         lab_.engine->failedHost().empty() && lab_.engine->failedOtas().empty();
      EXPECT_EQ( nothingFails, lab_.engine->awaited().oldest() == Vexil::never );
   }

   // Tables that have room for everything, or small ones.
   Room room() {
      const auto some = [ this ] { return 2 + random_.below( 5 ); };
      return random_.percent( 60 ) ? Room() : Room{ some(), some(), some(), some() };
   }
   // Whether there may be too little room for one host, with all of its source's objects.
   bool lacksRoom() const {
      constexpr uint32_t most = 5;
      const auto& [ host, lb, label, dest, flood, status ] = lab_.output;
      return host->count() == host->capacity() || lb->count() + most > lb->capacity() ||
             label->count() + most > label->capacity() || dest->count() + most > dest->capacity();
   }

   TestSupport::Random random_;
   Lab lab_;
   std::set<std::string> gone_;
   const std::map<std::string, uint32_t> values_{ { "red", a }, { "green", b }, { "blue", c } };
   const Vexil::KeySet<std::string> order_ = [ this ] {
      Vexil::KeySet<std::string> names;
      for( const auto& [ name, value ] : values_ )
         names.emplace( name );
      return names;
   }();
};

TEST( ObjectsRandom, OutputIsWhatTheSourcesSay ) {
   for( uint64_t stream = 0; stream < 12 && !HasFailure(); ++stream )
      RandomEngine( stream ).run( 150 );
}

} // namespace
} // namespace L2Rib::Test
