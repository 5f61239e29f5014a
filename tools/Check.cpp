// l2ribctl check: whether the output tables keep their invariants.
#include "L2Rib/Status.h"
#include "tools/OutputGraph.h"
#include "tools/Parked.h"
#include "tools/Progress.h"
#include "tools/Show.h"

#include <iostream>
#include <map>

namespace Tools {

using namespace L2Rib;

namespace {

class Check {
 public:
   Check( const OutputGraph& graph, const PolicySmStatusRecord& ids )
      : graph_( graph ), ids_( ids ) {}

   // One line a fault.
   const std::vector<std::string>& faults( Progress& progress ) {
      checkHosts( progress );
      progress.at( "checking the objects" );
      for( const auto& [ id, row ] : graph_.dests )
         checkObject( row, ObjTuple( id ), ids_.maxDestId );
      for( const auto& [ id, row ] : graph_.groups )
         checkObject( row, ObjTuple( id ), ids_.maxLbId );
      for( const auto& [ id, row ] : graph_.labels )
         checkObject( row, ObjTuple( id ), ids_.maxLabelId );
      checkUse();
      checkLoops();
      checkFlood();
      return faults_;
   }

 private:
   template<class Subject>
   void fault( const Subject& subject, const std::string& what ) {
      faults_.push_back( subject.str() + " " + what );
   }
   // What is wrong with the row alone.
   template<class Row>
   void checkRow( const std::string& subject, const Row& row ) {
      if( const MaybeFault found = faultIn( row ) )
         faults_.push_back( subject + ": " + found->text );
   }

   // Whatever a source's row points to is the same source's.
   void checkNext( const std::string& user, Source source, const ObjTuple& next ) {
      if( !graph_.has( next ) )
         faults_.push_back( user + " points to " + next.str() + ", which is not there" );
      else if( graph_.sourceOf( next ) != source )
         faults_.push_back( user + " of " + sourceStr( source ) + " points to " + next.str() +
                            ", which is of " + sourceStr( graph_.sourceOf( next ) ) );
   }

   void checkHosts( Progress& progress ) {
      uint64_t looked = 0;
      for( const HostAndSource& row : graph_.hosts ) {
         progress.at( "checking the hosts", ++looked, graph_.hosts.size() );
         const std::string subject = "host " + row.key().str();
         checkRow( subject, row );
         if( row.next() != Util::objTupleInvalid() )
            checkNext( subject, row.source(), row.next() );
      }
   }

   // What holds of every kind of object.
   template<class Row, class Id>
   void checkObject( const Row& row, const ObjTuple& object, Id maxId ) {
      objects_.push_back( object );
      checkRow( object.str(), row );
      if( object.objId().value() > maxId.value() )
         fault( object, "has an id that was never given: the highest is " + maxId.str() );
      const ObjTupleAndSource& input = row.sourceOtas();
      const auto [ first, fresh ] = copies_.emplace( input, object );
      if( !fresh )
         fault( object, "and " + first->second.str() + " are copies of the same " + input.str() );
      for( const ObjTuple& next : graph_.nextsOf( object ) )
         checkNext( object.str(), input.source(), next );
   }

   void checkUse() {
      std::vector<ObjTuple> starts;
      for( const HostAndSource& row : graph_.hosts )
         starts.push_back( row.next() );
      const std::set<ObjTuple> reached = graph_.reachedFrom( starts );
      for( const ObjTuple& object : objects_ )
         if( !reached.contains( object ) )
            fault( object, "is not reached from any host" );
   }

   // Goes down from every object, and keeps the way that it came: a next that is on it closes a
   // loop. Not by calls of itself, for the chain may be as long as the tables are.
   void checkLoops() {
      struct Step {
         ObjTuple object;
         std::vector<ObjTuple> left; // nexts to look at
      };
      enum class Seen { onTheWay, done };
      std::map<ObjTuple, Seen> seen;
      std::vector<Step> way;
      const auto enter = [ & ]( const ObjTuple& object ) {
         seen[ object ] = Seen::onTheWay;
         way.push_back( { object, graph_.nextsOf( object ) } );
      };
      for( const ObjTuple& start : objects_ ) {
         if( !seen.contains( start ) )
            enter( start );
         while( !way.empty() ) {
            const ObjTuple object = way.back().object;
            if( way.back().left.empty() ) {
               seen[ object ] = Seen::done;
               way.pop_back();
               continue;
            }
            const ObjTuple next = way.back().left.back();
            way.back().left.pop_back();
            const auto known = seen.find( next );
            if( known == seen.end() )
               enter( next );
            else if( known->second == Seen::onTheWay )
               fault( object, "points to " + next.str() + ", which leads back to it" );
         }
      }
   }

