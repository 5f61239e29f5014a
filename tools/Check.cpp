// l2ribctl check: whether the output tables keep their invariants.
#include "L2Rib/Status.h"
#include "tools/OutputGraph.h"
#include "tools/Parked.h"
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
   const std::vector<std::string>& faults() {
      checkHosts();
      for( const auto& [ id, row ] : graph_.dests ) {
         checkObject( row, ObjTuple( id ), ids_.maxDestId );
         const DestType type = row.dest().destType();
         if( type == objDestTypeNone_ || type > objDestTypeVxlan_ )
            fault( ObjTuple( id ), "is of no known type" );
      }
      for( const auto& [ id, row ] : graph_.groups ) {
         checkObject( row, ObjTuple( id ), ids_.maxLbId );
         if( row.lb().nexts() == 0 || row.lb().nexts() > EcmpIndex::max + 1 )
            fault( ObjTuple( id ), "has " + std::to_string( row.lb().nexts() ) + " nexts" );
      }
      for( const auto& [ id, row ] : graph_.labels ) {
         checkObject( row, ObjTuple( id ), ids_.maxLabelId );
         if( !row.label().label().valid() )
            fault( ObjTuple( id ), "pushes a label past 20 bits" );
      }
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

   // Whatever a source's row points to is the same source's.
   void checkNext( const std::string& user, Source source, const ObjTuple& next ) {
      if( !graph_.has( next ) )
         faults_.push_back( user + " points to " + next.str() + ", which is not there" );
      else if( graph_.sourceOf( next ) != source )
         faults_.push_back( user + " of " + sourceStr( source ) + " points to " + next.str() +
                            ", which is of " + sourceStr( graph_.sourceOf( next ) ) );
   }

   void checkHosts() {
      for( const HostAndSource& row : graph_.hosts ) {
         const std::string subject = "host " + row.key().str();
         if( row.host().key() != row.key() )
            faults_.push_back( subject + " holds the host " + row.host().key().str() );
         if( !isSingleBit( row.source() ) )
            faults_.push_back( subject + " has the source " + sourceStr( row.source() ) +
                               ", which is no single bit" );
         const CiDest& dest = row.host().ciDest();
         if( row.next() != Util::objTupleInvalid() ) {
            checkNext( subject, row.source(), row.next() );
            if( dest != CiDest() )
               faults_.push_back( subject + " has both a next and an inline destination" );
         } else if( dest.destType() != destTypeDefault_ && dest.destType() != destTypeVxlan_ ) {
            faults_.push_back( subject + " has an inline destination of no known type" );
         } else if( dest.vtepCount() > CiVtepIndex::max + 1 ||
                    ( dest.vtepCount() == 2 && !( dest.vteps()[ 0 ] < dest.vteps()[ 1 ] ) ) ) {
            faults_.push_back( subject + " has VTEPs that are too many or out of order" );
         }
      }
   }

   // What holds of every kind of object.
   template<class Row, class Id>
   void checkObject( const Row& row, const ObjTuple& object, Id maxId ) {
      objects_.push_back( object );
      if( object.objId().value() == 0 || object.objId().value() > maxId.value() )
         fault( object, "has an id that was never given: the highest is " + maxId.str() );
      const ObjTupleAndSource& input = row.sourceOtas();
      if( input.tableType() != object.tableType() || !isSingleBit( input.source() ) )
         fault( object, "is the copy of something else: " + input.str() );
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
         if( triple.dest().key() != Util::destIdNotInTarn() )
            faults_.push_back( subject + " has an id of its own" );
         if( member.floodSetType < floodSetTypeVxlan_ || member.floodSetType > floodSetTypeAny_ )
            faults_.push_back( subject + " is of no known type" );
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

int check( const Context& context ) {
   const Client::OutputReader output( context.stateDirectory );
   requireOutput( output, context );
   const OutputGraph graph( output );
   if( !graph.stoodStill ) {
      complain( "the output never stood still: 'l2ribctl settle' waits until it does" );
      return answerIsNo;
   }
   // After the rows: an id is noted here before a row has it.
   const PolicySmStatusTable ids( context.fileOf( Path::policySmStatus ),
                                  PolicySmStatusTable::Mode::read );
   Check check( graph, ids.get( SingleKey() ) );
   std::vector<std::string> faults = check.faults();
   const SourceNames names( context );
   const ParkedEntries parked( context );
   for( const std::string& group : parked.forWantOfRoom( names ) )
      faults.push_back( "not in the output for want of room: " + group );
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
   command->callback(
      [ &context ] { context.command = [ &context ] { return check( context ); }; } );
}

} // namespace Tools
