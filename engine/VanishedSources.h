// Which sources are gone, and what is kept for them: is this row or member still held?
//
// A source that was ready and vanishes is likely to be back in a moment, and readers should not
// notice. Until its hold is over, its hosts and its flood members stay in the output unexamined.
// A hold binds only the walks that the engine starts by itself (at the end of a hold, when a source
// is back, when a journal was read too late): they pass over what is held. What is decided for
// another reason is decided from the ready sources alone: a ready source that says something about
// the same host or member takes it over, and what was queued or parked when its source went is
// decided like everything else.
//
// Rows name their source by its value, so one value has one hold: that of the source that had it
// last. Times are those of the engine's clock.
#pragma once

#include "L2Rib/SourceDir.h"
#include "runtime/Clock.h"

#include <algorithm>
#include <map>
#include <utility>

namespace L2Rib {

class VanishedSources {
 public:
   // A source that was ready is gone. Its entry stands still from now on: its flood sets say which
   // members it had.
   void sourceIs( Source source, Vexil::Ptr<const SourceDirEntry> entry, Vexil::Seconds now,
                  Vexil::Seconds holdTime ) {
      held_[ source ] = { std::move( entry ), now, now + holdTime };
   }
   // The hold of that source is over; whether there was one.
   bool sourceDel( Source source ) { return held_.erase( source ) != 0; }
   // Ends every hold whose time has come; whether there was one.
   bool endHolds( Vexil::Seconds now ) {
      return std::erase_if( held_,
                            [ & ]( const auto& entry ) { return entry.second.until <= now; } ) != 0;
   }
   // When the next hold ends; never, when there is none.
   Vexil::Seconds nextEnd() const {
      Vexil::Seconds next = Vexil::never;
      for( const auto& [ source, held ] : held_ )
         next = std::min( next, held.until );
      return next;
   }
   // Since when the source is gone; never, when it is not held.
   Vexil::Seconds goneSince( Source source ) const {
      const auto found = held_.find( source );
      return found == held_.end() ? Vexil::never : found->second.since;
   }

   // Whether the output's host of that source is held.
   bool keepsHost( Source source ) const { return held_.contains( source ); }
   // Whether a source that is held had that member.
   bool keepsMember( const FloodSetTriple& member ) const {
      return std::ranges::any_of( held_, [ & ]( const auto& entry ) {
         const auto sets = entry.second.entry->vlanFloodSet( member.vlan() );
         const auto set = sets ? sets->floodSet( member.mac() ) : nullptr;
         return set && set->destSet( member.dest() );
      } );
   }

 private:
   struct Held {
      Vexil::Ptr<const SourceDirEntry> entry;
      Vexil::Seconds since;
      Vexil::Seconds until;
   };
   std::map<Source, Held> held_;
};

} // namespace L2Rib
