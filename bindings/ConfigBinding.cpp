#include "bindings/ConfigBinding.h"

#include "runtime/RetryTimer.h"
#include "runtime/Trace.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

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
        work_( manager.clock(), [ this ] { work(); } ),
        retry_( manager.clock(), [ this ] { review(); } ) {
      work_.timeMinIs( Vexil::never );
   }

   // The folder's entries may be others than before.
   void review() {
      Ptr<TunnelTable> tunnels;
      Ptr<ConfiguredHostTable> hosts;
      try {
         for( std::string generation, now = here(); generation != now; now = here() ) {
            generation = now;
            tunnels = opened<TunnelTable>( generation );
            hosts = opened<ConfiguredHostTable>( generation );
         }
      } catch( const TableError& failure ) {
         if( failure.what() != wanting_ )
            Vexil::log( std::string( failure.what() ) + "; the configuration stays as it was" );
         wanting_ = failure.what();
         return retry_.failed();
      }
      wanting_.clear();
      retry_.succeeded();
      if( !sameTable( tunnels, tunnels_ ) )
         tunnelsAre( tunnels );
      if( !sameTable( hosts, hosts_ ) )
         hostsAre( hosts );
      if( manager_.starting() )
         work();
   }

 private:
   // The generation in force; never empty.
   std::string here() const { return path_ + configGeneration( manager_.fileOf( path_ ) ); }

   // Null where there is none that can be read. Throws what may be otherwise the next time.
   template<class Table>
   Ptr<Table> opened( const std::string& generation ) {
      try {
         return manager_.mountTable<Table>( generation + "/" + Table::fileName, Table::Mode::read,
                                            0 );
      } catch( const TableError& failure ) {
         if( failure.kind() == TableError::system )
            throw;
         if( failure.kind() != TableError::absent )
            Vexil::log( std::string( failure.what() ) + "; it counts as empty" );
         return nullptr;
      }
   }
   template<class Table>
   static bool sameTable( const Ptr<Table>& a, const Ptr<Table>& b ) {
      return a && b ? a->tableId() == b->tableId() : a == b;
   }

   void tunnelsAre( Ptr<TunnelTable> tunnels ) {
      tunnelFollower_.reset();
      tunnels_ = std::move( tunnels );
      if( tunnels_ ) {
         tunnelFollower_ = std::make_unique<Follower<TunnelTable, TunnelId>>(
            tunnels_, [ this ]( TunnelId id ) { copyTunnel( id ); },
            [ this ] { lookAtKnownTunnels(); } );
         tunnels_->walkAll();
      }
      lookAtKnownTunnels();
   }
   void hostsAre( Ptr<ConfiguredHostTable> hosts ) {
      hostFollower_.reset();
      hosts_ = std::move( hosts );
      if( hosts_ ) {
         hostFollower_ = std::make_unique<Follower<ConfiguredHostTable, MacVlanPair>>(
            hosts_, [ this ]( const MacVlanPair& key ) { copyHost( key ); },
            [ this ] { lookAtKnownHosts(); } );
         hosts_->walkAll();
      }
      lookAtKnownHosts();
   }
   // What is known may not be in the table that is there now. Until that is clear, nobody is told
   // how far the table has been read.
   void lookAtKnownTunnels() {
      tunnelSweep_ = Sweep<TunnelId>{ true, {} };
      config_->tunnelTableIs( nullptr );
      work_.timeMinIs( 0 );
   }
   void lookAtKnownHosts() {
      hostSweep_ = Sweep<MacVlanPair>{ true, {} };
      config_->hostTableIs( nullptr );
      work_.timeMinIs( 0 );
   }

   // A slice of what there is to do. The hosts leave the tunnels before these go.
   void work() {
      const Vexil::Seconds deadline =
         manager_.starting() ? Vexil::never : manager_.clock()->now() + slice;
      const bool done = readOn( tunnels_, deadline ) && sweepTunnels( deadline ) &&
                        readOn( hosts_, deadline ) && sweepHosts( deadline );
      if( !done )
         return work_.timeMinIs( 0 );
      for( const TunnelId id : std::exchange( gone_, {} ) )
         if( TunnelRecord record; usable( tunnels_, id, record ) )
            config_->tunnelIs( id, record.data );
         else
            config_->tunnelDel( id );
      config_->tunnelTableIs( tunnels_ );
      config_->hostTableIs( hosts_ );
   }
   template<class Table>
   bool readOn( const Ptr<Table>& table, Vexil::Seconds deadline ) {
      return !table || !table->poll( *manager_.clock(), deadline );
   }

   template<class Key>
   struct Sweep {
      bool underWay = false;
      std::optional<Key> last; // that was looked at
   };
   bool sweepTunnels( Vexil::Seconds deadline ) {
      return sweep(
         tunnelSweep_, deadline, [ this ]( auto& last ) { return nextTunnel( last ); },
         [ this ]( TunnelId id ) { copyTunnel( id ); } );
   }
   bool sweepHosts( Vexil::Seconds deadline ) {
      return sweep(
         hostSweep_, deadline, [ this ]( auto& last ) { return nextHost( last ); },
         [ this ]( const MacVlanPair& key ) { copyHost( key ); } );
   }
   // Returns whether the sweep is over.
   template<class Key, class Next, class Look>
   bool sweep( Sweep<Key>& sweep, Vexil::Seconds deadline, Next next, Look look ) {
      while( sweep.underWay && ( sweep.last = next( sweep.last ) ) ) {
         look( Key( *sweep.last ) );
         if( manager_.clock()->isPast( deadline ) )
            return false;
      }
      sweep.underWay = false;
      return true;
   }
   std::optional<TunnelId> nextTunnel( const std::optional<TunnelId>& last ) const {
      const auto& tunnels = config_->tunnel();
      auto at = last ? tunnels.from( *last ) : tunnels.begin();
      if( last && at != tunnels.end() && at->key == *last )
         ++at;
      return at != tunnels.end() ? std::optional( at->key ) : std::nullopt;
   }
   std::optional<MacVlanPair> nextHost( const std::optional<MacVlanPair>& last ) const {
      const auto& fdbs = config_->fdbConfig();
      for( auto fdb = last ? fdbs.from( Fid( last->vlan().value() ) ) : fdbs.begin();
           fdb != fdbs.end(); ++fdb ) {
         const bool inFdb = last && fdb->key == Fid( last->vlan().value() );
         const auto& hosts = fdb->value->configuredHost();
         auto at = inFdb ? hosts.from( last->mac() ) : hosts.begin();
         if( inFdb && at != hosts.end() && at->key == last->mac() )
            ++at;
         if( at != hosts.end() )
            return MacVlanPair( at->key, fdb->key.vlan() );
      }
      return std::nullopt;
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
      work_.timeMinIs( 0 );
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

   static constexpr Vexil::Seconds slice = 0.01;

   EntityManager& manager_;
   std::string path_; // of the folder, in the state database
   Ptr<Config> config_;
   Ptr<TunnelTable> tunnels_; // null while there is no such table
   Ptr<ConfiguredHostTable> hosts_;
   std::unique_ptr<Follower<TunnelTable, TunnelId>> tunnelFollower_;
   std::unique_ptr<Follower<ConfiguredHostTable, MacVlanPair>> hostFollower_;
   Sweep<TunnelId> tunnelSweep_;
   Sweep<MacVlanPair> hostSweep_;
   std::set<TunnelId> gone_; // tunnels to be removed
   Vexil::TimerReactor work_;
   std::string wanting_; // why a table could not be opened
   Vexil::RetryTimer retry_;
};

} // namespace

Vexil::Mounted mountConfig( EntityManager& manager, const std::string& path, Vexil::MountMode ) {
   const auto config = makeEntity<Config>();
   if( manager.inMemory() )
      return { config, nullptr };
   const std::string folder = manager.fileOf( path );
   const auto binding = std::make_shared<ConfigBinding>( manager, path, config );
   // Watched before the first look, so that nothing falls between.
   manager.fileWatcher()->watchFolder( folder,
                                       [ weak = std::weak_ptr( binding ) ]( const std::string& ) {
                                          if( const auto alive = weak.lock() )
                                             alive->review();
                                       } );
   binding->review();
   return { config, binding };
}

} // namespace Bridging
