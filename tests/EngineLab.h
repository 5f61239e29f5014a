// A laboratory for the engine: its tables in memory, its clock moved by hand, its sources played by
// the test. Every write to an output table is checked as it happens.
#pragma once

#include "engine/L2RibPolicySm.h"
#include "runtime/Trace.h"
#include "tests/Records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace L2Rib::Test {

template<class Owner>
void floodIs( Owner& owner, uint32_t vlan, uint64_t mac, const Dest& dest,
              FloodSetType type = floodSetTypeAny_ ) {
   const auto set =
      owner.vlanFloodSetIs( Bridging::VlanId( vlan ) )->floodSetIs( Vexil::EthAddr( mac ) );
   set->floodSetTypeIs( type );
   set->destSetIs( dest, true );
}

// A source inside the test: its tables and its directory entry.
struct LabSource {
   std::string name;
   Source value = sourceNone_;
   std::string path; // of its tables
   Ptr<SourceDirEntry> entry;
   Ptr<HostInput> host;
   Ptr<LoadBalanceTable> lb;
   Ptr<LabelTable> label;
   Ptr<DestTable> dest;

   void set( const Host& value ) { ASSERT_TRUE( host->hostIs( value ) ); }
   void set( const LoadBalance& value ) { ASSERT_TRUE( lb->lbIs( value ) ); }
   void set( const Label& value ) { ASSERT_TRUE( label->labelIs( value ) ); }
   void set( const Dest& value ) { ASSERT_TRUE( dest->destIs( value ) ); }
   template<class... Rows>
   requires( sizeof...( Rows ) > 1 ) void set( const Rows&... rows ) { ( set( rows ), ... ); }
   // Members of the flood set of a VLAN and a MAC, each named by its interface.
   void flood( uint32_t vlan, uint64_t mac, std::initializer_list<uint64_t> interfaces ) {
      for( const uint64_t interface : interfaces )
         floodIs( *entry, vlan, mac, floodDest( interface ) );
   }
};

// The members of all flood sets of an owner, the output or a source's entry:
// "VLAN/MAC:interface" each. Unless it may, none has an empty set or VLAN.
template<class Owner>
std::set<std::string> members( const Owner& owner, bool mayBeEmpty = false ) {
   std::set<std::string> all;
   for( const auto& sets : owner.vlanFloodSet() ) {
      EXPECT_TRUE( mayBeEmpty || !sets.value->floodSet().empty() ) << "an empty VLAN " << sets.key;
      for( const auto& set : sets.value->floodSet() ) {
         EXPECT_TRUE( mayBeEmpty || !set.value->destSet().empty() ) << "an empty set " << sets.key;
         for( const auto& found : set.value->destSet() )
            all.insert( sets.key.str() + "/" + set.key.str() + ":" + found.key.str() );
      }
   }
   return all;
}

// The trace of the engine, or of another part, all levels, as long as it lives.
class TraceLines {
 public:
   explicit TraceLines( const std::string& part = "L2RibPolicySm" ) : part_( part ) {
      Vexil::logSinkIs( [ this ]( std::string_view line ) { lines_.emplace_back( line ); } );
      Vexil::traceSettingIs( part_ + "=0-9" );
   }
   ~TraceLines() {
      Vexil::traceHandle( part_ ).levelsIs( 0 );
      Vexil::logSinkIs( {} );
   }
   // Whether there are lines with these texts, in this order; other lines may stand between them.
   void expect( std::initializer_list<const char*> texts ) const {
      size_t at = 0;
      for( const char* expected : texts ) {
         while( at < lines_.size() && lines_[ at ].find( expected ) == std::string::npos )
            ++at;
         ASSERT_LT( at, lines_.size() ) << "no line, or not in this order: " << expected;
      }
   }
   // In how many lines the text stands.
   long count( const std::string& text ) const {
      return std::ranges::count_if(
         lines_, [ & ]( const std::string& line ) { return line.find( text ) != line.npos; } );
   }
   void clear() { lines_.clear(); }

 private:
   const std::string part_;
   std::vector<std::string> lines_;
};

