// l2ribctl explain: why a host is what it is.
//
// Decides as the engine does, with the same comparator and in the same order of the sources, from
// the tables that the sources publish at this moment.
#include "engine/HostRank.h"
#include "runtime/HashMap.h"
#include "tools/Parked.h"
#include "tools/SourceTables.h"

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
};

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
      found.push_back( { name, entry.source, entry.initialized != 0, host } );
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

// Whether the output row is the winner, its next apart, which is an output object there.
bool holds( const HostAndSource& row, const Candidate& winner ) {
   Host asWritten = row.host();
   asWritten.nextIs( winner.host.next() );
   return row.source() == winner.source && asWritten == winner.host;
}

void printForPeople( const Json& answer, const std::string& inOutput ) {
   for( const Json& candidate : answer[ "candidates" ] ) {
      const Json& beats = candidate[ "beats" ];
      std::cout << candidate[ "sourceName" ].get<std::string>() << " ("
                << candidate[ "source" ].get<std::string>() << "): " << text( candidate[ "host" ] )
                << "\n   "
                << ( !candidate[ "ready" ].get<bool>() ? "does not take part: not initialized"
                     : beats.is_null()                 ? "wins"
                                       : "loses to " + beats[ "sourceName" ].get<std::string>() +
                                            " by " + beats[ "rule" ].get<std::string>() )
                << '\n';
   }
   std::cout << inOutput << '\n';
   for( const Json& step : answer[ "path" ] )
      std::cout << "   " << text( step ) << '\n';
}

int explain( const Context& context, const std::string& mac, uint32_t vlan ) {
   const MacVlanPair key( *Vexil::EthAddr::parse( mac ), Bridging::VlanId( vlan ) );
   const OutputReader output( context.stateDirectory );
   const std::vector<Candidate> all = candidates( context, key );
   const Candidate* const winner = best( all );

   Json answer = toJson( key );
   answer[ "candidates" ] = Json::array();
   for( const Candidate& candidate : all ) {
      // The rule between this one and the winner. With sequence numbers around half their circle
      // apart it may read as if this one won: their order is not transitive, and the engine's
      // decision goes from candidate to candidate.
      Json beats;
      if( winner && &candidate != winner && candidate.ready )
         beats = { { "sourceName", winner->name },
                   { "rule", rankRuleStr( rankHost( candidate.host, candidate.source, winner->host,
                                                    winner->source )
                                             .rule ) } };
      answer[ "candidates" ].push_back( { { "sourceName", candidate.name },
                                          { "source", sourceStr( candidate.source ) },
                                          { "ready", candidate.ready },
                                          { "host", toJson( candidate.host ) },
                                          { "beats", beats } } );
   }
   answer[ "winner" ] = winner ? Json( winner->name ) : Json();
   const std::optional<ParkedEntry> parked = parkedHost( context, key );
   answer[ "parked" ] = parked ? toJson( *parked, SourceNames( context ) ) : Json();
   answer[ "path" ] = Json::array();
   std::string inOutput = "no source that takes part has this host";
   if( winner ) {
      const auto row = output.hosts.get( key );
      const bool held = row && holds( *row, *winner );
      inOutput = held
                    ? "winner: " + winner->name + ", and the output holds it"
                    : "winner: " + winner->name + ", but the output does not hold it" +
                         ( row ? " yet: it holds that of " + sourceStr( row->source() ) : " yet" );
      if( winner->host.next() == Util::objTupleInvalid() )
         answer[ "path" ].push_back( { { "inline", toJson( winner->host.ciDest() ) } } );
      else if( held )
         answer[ "path" ] = pathFrom( output, row->next() );
   } else if( const auto row = output.hosts.get( key ) ) {
      inOutput += "; the output still holds that of " + sourceStr( row->source() );
   }
   if( parked )
      inOutput += "\nparked: " + answer[ "parked" ][ "reason" ].get<std::string>() + ", " +
                  triedText( *parked );
   if( context.json )
      std::cout << text( answer ) << '\n';
   else
      printForPeople( answer, inOutput );
   return winner ? done : answerIsNo;
}

} // namespace

void addExplain( CLI::App& app, Context& context ) {
   struct Given {
      std::string mac;
      uint32_t vlan = 0;
   };
   const auto given = std::make_shared<Given>();
   CLI::App* const command = app.add_subcommand( "explain", "why a host is what it is" );
   command->add_option( "MAC", given->mac, "such as 02:00:00:00:00:01" )
      ->required()
      ->check( checkMac );
   command->add_option( "VLAN", given->vlan, "1 to 4094" )
      ->required()
      ->check( CLI::Range( 1, 4094 ) );
   addJsonFlag( *command, context );
   command->callback( [ &context, given ] {
      context.command = [ &context, given ] { return explain( context, given->mac, given->vlan ); };
   } );
}

} // namespace Tools
