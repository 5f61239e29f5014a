// l2ribctl explain: why a host is what it is.
//
// Decides as the engine does, with the same comparator and in the same order of the sources, from
// the tables that the sources publish at this moment.
#include "tools/Explain.h"
#include "L2Rib/HostRank.h"
#include "runtime/HashMap.h"
#include "tools/Bridge.h"
#include "tools/Filter.h"
#include "tools/Parked.h"
#include "tools/SourceTables.h"
#include "tools/TextTable.h"

#include <array>
#include <deque>
#include <iostream>
#include <memory>
#include <set>

namespace Tools {

using namespace L2Rib;
using Bridging::MacVlanPair;
using Client::OutputReader;

namespace {

struct Candidate {
   std::string name;
   Source source;
   bool ready;
   Host host;
   std::string via; // where it leads to, in words
};

// Where a source's own host leads to, by that source's tables.
std::string viaOf( const Host& host, const SourceTables& tables ) {
   const ObjTuple& next = host.next();
   if( next.tableType() == tableTypeDest_ && tables.dest ) {
      if( Dest dest; tables.dest->get( next.destId(), dest ) )
         return Vias::text( dest );
   } else if( next.tableType() == tableTypeLoadBalance_ && tables.lb ) {
      if( LoadBalance group; tables.lb->get( next.lbId(), group ) )
         return countText( group.nexts(), "path" );
   } else if( next.tableType() == tableTypeLabel_ && tables.label ) {
      if( Label label; tables.label->get( next.labelId(), label ) )
         return "label " + label.label().str();
   } else if( next == Util::objTupleInvalid() ) {
      return Vias::text( host.ciDest() );
   }
   return next.str() + ", which it does not have";
}

// The sources that have the host, in the order in which the engine asks them.
std::vector<Candidate> candidates( const Context& context, const MacVlanPair& key ) {
   Vexil::HashMap<std::string, SourceEntryRecord> entries;
   for( const auto& [ name, source ] : context.sources().allSources() )
      if( source.readable )
         entries.emplace( name, source.record );
   std::vector<Candidate> found;
   for( const auto& [ name, entry ] : entries ) {
      const SourceTables tables( context, entry );
      Host host;
      if( !tables.host || !tables.host->get( key, host ) )
         continue;
      found.push_back(
         { name, entry.source, entry.initialized != 0, host, viaOf( host, tables ) } );
   }
   return found;
}

const Candidate* best( const std::vector<Candidate>& all ) {
   const Candidate* winner = nullptr;
   for( const Candidate& candidate : all )
      if( candidate.ready &&
          ( !winner ||
            rankHost( candidate.host, candidate.source, winner->host, winner->source ).better ) )
         winner = &candidate;
   return winner;
}

// The output objects that are reached from one, each once, the nearer ones first.
Json pathFrom( const OutputReader& output, const ObjTuple& start ) {
   Json path = Json::array();
   std::set<ObjTuple> met{ start };
   std::deque<ObjTuple> next{ start };
   const auto follow = [ & ]( const ObjTuple& object ) {
      if( met.insert( object ).second )
         next.push_back( object );
   };
   for( ; !next.empty(); next.pop_front() ) {
      const ObjTuple object = next.front();
      Json step = toJson( object );
      Json row;
      if( object.tableType() == tableTypeLoadBalance_ ) {
         if( const auto group = output.groups.get( object.lbId() ) ) {
            row = toJson( *group );
            for( const ObjTuple& member : group->lb().used() )
               follow( member );
         }
      } else if( object.tableType() == tableTypeLabel_ ) {
         if( const auto label = output.labels.get( object.labelId() ) ) {
            row = toJson( *label );
            follow( label->label().next() );
         }
      } else if( object.tableType() == tableTypeDest_ ) {
         if( const auto dest = output.dests.get( object.destId() ) )
            row = toJson( *dest );
      }
      if( !row.is_null() )
         step.update( row );
      path.push_back( step );
   }
   return path;
}

// What is known of the host.
struct Answer {
   MacVlanPair key;
   std::vector<Candidate> candidates;
   const Candidate* winner; // null when no source that takes part has it
   std::optional<HostAndSource> row;
   bool held; // the row is the winner's
   std::optional<ParkedEntry> parked;
   Json kernel;
};

// Whether the output row is the winner, its next apart, which is an output object there.
bool holds( const HostAndSource& row, const Candidate& winner ) {
   Host asWritten = row.host();
   asWritten.nextIs( winner.host.next() );
   return row.source() == winner.source && asWritten == winner.host;
}

// The rule between a candidate and the winner. With sequence numbers around half their circle apart
// it may read as if the candidate won: their order is not transitive, and the engine's decision
// goes from candidate to candidate.
RankRule ruleBetween( const Candidate& candidate, const Candidate& winner ) {
   return rankHost( candidate.host, candidate.source, winner.host, winner.source ).rule;
}

// Why the winner is another one.
std::string whyItLoses( const Candidate& candidate, const Candidate& winner ) {
   const Host &host = candidate.host, &best = winner.host;
   switch( ruleBetween( candidate, winner ) ) {
   case RankRule::pref:
      return "pref " + std::to_string( host.pref() ) + " is less than " +
             std::to_string( best.pref() );
   case RankRule::seqNo:
      return "seq " + std::to_string( host.seqNo().value() ) + " is older than " +
             std::to_string( best.seqNo().value() );
   case RankRule::inlineOverObject:
      return "it leads to an object, the winner is inline";
   case RankRule::ciDest:
      return "its inline destination ranks lower";
   case RankRule::source:
      return "all is equal, and source " + sourceStr( candidate.source ) + " is less than " +
             sourceStr( winner.source );
   }
   return "";
}

// --- for programs

Json answerJson( const Answer& answer, const Context& context, const OutputReader& output ) {
   Json json = toJson( answer.key );
   json[ "candidates" ] = Json::array();
   const Candidate* const winner = answer.winner;
   for( const Candidate& candidate : answer.candidates ) {
      Json beats;
      if( winner && &candidate != winner && candidate.ready )
         beats = { { "sourceName", winner->name },
                   { "rule", rankRuleStr( ruleBetween( candidate, *winner ) ) } };
      json[ "candidates" ].push_back( { { "sourceName", candidate.name },
                                        { "source", sourceStr( candidate.source ) },
                                        { "ready", candidate.ready },
                                        { "host", toJson( candidate.host ) },
                                        { "beats", beats } } );
   }
   json[ "winner" ] = winner ? Json( winner->name ) : Json();
   json[ "parked" ] = answer.parked ? toJson( *answer.parked, SourceNames( context ) ) : Json();
   json[ "path" ] = Json::array();
   if( winner && winner->host.next() == Util::objTupleInvalid() )
      json[ "path" ].push_back( { { "inline", toJson( winner->host.ciDest() ) } } );
   else if( winner && answer.held )
      json[ "path" ] = pathFrom( output, answer.row->next() );
   json[ "kernel" ] = answer.kernel;
   return json;
}

// --- for people

void printCandidates( const Answer& answer ) {
   const double now = Vexil::SystemClock().now();
   std::vector<std::vector<std::string>> lines;
   const auto add = [ & ]( const Candidate& candidate, const char* verdict, std::string why ) {
      lines.push_back( { verdict, candidate.name, "pref " + std::to_string( candidate.host.pref() ),
                         "seq " + std::to_string( candidate.host.seqNo().value() ), candidate.via,
                         std::move( why ) } );
   };
   if( const Candidate* const winner = answer.winner ) {
      const double since = winner->host.updateTime();
      add( *winner, "  wins", since > 0 ? "published " + ageText( now - since ) + " ago" : "" );
   }
   for( const Candidate& candidate : answer.candidates )
      if( !candidate.ready )
         add( candidate, "  is out", "its source is not initialized" );
      else if( &candidate != answer.winner )
         add( candidate, "  loses", whyItLoses( candidate, *answer.winner ) );
   printColumns( std::move( lines ) );
}

// The ways from an object downwards, one a line, each from where it leaves the one above it.
class Tree {
 public:
   Tree( const OutputReader& output, Vias& vias ) : output_( output ), vias_( vias ) {}

