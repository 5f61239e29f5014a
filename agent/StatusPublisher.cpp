#include "agent/StatusPublisher.h"

#include "L2Rib/L2RibTarn.h"
#include "runtime/Trace.h"

#include <ctime>
#include <initializer_list>
#include <string>
#include <unistd.h>
#include <utility>

namespace L2Rib {

namespace {

// An agent that has nothing to do gives a sign of life that often, in seconds, as the loop turns:
// when it was killed can be told about as exactly.
constexpr double signInterval = 1;

double wallClock() {
   timespec now{};
   clock_gettime( CLOCK_REALTIME, &now );
   return static_cast<double>( now.tv_sec ) + static_cast<double>( now.tv_nsec ) * 1e-9;
}

ReadMark markOf( const Vexil::TableBase* table ) {
   return table ? ReadMark{ table->tableId(), table->journalCursor() } : ReadMark();
}
ReadMark markOf( const Vexil::Ptr<const Vexil::TableBase>& table ) { return markOf( table.get() ); }

// The message with the name of the file in place of its path.
std::string withoutFolder( const std::string& message, const std::string& path ) {
   return message.starts_with( path ) ? message.substr( path.rfind( '/' ) + 1 ) : message;
}

SourceStatusRecord statusOf( const PolicySourceSm& sm ) {
   SourceStatusRecord record;
   record.name = SourceName::of( sm.name() ).value_or( SourceName() );
   record.source = sm.sourceEnum();
   record.ready = sm.ready();
   record.host = markOf( sm.hostTable() );
   record.lb = markOf( sm.lbTable() );
   record.label = markOf( sm.labelTable() );
   record.dest = markOf( sm.destTable() );
   record.flood = markOf( sm.source()->floodTable() );
   if( sm.source()->floodBehind() )
      record.flood.cursor = Vexil::Wire64<uint64_t>();
   std::string reason = record.ready ? "" : sm.source()->notReadyReason();
   uint64_t corruptions = 0;
   for( const Vexil::TableBase* const table : std::initializer_list<const Vexil::TableBase*>{
           sm.hostTable(), sm.lbTable(), sm.labelTable(), sm.destTable(),
           sm.source()->floodTable().get() } ) {
      if( !table || table->corruptions() == 0 )
         continue;
      corruptions += table->corruptions();
      if( reason.empty() )
         reason = "corrupt: " + withoutFolder( table->lastCorruption(), table->path() );
   }
   record.corruptions = corruptions;
   record.reason = FixedText<128>::of( reason.substr( 0, 127 ) ).value_or( FixedText<128>() );
   return record;
}

// What the last run left must not be taken for this one's word. So it is gone before the agent's
// status has a writer, which is how others tell that an agent runs.
Vexil::Ptr<SourceStatusTable> emptySourceStatus( Vexil::EntityManager& manager ) {
   auto table = manager.mountDerivedTable<SourceStatusTable>( Path::sourceStatus, 64 );
   table->capacityMaxIs( 65536 );
   table->eraseAll();
   return table;
}

} // namespace

StatusPublisher::StatusPublisher( Vexil::EntityManager& manager, Vexil::ActivityManager& loop,
                                  Vexil::Ptr<PolicySm> policySm )
   : loop_( loop ), policySm_( std::move( policySm ) ), sources_( emptySourceStatus( manager ) ),
     agent_( manager.mountDerivedTable<AgentStatusTable>( Path::agentStatus, 1 ) ),
     parked_( manager.mountDerivedTable<ParkedTable>( Path::parked, 1024 ) ),
     config_(
        dynamic_cast<const Bridging::Config*>( manager.entity( Path::bridgingConfig ).get() ) ),
     since_( wallClock() ), parkedTimer_( loop.clock(), [] {} ) {
   VEXIL_ASSERT( config_ );
   sources_->capacityMaxIs( defaultCapacityMax );
   parked_->capacityMaxIs( defaultCapacityMax );
   parked_->eraseAll();
   publishAgent(); // before the sources are there: what stands in the table is the last run's
   publish();
   endOfTurnWork_ = loop.atEndOfTurn( [ this ] { publish(); } );
}

AgentStatusRecord StatusPublisher::figures() const {
   AgentStatusRecord record;
   record.restartState = policySm_->restartState();
   record.processId = static_cast<uint32_t>( getpid() );
   record.sources = static_cast<uint32_t>( policySm_->sourceSm().size() );
   record.since = since_;
   record.longestHold = loop_.longestHold();
   record.hostList = policySm_->hostList().size();
   record.otasList = policySm_->otasList().size();
   record.failedHost = policySm_->failedHost().size();
   record.failedOtas = policySm_->failedOtas().size();
   record.floodSetBacklog = policySm_->floodSetBacklog().size();
   record.withdrawalChecks = policySm_->withdrawalChecksLeft();
   record.restartDuration = policySm_->restartDuration();
   record.restartEntriesLeft = policySm_->restartEntriesLeft();
   const Vexil::Seconds failingSince = policySm_->awaited().oldest();
   record.failingSince = failingSince == Vexil::never ? 0 : failingSince;
   record.failedFlood = policySm_->failedFloodSet().size();
   for( uint32_t reason = 0; reason < parkedReasons; ++reason )
      record.parked[ reason ] = policySm_->awaited().count( ParkedReason( reason ) );
   record.parkedUntold = policySm_->awaited().untold();
   record.retryRounds = policySm_->awaited().rounds( Awaited::review );
   record.floodRetryRounds = policySm_->awaited().rounds( Awaited::floodBacklog );
   record.retries = policySm_->retries();
   record.users = policySm_->userCount();
   record.journalOverruns = policySm_->overruns();
   return record;
}

void StatusPublisher::publish() {
   publishParked();
   publishSources(); // first: whoever sees empty lists must also see what had been read
   publishAgent();
}

void StatusPublisher::publishAgent() {
   AgentStatusRecord record = figures();
   record.lastSign = published_.lastSign;
   const double now = wallClock();
   if( record == published_ && now - record.lastSign.value() < signInterval )
      return;
   record.lastSign = now;
   published_ = record;
   [[maybe_unused]] const bool written = agent_->set( record ); // has room for its one record
}

// When the agent ended is what its last sign says.
StatusPublisher::~StatusPublisher() {
   published_.lastSign = Vexil::Wire64<double>();
   publish();
}

// Some rows a turn. One that finds no room is left out: the figures by reason count it all the
// same.
void StatusPublisher::publishParked() {
   constexpr size_t rowsATurn = 4096;
   const double sinceTheEpoch = wallClock() - loop_.clock()->now();
   const auto& members = policySm_->failedFloodSet();
   policySm_->awaited().tell( rowsATurn,
                              [ & ]( const ParkedKey& key, const Awaited::Entry* entry ) {
                                 if( !entry ) {
                                    parked_->erase( key );
                                    return;
                                 }
                                 ParkedRecord record;
                                 record.key = key;
                                 record.source = entry->source;
                                 record.reason = entry->obstacle.reason;
                                 record.table = entry->obstacle.table;
                                 record.limit = entry->obstacle.limit;
                                 record.blocker = entry->obstacle.blocker;
                                 record.since = sinceTheEpoch + entry->since;
                                 record.round = entry->round;
                                 if( const FloodSetTriple* const member = members.find( key ) )
                                    record.dest = member->dest();
                                 [[maybe_unused]] const bool written = parked_->set( record );
                              } );
   if( policySm_->awaited().untold() != 0 )
      parkedTimer_.timeMinIs( 0 );
}

void StatusPublisher::publishSources() {
   sources_->forEach( [ this ]( const SourceStatusRecord& record ) {
      if( !policySm_->sourceSm( record.name.str() ) )
         sources_->erase( record.name );
   } );
   for( const auto& entry : policySm_->sourceSm() ) {
      SourceStatusRecord record = statusOf( *entry.value );
      if( entry.key == "static" ) {
         record.configuredHosts = markOf( config_->hostTable() );
         record.configuredTunnels = markOf( config_->tunnelTable() );
      }
      if( sources_->get( record.name ) != record && !sources_->set( record ) &&
          !std::exchange( saidNoRoom_, true ) ) // settle and show sources wait for it meanwhile
         Vexil::log( "no room for the status of source " + entry.key );
   }
}

} // namespace L2Rib
