// l2ribctl settle: waits until the agent has processed what was published before the call.
//
// For each table of each source, and of the configuration, the head of its journal is noted at the
// start. The agent tells in its status tables how far it has read each file, and how long its work
// lists are: when it has read up to those heads and the lists are empty, all of it is in the
// output. The figures of the sources are read before those of the lists, because the agent writes
// them in that order; an agent that starts empties the former before it takes the latter, so that
// no other run's word is believed.
#include "L2Rib/ConfigRecords.h"
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/RestartState.h"
#include "L2Rib/Status.h"
#include "client/AwaitedFolder.h"
#include "tools/Commands.h"
#include "tools/Json.h"
#include "tools/Parked.h"
#include "tools/Progress.h"
#include "tools/SourceTables.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <sstream>

namespace Tools {

using namespace L2Rib;
using Vexil::Ptr;

namespace {

class Settling {
 public:
   explicit Settling( const Context& context )
      : context_( context ), sources_( context.sources() ), watcher_( loop_ ),
        statusFolder_( watcher_, context.fileOf( "bridging/l2Rib" ), [ this ] { attach(); } ),
        entryFolder_( watcher_, context.fileOf( Path::inputDir ), [] {} ) {
      attach();
      for( const auto& [ name, source ] : sources_.sources() ) {
         atCall_[ name ] = source.readable;
         const SourceTables tables( context_, source.record );
         noteHead( tables.host );
         noteHead( tables.lb );
         noteHead( tables.label );
         noteHead( tables.dest );
         noteHead( tables.flood );
      }
      noteHead( configured<Bridging::ConfiguredHostTable>() );
      noteHead( configured<Bridging::TunnelTable>() );
   }

   // What is still to be waited for when the time is over; empty when all is settled.
   std::string waitFor( Vexil::Seconds timeout ) {
      const Vexil::Seconds deadline = loop_.clock()->now() + timeout;
      std::string missing;
      Progress progress;
      while( !( missing = unsettled() ).empty() && loop_.clock()->now() < deadline ) {
         progress.at( "waiting for " + missing );
         loop_.turn( std::min( 1.0, deadline - loop_.clock()->now() ) );
      }
      return missing;
   }

 private:
   void attach() {
      const auto follow = [ this ]<class Table>( Ptr<Table>& table, const char* path ) {
         const auto found = readable<Table>( context_.fileOf( path ) );
         if( !found || ( table && table->tableId() == found->tableId() ) )
            return;
         table = found;
         watcher_.follow( table );
      };
      follow( agent_, Path::agentStatus );
      follow( statuses_, Path::sourceStatus );
   }

   // The head that the agent has to reach in this file: the one when it was first seen.
   template<class Table>
   uint64_t noteHead( const Ptr<Table>& table ) {
      return table ? heads_.emplace( table->tableId(), table->journalHead() ).first->second : 0;
   }

   template<class Table>
   bool hasRead( const ReadMark& mark, const Ptr<Table>& table ) {
      const uint64_t head = noteHead( table );
      return !table || ( mark.tableId.value() == table->tableId() && mark.cursor.value() >= head );
   }

   std::string unsettledSource( const std::string& name, const SourceEntryRecord& entry ) {
      SourceStatusRecord status;
      if( !statuses_->get( entry.name, status ) || status.source != entry.source )
         return "the agent to meet source " + name;
      if( entry.initialized && !status.ready && !status.reason.view().empty() )
         return "source " + name + " to be ready: " + status.reason.str();
      if( ( status.ready != 0 ) != ( entry.initialized != 0 ) )
         return "the agent to see source " + name +
                ( entry.initialized ? " initialized" : " not initialized" );
      if( !entry.initialized )
         return {};
      const SourceTables tables( context_, entry );
      if( !hasRead( status.host, tables.host ) || !hasRead( status.lb, tables.lb ) ||
          !hasRead( status.label, tables.label ) || !hasRead( status.dest, tables.dest ) ||
          !hasRead( status.flood, tables.flood ) )
         return "the agent to read the tables of source " + name;
      return {};
   }

   template<class Table>
   Ptr<Table> configured() const {
      const std::string folder = context_.fileOf( Path::bridgingConfig );
      return readable<Table>( folder + Bridging::configGeneration( folder ) + "/" +
                              Table::fileName );
   }

