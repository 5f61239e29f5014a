#include "bridge/StatusTables.h"

#include "runtime/Trace.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <set>
#include <unistd.h>

namespace Bridge {

using namespace L2Rib;
using Bridging::MacVlanPair;

namespace {

constexpr uint32_t hostCapacity = 16384; // to begin with
constexpr uint32_t listCapacity = 1024;
constexpr uint32_t capacityMax = 1 << 24; // as the output's

double wallClock() {
   timespec now{};
   clock_gettime( CLOCK_REALTIME, &now );
   return static_cast<double>( now.tv_sec ) + static_cast<double>( now.tv_nsec ) * 1e-9;
}

// What can't be read is made anew, after an upgrade too: it is an account of what the kernel holds,
// and the kernel can be asked.
template<class Table>
Vexil::Ptr<Table> opened( const std::string& stateDirectory, const char* path, uint32_t capacity ) {
   const std::string file = stateDirectory + "/" + path;
   const auto open = [ & ] {
      return Vexil::makeEntity<Table>( file, Table::Mode::write, capacity );
   };
   Vexil::Ptr<Table> table;
   try {
      table = open();
   } catch( const Vexil::TableError& failure ) {
      if( failure.kind() != Vexil::TableError::mismatch &&
          failure.kind() != Vexil::TableError::damaged )
         throw;
      Vexil::log( std::string( failure.what() ) + ": made anew" );
      std::filesystem::remove( file );
      table = open();
   }
   table->capacityMaxIs( capacityMax );
   return table;
}

ReasonText reasonOf( const std::string& text ) {
   return ReasonText::of( text.substr( 0, sizeof( ReasonText ) - 1 ) ).value_or( ReasonText() );
}

} // namespace

StatusTables::StatusTables( const std::string& stateDirectory )
   : program_( opened<BridgeProgramTable>( stateDirectory, Path::bridgeProgram, 1 ) ),
     bridges_( opened<BridgeTable>( stateDirectory, Path::bridges, 64 ) ),
     hosts_( opened<BridgeHostTable>( stateDirectory, Path::bridgeHosts, hostCapacity ) ),
     groups_( opened<BridgeGroupTable>( stateDirectory, Path::bridgeGroups, listCapacity ) ),
     refused_( opened<BridgeRefusedTable>( stateDirectory, Path::bridgeRefused, listCapacity ) ),
     since_( wallClock() ) {
   bridges_->forEach(
      [ this ]( const BridgeRecord& record ) { earlier_[ record.vlan ] = record; } );
   bridges_->eraseAll();
   refused_->eraseAll();
}

void StatusTables::expect( uint32_t hosts ) {
   if( hosts_->capacity() < hosts )
      hosts_->capacityIs( std::min( hosts, capacityMax ) );
}

template<class Table, class Record>
void StatusTables::write( Vexil::Ptr<Table>& table, const Record& record ) {
   if( !table->set( record ) )
      ++unwritten_;
}

Goal StatusTables::goalOf( const BridgeHostRecord& record ) {
   Goal goal;
   goal.kind = record.kind == bridgeHostGroup_    ? Goal::viaGroup
               : record.kind == bridgeHostRemote_ ? Goal::viaVtep
                                                  : Goal::onPort;
   if( goal.kind == Goal::onPort )
      goal.port = record.id;
   else
      goal.id = record.id;
   goal.vni = record.vni;
   goal.vtep = record.vtep;
   return goal;
}

void StatusTables::programmed( const MacVlanPair& host, const Goal& goal ) {
   refused_->erase( { host, bridgeRefusedHost_, 0 } );
   BridgeHostRecord record;
   record.key = host;
   record.kind = goal.kind == Goal::viaGroup  ? bridgeHostGroup_
                 : goal.kind == Goal::viaVtep ? bridgeHostRemote_
                                              : bridgeHostInterface_;
   record.id = goal.kind == Goal::onPort ? goal.port : goal.id;
   record.vni = goal.vni;
   record.vtep = goal.vtep;
   BridgeHostRecord present;
   if( hosts_->get( host, present ) ) {
      record.since = present.since;
      if( record == present )
         return;
   }
   record.since = wallClock();
   write( hosts_, record );
}

void StatusTables::refused( const MacVlanPair& host, const std::string& reason, unsigned tries ) {
   hosts_->erase( host );
   BridgeRefusedRecord record;
   record.key = { host, bridgeRefusedHost_, 0 };
   record.reason = reasonOf( reason );
   record.tries = tries;
   BridgeRefusedRecord present;
   record.since = refused_->get( record.key, present ) ? present.since : wallClock();
   if( record != present )
      write( refused_, record );
}

void StatusTables::released( const MacVlanPair& host ) {
   hosts_->erase( host );
   refused_->erase( { host, bridgeRefusedHost_, 0 } );
}

void StatusTables::duplicateIs( const MacVlanPair& host, bool frozen, const std::string& reason ) {
   BridgeRefusedRecord record;
   record.key = { host, bridgeRefusedDuplicate_, 0 };
   refused_->erase( record.key );
   if( !frozen )
      return;
   record.reason = reasonOf( reason );
   record.since = wallClock();
   write( refused_, record );
}

void StatusTables::floodRefusedIs( Bridging::VlanId vlan,
                                   const std::map<FloodSetTriple, std::string>& refused ) {
   std::set<BridgeRefusedKey> keys;
   for( const auto& [ triple, reason ] : refused ) {
      BridgeRefusedRecord record;
      record.key = { { triple.mac(), vlan }, bridgeRefusedFlood_, triple.dest().hash() };
      record.reason = reasonOf( reason );
      record.dest = triple.dest();
      keys.insert( record.key );
      BridgeRefusedRecord present;
      record.since = refused_->get( record.key, present ) ? present.since : wallClock();
      if( record != present )
         write( refused_, record );
   }
   refused_->forEachKey( [ & ]( const BridgeRefusedKey& key ) {
      if( key.kind == bridgeRefusedFlood_ && key.host.vlan() == vlan && !keys.contains( key ) )
         refused_->erase( key );
   } );
}

void StatusTables::groupsAre( const std::map<uint32_t, std::vector<IpGenAddr>>& groups ) {
   groups_->forEachKey( [ & ]( uint32_t id ) {
      if( !groups.contains( id ) )
         groups_->erase( id );
   } );
   for( const auto& [ id, vteps ] : groups ) {
      BridgeGroupRecord record;
      record.id = id;
      record.count = static_cast<uint32_t>( vteps.size() );
      std::copy_n( vteps.begin(), std::min( vteps.size(), record.vteps.size() ),
                   record.vteps.begin() );
      if( groups_->get( id ) != record )
         write( groups_, record );
   }
}

void StatusTables::bridgeIs( const BridgeRecord& record ) {
   if( bridges_->get( record.vlan ) != record )
      write( bridges_, record );
}

void StatusTables::programIs( BridgeProgramRecord record ) {
   record.processId = static_cast<uint32_t>( getpid() );
   record.unwritten = unwritten_;
   record.since = since_;
   record.lastSign = wallClock();
   write( program_, record );
}

void StatusTables::flush() {
   program_->ring();
   bridges_->ring();
   hosts_->ring();
   groups_->ring();
   refused_->ring();
}

} // namespace Bridge
