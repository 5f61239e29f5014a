// The whole engine against a model.
//
// Sources change hosts, objects and flood members at random, vanish and come back; reviews run in
// slices of one entry, with changes between them; the engine is dropped, also in the middle of its
// work, and built anew on what it left, sometimes with a row missing. At rest the output must be
// what the sources' present content says, as far as there is room for it.
#include "tests/EngineLab.h"
#include "tests/TestSupport.h"

#include <algorithm>
#include <functional>
#include <optional>

namespace L2Rib::Test {
namespace {

class RandomEngine {
 public:
   explicit RandomEngine( uint64_t stream ) : random_( stream ), lab_( room() ) {
      lab_.clock->tickIs( 0.0001 );
      for( const auto& [ name, value ] : values_ )
         lab_.source( name, value );
      if( random_.percent( 30 ) )
         lab_.output.flood->memberRoomIs( &few_ );
   }

   void run( int rounds ) {
      for( int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round ) {
         SCOPED_TRACE( "round " + std::to_string( round ) );
         quantumIs( 0 ); // a slice for every entry
         for( uint32_t changes = random_.below( 16 ); changes > 0; --changes ) {
            change();
            if( random_.percent( 60 ) )
               untilKilled( [ this ] { lab_.turn(); } );
            if( random_.percent( 2 ) ) // the hammer ticks; what vanished sources left may go
               lab_.clock->nowIs( lab_.clock->now() + 4 + random_.below( 30 ) );
            if( random_.percent( 4 ) )
               restart();
         }
         quantumIs( 0.05 ); // so that a pass with parked hosts gets to its end
         untilKilled( [ this ] { lab_.hammer(); } );
         quantumIs( 0.05 );
         settle();
         compareHosts();
         compareFloodSets();
         checkObjects();
         if( random_.percent( 20 ) )
            restartUnchanged();
      }
      for( const auto& [ name, value ] : values_ )
         lab_.inputDir->entryDel( name );
      settle();
      EXPECT_EQ( 0u, lab_.output.host->count() + lab_.objectCount() );
      EXPECT_TRUE( lab_.output.flood->vlanFloodSet().empty() );
      EXPECT_TRUE( lab_.engine->usersMap().empty() );
      for( const TableType type : { tableTypeDest_, tableTypeLoadBalance_, tableTypeLabel_ } )
         EXPECT_EQ( 0u, lab_.engine->tupleManager( type )->size() );
   }

 private:
   void quantumIs( double seconds ) {
      lab_.engine->reviewQuantumIs( seconds );
      lab_.engine->floodReviewQuantumIs( seconds );
   }
   void settle() {
      lab_.killAt = 0;
      lab_.pass( lab_.engine->sourceHoldTime() + 1 );
      for( int tick = 0; tick < 3; ++tick ) // what one pass makes possible for others
         lab_.hammer();
   }

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
         quantumIs( 0 );
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
      quantumIs( 0 );
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
      const ObjTuple objects[] = { lb( id ), label( id ), dest( id ) };
      return objects[ random_.below( 3 ) ];
   }
   void change() {
      // Any two of the last three are a third of the circle apart: each is newer than one of the
      // others, and older than the other one.
      constexpr uint32_t seqNos[] = { 1, 2, 0, 0x60000000, 0xc0000000 };
      LabSource& source = std::next( lab_.sources.begin(), random_.below( 3 ) )->second;
      const uint64_t id = 1 + random_.below( 5 );
      const uint32_t vlan = 1 + random_.below( 3 ), pref = 100 + random_.below( 2 ),
                     seqNo = seqNos[ random_.below( 5 ) ], value = random_.below( 4 );
      const MacVlanPair key = mvp( 1 + random_.below( 8 ) );
      const auto sets = source.entry->vlanFloodSet( Bridging::VlanId( vlan ) );
      const auto set = sets ? sets->floodSet( Vexil::EthAddr( id ) ) : nullptr;
      std::vector<ObjTuple> nexts( 1 + random_.below( random_.percent( 10 ) ? 16 : 4 ) );
      std::generate( nexts.begin(), nexts.end(), [ & ] { return someObject(); } );
      const struct {
         uint32_t weight;
         std::function<void()> make;
      } changes[] = {
         { 8, [ & ] { source.host->hostDel( key ); } },
         { 8, [ & ] { source.set( inlineHost( key, value, pref, seqNo ) ); } },
         { 15, [ & ] { source.set( objectHost( key, nexts[ 0 ], pref, seqNo ) ); } },
         { 15, [ & ] { source.set( intfDest( id, value ) ); } },
         { 8, [ & ] { source.set( push( id, 100 + value, nexts[ 0 ] ) ); } },
         { 8, [ & ] { source.set( group( id, nexts ) ); } },
         { 8, [ & ] { source.dest->destDel( DestId( id ) ); } },
         { 4, [ & ] { source.label->labelDel( LabelId( id ) ); } },
         { 4, [ & ] { source.lb->lbDel( LoadBalanceId( id ) ); } },
         { 2, [ & ] { source.entry->initializedIs( !source.entry->initialized() ); } },
         { 2, [ & ] { comeOrGo( source ); } },
         { 1, [ & ] { source.entry->vlanFloodSetDel( Bridging::VlanId( vlan ) ); } },
         { set ? 2u : 0u, [ & ] { sets->floodSetDel( Vexil::EthAddr( id ) ); } },
         { set ? 7u : 0u, [ & ] { set->destSetDel( floodDest( value ) ); } },
         { 100, [ & ] { source.flood( vlan, id, { value } ); } }, // the rest
      };
      auto chosen = changes;
      for( uint32_t left = random_.below( 100 ); left >= chosen->weight; ++chosen )
         left -= chosen->weight;
      chosen->make();
   }
   // A source vanishes, or comes back, or is another one from now on: with the tables that it has,
   // or with new ones.
   void comeOrGo( LabSource& source ) {
      if( random_.percent( 70 ) && gone_.insert( source.name ).second ) {
         lab_.inputDir->entryDel( source.name );
         return;
      }
      gone_.erase( source.name );
      if( random_.percent( 30 ) )
         lab_.source( source.name, values_.at( source.name ), random_.percent( 50 ) );
      else
         lab_.publishAgain( source, random_.percent( 70 ) );
   }