// Calls wrote( key ) at each write to a table.
template<class Table>
class Watch : public Vexil::Reactor<Table> {
 public:
   using Key = std::remove_cvref_t<decltype( std::declval<Table>().inSlot( 0 )->key() )>;
   Watch( const Ptr<Table>& table, std::function<void( const Key& )> wrote )
      : Vexil::Reactor<Table>( table ), wrote_( std::move( wrote ) ) {}
   void handleEntry( const Key& key ) override { wrote_( key ); }

 private:
   const std::function<void( const Key& )> wrote_;
};

// The capacities of the output tables.
struct Room {
   uint32_t host = 512, lb = 512, label = 512, dest = 512;
};

// Thrown out of a write of the engine: as if its process had been killed right after it.
struct Killed {};

class Lab {
 public:
   explicit Lab( const Room& room = {} )
      : clock( makeEntity<Vexil::ManualClock>() ),
        manager( makeEntity<Vexil::EntityManager>( clock ) ),
        inputDir( makeEntity<Vexil::Directory>() ), agentInputDir( makeEntity<AgentSourceDir>() ),
        output{ makeEntity<HostOutput>( room.host ),   makeEntity<LoadBalanceOutput>( room.lb ),
                makeEntity<LabelOutput>( room.label ), makeEntity<DestOutput>( room.dest ),
                makeEntity<FloodSetOutput>(),          makeEntity<PolicySmStatus>() },
        hostWatch( watch( output.host ) ), lbWatch( watch( output.lb ) ),
        labelWatch( watch( output.label ) ), destWatch( watch( output.dest ) ) {
      newEngine();
      settle(); // nothing to adopt: the restart is over at once
   }

   // Drops the engine and builds another one on the tables that it leaves, as a restart does.
   void newEngine() {
      engine = nullptr;
      engine = makeEntity<PolicySm>( manager, inputDir, agentInputDir, output );
   }

   // Publishes a source with empty tables. Its paths are new each time: like another process, it
   // makes its tables anew.
   LabSource& source( const std::string& name, uint32_t value, bool initialized = true ) {
      LabSource& made = sources[ name ];
      made.name = name;
      made.value = Source( value );
      made.path = "in/" + name + "/" + std::to_string( ++publications ) + "/";
      made.host = table<HostInput>( made.path + "host" );
      made.lb = table<LoadBalanceTable>( made.path + "lb" );
      made.label = table<LabelTable>( made.path + "label" );
      made.dest = table<DestTable>( made.path + "dest" );
      publishAgain( made, initialized );
      return made;
   }
   // Gives the source a new entry, for the tables that it has.
   void publishAgain( LabSource& source, bool initialized ) {
      source.entry = makeEntity<SourceDirEntry>( source.name );
      source.entry->sourceIs( source.value );
      source.entry->hostTableTarnPathIs( source.path + "host" );
      source.entry->lbTableTarnPathIs( source.path + "lb" );
      source.entry->labelTableTarnPathIs( source.path + "label" );
      source.entry->destTableTarnPathIs( source.path + "dest" );
      source.entry->initializedIs( initialized );
      inputDir->entryIs( source.name, source.entry );
   }

   void turn() {
      clock->fireDue();
      if( danglesInRestart.empty() )
         return;
      // Rows may dangle while a contradictory output is emptied, and then nothing is left of it.
      EXPECT_EQ( 0u, output.host->count() + objectCount() ) << danglesInRestart;
      danglesInRestart.clear();
   }
   // Turns until nothing is left to do now; parked failures stay parked.
   void settle() {
      for( int turns = 0; clock->nextWake() <= 0; ++turns ) {
         ASSERT_LT( turns, 100000 ) << "the engine never comes to rest";
         turn();
      }
   }
   // The same after the hammer timer's next tick.
   void hammer() {
      settle();
      clock->nowIs( clock->now() + engine->hammerReviewInterval() + 1 );
      turn();
      settle();
   }
   void pass( Vexil::Seconds seconds ) {
      clock->nowIs( clock->now() + seconds );
      turn();
      settle();
   }

   size_t objectCount() const {
      return output.dest->count() + output.lb->count() + output.label->count();
   }
   HostAndSource row( const MacVlanPair& key ) const { return output.host->host( key ); }
   // What a host's row comes to, written out to the leaves of its objects; "none" without a row.
   std::string resolved( const MacVlanPair& key ) const {
      const HostAndSource found = row( key );
      return found.key() == key ? Test::resolved( output, found ) : "none";
   }
   // "value 7 from 0x40" or "dest/1 from 0x40"; "none".
   std::string outcome( const MacVlanPair& key ) const {
      const HostAndSource found = row( key );
      if( found.key() != key )
         return "none";
      const bool isInline = found.next() == Util::objTupleInvalid();
      return ( isInline ? found.host().ciDest().str() : found.next().str() ) + " from " +
             sourceStr( found.source() );
   }

