// l2ribctl show failed, and what other commands say of parked entries.
#include "tools/Parked.h"

#include "L2Rib/Status.h"
#include "tools/Filter.h"
#include "tools/SourceTables.h"
#include "tools/TextTable.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <map>
#include <memory>
#include <tuple>
#include <utility>

namespace Tools {

using namespace L2Rib;

namespace {

// The name of a value that a record holds; the first one for a value that does not exist.
template<size_t Count>
const char* nameOf( const std::array<const char*, Count>& names, uint32_t value ) {
   return names[ value < Count ? value : 0 ];
}

const char* tableName( OutputTable table ) {
   constexpr std::array names = { "output",       "host output", "group output",
                                  "label output", "dest output", "flood output" };
   static_assert( names.size() == outputTables );
   return nameOf( names, table );
}

const char* objectName( TableType type ) {
   return type == tableTypeLoadBalance_ ? "group"
          : type == tableTypeLabel_     ? "label"
          : type == tableTypeDest_      ? "dest"
                                        : "object";
}

// "evpn", or "source 0x40" for one that has no name at present.
std::string sourceText( Source source, const SourceNames& names ) {
   const Json name = names.of( source );
   return name.is_null() ? "source " + sourceStr( source ) : name.get<std::string>();
}

// "dest 99 of source evpn".
std::string objectText( const ObjTupleAndSource& otas, const SourceNames& names ) {
   const Json name = names.of( otas.source() );
   return std::string( objectName( otas.tableType() ) ) + " " +
          std::to_string( otas.objId().value() ) + " of source " +
          ( name.is_null() ? sourceStr( otas.source() ) : name.get<std::string>() );
}

constexpr std::array kinds = { "entry", "host", "object", "flood" };
const char* kindName( ParkedKind kind ) { return nameOf( kinds, kind ); }
// The same in a sentence.
const char* countedName( ParkedKind kind ) {
   return kind == parkedFloodMember_ ? "flood member" : kindName( kind );
}

// What it is, without what stands in the columns beside it.
std::string subjectText( const ParkedRecord& parked ) {
   if( parked.key.kind == parkedObject_ )
      return std::string( objectName( parked.key.otas.tableType() ) ) + " " +
             std::to_string( parked.key.otas.objId().value() );
   std::string where = parked.key.mvp.mac().str() + " VLAN " + parked.key.mvp.vlan().str();
   return parked.key.kind == parkedFloodMember_ ? where + " to " + parked.dest.str() : where;
}

AgentStatusRecord figuresOf( const Context& context ) {
   const auto table = readable<AgentStatusTable>( context.fileOf( Path::agentStatus ) );
   return table ? table->get( SingleKey() ) : AgentStatusRecord();
}

// The figures are read after the record.
ParkedEntry entryOf( const ParkedRecord& record, const AgentStatusRecord& figures ) {
   const uint64_t rounds = record.key.kind == parkedFloodMember_ ? figures.floodRetryRounds.value()
                                                                 : figures.retryRounds.value();
   return { record, 1 + rounds - std::min( rounds, record.round.value() ) };
}

// Entries of one kind that wait for the same room.
struct Group {
   size_t count = 0;
   double since = 0; // the first of them
};
using Groups = std::map<std::pair<ParkedKind, std::string>, Group>;

Groups groupsForRoom( const std::vector<ParkedEntry>& all, const SourceNames& names ) {
   Groups groups;
   for( const ParkedEntry& parked : all )
      if( isForWantOfRoom( parked.reason ) ) {
         Group& group = groups[ { parked.key.kind, reasonText( parked, names ) } ];
         group.since =
            group.count == 0 ? parked.since.value() : std::min( group.since, parked.since.value() );
         ++group.count;
      }
   return groups;
}

} // namespace

std::string reasonText( const ParkedRecord& parked, const SourceNames& names ) {
   switch( parked.reason ) {
   case parkedTableFull_:
      return std::string( tableName( parked.table ) ) + " full (" + std::to_string( parked.limit ) +
             ")";
   case parkedNoMemory_:
      return std::string( "no memory for the " ) + tableName( parked.table );
   case parkedObjectAbsent_:
      return objectText( parked.blocker, names ) + " does not exist";
   case parkedLoop_:
      return "groups form a loop";
   case parkedTooDeep_:
      return "deeper than " + std::to_string( parked.limit );
   case parkedNoId_:
      return std::string( "all ids of the " ) + tableName( parked.table ) + " have been given";
   case parkedNone_:
      break;
   }
   return "unknown reason " + std::to_string( parked.reason );
}

const char* reasonName( ParkedReason reason ) {
   constexpr std::array names = { "none", "tableFull", "noMemory", "objectAbsent",
                                  "loop", "tooDeep",   "noId" };
   static_assert( names.size() == parkedReasons );
   return nameOf( names, reason );
}

bool isForWantOfRoom( ParkedReason reason ) {
   return reason == parkedTableFull_ || reason == parkedNoMemory_ || reason == parkedNoId_;
}

std::string triedText( const ParkedEntry& parked ) {
   return "since " + clockText( parked.since.value() ) + ", " + std::to_string( parked.tries ) +
          ( parked.tries == 1 ? " try" : " tries" );
}

Json toJson( const ParkedEntry& parked, const SourceNames& names ) {
   Json json = { { "kind", kindName( parked.key.kind ) } };
   if( parked.key.kind == parkedObject_ )
      json.update( toJson( parked.key.otas.ot() ) );
   else
      json.update( toJson( parked.key.mvp ) );
   if( parked.key.kind == parkedFloodMember_ )
      json[ "dest" ] = toJson( parked.dest );
   const bool ofSource = parked.source != sourceNone_;
   json[ "source" ] = ofSource ? Json( sourceStr( parked.source ) ) : Json();
   json[ "sourceName" ] = ofSource ? names.of( parked.source ) : Json();
   json[ "reason" ] = reasonText( parked, names );
   json[ "since" ] = parked.since.value();
   json[ "tries" ] = parked.tries;
   return json;
}

ParkedEntries::ParkedEntries( const Context& context ) {
   std::vector<ParkedRecord> records;
   if( const auto table = readable<ParkedTable>( context.fileOf( Path::parked ) ) )
      table->forEach( [ & ]( const ParkedRecord& record ) { records.push_back( record ); } );
   const AgentStatusRecord figures = figuresOf( context );
   for( uint32_t reason = 0; reason < parkedReasons; ++reason )
      unlisted( ParkedReason( reason ) ) += figures.parked[ reason ].value();
   for( const ParkedRecord& record : records ) {
      all_.push_back( entryOf( record, figures ) );
      uint64_t& left = unlisted( record.reason );
      left -= std::min<uint64_t>( left, 1 );
   }
   std::sort( all_.begin(), all_.end(), []( const ParkedEntry& a, const ParkedEntry& b ) {
      const auto order = []( const ParkedEntry& parked ) {
         return std::tuple( parked.key.kind, parked.key.mvp.vlan(), parked.key.mvp.mac(),
                            parked.key.otas );
      };
      return order( a ) < order( b );
   } );
}

std::optional<ParkedEntry> parkedHost( const Context& context, const Bridging::MacVlanPair& key ) {
   const auto table = readable<ParkedTable>( context.fileOf( Path::parked ) );
   ParkedRecord record;
   if( !table || !table->get( { parkedHost_, key, {} }, record ) )
      return std::nullopt;
   return entryOf( record, figuresOf( context ) );
}

std::vector<std::string> ParkedEntries::forWantOfRoom( const SourceNames& names ) const {
   std::vector<std::string> texts;
   for( const auto& [ what, group ] : groupsForRoom( all_, names ) )
      texts.push_back( countText( group.count, countedName( what.first ) ) + ", " + what.second );
   if( unlistedForRoom_ != 0 )
      texts.push_back( std::to_string( unlistedForRoom_ ) + " more that are not listed" );
   return texts;
}

std::vector<std::string> ParkedEntries::forSources( const SourceNames& names ) const {
   constexpr size_t most = 10;
   std::vector<std::string> texts;
   size_t count = 0;
   for( const ParkedEntry& parked : all_ ) {
      if( isForWantOfRoom( parked.reason ) || ++count > most )
         continue;
      const bool ofSource = parked.source != sourceNone_;
      texts.push_back( std::string( kindName( parked.key.kind ) ) + " " + subjectText( parked ) +
                       ( ofSource ? " of " + sourceText( parked.source, names ) : "" ) + ": " +
                       reasonText( parked, names ) );
   }
   if( const uint64_t more = count - std::min( count, most ) + unlistedForSources_; more != 0 )
      texts.push_back( "and " + std::to_string( more ) + " more" );
   return texts;
}

// --- show failed

namespace {

// An entry a line, but those that wait for the same room in one.
void printForPeople( const ParkedEntries& parked, const std::vector<ParkedEntry>& shown,
                     const SourceNames& names ) {
   std::vector<std::vector<std::string>> lines;
   const Groups groups = groupsForRoom( shown, names );
   for( const ParkedEntry& entry : shown ) {
      const std::string reason = reasonText( entry, names );
      const auto group = groups.find( { entry.key.kind, reason } );
      if( group != groups.end() && group->second.count > 1 )
         continue;
      lines.push_back( { kindName( entry.key.kind ), subjectText( entry ),
                         entry.source != sourceNone_ ? sourceText( entry.source, names ) : "-",
                         reason, triedText( entry ) } );
   }
   printColumns( std::move( lines ) );
   for( const auto& [ what, group ] : groups )
      if( group.count > 1 )
         std::cout << countText( group.count, countedName( what.first ) ) << ", " << what.second
                   << ", since " << clockText( group.since ) << '\n';
   if( parked.all().empty() )
      std::cout << "nothing is parked\n";
   else if( shown.empty() )
      std::cout << "none of these is parked\n";
}

int showFailed( const Context& context, const std::string& what, RowFilter& filter ) {
   requireOutput( Client::OutputReader( context.stateDirectory ), context );
   const SourceNames names( context );
   filter.resolve( names );
   const ParkedEntries parked( context );
   std::vector<ParkedEntry> shown;
   for( const ParkedEntry& entry : parked.all() )
      if( ( what.empty() || ( what == "hosts" && entry.key.kind == parkedHost_ ) ||
            ( what == "objects" && entry.key.kind == parkedObject_ ) ) &&
          filter.wants( entry.source ) &&
          ( entry.key.kind == parkedObject_ ? !filter.asksForHosts()
                                            : filter.wants( entry.key.mvp ) ) )
         shown.push_back( entry );
   if( context.json ) {
      Json all = Json::array();
      for( const ParkedEntry& entry : shown )
         all.push_back( toJson( entry, names ) );
      std::cout << text( all ) << '\n';
      return done;
   }
   printForPeople( parked, shown, names );
   return done;
}

} // namespace

void addShowFailed( CLI::App& showing, Context& context ) {
   struct Given {
      std::string what;
      RowFilter filter;
   };
   const auto given = std::make_shared<Given>();
   CLI::App* const command =
      showing.add_subcommand( "failed", "what can't be programmed at present, and why" );
   command->add_option( "KIND", given->what, "hosts or objects; without it all, flood members too" )
      ->check( CLI::IsMember( { "hosts", "objects" } ) );
   addJsonFlag( *command, context );
   given->filter.addOptions( *command, RowFilter::vlan | RowFilter::mac | RowFilter::source );
   command->footer( "Example: l2ribctl show failed hosts --source evpn" );
   command->callback( [ &context, given ] {
      context.command = [ &context, given ] {
         return showFailed( context, given->what, given->filter );
      };
   } );
}

} // namespace Tools
