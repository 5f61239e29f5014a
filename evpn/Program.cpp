#include "evpn/Program.h"

#include "L2Rib/Status.h"
#include "client/AgentProgress.h"
#include "runtime/Trace.h"

namespace Evpn {

using namespace L2Rib;

namespace {

constexpr Vexil::Seconds slice = 0.05; // the longest that one thing is done in a turn
constexpr size_t hostsInStep = 1000;
constexpr Vexil::Seconds signInterval = 0.25;
constexpr Vexil::Seconds agentInterval = 0.25; // between looks whether the output is whole
constexpr Vexil::Seconds retryInterval = 1;    // of what the source's tables have no room for
// Between looks at the peers.
constexpr Vexil::Seconds peersInterval = 5;
constexpr Vexil::Seconds awaitedPeersInterval = 0.25;
constexpr Vexil::Seconds quietTime = 3; // of a peer that can't say that it is through

std::set<uint32_t> keysOf( const std::map<uint32_t, VlanOptions>& vlans ) {
   std::set<uint32_t> keys;
   for( const auto& [ vlan, options ] : vlans )
      keys.insert( vlan );
   return keys;
}

} // namespace

Program::Program( Vexil::ActivityManager& loop, const ProgramOptions& options )
   : clock_( loop.clock() ), options_( options ), status_( options.stateDirectory ),
     source_( { .stateDirectory = options.stateDirectory,
                .name = options.source,
                .value = options.value } ),
     publisher_( source_, options.pref ), output_( options.stateDirectory ),
     local_( output_, keysOf( options.gobgp.vlans ), options.value,
             [ this ]( const MacVlanPair& host, const Announcer::Local* local ) {
                localIs( host, local );
             } ),
     gobgp_( options.gobgp ), wake_( clock_, [] {} ) {
   [[maybe_unused]] const auto never = source_.begin(); // fails only within another one
   table_.vtepIs( options.gobgp.vtep );
   figures_.vtep = options.gobgp.vtep;
   figures_.speaker =
      FixedText<64>::of( options.gobgp.address.substr( 0, 63 ) ).value_or( FixedText<64>() );
   figures_.phaseSince = wallClock();
   output_.inSyncIs( [ this ] { outputInSync_ = true; } );
   loop.watch( output_.fd(), [] {} );
   loop.watch( gobgp_.fd(), [] {} );
   endOfTurn_ = loop.atEndOfTurn( [ this ] { turn(); } );
}

Program::~Program() {
   nextSign_ = 0;
   publish();
}

Vexil::BaseAgent::Progress Program::progress() const {
   switch( phase_ ) {
   case evpnConnecting_:
      return { false, "connecting to " + options_.gobgp.address +
                         ( fault_.empty() ? std::string() : ": " + fault_ ) };
   case evpnReading_:
      return { false, "reading the routes" };
   case evpnWaiting_:
      return { false, "waiting for the peers of the BGP speaker" };
   case evpnComplete_:
      break;
   }
   return outputInSync_ ? Vexil::BaseAgent::Progress{ true, "in sync" }
                        : Vexil::BaseAgent::Progress{ false, "waiting for the output of an agent" };
}

void Program::phaseIs( EvpnPhase phase ) {
   if( phase_ == phase )
      return;
   phase_ = phase;
   figures_.phaseSince = wallClock();
   nextSign_ = 0;
}

// While an agent starts it may have emptied its output, to fill it again; one that died meanwhile
// has left it like that.
bool Program::outputIsWhole() const {
   return outputInSync_ &&
          Client::AgentProgress( options_.stateDirectory, options_.source ).outputIsWhole();
}

// --- from BGP

void Program::hear() {
   output_.process();
   const Vexil::Seconds deadline = clock_->now() + slice;
   while( std::optional<Event> event = gobgp_.next() ) {
      handle( *event );
      if( clock_->now() >= deadline ) {
         more_ = true;
         return;
      }
   }
}

void Program::handle( Event& event ) {
   switch( event.kind ) {
   case Event::connected:
      return begin( event );
   case Event::routes:
      for( const RouteChange& change : event.changes )
         take( change );
      return;
   case Event::present:
      return present();
   case Event::lost:
      return lost( event.text );
   case Event::peers:
      return peersAre( event.known );
   case Event::written:
      if( event.session != session_ )
         return;
      for( const RouteKey& key : event.keys ) {
         if( event.text.empty() )
            announcer_.written( key );
         else
            announcer_.refused( key, event.text, clock_->now() );
      }
      auto& count = event.text.empty() ? figures_.writes : figures_.writesRefused;
      count = count.value() + event.keys.size();
      if( !event.text.empty() )
         Vexil::log( "refused by the BGP speaker: " + event.keys.front().str() + ": " +
                     event.text );
      return;
   }
}

void Program::begin( const Event& event ) {
   const bool again = std::exchange( rereading_, false );
   const bool same = figures_.as == event.speaker.as && figures_.routerId == event.speaker.routerId;
   if( !again || !same )
      Vexil::log( "connected to " + options_.gobgp.address + ": AS " +
                  std::to_string( event.speaker.as ) + ", router id " +
                  event.speaker.routerId.str() );
   fault_.clear();
   session_ = event.session;
   settled_ = event.settled || again;
   figures_.sessions = figures_.sessions.value() + 1;
   figures_.as = event.speaker.as;
   figures_.routerId = event.speaker.routerId;
   table_.markStale();
   announcer_.sessionBegins( event.import );
   status_.vlansAre( *event.import );
   phaseIs( evpnReading_ );
   nextPeers_ = 0;
}

void Program::take( const RouteChange& change ) {
   const RouteKey& key = change.route.key;
   if( change.ours ) {
      announcer_.thereIs( change.route, clock_->now() );
      return;
   }
   if( change.reason == NotTaken::taken && !change.withdrawn ) {
      table_.routeIs( change.route, change.vlans );
      return;
   }
   if( !change.withdrawn ) {
      auto& count = figures_.notTaken[ static_cast<size_t>( change.reason ) ];
      count = count.value() + 1;
   }
   if( change.reason == NotTaken::unreadable || change.reason == NotTaken::type )
      return; // it has no key
   table_.routeDel( key );
   if( change.withdrawn )
      announcer_.goneIs( key, clock_->now() );
}

// All that the speaker has has been read.
void Program::present() {
   announcer_.present();
   source_.initializedIs( true );
   if( settled_ || ( staleUntil_ != Vexil::never && clock_->now() >= staleUntil_ ) )
      return complete();
   if( staleUntil_ == Vexil::never )
      staleUntil_ = clock_->now() + options_.staleTime;
   phaseIs( evpnWaiting_ );
   nextPeers_ = 0;
}

// A peer that was restarting has told something, and nothing more for some time.
bool Program::quiet( const Peer& peer ) {
   const Vexil::Seconds now = clock_->now();
   auto& [ updates, since ] = updates_[ peer.address ];
   if( updates != peer.updates ) {
      updates = peer.updates;
      since = now;
   }
   return updates > 0 && now >= since + quietTime;
}

void Program::peersAre( const std::vector<Peer>& told ) {
   status_.peersAre( told );
   std::vector<Peer> peers = told;
   for( Peer& peer : peers )
      peer.restarting = peer.restarting && !quiet( peer );
   if( phase_ != evpnWaiting_ || rereading_ || !allSettled( peers ) || announcer_.writing() )
      return;
   // What they told is in the speaker's table, but may not have come here yet: the whole is read
   // again, and what is not in it is gone.
   rereading_ = true;
   gobgp_.readAgain();
}

void Program::lost( const std::string& reason ) {
   rereading_ = false;
   if( fault_ != reason )
      Vexil::log( "no connection to " + options_.gobgp.address + ": " + reason );
   fault_ = reason;
   if( phase_ == evpnConnecting_ )
      return;
   table_.markStale();
   announcer_.sessionEnds();
   status_.peersAre( {} );
   updates_.clear();
   staleUntil_ = Vexil::never;
   phaseIs( evpnConnecting_ );
}

// What was not told again goes.
void Program::complete() {
   table_.sweepStale();
   staleUntil_ = Vexil::never;
   phaseIs( evpnComplete_ );
   Vexil::log( "complete: " + std::to_string( table_.routes( RouteType::macIp ) ) +
               " routes of type 2" );
}

// --- to BGP

void Program::localIs( const MacVlanPair& host, const Announcer::Local* local ) {
   if( local ) {
      announcer_.hostIs( host, *local );
      table_.ownIs( host, local->seqNo, local->sticky );
   } else {
      announcer_.hostDel( host );
      table_.ownDel( host );
   }
}

void Program::announce() {
   const Vexil::Seconds now = clock_->now();
   if( announcer_.inStep() && now < announcer_.nextTry() )
      return;
   std::vector<Announcement> batch = announcer_.take( outputIsWhole(), now );
   if( !batch.empty() )
      gobgp_.write( session_, std::move( batch ) );
}

// --- a turn

void Program::tell() {
   const Vexil::Seconds now = clock_->now();
   if( now >= nextRetry_ ) {
      nextRetry_ = Vexil::never;
      table_.retryRefused();
   }
   bool left = true;
   while( left && clock_->now() < now + slice )
      left = table_.tell( publisher_, hostsInStep );
   more_ = more_ || left;
   if( table_.refused() > 0 && nextRetry_ == Vexil::never )
      nextRetry_ = now + retryInterval;
   if( !left && phase_ == evpnComplete_ && !std::exchange( firstOver_, true ) ) {
      // What was published in this run has been named since the start.
      [[maybe_unused]] const auto never = source_.end();
   }
   source_.flush();
}

void Program::publish() {
   const Vexil::Seconds now = clock_->now();
   if( now < nextSign_ )
      return;
   nextSign_ = now + signInterval;
   figures_.phase = phase_;
   for( const RouteType type : { RouteType::ethernetAd, RouteType::macIp, RouteType::multicast } ) {
      figures_.taken[ static_cast<size_t>( type ) ] = table_.routes( type );
      figures_.announced[ static_cast<size_t>( type ) ] = announcer_.announced( type );
   }
   figures_.stale = table_.stale();
   figures_.toAnnounce = announcer_.waiting();
   figures_.hosts = table_.hosts();
   figures_.groups = table_.groups();
   figures_.members = table_.members();
   figures_.unresolved = table_.unresolved();
   figures_.refused = table_.refused();
   const std::string& fault = !fault_.empty()        ? fault_
                              : table_.refused() > 0 ? publisher_.refusal()
                                                     : announcer_.refusal();
   figures_.fault =
      ReasonText::of( fault.substr( 0, sizeof( ReasonText ) - 1 ) ).value_or( ReasonText() );
   status_.programIs( figures_ );
   status_.flush();
}

void Program::turn() {
   more_ = false;
   hear();
   if( phase_ == evpnWaiting_ && clock_->now() >= staleUntil_ )
      complete();
   tell();
   announce();
   if( phase_ != evpnConnecting_ && clock_->now() >= nextPeers_ ) {
      nextPeers_ =
         clock_->now() + ( phase_ == evpnComplete_ ? peersInterval : awaitedPeersInterval );
      gobgp_.askForPeers();
   }
   publish();
   schedule();
}

void Program::schedule() {
   Vexil::Seconds next = std::min( { nextSign_, nextRetry_, staleUntil_, announcer_.nextTry() } );
   if( phase_ != evpnConnecting_ )
      next = std::min( next, nextPeers_ );
   if( !announcer_.inStep() )
      next = std::min( next, clock_->now() + agentInterval );
   wake_.timeMinIs( more_ ? 0 : next );
}

} // namespace Evpn