   // Every relation that the rows of the output imply: (used, user).
   using Relations = std::set<std::pair<ObjTuple, std::string>>;
   Relations relationsOfRows() const {
      Relations all;
      output.host->forEach( [ & ]( const HostAndSource& found ) {
         if( found.next() != Util::objTupleInvalid() )
            all.emplace( found.next(), mvpStr( found.key() ) );
      } );
      output.label->forEach( [ & ]( const LabelAndSource& found ) {
         all.emplace( found.label().next(), ObjTuple( found.key() ).str() );
      } );
      output.lb->forEach( [ & ]( const LoadBalanceAndSource& found ) {
         for( const ObjTuple& next : found.lb().used() )
            all.emplace( next, ObjTuple( found.key() ).str() );
      } );
      return all;
   }
   Relations relationsOfUsers() const {
      Relations all;
      for( const auto& entry : engine->usersMap() ) {
         EXPECT_FALSE( entry.value->empty() ) << entry.key << " has a record and no users";
         for( const auto& user : entry.value->otUser() )
            all.emplace( entry.key, user.key.str() );
         for( const auto& user : entry.value->mvpUser() )
            all.emplace( entry.key, mvpStr( user.key ) );
      }
      EXPECT_EQ( engine->userCount(), all.size() );
      return all;
   }

   // Called after every single write to an output table.
   void checkNothingDangles() {
      ++writes;
      if( !engine )
         return; // a write of the test's own
      std::set<ObjTuple> objects;
      const auto note = [ & ]( const auto& row ) { objects.emplace( row.key() ); };
      output.lb->forEach( note );
      output.label->forEach( note );
      output.dest->forEach( note );
      for( const auto& [ used, user ] : relationsOfRows() ) {
         if( objects.contains( used ) )
            continue;
         const std::string what = user + " points to missing " + used.str();
         if( engine->restartState() != running_ )
            danglesInRestart = what;
         else
            ADD_FAILURE() << "write " << writes << ": " << what;
      }
      if( atWrite )
         atWrite();
      if( writes == killAt )
         throw Killed();
   }
   // An output id that the engine gives stands for one input object for ever.
   template<class Row>
   void noteId( const Row& row ) {
      if( !engine )
         return; // a write of the test's own
      const ObjTuple ot( row.key() );
      EXPECT_EQ( row.sourceOtas(), inputOf.emplace( ot, row.sourceOtas() ).first->second )
         << ot << " was given twice";
   }
   void noteId( const HostAndSource& ) {}

   Ptr<Vexil::ManualClock> clock;
   Ptr<Vexil::EntityManager> manager;
   Ptr<Vexil::Directory> inputDir;
   Ptr<AgentSourceDir> agentInputDir;
   PolicySm::Tables output;
   std::map<std::string, LabSource> sources;
   uint64_t writes = 0;
   uint64_t killAt = 0;           // the write that ends in Killed; 0: none
   std::function<void()> atWrite; // what others do meanwhile
   std::map<ObjTuple, ObjTupleAndSource> inputOf;
   std::string danglesInRestart;

 private:
   template<class Table>
   Watch<Table> watch( const Ptr<Table>& table ) {
      return Watch<Table>( table, [ this, &table = *table ]( const auto& key ) {
         if( const auto row = table.get( key ); row.key() == key )
            noteId( row );
         checkNothingDangles();
      } );
   }
   template<class Table>
   Ptr<Table> table( const std::string& path ) {
      const Ptr<Table> made = makeEntity<Table>( 256u );
      manager->entityIs( path, made );
      return made;
   }

   int publications = 0;
   Watch<HostOutput> hostWatch;
   Watch<LoadBalanceOutput> lbWatch;
   Watch<LabelOutput> labelWatch;
   Watch<DestOutput> destWatch;

 public:
   Ptr<PolicySm> engine; // goes before what it uses
};

} // namespace L2Rib::Test