   bool ready( const LabSource& source ) const {
      return !gone_.contains( source.name ) && source.entry->initialized();
   }
   // The best of the sources' present hosts, by rules written down once more.
   const LabSource* best( const MacVlanPair& key, Host& host ) const {
      const LabSource* found = nullptr;
      for( const auto& entry : order_ ) {
         const LabSource& source = lab_.sources.at( entry.key );
         const Host candidate = source.host->host( key );
         if( ready( source ) && candidate.key() == key &&
             ( !found || beats( candidate, source, host, *found ) ) ) {
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

   void compareHosts() const {
      for( uint64_t mac = 1; mac <= 8; ++mac ) {
         const MacVlanPair key = mvp( mac );
         Host host;
         const LabSource* const winner = best( key, host );
         const std::string row = lab_.resolved( key );
         const HostAndSource found = lab_.row( key );
         EXPECT_NE( "dangling", row ) << mvpStr( key ) << ", or in a loop";
         if( !winner ) {
            EXPECT_EQ( "none", row ) << mvpStr( key );
            continue;
         }
         const bool isInline = host.next() == Util::objTupleInvalid();
         const auto expected =
            isInline ? std::optional( host.ciDest().str() ) : expansion( *winner, host.next() );
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
   }
   // The union of those of the ready sources, as far as there is room.
   void compareFloodSets() const {
      std::set<std::string> expected;
      unsigned mask = 0;
      for( const auto& [ name, source ] : lab_.sources )
         if( ready( source ) ) {
            mask |= source.entry->source();
            expected.merge( members( *source.entry, true ) );
         }
      const std::set<std::string> found = members( *lab_.output.flood );
      EXPECT_TRUE( std::ranges::includes( expected, found ) );
      EXPECT_EQ( std::min<size_t>( expected.size(), lab_.output.flood->capacity() ), found.size() );
      EXPECT_EQ( expected.size() - found.size(), lab_.engine->failedFloodSet().size() );
      EXPECT_EQ( mask, lab_.output.flood->source() );
   }
   void checkObjects() const {
      const auto rows = lab_.relationsOfRows();
      EXPECT_EQ( rows, lab_.relationsOfUsers() );
      std::set<std::string> reached; // from the hosts, which alone are in parentheses
      for( size_t before = ~size_t( 0 ); before != reached.size(); ) {
         before = reached.size();
         for( const auto& [ used, user ] : rows )
            if( user[ 0 ] == '(' || reached.contains( user ) )
               reached.insert( used.str() );
      }
      EXPECT_EQ( reached.size(), lab_.objectCount() ) << "an object that serves no host";
      EXPECT_LE( lab_.output.status->maxDestId().value(), 1u << 20 );
      const bool nothingFails = lab_.engine->failedHost().empty() &&
                                lab_.engine->failedOtas().empty() &&
                                lab_.engine->failedFloodSet().empty();
      EXPECT_EQ( nothingFails, lab_.engine->awaited().oldest() == Vexil::never );
   }

   // Room for so many members of flood sets in some runs; else there is room for all.
   struct FewMembers : FloodSetOutput::MemberRoom {
      FewMembers( const FloodSetOutput& output, uint32_t most )
         : output_( output ), most_( most ) {}
      Vexil::Room makeRoom() override {
         return freeMembers() != 0 ? Vexil::Room::yes : Vexil::Room::full;
      }
      uint64_t freeMembers() const override { return most_ - members( output_, true ).size(); }
      uint32_t capacity() const override { return most_; }

    private:
      const FloodSetOutput& output_;
      const uint32_t most_;
   };
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
   FewMembers few_{ *lab_.output.flood, 1 + random_.below( 30 ) };
   std::set<std::string> gone_;
   const std::map<std::string, uint32_t> values_{
      { "red", 0x40 }, { "green", 0x100 }, { "blue", 0x80000000 } };
   const Vexil::KeySet<std::string> order_ = [ this ] {
      Vexil::KeySet<std::string> names;
      for( const auto& [ name, value ] : values_ )
         names.emplace( name );
      return names;
   }();
};

TEST( EngineRandom, OutputIsWhatTheSourcesSay ) {
   for( uint64_t stream = 0; stream < 20 && !HasFailure(); ++stream )
      RandomEngine( stream ).run( 200 );
}

} // namespace
} // namespace L2Rib::Test
