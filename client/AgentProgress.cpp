#include "client/AgentProgress.h"

#include "L2Rib/L2RibTarn.h"
#include "L2Rib/Status.h"

#include <optional>

namespace L2Rib::Client {

namespace {

template<class Table, class Key, class Record>
std::optional<Record> recordIn( const std::string& file, const Key& key ) {
   try {
      const Table table( file, Table::Mode::read );
      Record record;
      if( table.get( key, record ) )
         return record;
   } catch( const Vexil::TableError& ) { // no agent has run here yet
   }
   return {};
}

} // namespace

AgentProgress::AgentProgress( std::string stateDirectory, std::string source )
   : stateDirectory_( std::move( stateDirectory ) ), source_( std::move( source ) ) {}

bool AgentProgress::outputIsWhole() const {
   const auto status = recordIn<AgentStatusTable, SingleKey, AgentStatusRecord>(
      stateDirectory_ + "/" + Path::agentStatus, SingleKey() );
   return !status || status->restartState == restartStateRunning;
}

uint64_t AgentProgress::takenOver( uint64_t tableId ) const {
   const std::string agent = stateDirectory_ + "/" + Path::agentStatus;
   if( !Vexil::tableHasWriter( agent ) )
      return 0;
   // In this order: the agent writes how far it has read first, then how much is queued. So
   // when the lists are empty, what had been read before is worked off.
   const auto source = recordIn<SourceStatusTable, SourceName, SourceStatusRecord>(
      stateDirectory_ + "/" + Path::sourceStatus, SourceName::of( source_ ).value() );
   const auto status =
      recordIn<AgentStatusTable, SingleKey, AgentStatusRecord>( agent, SingleKey() );
   if( !status || !source || status->restartState != restartStateRunning ||
       status->hostList.value() > 0 || status->otasList.value() > 0 ||
       source->host.tableId.value() != tableId )
      return 0;
   return source->host.cursor.value();
}

} // namespace L2Rib::Client