   void print( const ObjTuple& object, std::string line ) {
      line += " -> " + name( object );
      const std::vector<ObjTuple> nexts = nextsOf( object );
      if( nexts.empty() || ++depth_ > deepest )
         std::cout << line << '\n';
      for( size_t i = 0; i < nexts.size() && depth_ <= deepest; ++i )
         print( nexts[ i ], i == 0 ? line : std::string( line.size(), ' ' ) );
      if( !nexts.empty() )
         --depth_;
   }

 private:
   static constexpr unsigned deepest = 8;

   std::string name( const ObjTuple& object ) {
      const std::string id = object.objId().str();
      return object.tableType() == tableTypeDest_ ? "dest " + id + " " + vias_.text( object )
             : object.tableType() == tableTypeLoadBalance_ ? "group " + id
             : object.tableType() == tableTypeLabel_       ? "label " + id
                                                           : object.str();
   }
   std::vector<ObjTuple> nextsOf( const ObjTuple& object ) const {
      if( object.tableType() == tableTypeLabel_ )
         if( const auto row = output_.labels.get( object.labelId() ) )
            return { row->label().next() };
      if( object.tableType() == tableTypeLoadBalance_ )
         if( const auto row = output_.groups.get( object.lbId() ) )
            return { row->lb().used().begin(), row->lb().used().end() };
      return {};
   }

