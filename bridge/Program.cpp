#include "bridge/Program.h"

#include "runtime/Trace.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace Bridge {

using namespace L2Rib;

namespace {

constexpr Vexil::Seconds slice = 0.05;
// For how long a dump waits, after the start, for the output to be held against what an earlier run
// has left word of.
constexpr Vexil::Seconds longestPresumption = 1;
constexpr Vexil::Seconds signInterval = 1;    // between signs of life
constexpr Vexil::Seconds agentInterval = 0.1; // between looks at the agent, while waiting for it

// Until when the end of a run before is awaited: one that was killed holds its locks for a moment.
constexpr std::chrono::seconds longestEnd( 5 );
// The lock's descriptor: a process that ends closes its files in ascending order, so when this lock
// is free, those of the tables are too.
constexpr int lastDescriptor = 1000;

// Names of abstract sockets are of one network namespace, and go with their process: two programs
// that held each other's nexthops for leftovers would never come to an end.
int onlyOne() {
   const int made = socket( AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0 );
   const int fd = fcntl( made, F_DUPFD_CLOEXEC, lastDescriptor );
   close( made );
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   constexpr char name[] = "\0l2rib-bridge";
   std::memcpy( address.sun_path, name, sizeof name - 1 );
   constexpr auto size =
      static_cast<socklen_t>( offsetof( sockaddr_un, sun_path ) + sizeof name - 1 );
   const auto deadline = std::chrono::steady_clock::now() + longestEnd;
   while( bind( fd, reinterpret_cast<const sockaddr*>( &address ), size ) != 0 ) {
      if( errno != EADDRINUSE ) {
         const int error = errno;
         close( fd );
         throw std::system_error( error, std::generic_category(), "locking the network namespace" );
      }
      if( std::chrono::steady_clock::now() >= deadline ) {
         close( fd );
         throw std::runtime_error( "another l2rib-bridge runs in this network namespace: give that "
                                   "one all the bridges" );
      }
      std::this_thread::sleep_for( std::chrono::milliseconds( 10 ) );
   }
   return fd;
}

} // namespace

Program::Managed::Managed( Program& program, uint32_t vlan, std::string name )
   : name( std::move( name ) ),
     reconciler( Bridging::VlanId( vlan ), program.nexthops_,
                 { [ &program ]( DestId id ) { return program.output_.dests.get( id ); },
                   [ &program ]( LoadBalanceId id ) { return program.output_.groups.get( id ); } },
                 program ) {}

Program::Program( Vexil::ActivityManager& loop, const ProgramOptions& options )
   : loop_( loop ), clock_( loop.clock() ), options_( options ), lock_( onlyOne() ),
     status_( options.stateDirectory ), agent_( options.stateDirectory, options.source ),
     output_( options.stateDirectory ), started_( clock_->now() ),
     nextAudit_( started_ + options.audit ), wake_( clock_, [] {} ) {
   for( const auto& [ vlan, name ] : options_.bridges )
      bridges_.try_emplace( vlan, *this, vlan, name );
   if( const auto& hosts = output_.hosts.table(); hosts && !bridges_.empty() ) {
      status_.expect( hosts->capacity() );
      for( auto& [ vlan, bridge ] : bridges_ )
         bridge.reconciler.expect( hosts->capacity() / bridges_.size() );
   }
   if( options_.learn )
      startLearning();
   kernel_.dumpLinks( *this );
   nexthops_.dumpBegins();
   kernel_.dumpNexthops( *this );
   nexthops_.dumpEnded(); // adopted before anything is wanted of them
   place();
   followOutput();
   loop.watch( output_.fd(), [] {} );
   loop.watch( kernel_.fd(), [] {} );
   endOfTurn_ = loop.atEndOfTurn( [ this ] { turn(); } );
}

Program::~Program() {
   status_.programIs( figures_ );
   status_.flush();
   close( lock_ );
}

Vexil::BaseAgent::Progress Program::progress() const {
   if( inSync_ )
      return { true, "in sync" };
   return { false,
            outputInSync_ ? "reading the kernel's entries" : "waiting for the output of an agent" };
}

Program::Managed* Program::managed( Bridging::VlanId vlan ) {
   const auto found = bridges_.find( vlan.value() );
   return found == bridges_.end() ? nullptr : &found->second;
}

bool Program::allKnown() const {
   return std::all_of( bridges_.begin(), bridges_.end(),
                       []( const auto& entry ) { return entry.second.known; } );
}

// --- the output

