// Writes the tables of L2Rib/BridgeStatus.h: the program's account of itself.
//
// They are shared memory like all tables, so what stands there can be read when the program is
// dead. A row is written when it changes. Nothing here fails: rows for which there is no room are
// counted.
#pragma once

#include "L2Rib/BridgeStatus.h"
#include "bridge/Plan.h"
#include "runtime/HashMap.h"

#include <map>

namespace Bridge {

class StatusTables {
 public:
   // Throws Vexil::TableError, of kind busy when another l2rib-bridge writes them.
   explicit StatusTables( const std::string& stateDirectory );

   // What an earlier run gave the kernel on the devices of these numbers: each( mac, goal ).
   template<class Each>
   void forEachEarlier( Bridging::VlanId vlan, uint32_t bridge, uint32_t device, Each each ) const {
      const auto found = earlier_.find( vlan );
      if( found == earlier_.end() || found->second.bridgeIndex != bridge ||
          found->second.deviceIndex != device )
         return;
      hosts_->forEach( [ & ]( const L2Rib::BridgeHostRecord& record ) {
         if( record.key.vlan() == vlan )
            each( record.key.mac(), goalOf( record ) );
      } );
   }

   void programmed( const Bridging::MacVlanPair& host, const Goal& goal );
   void refused( const Bridging::MacVlanPair& host, const std::string& reason, unsigned tries );
   void released( const Bridging::MacVlanPair& host );
   void duplicateIs( const Bridging::MacVlanPair& host, bool frozen, const std::string& reason );
   // All that is refused of the flood set.
   void floodRefusedIs( Bridging::VlanId vlan,
                        const std::map<L2Rib::FloodSetTriple, std::string>& refused );
   void groupsAre( const std::map<uint32_t, std::vector<IpGenAddr>>& groups );
   void bridgeIs( const L2Rib::BridgeRecord& record );
   // Makes room for that many hosts.
   void expect( uint32_t hosts );
   // Rows of hosts, those of an earlier run among them.
   size_t hosts() const { return hosts_->count(); }
   // Removes the rows of an earlier run for which keep( key ) is false, and bridges of other VLANs.
   template<class Keep>
   void forgetHosts( Keep keep ) {
      hosts_->forEachKey( [ & ]( const Bridging::MacVlanPair& key ) {
         if( !keep( key ) )
            hosts_->erase( key );
      } );
   }
   // The figures that the program counts; those that are counted here are filled in.
   void programIs( L2Rib::BridgeProgramRecord record );
   // Wakes who waits for changes.
   void flush();

 private:
   template<class Table, class Record>
   void write( Vexil::Ptr<Table>& table, const Record& record );

   Vexil::Ptr<L2Rib::BridgeProgramTable> program_;
   Vexil::Ptr<L2Rib::BridgeTable> bridges_;
   Vexil::Ptr<L2Rib::BridgeHostTable> hosts_;
   Vexil::Ptr<L2Rib::BridgeGroupTable> groups_;
   Vexil::Ptr<L2Rib::BridgeRefusedTable> refused_;
   static Goal goalOf( const L2Rib::BridgeHostRecord& record );

   std::map<Bridging::VlanId, L2Rib::BridgeRecord> earlier_;
   double since_;
   uint32_t unwritten_ = 0;
};

} // namespace Bridge
