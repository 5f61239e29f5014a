#include "engine/Awaited.h"

#include "runtime/Trace.h"

#include <algorithm>
#include <string>
#include <utility>

namespace L2Rib {

namespace {

const char* nameOf( OutputTable table ) {
   constexpr const char* names[] = { "output",       "host output", "group output",
                                     "label output", "dest output", "flood output" };
   return names[ table ];
}

} // namespace

ParkedKey Awaited::keyOf( const FloodSetTriple& member ) {
   return { parkedFloodMember_, Bridging::MacVlanPair( member.mac(), member.vlan() ),
            ObjTupleAndSource( ObjTuple( DestId( member.dest().hash() ) ), sourceNone_ ) };
}

void Awaited::parked( const ParkedKey& key, Source source, const Obstacle& obstacle,
                      Vexil::Seconds now ) {
   const auto [ entry, isNew ] = entries_.emplace( key );
   if( isNew ) {
      *entry = { obstacle, source, now, nextNumber_++, rounds( workOn( key ) ) };
      ages_.push_back( { key, entry->number, now } );
      count( obstacle, true );
   } else if( entry->obstacle != obstacle || entry->source != source ) {
      count( std::exchange( entry->obstacle, obstacle ), false );
      count( obstacle, true );
      entry->source = source;
   } else {
      return;
   }
   untold_.emplace( key );
}

void Awaited::drop( const ParkedKey& key ) {
   const Entry* const entry = entries_.find( key );
   if( !entry )
      return;
   count( entry->obstacle, false );
   entries_.erase( key );
   clearAges();
   untold_.emplace( key );
}

void Awaited::count( const Obstacle& obstacle, bool more ) {
   byReason_[ obstacle.reason ] += more ? 1 : -1;
   if( obstacle.blocker != Util::otasInvalid() ) {
      uint64_t& waiting = *blockers_.emplace( obstacle.blocker ).first;
      waiting += more ? 1 : -1;
      if( waiting == 0 )
         blockers_.erase( obstacle.blocker );
   }
   Short& table = short_[ obstacle.table ];
   table.waiting += more ? 1 : -1;
   if( more ) {
      table.capacity = obstacle.limit;
      table.noMemory = obstacle.reason == parkedNoMemory_;
      table.fresh = true;
   }
}

// --- has it come? -------------------------------------------------------------------------------

bool Awaited::roomCame( Work work, const FreeRows& free ) const {
   for( uint32_t table = outputTableHost_; table < outputTables; ++table )
      if( workOn( OutputTable( table ) ) == work && short_[ table ].waiting != 0 &&
          !short_[ table ].fresh && free[ table ] > short_[ table ].freeWhenTried )
         return true;
   return false;
}

bool Awaited::retryDue( Work work, const FreeRows& free ) {
   if( entries_.empty() )
      return false;
   const bool due = std::exchange( due_[ work ], false ) || roomCame( work, free );
   rounds_[ work ] += due;
   return due;
}

bool Awaited::passEnded( Work work, bool retried, const FreeRows& free ) {
   bool came = !entries_.empty() && due_[ work ];
   for( uint32_t at = outputTableHost_; at < outputTables; ++at ) {
      if( workOn( OutputTable( at ) ) != work )
         continue;
      Short& table = short_[ at ];
      if( table.fresh || retried )
         table.freeWhenTried = free[ at ];
      table.freeWhenTried = std::min( table.freeWhenTried, free[ at ] );
      table.fresh = false;
      tellOfRoom( OutputTable( at ) );
   }
   return came || roomCame( work, free );
}

void Awaited::tellOfRoom( OutputTable at ) {
   Short& table = short_[ at ];
   if( ( table.waiting != 0 ) == table.told )
      return;
   table.told = table.waiting != 0;
   const std::string name = nameOf( at );
   if( !table.told )
      return Vexil::log( "the " + name + " has room again: no entry waits for it any more" );
   const std::string capacity = std::to_string( table.capacity );
   Vexil::log( ( table.noMemory
                    ? "no memory for the " + name + " to grow beyond " + capacity
                    : "the " + name + " is full at its highest capacity, " + capacity ) +
               ": " + std::to_string( table.waiting ) + " entries wait" );
}

// --- ages ---------------------------------------------------------------------------------------

bool Awaited::stands( const Age& age ) const {
   const Entry* const entry = entries_.find( age.key );
   return entry && entry->number == age.number;
}

void Awaited::clearAges() {
   while( !ages_.empty() && !stands( ages_.front() ) )
      ages_.pop_front();
   if( ages_.size() > 2 * entries_.size() + 64 )
      std::erase_if( ages_, [ this ]( const Age& age ) { return !stands( age ); } );
}

} // namespace L2Rib