void Program::followOutput() {
   if( !options_.program ) // what the winners are is looked up
      return;
   const Source own = options_.learn ? options_.value : sourceNone_;
   output_.hosts.follow( [ this, own ]( const MacVlanPair& key, const HostAndSource* row ) {
      Managed* const bridge = managed( key.vlan() );
      if( !bridge )
         return;
      bridge->reconciler.hostIs( key.mac(), row, row && row->source() == own );
   } );
   const auto changed = [ this ]( const ObjTuple& object ) {
      for( auto& [ vlan, bridge ] : bridges_ )
         bridge.reconciler.paths().objectChanged( object );
   };
   output_.dests.follow(
      [ changed ]( const DestId& id, const DestAndSource* ) { changed( ObjTuple( id ) ); } );
   output_.groups.follow( [ changed ]( const LoadBalanceId& id, const LoadBalanceAndSource* ) {
      changed( ObjTuple( id ) );
   } );
   output_.flood.follow( [ this ]( const FloodMemberKey& key, const FloodMember* member ) {
      Managed* const bridge = managed( key.vlan() );
      if( bridge && member )
         bridge->reconciler.flood().memberIs( key );
      else if( bridge )
         bridge->reconciler.flood().memberDel( key );
   } );
   output_.inSyncIs( [ this ] { outputInSync_ = true; } );
}

// --- the source

void Program::startLearning() {
   source_ = std::make_unique<Client::SourcePublisher>(
      Client::SourceOptions{ .stateDirectory = options_.stateDirectory,
                             .name = options_.source,
                             .value = options_.value } );
   learner_ = std::make_unique<Learner>(
      *source_, options_.pref, options_.duplicates, clock_,
      [ this ]( const MacVlanPair& key ) { return output_.hosts.get( key ); } );
   learner_->duplicate = [ this ]( const MacVlanPair& host, bool frozen ) {
      status_.duplicateIs( host, frozen,
                           "duplicate: moved more than " +
                              std::to_string( options_.duplicates.moves ) +
                              " times; not published from here for now" );
   };
}

std::optional<Hold> Program::learned( const MacVlanPair& host, uint32_t port, bool fixed ) {
   if( !learner_ )
      return {};
   const auto hold = learner_->learned( host, port, fixed );
   return options_.program ? hold : std::nullopt;
}

void Program::forgotten( const MacVlanPair& host ) {
   if( learner_ )
      learner_->forgotten( host );
}

void Program::relearn() {
   if( !learner_ )
      return;
   for( const MacVlanPair& host : learner_->takeDue() )
      if( Managed* const bridge = managed( host.vlan() ) )
         bridge->reconciler.relearn( host.mac() );
}

// --- what becomes of hosts

void Program::programmed( const MacVlanPair& host, const Goal& goal ) {
   status_.programmed( host, goal );
}

void Program::refused( const MacVlanPair& host, const std::string& reason, unsigned tries ) {
   status_.refused( host, reason, tries );
}

void Program::released( const MacVlanPair& host ) { status_.released( host ); }

// --- the kernel

void Program::linkIs( const Link& link ) {
   linksChanged_ = topology_.linkIs( link ) || linksChanged_;
}

void Program::linkDel( uint32_t index ) {
   linksChanged_ = topology_.linkDel( index ) || linksChanged_;
}

void Program::entryIs( const FdbEntry& entry ) {
   for( auto& [ vlan, bridge ] : bridges_ )
      bridge.reconciler.entryIs( entry, origin_ );
}

void Program::entryDel( const FdbEntry& entry ) {
   for( auto& [ vlan, bridge ] : bridges_ )
      bridge.reconciler.entryDel( entry );
}

void Program::nexthopIs( const Nexthop& nexthop ) { nexthops_.nexthopIs( nexthop ); }

void Program::nexthopDel( uint32_t id ) { nexthops_.nexthopDel( id ); }

// --- a turn

void Program::turn() {
   more_ = false;
   try {
      hear();
      place();
      dumpOn();
      verify();
      if( clock_->now() >= nextAudit_ )
         audit();
      write();
      settle();
   } catch( const std::system_error& failure ) {
      // Most of all ENOBUFS: an answer was lost, and so what became of a write.
      Vexil::log( std::string( failure.what() ) + ": everything is compared again" );
      nexthops_.touchAll();
      for( auto& [ vlan, bridge ] : bridges_ )
         bridge.reconciler.touchAll();
      audit();
   }
   relearn();
   publish();
   schedule();
}

