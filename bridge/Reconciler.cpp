#include "bridge/Reconciler.h"

#include <cerrno>

namespace Bridge {

using namespace L2Rib;

namespace {

constexpr size_t hostsABatch = 250; // some 500 writes: what one sendto() takes

}

Reconciler::Reconciler( Bridging::VlanId vlan, NexthopSet& nexthops, OutputObjects objects,
                        HostListener& listener )
   : vlan_( vlan ), nexthops_( nexthops ), listener_( listener ),
     paths_( nexthops, std::move( objects ) ) {}

// --- what is wanted

void Reconciler::releasePath( Row& row ) {
   if( onPath( row ) )
      paths_.release( row.path );
   row.path = Paths::none;
}

void Reconciler::touch( EthAddr mac ) {
   retries_.erase( mac );
   dirty_.emplace( mac );
}

void Reconciler::hostIs( EthAddr mac, const HostAndSource* wanted, bool own ) {
   if( !wanted && !rows_.contains( mac ) )
      return;
   Row& row = *rows_.emplace( mac ).first;
   // The new path first: what both have in common keeps its group.
   const Paths::Index path = !wanted ? Paths::none
                             : own   ? localPath
                                     : paths_.pathOf( wanted->host() );
   releasePath( row );
   row.path = path;
   row.repair = false;
   held_.erase( mac );
   stateIs( mac, row, onPath( row ) ? State::pending : State::idle );
   touch( mac );
}

void Reconciler::followPaths() {
   const std::set<Paths::Index> changed = paths_.takeChanged();
   if( changed.empty() )
      return;
   for( auto at = rows_.begin(); at != rows_.end(); ++at )
      if( changed.contains( at->value.path ) )
         touch( at->key );
}

// --- what is there

bool Reconciler::placeIs( const Place& place ) {
   if( place == place_ )
      return false;
   const bool other = place.bridge != place_.bridge || place.vxlan != place_.vxlan;
   if( other )
      forgetThere();
   place_ = place;
   paths_.placeIs( place );
   flood_.placeIs( place );
   for( auto at = rows_.begin(); at != rows_.end(); ++at ) {
      noteLearned( at->key, *rows_.find( at->key ) ); // its port may be one of the bridge only now
      touch( at->key );
   }
   return other && place.bridge != 0;
}

void Reconciler::forgetThere() {
   suspects_.clear();
   for( auto at = rows_.begin(); at != rows_.end(); ++at ) {
      const EthAddr mac = at->key;
      Row& row = *rows_.find( mac );
      thereIs( mac, row, There() );
      row.repair = false;
      stateIs( mac, row, onPath( row ) ? State::pending : State::idle );
      dropIfEmpty( mac );
   }
}

void Reconciler::dropIfEmpty( EthAddr mac ) {
   Row* const row = rows_.find( mac );
   if( !row || row->path != Paths::none || row->there != There() )
      return;
   retries_.erase( mac );
   rows_.erase( mac );
}

// Whether what was told may be older than an entry of ours.
bool Reconciler::contradicts( const Row& row, const There& there, Origin origin ) const {
   return origin == Origin::notification && hasOurs( row.there, place_.vxlan ) &&
          row.there != there;
}

void Reconciler::entryIs( const FdbEntry& entry, Origin origin ) {
   const bool own = entry.bridge == 0;
   if( place_.bridge == 0 ||
       ( own ? entry.device != place_.vxlan : entry.bridge != place_.bridge ) )
      return;
   if( own && entry.mac == EthAddr() ) {
      flood_.entryIs( entry );
      return;
   }
   Row& row = *rows_.emplace( entry.mac ).first;
   uint32_t& seen = own ? row.remoteSeen : row.entrySeen;
   const bool again = dumping_ && seen == dump_; // written meanwhile, or one VTEP of several
   if( origin == Origin::dump && again && ( !own || entry.nexthop != 0 || entry.external ) )
      return;
   There there = row.there;
   if( own ) {
      if( !( origin == Origin::dump && again ) )
         there.remote = There::noRemote;
      remoteFrom( there, entry, place_.vni );
   } else {
      there.entry = entryKind( entry, place_.vxlan );
      there.port = entry.device;
   }
   if( contradicts( row, there, origin ) ) {
      suspects_.emplace( entry.mac );
      return;
   }
   seen = dump_;
   found( entry.mac, row, there );
}

void Reconciler::entryDel( const FdbEntry& entry ) {
   const bool own = entry.bridge == 0;
   if( place_.bridge == 0 ||
       ( own ? entry.device != place_.vxlan : entry.bridge != place_.bridge ) )
      return;
   if( own && entry.mac == EthAddr() ) {
      flood_.entryDel( entry );
      return;
   }
   Row* const row = rows_.find( entry.mac );
   if( !row )
      return;
   There there = row->there;
   if( own ) {
      there.remote = There::noRemote;
      there.group = there.vni = 0;
      there.vtep = IpGenAddr();
      there.remoteForeign = there.remoteLearned = false;
   } else {
      there.entry = There::noEntry;
      there.port = 0;
   }
   if( contradicts( *row, there, Origin::notification ) ) {
      suspects_.emplace( entry.mac );
      return;
   }
   found( entry.mac, *row, there );
   dropIfEmpty( entry.mac );
}

void Reconciler::thereIs( EthAddr mac, Row& row, const There& there ) {
   if( row.there == there )
      return;
   nexthops_.entriesUse( row.there.group, -1 );
   nexthops_.entriesUse( there.group, 1 );
   if( row.state == State::programmed )
      row.repair = true;
   row.there = there;
   noteLearned( mac, row );
}

void Reconciler::found( EthAddr mac, Row& row, const There& there ) {
   if( row.there == there )
      return;
   thereIs( mac, row, there );
   dirty_.emplace( mac );
}

void Reconciler::noteLearned( EthAddr mac, Row& row ) {
   const There& there = row.there;
   const bool learned = ( there.entry == There::dynamic || there.entry == There::fixed ) &&
                        place_.ports.contains( there.port );
   if( learned ) {
      if( const auto hold =
             listener_.learned( key( mac ), there.port, there.entry == There::fixed ) )
         *held_.emplace( mac ).first = *hold;
   } else if( row.learned ) {
      listener_.forgotten( key( mac ) );
   }
   counts_.learned += static_cast<uint64_t>( learned ) - static_cast<uint64_t>( row.learned );
   row.learned = learned;
}

void Reconciler::relearn( EthAddr mac ) {
   if( Row* const row = rows_.find( mac ) )
      noteLearned( mac, *row );
}

void Reconciler::groupsDeleted( const std::set<uint32_t>& groups ) {
   if( groups.empty() )
      return;
   for( auto at = rows_.begin(); at != rows_.end(); ++at )
      if( groups.contains( at->value.there.group ) )
         suspects_.emplace( at->key );
}

void Reconciler::touchAll() {
   for( auto at = rows_.begin(); at != rows_.end(); ++at )
      touch( at->key );
}

void Reconciler::dumpBegins() {
   ++dump_;
   dumping_ = true;
   flood_.dumpBegins();
}

void Reconciler::dumpEnded() {
   dumping_ = presumed_ = false;
   flood_.dumpEnded();
   for( auto at = rows_.begin(); at != rows_.end(); ++at ) {
      const Row& row = at->value;
      if( ( row.there.entry != There::noEntry && row.entrySeen != dump_ ) ||
          ( row.there.remote != There::noRemote && row.remoteSeen != dump_ ) )
         suspects_.emplace( at->key );
   }
}

void Reconciler::presume( EthAddr mac, const There& there ) {
   presumed_ = true;
   found( mac, *rows_.emplace( mac ).first, there );
}

void Reconciler::expect( size_t hosts ) { rows_.reserve( hosts ); }

bool Reconciler::verify( Kernel& kernel ) {
   std::vector<EthAddr> macs;
   for( auto at = suspects_.begin(); at != suspects_.end() && macs.size() < hostsABatch; ++at )
      macs.push_back( at->key );
   if( macs.empty() || place_.bridge == 0 )
      return false;
   Vexil::HashMap<EthAddr, There> found;
   kernel.lookUp( place_.bridge, place_.vxlan, macs, [ & ]( const FdbEntry& entry ) {
      There& there = *found.emplace( entry.mac ).first;
      if( entry.bridge == 0 ) {
         remoteFrom( there, entry, place_.vni );
      } else {
         there.entry = entryKind( entry, place_.vxlan );
         there.port = entry.device;
      }
   } );
   for( const EthAddr mac : macs ) {
      suspects_.erase( mac );
      if( Row* const row = rows_.find( mac ) ) {
         row->entrySeen = row->remoteSeen = dump_;
         const There* const there = found.find( mac );
         thereIs( mac, *row, there ? *there : There() );
         dirty_.emplace( mac );
         dropIfEmpty( mac );
      }
   }
   return true;
}

// --- the difference

void Reconciler::stateIs( EthAddr mac, Row& row, State state ) {
   if( row.state == state )
      return;
   const auto count = [ & ]( State of, int change ) {
      const auto step = static_cast<uint64_t>( change );
      counts_.wanted += of != State::idle ? step : 0;
      counts_.programmed += of == State::programmed ? step : 0;
      counts_.refused += of == State::refused ? step : 0;
   };
   count( row.state, -1 );
   count( state, 1 );
   if( state == State::idle )
      listener_.released( key( mac ) );
   row.state = state;
}

// Nothing when there is nothing to do for now.
std::optional<Goal> Reconciler::goalOf( const Row& row, std::string& refusal ) const {
   Goal goal;
   if( row.path == Paths::none )
      return goal;
   if( row.path == localPath ) {
      goal.kind = Goal::local;
      return goal;
   }
   const Forwarding& forwarding = paths_.at( row.path );
   switch( forwarding.kind ) {
   case Forwarding::waiting:
      refusal = forwarding.reason;
      return {};
   case Forwarding::refused:
      refusal = forwarding.reason;
      return goal;
   case Forwarding::viaGroup:
      goal.kind = Goal::viaGroup;
      goal.id = nexthops_.readyId( forwarding.group );
      if( goal.id == 0 ) {
         refusal = nexthops_.refusal( forwarding.group );
         return {};
      }
      return goal;
   case Forwarding::viaVtep:
      goal.kind = Goal::viaVtep;
      goal.vtep = forwarding.remote.vtep;
      goal.vni = forwarding.remote.vni;
      return goal;
   default:
      goal.kind = Goal::onPort;
      goal.port = forwarding.port;
      return goal;
   }
}

void Reconciler::refuse( EthAddr mac, Row& row, const std::string& reason ) {
   const Retry* const retry = retries_.find( mac );
   stateIs( mac, row, State::refused );
   listener_.refused( key( mac ), reason, retry ? retry->tries : 0 );
}

void Reconciler::done( EthAddr mac, Row& row ) {
   retries_.erase( mac );
   std::string refusal;
   const std::optional<Goal> goal = goalOf( row, refusal );
   if( !refusal.empty() ) {
      refuse( mac, row, refusal );
   } else if( onPath( row ) && goal ) {
      std::vector<Write> rest;
      const std::string obstacle = plan( row.there, *goal, mac, place_.vxlan, rest );
      if( !obstacle.empty() ) {
         refuse( mac, row, obstacle );
      } else if( rest.empty() ) {
         stateIs( mac, row, State::programmed );
         listener_.programmed( key( mac ), *goal );
      } else {
         dirty_.emplace( mac );
      }
   }
   row.repair = false;
   dropIfEmpty( mac );
}

// A refusal is remembered from one try to the next, and no longer.
void Reconciler::planRow( EthAddr mac, Batch& batch, bool mayRemove, Vexil::Seconds now ) {
   Row* const row = rows_.find( mac );
   const Retry* const retry = retries_.find( mac );
   if( row && retry && retry->waits( now ) )
      return;
   const size_t before = batch.writes.size();
   if( row && !held_.contains( mac ) )
      planGoal( mac, *row, batch, mayRemove );
   if( batch.writes.size() == before )
      retries_.erase( mac );
}

void Reconciler::planGoal( EthAddr mac, Row& row, Batch& batch, bool mayRemove ) {
   std::string refusal;
   const std::optional<Goal> goal = goalOf( row, refusal );
   if( !goal ) {
      if( !refusal.empty() )
         refuse( mac, row, refusal );
      return;
   }
   if( goal->kind == Goal::nothing && !mayRemove && hasOurs( row.there, place_.vxlan ) ) {
      deferred_.emplace( mac );
      return;
   }
   const size_t before = batch.writes.size();
   const std::string obstacle = plan( row.there, *goal, mac, place_.vxlan, batch.writes );
   if( presumed_ && row.entrySeen == 0 && batch.writes.size() > before ) {
      batch.writes.resize( before );
      suspects_.emplace( mac );
      return;
   }
   if( batch.writes.size() > before )
      batch.items.push_back( { mac, batch.writes.size() } );
   else if( obstacle.empty() )
      done( mac, row );
   if( !obstacle.empty() )
      refuse( mac, row, obstacle );
}

void Reconciler::carryOut( Kernel& kernel, const Batch& batch, Vexil::Seconds now ) {
   if( batch.writes.empty() )
      return;
   const std::vector<Outcome> outcomes = kernel.apply( batch.writes );
   size_t at = 0;
   for( const auto& [ mac, end ] : batch.items ) {
      Row& row = *rows_.find( mac );
      There there = row.there;
      const bool repair = row.repair;
      const Outcome* refused = nullptr;
      for( ; at < end; ++at ) {
         const Write& write = batch.writes[ at ];
         const bool removal = write.kind == Write::remoteDel || write.kind == Write::entryDel;
         if( outcomes[ at ].error == 0 || ( removal && outcomes[ at ].error == ENOENT ) )
            Bridge::carryOut( there, write );
         else
            refused = &outcomes[ at ];
      }
      row.entrySeen = row.remoteSeen = dump_;
      thereIs( mac, row, there );
      if( refused ) {
         retries_.emplace( mac ).first->refused( now, refused->text );
         suspects_.emplace( mac ); // there may be something else than was known
         refuse( mac, row, refused->text );
      } else {
         counts_.repaired += repair;
         done( mac, row );
      }
   }
}

bool Reconciler::reconcile( Kernel& kernel, const Vexil::Clock& clock, Vexil::Seconds deadline,
                            bool mayRemove ) {
   const Vexil::Seconds now = clock.now();
   if( !presumed_ ) // whose members are whose is not known before
      flood_.reconcile( kernel, now, mayRemove );
   if( mayRemove ) {
      for( auto at = deferred_.begin(); at != deferred_.end(); ++at )
         dirty_.emplace( at->key );
      deferred_.clear();
   }
   while( !dirty_.empty() ) {
      Batch batch;
      size_t planned = 0;
      for( auto at = dirty_.begin(); at != dirty_.end() && planned < hostsABatch;
           ++at, ++planned ) {
         const EthAddr mac = at->key;
         dirty_.erase( mac );
         planRow( mac, batch, mayRemove, now );
      }
      carryOut( kernel, batch, now );
      if( clock.now() >= deadline )
         break;
   }
   return !dirty_.empty();
}

void Reconciler::releaseHeld( uint64_t position, Vexil::Seconds now ) {
   for( auto at = held_.begin(); at != held_.end(); ++at )
      if( at->value.position <= position && at->value.until <= now ) {
         const EthAddr mac = at->key;
         held_.erase( mac );
         dirty_.emplace( mac );
      }
}

void Reconciler::retryDue( Vexil::Seconds now ) {
   for( auto at = retries_.begin(); at != retries_.end(); ++at )
      if( at->value.due <= now )
         dirty_.emplace( at->key );
}

Vexil::Seconds Reconciler::nextRetry() const {
   Vexil::Seconds next = flood_.nextRetry();
   for( auto at = retries_.begin(); at != retries_.end(); ++at )
      next = std::min( next, at->value.due );
   return next;
}

} // namespace Bridge