   std::string unsettledConfiguration() {
      SourceStatusRecord status;
      if( !statuses_->get( SourceName::of( "static" ).value(), status ) )
         return "the agent to publish its source static";
      if( !hasRead( status.configuredHosts, configured<Bridging::ConfiguredHostTable>() ) ||
          !hasRead( status.configuredTunnels, configured<Bridging::TunnelTable>() ) )
         return "the agent to read the configuration";
      return {};
   }

   std::string unsettled() {
      if( !agent_ || !statuses_ || !Vexil::tableHasWriter( agent_->path() ) )
         return "an agent to run on " + context_.stateDirectory;
      const auto published = sources_.sources();
      for( const auto& [ name, source ] : published )
         if( atCall_.contains( name ) && source.readable )
            if( const std::string missing = unsettledSource( name, source.record );
                !missing.empty() )
               return missing;
      std::string missing = unsettledConfiguration();
      statuses_->forEach( [ & ]( const SourceStatusRecord& status ) {
         const std::string name = status.name.str();
         if( name != "static" && !published.contains( name ) )
            missing = "the agent to see that source " + name + " has gone";
      } );
      if( !missing.empty() )
         return missing;

      const AgentStatusRecord figures = agent_->get( SingleKey() );
      if( figures.restartState != running_ )
         return "the agent to finish its restart";
      std::ostringstream left;
      const auto waiting = [ & ]( uint64_t count, const char* what ) {
         if( count != 0 )
            left << ( left.str().empty() ? "the agent to work off " : ", " ) << count << what;
      };
      waiting( figures.hostList.value(), " hosts" );
      waiting( figures.otasList.value(), " objects" );
      waiting( figures.floodSetBacklog.value(), " flood set members" );
      waiting( figures.withdrawalChecks.value(), " withdrawal checks" );
      waiting( figures.parkedUntold.value(), " parked entries to list" );
      return left.str();
   }

   const Context& context_;
   Client::SourceFolder sources_;
   Vexil::ActivityManager loop_;
   Vexil::FileWatcher watcher_;
   Client::AwaitedFolder statusFolder_;
   Client::AwaitedFolder entryFolder_; // its changes end a wait; they are looked up then
   Ptr<AgentStatusTable> agent_;
   Ptr<SourceStatusTable> statuses_;
   std::map<std::string, bool> atCall_; // the sources when the call was made
   std::map<uint64_t, uint64_t> heads_; // by the tables' ids
};

// What the agent could not program is named. Settled for good is only what waits for its source:
// what there was no room for is not in the output although all is well with it.
int reportParked( const Context& context ) {
   const SourceNames names( context );
   const ParkedEntries parked( context );
   if( context.json ) {
      const std::vector<std::string> noRoom = parked.forWantOfRoom( names );
      std::cout << text( { { "settled", noRoom.empty() },
                           { "noRoom", noRoom },
                           { "parked", parked.forSources( names ) } } )
                << '\n';
      return noRoom.empty() ? done : answerIsNo;
   }
   for( const std::string& entry : parked.forSources( names ) )
      complain( "parked: " + entry );
   std::string missing;
   for( const std::string& group : parked.forWantOfRoom( names ) )
      missing += ( missing.empty() ? "" : "; " ) + group;
   if( missing.empty() )
      return done;
   complain( "not all of it found room: " + missing );
   return answerIsNo;
}

} // namespace

void addSettle( CLI::App& app, Context& context ) {
   CLI::App* const command =
      app.add_subcommand( "settle", "wait until the agent has processed what was published" );
   const auto timeout = std::make_shared<double>( 30 );
   command->add_option( "--timeout", *timeout, "seconds" )
      ->check( CLI::Range( 0.0, 1e9 ) )
      ->capture_default_str();
   addJsonFlag( *command, context );
   command->footer( "Example: l2ribctl settle --timeout 10" );
   command->callback( [ &context, timeout ] {
      context.command = [ &context, timeout ] {
         if( std::isnan( *timeout ) ) // which no range shuts out
            throw BadInput( "--timeout nan: expected a number of seconds" );
         const std::string missing = Settling( context ).waitFor( *timeout );
         if( missing.empty() )
            return reportParked( context );
         if( context.json )
            std::cout << text( { { "settled", false }, { "waitingFor", missing } } ) << '\n';
         complain( "not settled in time: still waiting for " + missing );
         return answerIsNo;
      };
   } );
}

} // namespace Tools
