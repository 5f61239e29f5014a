#include "L2Rib/ConfigBinding.h"

#include "runtime/Trace.h"

#include <functional>
#include <memory>
#include <set>
#include <vector>

namespace Bridging {

using Vexil::EntityManager;
using Vexil::makeEntity;
using Vexil::Ptr;
using Vexil::TableError;

namespace {

// Names the changes of one table to the binding.
template<class Table, class Key>
class Follower : public Vexil::Reactor<Table> {
 public:
   Follower( Ptr<const Table> table, std::function<void( const Key& )> changed,
             std::function<void()> overtaken )
      : Vexil::Reactor<Table>( std::move( table ) ), changed_( std::move( changed ) ),
        overtaken_( std::move( overtaken ) ) {}
   void handleEntry( const Key& key ) override { changed_( key ); }
   void handleOvertaken() override { overtaken_(); }

 private:
   std::function<void( const Key& )> changed_;
   std::function<void()> overtaken_;
};

class ConfigBinding {
 public:
   ConfigBinding( EntityManager& manager, std::string path, Ptr<Config> config )
      : manager_( manager ), path_( std::move( path ) ), config_( std::move( config ) ),
        removal_( manager.clock(), [ this ] { removeTunnels(); } ) {
      removal_.timeMinIs( Vexil::never );
   }

   // The file of that name appeared, was replaced or went; either of them when the name is empty.
   void review( const std::string& name ) {
      if( ( name.empty() || name == TunnelTable::fileName ) && reopen( tunnels_ ) ) {
         config_->tunnelTableIs( tunnels_ );
         followTunnels();
      }
      if( ( name.empty() || name == ConfiguredHostTable::fileName ) && reopen( hosts_ ) ) {
         config_->hostTableIs( hosts_ );
         followHosts();
      }
   }

 private:
   // Attaches the table as it is now; returns whether it is another one than before.
   template<class Table>
   bool reopen( Ptr<Table>& table ) {
      Ptr<Table> found;
      try {
         found = manager_.mountTable<Table>( path_ + "/" + Table::fileName, Table::Mode::read, 0 );
      } catch( const TableError& failure ) {
         if( failure.kind() != TableError::absent )
            Vexil::log( std::string( failure.what() ) + "; it counts as empty" );
      }
      if( found && table && found->tableId() == table->tableId() )
         return false;
      table = found;
      return true;
   }

   // What is known is looked at again: it may not be in the table that is there now.
   void followTunnels() {
      tunnelFollower_.reset();
      if( tunnels_ ) {
         tunnelFollower_ = std::make_unique<Follower<TunnelTable, TunnelId>>(
            tunnels_, [ this ]( TunnelId id ) { copyTunnel( id ); }, [ this ] { knownTunnels(); } );
         tunnels_->forEach( [ this ]( const TunnelRecord& record ) { copyTunnel( record.key ); } );
      }
      knownTunnels();
   }
   void followHosts() {
      hostFollower_.reset();
      if( hosts_ ) {
         hostFollower_ = std::make_unique<Follower<ConfiguredHostTable, MacVlanPair>>(
            hosts_, [ this ]( const MacVlanPair& key ) { copyHost( key ); },
            [ this ] { knownHosts(); } );
         hosts_->forEach(
            [ this ]( const ConfiguredHostRecord& record ) { copyHost( record.key ); } );
      }
      knownHosts();
   }
   void knownTunnels() {
      for( const auto& tunnel : config_->tunnel() )
         copyTunnel( tunnel.key );
   }
   void knownHosts() {
      for( const auto& fdb : config_->fdbConfig() )
         for( const auto& host : fdb.value->configuredHost() )
            copyHost( MacVlanPair( host.key, fdb.key.vlan() ) );
   }

   template<class Table, class Key, class Record>
   static bool usable( const Ptr<Table>& table, const Key& key, Record& record ) {
      if( !table || !table->get( key, record ) )
         return false;
      const L2Rib::MaybeFault fault = faultIn( record );
      if( fault )
         table->corruptionDetected( table->path() + ": " + fault->text );
      return !fault;
   }

   void copyTunnel( TunnelId id ) {
      if( TunnelRecord record; usable( tunnels_, id, record ) )
         return config_->tunnelIs( id, record.data );
      if( !config_->tunnel( id ) )
         return;
      gone_.insert( id );
      removal_.timeMinIs( 0 );
   }
   // The hosts left the tunnels before these went: once what the table of hosts had to say is
   // known, nobody is on them who is not so in the tables.
   void removeTunnels() {
      if( hosts_ && hosts_->poll( *manager_.clock(), manager_.clock()->now() + slice ) )
         return removal_.timeMinIs( 0 );
      for( const TunnelId id : std::exchange( gone_, {} ) )
         if( TunnelRecord record; usable( tunnels_, id, record ) )
            config_->tunnelIs( id, record.data );
         else
            config_->tunnelDel( id );
   }

   void copyHost( const MacVlanPair& key ) {
      const Fid fid( key.vlan().value() );
      ConfiguredHostRecord record;
      if( !usable( hosts_, key, record ) ) {
         if( const Ptr<FdbConfig> fdb = config_->fdbConfig( fid ) )
            fdb->configuredHostDel( key.mac() );
         return;
      }
      const IntfId intf = record.onTunnel ? IntfId( TunnelId( record.intf.value() ) )
                                          : IntfId( record.intf.value() );
      if( intf.isDynamicTunnel() )
         copyTunnel( intf.tunnel() ); // written before the host, but perhaps not yet told
      config_->fdbConfigIs( fid )->configuredHostIs( { key.mac(), intf, record.label } );
   }

   static constexpr Vexil::Seconds slice = 0.05;

   EntityManager& manager_;
   std::string path_; // of the folder, in the state database
   Ptr<Config> config_;
   Ptr<TunnelTable> tunnels_; // null while there is no such table
   Ptr<ConfiguredHostTable> hosts_;
   std::unique_ptr<Follower<TunnelTable, TunnelId>> tunnelFollower_;
   std::unique_ptr<Follower<ConfiguredHostTable, MacVlanPair>> hostFollower_;
   std::set<TunnelId> gone_; // tunnels to be removed
   Vexil::TimerReactor removal_;
};

} // namespace

Vexil::Mounted mountConfig( EntityManager& manager, const std::string& path, Vexil::MountMode ) {
   const auto config = makeEntity<Config>();
   if( manager.inMemory() )
      return { config, nullptr };
   const std::string folder = manager.fileOf( path );
   const auto binding = std::make_shared<ConfigBinding>( manager, path, config );
   // Watched before the first look, so that nothing falls between.
   manager.fileWatcher()->watchFolder(
      folder, [ weak = std::weak_ptr( binding ) ]( const std::string& name ) {
         if( const auto alive = weak.lock() )
            alive->review( name );
      } );
   binding->review( "" );
   return { config, binding };
}

} // namespace Bridging
