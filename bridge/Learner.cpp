#include "bridge/Learner.h"

#include "runtime/Trace.h"

namespace Bridge {

using namespace L2Rib;

namespace {

// How long the kernel's entry of a duplicate is left where a frame has put it: each frame of either
// host moves it, and what is put back at once is moved at once again.
constexpr Vexil::Seconds duplicateHold = 1;

} // namespace

Learner::Learner( Client::SourcePublisher& source, uint32_t pref, DuplicateLimits limits,
                  Vexil::Ptr<Vexil::Clock> clock, Winner winner )
   : source_( source ), pref_( pref ), limits_( limits ), duplicates_( limits ),
     clock_( std::move( clock ) ), winner_( std::move( winner ) ) {
   [[maybe_unused]] const auto never = source_.begin(); // fails only within another one
}

void Learner::useDest( uint32_t port, int change ) {
   size_t& hosts = dests_[ port ];
   if( hosts == 0 ) {
      Dest dest{ DestId( port ) };
      dest.intfIs( { port } );
      if( const auto refused = source_.destIs( dest ) )
         Vexil::log( "a destination is not published: " + *refused );
   }
   hosts += static_cast<size_t>( change );
   if( hosts > 0 )
      return;
   [[maybe_unused]] const auto never = source_.destDel( DestId( port ) );
   dests_.erase( port );
}

bool Learner::publish( const MacVlanPair& key, uint32_t port, Vexil::Seqno32 seqNo, bool fixed ) {
   const uint32_t* const known = ports_.find( key );
   const uint32_t before = known ? *known : 0;
   if( before != port )
      useDest( port, 1 );
   Host host( key );
   host.prefIs( pref_ );
   host.seqNoIs( seqNo );
   host.entryTypeIs( fixed ? entryTypeConfigured : entryTypeLearned );
   host.nextIs( ObjTuple( DestId( port ) ) );
   const auto refused = source_.hostIs( host );
   if( refused ) {
      unpublished_.emplace( key );
      if( before != port )
         useDest( port, -1 );
      if( !std::exchange( complained_, true ) )
         Vexil::log( "what was learned is not published: " + *refused );
      return false;
   }
   *ports_.emplace( key ).first = port;
   if( before != 0 && before != port )
      useDest( before, -1 );
   return true;
}

bool Learner::freeze( const MacVlanPair& host, Duplicates::Side to ) {
   if( !duplicates_.moved( host, to, clock_->now() ) )
      return false;
   Vexil::log( "duplicate address " + host.str() + ": moved more than " +
               std::to_string( limits_.moves ) + " times; it is not published from here for " +
               std::to_string( static_cast<unsigned>( limits_.within ) ) + " s" );
   if( duplicate )
      duplicate( host, true );
   return true;
}

std::optional<Hold> Learner::learned( const MacVlanPair& key, uint32_t port, bool fixed ) {
   const Hold frozen{ 0, clock_->now() + duplicateHold };
   if( duplicates_.frozen( key ) )
      return frozen;
   if( const auto present = source_.host( key ) ) {
      publish( key, port, present->seqNo(), fixed );
      return {};
   }
   const auto winner = winner_( key );
   if( !winner || winner->source() == source_.options().value ) {
      publish( key, port, Vexil::Seqno32(), fixed );
      return {};
   }
   if( freeze( key, Duplicates::Side::here ) )
      return frozen;
   if( !publish( key, port, Vexil::Seqno32( winner->host().seqNo().value() + 1 ), fixed ) )
      return {};
   return Hold{ source_.hostMark().cursor.value(), 0 };
}

void Learner::forgotten( const MacVlanPair& key ) {
   unpublished_.erase( key );
   if( const auto winner = winner_( key ); winner && winner->source() != source_.options().value )
      freeze( key, Duplicates::Side::elsewhere ); // the output has led the bridge there
   [[maybe_unused]] const auto never = source_.hostDel( key );
   if( const uint32_t* const port = ports_.find( key ) ) {
      const uint32_t left = *port;
      ports_.erase( key );
      useDest( left, -1 );
   }
}

void Learner::complete() {
   [[maybe_unused]] const auto never = source_.end();
   source_.initializedIs( true );
}

std::vector<MacVlanPair> Learner::takeDue() {
   std::vector<MacVlanPair> due = duplicates_.thaw( clock_->now() );
   if( duplicate )
      for( const MacVlanPair& host : due )
         duplicate( host, false );
   for( auto at = unpublished_.begin(); at != unpublished_.end(); ++at )
      due.push_back( at->key );
   unpublished_.clear();
   return due;
}

} // namespace Bridge