   void checkFlood() {
      std::map<Bridging::MacVlanPair, FloodSetType> types;
      for( const FloodMember& member : graph_.flood ) {
         const FloodSetTriple& triple = member.triple;
         const std::string subject = "flood member " + triple.str();
         checkRow( subject, member );
         const auto [ first, fresh ] = types.emplace(
            Bridging::MacVlanPair( triple.mac(), triple.vlan() ), member.floodSetType );
         if( !fresh && first->second != member.floodSetType )
            faults_.push_back( subject + " has another type than its set" );
      }
   }

   const OutputGraph& graph_;
   PolicySmStatusRecord ids_;
   std::vector<ObjTuple> objects_;
   std::map<ObjTupleAndSource, ObjTuple> copies_; // by their input objects
   std::vector<std::string> faults_;
};

// The rows that no reader of the tables is given.
std::vector<std::string> brokenRows( const Client::OutputReader& output ) {
   std::vector<std::string> broken;
   const auto look = [ & ]( const char* name, const auto& table ) {
      table->forEachBroken( [ & ]( const auto&, const std::string& fault ) {
         broken.push_back( name + ( " " + fault ) );
      } );
      const uint64_t before = table->corruptions();
      table->forEachKey( []( const auto& ) {} );
      if( table->corruptions() != before )
         broken.push_back( table->lastCorruption() );
   };
   look( "host", output.hosts.table() );
   look( "dest", output.dests.table() );
   look( "lb", output.groups.table() );
   look( "label", output.labels.table() );
   look( "flood member", output.flood.table() );
   return broken;
}

int check( const Context& context ) {
   const Client::OutputReader output( context.stateDirectory );
   requireOutput( output, context );
   Progress progress;
   const OutputGraph graph( output );
   if( !graph.stoodStill ) {
      complain( "the output never stood still: 'l2ribctl settle' waits until it does" );
      return answerIsNo;
   }
   // After the rows: an id is noted here before a row has it.
   const PolicySmStatusTable ids( context.fileOf( Path::policySmStatus ),
                                  PolicySmStatusTable::Mode::read );
   Check check( graph, ids.get( SingleKey() ) );
   std::vector<std::string> faults = check.faults( progress );
   for( const std::string& broken : brokenRows( output ) )
      faults.push_back( broken );
   const SourceNames names( context );
   const ParkedEntries parked( context );
   for( const std::string& group : parked.forWantOfRoom( names ) )
      faults.push_back( "not in the output for want of room: " + group );
   if( context.json ) {
      std::cout << text( { { "faults", faults },
                           { "parked", parked.forSources( names ) },
                           { "hosts", graph.hosts.size() },
                           { "dests", graph.dests.size() },
                           { "groups", graph.groups.size() },
                           { "labels", graph.labels.size() },
                           { "flood", graph.flood.size() } } )
                << '\n';
      return faults.empty() ? done : answerIsNo;
   }
   for( const std::string& fault : faults )
      std::cout << fault << '\n';
   for( const std::string& entry : parked.forSources( names ) )
      std::cout << "parked: " << entry << '\n';
   if( !faults.empty() ) {
      complain( std::to_string( faults.size() ) + ( faults.size() == 1 ? " fault" : " faults" ) +
                " in the output" );
      return answerIsNo;
   }
   std::cout << "no faults: " << graph.hosts.size() << " hosts, " << graph.dests.size()
             << " dests, " << graph.groups.size() << " groups, " << graph.labels.size()
             << " labels, " << graph.flood.size() << " flood members\n";
   return done;
}

} // namespace

void addCheck( CLI::App& app, Context& context ) {
   CLI::App* const command = app.add_subcommand( "check", "whether the output is consistent" );
   addJsonFlag( *command, context );
   command->footer( "Example: l2ribctl check && echo sound" );
   command->callback(
      [ &context ] { context.command = [ &context ] { return check( context ); }; } );
}

} // namespace Tools