// Hears of the agent first, then the output: what the agent has taken over is then in the output
// that is read here.
void Program::hear() {
   const bool holds = std::any_of( bridges_.begin(), bridges_.end(), []( const auto& entry ) {
      return entry.second.reconciler.holds();
   } );
   const uint64_t taken =
      holds && source_ ? agent_.takenOver( source_->hostMark().tableId.value() ) : 0;
   output_.process();
   origin_ = Reconciler::Origin::notification;
   switch( kernel_.drain( *this ) ) {
   case NetlinkSocket::Drained::all:
      break;
   case NetlinkSocket::Drained::more:
      more_ = true;
      break;
   case NetlinkSocket::Drained::lost:
      figures_.lost = figures_.lost.value() + 1;
      audit();
      break;
   }
   if( holds )
      for( auto& [ vlan, bridge ] : bridges_ )
         bridge.reconciler.releaseHeld( taken, clock_->now() );
}

void Program::place() {
   if( !std::exchange( linksChanged_, false ) )
      return;
   for( auto& [ vlan, bridge ] : bridges_ ) {
      const Place place = topology_.placeOf( bridge.name );
      const std::string before = bridge.reconciler.place().fault;
      if( bridge.reconciler.placeIs( place ) ) {
         bridge.known = presume( bridge );
         if( std::find( dumps_.begin(), dumps_.end(), &bridge ) == dumps_.end() )
            dumps_.push_back( &bridge );
         else if( dumps_.front() == &bridge )
            dumps_.push_back( &bridge ); // the one under way is of other devices
      } else if( place.bridge == 0 ) {
         bridge.known = true; // that there is nothing
      }
      if( place.fault != before )
         Vexil::log( "VLAN " + std::to_string( vlan ) + ", " + bridge.name + ": " +
                     ( place.fault.empty() ? "complete" : place.fault ) );
   }
}

// At the start, when the devices are those of the run before.
bool Program::presume( Managed& bridge ) {
   if( !std::exchange( bridge.fresh, false ) || bridge.reconciler.place().vxlan == 0 )
      return false;
   const Place& place = bridge.reconciler.place();
   bool any = false;
   status_.forEachEarlier( bridge.reconciler.vlan(), place.bridge, place.vxlan,
                           [ & ]( EthAddr mac, const Goal& goal ) {
                              any = true;
                              bridge.reconciler.presume( mac, reachedGoal( goal, place.vxlan ) );
                           } );
   return any;
}

void Program::dumpOn() {
   if( dumps_.empty() )
      return;
   Managed& bridge = *dumps_.front();
   if( bridge.known && !inSync_ && clock_->now() < started_ + longestPresumption )
      return;
   if( !dumping_ && bridge.reconciler.place().bridge == 0 ) { // gone before its turn came
      dumps_.pop_front();
      return;
   }
   if( !dumping_ ) {
      dumping_ = true;
      bridge.reconciler.dumpBegins();
      kernel_.startEntryDump( bridge.reconciler.place().bridge );
   }
   origin_ = Reconciler::Origin::dump;
   const Vexil::Seconds deadline = clock_->now() + slice;
   try {
      while( dumping_ && clock_->now() < deadline )
         dumping_ = kernel_.goOnWithEntryDump( *this );
   } catch( const std::system_error& failure ) {
      // The bridge has gone meanwhile, which its link's end says too.
      Vexil::log( "the entries of " + bridge.name + ": " + failure.what() );
      dumping_ = false;
   }
   origin_ = Reconciler::Origin::notification;
   more_ = true;
   if( dumping_ )
      return;
   bridge.reconciler.dumpEnded();
   dumps_.pop_front();
   bridge.known =
      bridge.known || std::find( dumps_.begin(), dumps_.end(), &bridge ) == dumps_.end();
}

void Program::verify() {
   const Vexil::Seconds deadline = clock_->now() + slice;
   const std::set<uint32_t> deleted = nexthops_.takeDeleted();
   for( auto& [ vlan, bridge ] : bridges_ )
      bridge.reconciler.groupsDeleted( deleted );
   for( auto& [ vlan, bridge ] : bridges_ )
      while( bridge.reconciler.verify( kernel_ ) )
         if( clock_->now() >= deadline ) {
            more_ = true;
            return;
         }
}

void Program::audit() {
   nextAudit_ = clock_->now() + options_.audit;
   figures_.audits = figures_.audits.value() + 1;
   origin_ = Reconciler::Origin::notification;
   topology_.dumpBegins();
   kernel_.dumpLinks( *this );
   linksChanged_ = topology_.dumpEnded() || linksChanged_;
   nexthops_.dumpBegins();
   kernel_.dumpNexthops( *this );
   nexthops_.dumpEnded();
   for( auto& [ vlan, bridge ] : bridges_ )
      if( bridge.reconciler.place().bridge != 0 &&
          std::find( dumps_.begin() + ( dumping_ ? 1 : 0 ), dumps_.end(), &bridge ) ==
             dumps_.end() )
         dumps_.push_back( &bridge );
   more_ = true;
}