   const OutputReader& output_;
   Vias& vias_;
   unsigned depth_ = 0;
};

void printOutput( const Answer& answer, const SourceNames& names, const OutputReader& output,
                  Vias& vias ) {
   if( !answer.row )
      std::cout << "  output  does not have it" << ( answer.winner ? " yet" : "" ) << '\n';
   else if( answer.winner && !answer.held )
      std::cout << "  output  still has that of " << names.text( answer.row->source() ) << ", "
                << vias.text( answer.row->host() ) << '\n';
   else if( !answer.winner )
      std::cout << "  output  still has that of " << names.text( answer.row->source() ) << '\n';
   else if( answer.row->next() == Util::objTupleInvalid() )
      std::cout << "  output  host -> " << vias.text( answer.row->host() ) << '\n';
   else
      Tree( output, vias ).print( answer.row->next(), "  output  host" );
   if( answer.parked )
      std::cout << "  parked  " << reasonText( *answer.parked, names ) << ", "
                << triedText( *answer.parked ) << '\n';
   if( !answer.kernel.is_null() )
      std::cout << "  kernel  " << kernelText( answer.kernel ) << '\n';
}

void printForPeople( const Answer& answer, const Context& context, const OutputReader& output ) {
   Vias vias( output );
   std::cout << answer.key.mac().str() << " in VLAN " << answer.key.vlan().str();
   if( answer.held )
      std::cout << " goes to " << vias.text( answer.row->host() ) << "\n\n";
   else
      std::cout << ( answer.winner ? " is not in the output as it should be\n\n"
                                   : ": no source that takes part has this host\n\n" );
   printCandidates( answer );
   std::cout << '\n';
   printOutput( answer, SourceNames( context ), output, vias );
}

Answer answerOf( const Context& context, const OutputReader& output, const MacVlanPair& key ) {
   Answer answer{ .key = key,
                  .candidates = candidates( context, key ),
                  .winner = nullptr, // one of the candidates
                  .row = output.hosts.get( key ),
                  .held = false,
                  .parked = parkedHost( context, key ),
                  .kernel = kernelJson( context, key ) };
   answer.winner = best( answer.candidates );
   answer.held = answer.winner && answer.row && holds( *answer.row, *answer.winner );
   return answer;
}

int explain( const Context& context, const MacVlanPair& key ) {
   const OutputReader output( context.stateDirectory );
   mentionStoppedAgent( context );
   const Answer answer = answerOf( context, output, key );
   if( context.json )
      std::cout << text( answerJson( answer, context, output ) ) << '\n';
   else
      printForPeople( answer, context, output );
   return answer.winner ? done : answerIsNo;
}

} // namespace

Json explainInWords( const Context& context, const OutputReader& output, const MacVlanPair& key ) {
   const Answer answer = answerOf( context, output, key );
   Json json = answerJson( answer, context, output );
   for( size_t i = 0; i < answer.candidates.size(); ++i ) {
      const Candidate& candidate = answer.candidates[ i ];
      json[ "candidates" ][ i ][ "via" ] = candidate.via;
      if( !json[ "candidates" ][ i ][ "beats" ].is_null() )
         json[ "candidates" ][ i ][ "reason" ] = whyItLoses( candidate, *answer.winner );
   }
   Vias vias( output );
   for( Json& step : json[ "path" ] )
      step[ "via" ] = step.contains( "inline" ) ? answer.winner->via
                      : step[ "type" ] == "dest"
                         ? vias.text( ObjTuple( DestId( step[ "id" ].get<uint64_t>() ) ) )
                         : "";
   json[ "output" ] = answer.row ? toJson( *answer.row, SourceNames( context ) ) : Json();
   return json;
}

void addExplain( CLI::App& app, Context& context ) {
   const auto given = std::make_shared<std::array<std::string, 2>>();
   CLI::App* const command = app.add_subcommand( "explain", "why a host is what it is" );
   command->add_option( "MAC", ( *given )[ 0 ], "such as 02:00:00:00:00:01" )->required();
   command->add_option( "VLAN", ( *given )[ 1 ], "1 to 4094; may also stand first" )->required();
   addJsonFlag( *command, context );
   command->footer( "Example: l2ribctl explain 02:00:00:00:00:01 10" );
   command->callback( [ &context, given ] {
      context.command = [ &context, given ] {
         return explain( context, hostKeyOf( ( *given )[ 0 ], ( *given )[ 1 ] ) );
      };
   } );
}

} // namespace Tools
