#include "evpn/StatusTables.h"

#include <ctime>
#include <set>
#include <unistd.h>

namespace Evpn {

using namespace L2Rib;

namespace {

constexpr uint32_t listCapacity = 64; // to begin with

template<class Table>
Vexil::Ptr<Table> opened( const std::string& stateDirectory, const char* path, uint32_t capacity ) {
   auto table =
      Vexil::makeEntity<Table>( stateDirectory + "/" + path, Table::Mode::write, capacity );
   table->capacityMaxIs( 1 << 16 );
   return table;
}

// Makes the table equal to the records. One that finds no room is left out.
template<class Key, class Table, class Record>
void replace( Table& table, const std::vector<Record>& records ) {
   std::set<Key> keys;
   for( const Record& record : records ) {
      const Key key = Vexil::TableView<Key, Record>::keyOf( record );
      keys.insert( key );
      if( Record present; !table.get( key, present ) || present != record ) [[maybe_unused]]
         const bool written = table.set( record );
   }
   table.forEachKey( [ & ]( const Key& key ) {
      if( !keys.contains( key ) )
         table.erase( key );
   } );
}

} // namespace

double wallClock() {
   timespec now{};
   clock_gettime( CLOCK_REALTIME, &now );
   return static_cast<double>( now.tv_sec ) + static_cast<double>( now.tv_nsec ) * 1e-9;
}

StatusTables::StatusTables( const std::string& stateDirectory )
   : program_( opened<EvpnProgramTable>( stateDirectory, Path::evpnProgram, 1 ) ),
     peers_( opened<EvpnPeerTable>( stateDirectory, Path::evpnPeers, listCapacity ) ),
     vlans_( opened<EvpnVlanTable>( stateDirectory, Path::evpnVlans, listCapacity ) ),
     since_( wallClock() ) {}

void StatusTables::programIs( EvpnProgramRecord record ) {
   record.processId = static_cast<uint32_t>( getpid() );
   record.since = since_;
   record.lastSign = wallClock();
   [[maybe_unused]] const bool always = program_->set( record ); // the one record has its place
}

void StatusTables::vlansAre( const Import& import ) {
   std::vector<EvpnVlanRecord> records;
   for( const auto& [ vlan, said ] : import.vlans() ) {
      EvpnVlanRecord record;
      record.vlan = Bridging::VlanId( vlan );
      record.vni = said.vni;
      record.rd = FixedText<32>::of( rdStr( said.rd ) ).value_or( FixedText<32>() );
      std::string targets;
      for( const uint64_t target : said.targets )
         targets += ( targets.empty() ? "" : " " ) + targetStr( target );
      record.targets = FixedText<128>::of( targets.substr( 0, 127 ) ).value_or( FixedText<128>() );
      records.push_back( record );
   }
   replace<Bridging::VlanId>( *vlans_, records );
}

void StatusTables::peersAre( const std::vector<Peer>& peers ) {
   std::vector<EvpnPeerRecord> records;
   for( const Peer& peer : peers ) {
      const auto address = IpGenAddr::parse( peer.address );
      if( !address || !peer.evpn )
         continue;
      EvpnPeerRecord record;
      record.address = *address;
      record.as = peer.as;
      record.established = peer.established;
      record.endOfRib = peer.endOfRib;
      record.up = peer.up;
      record.received = peer.received;
      records.push_back( record );
   }
   replace<IpGenAddr>( *peers_, records );
}

void StatusTables::flush() {
   program_->ring();
   peers_->ring();
   vlans_->ring();
}

} // namespace Evpn