void Program::write() {
   if( !options_.program || !outputInSync_ || !allKnown() )
      return;
   std::vector<Paths*> all;
   for( auto& [ vlan, bridge ] : bridges_ ) {
      bridge.reconciler.paths().update();
      all.push_back( &bridge.reconciler.paths() );
   }
   Paths::moveGroups( nexthops_, all );
   const Vexil::Seconds now = clock_->now();
   nexthops_.reconcile( kernel_, now );
   for( const NexthopSet::Group group : nexthops_.takeChanged() )
      for( Paths* const paths : all )
         paths->groupChanged( group );
   const bool mayRemove = agent_.outputIsWhole();
   left_ = false;
   for( auto& [ vlan, bridge ] : bridges_ ) {
      bridge.reconciler.retryDue( now );
      bridge.reconciler.followPaths();
      left_ = bridge.reconciler.reconcile( kernel_, *clock_, now + slice, mayRemove ) || left_;
   }
   more_ = more_ || left_;
   if( !more_ && dumps_.empty() ) // every entry that uses one is known
      nexthops_.sweep( kernel_ );
}

// Once all that was there at first has been heard and written.
void Program::settle() {
   const bool heard = allKnown() && dumps_.empty();
   if( !learning_ && heard && learner_ ) {
      learning_ = true;
      learner_->complete();
   }
   if( figures_.inSync == 1 && heard && !left_ )
      figures_.inSync = 2;
   if( inSync_ || !allKnown() || left_ || ( options_.program && !outputInSync_ ) )
      return;
   inSync_ = true;
   nextSign_ = 0;
   figures_.inSync = heard ? 2 : 1;
   figures_.syncTime = clock_->now() - started_;
   uint64_t programmed = 0;
   for( const auto& [ vlan, bridge ] : bridges_ )
      programmed += bridge.reconciler.counts().programmed;
   if( status_.hosts() != programmed )
      status_.forgetHosts( [ this ]( const MacVlanPair& key ) {
         Managed* const bridge = managed( key.vlan() );
         return bridge && bridge->reconciler.programmed( key.mac() );
      } );
   Vexil::log( "in sync" );
}

void Program::publish() {
   for( auto& [ vlan, bridge ] : bridges_ ) {
      const Reconciler& reconciler = bridge.reconciler;
      const FloodList& flood = bridge.reconciler.flood();
      const Reconciler::Counts& counts = reconciler.counts();
      const Place& place = reconciler.place();
      if( flood.version() != bridge.floodVersion ) {
         const auto refused = flood.refused();
         status_.floodRefusedIs( reconciler.vlan(), refused );
         bridge.floodRefused = refused.size();
         bridge.floodVersion = flood.version();
      }
      BridgeRecord record;
      record.vlan = reconciler.vlan();
      record.bridge = InterfaceName::of( bridge.name ).value_or( InterfaceName() );
      record.device = InterfaceName::of( place.vxlanName ).value_or( InterfaceName() );
      record.bridgeIndex = place.bridge;
      record.deviceIndex = place.vxlan;
      record.vni = place.vni;
      record.local = place.local;
      record.wanted = counts.wanted + flood.wanted();
      record.programmed = counts.programmed + flood.wanted() - bridge.floodRefused;
      record.refused = counts.refused + bridge.floodRefused;
      record.learned = counts.learned;
      record.repaired = counts.repaired + flood.repaired();
      record.fault = ReasonText::of( place.fault ).value_or( ReasonText() );
      status_.bridgeIs( record );
   }
   if( nexthops_.version() != groupsVersion_ )
      status_.groupsAre( nexthops_.readyGroups() );
   groupsVersion_ = nexthops_.version();
   figures_.nexthopsRepaired = nexthops_.repaired();
   figures_.writes = kernel_.writes();
   if( clock_->now() >= nextSign_ || ( !more_ && figures_ != toldFigures_ ) ) {
      nextSign_ = clock_->now() + signInterval;
      status_.programIs( toldFigures_ = figures_ );
   }
   status_.flush();
   if( source_ )
      source_->flush();
}

void Program::schedule() {
   const Vexil::Seconds now = clock_->now();
   Vexil::Seconds next = std::min( nextAudit_, nextSign_ );
   for( auto& [ vlan, bridge ] : bridges_ ) {
      next = std::min( next, bridge.reconciler.nextRetry() );
      if( bridge.reconciler.holds() || bridge.reconciler.defers() )
         next = std::min( next, now + agentInterval );
      more_ = more_ || bridge.reconciler.doubts();
   }
   next = std::min( next, nexthops_.nextRetry() );
   wake_.timeMinIs( more_ ? 0 : next );
}

} // namespace Bridge
