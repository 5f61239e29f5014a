// What the bridges have learned, as hosts of a source: next is a dest of the interface, whose id is
// the ifindex, as is the dest's.
//
// A host that has come here from elsewhere, where the output still sees it, is published under the
// sequence number behind that one's, so that it wins (RFC 7432, section 15). It keeps its number
// while it stays. One that leaves, and is learned again when nobody else has it, begins at 0.
//
// What an earlier run has published under the same name is taken over: until complete(), what is
// learned keeps the number that it had, and complete() withdraws the rest.
#pragma once

#include "bridge/Duplicates.h"
#include "bridge/Reconciler.h"
#include "client/SourcePublisher.h"

#include <functional>
#include <map>

namespace Bridge {

// The kinds of hosts that this source publishes (entryType of its hosts).
constexpr L2Rib::EntryType entryTypeLearned{ 1 };
constexpr L2Rib::EntryType entryTypeConfigured{ 2 }; // a static entry that somebody made

class Learner {
 public:
   // Whom the output has the host from at present.
   using Winner = std::function<std::optional<L2Rib::HostAndSource>( const MacVlanPair& host )>;
   Learner( L2Rib::Client::SourcePublisher& source, uint32_t pref, DuplicateLimits limits,
            Vexil::Ptr<Vexil::Clock> clock, Winner winner );

   std::optional<Hold> learned( const MacVlanPair& host, uint32_t port, bool fixed );
   void forgotten( const MacVlanPair& host );
   // All that the bridges have learned so far has been told.
   void complete();

   // Hosts to be told again by learned(), if they are still there: their time as duplicates is
   // over, or there was no room for them.
   std::vector<MacVlanPair> takeDue();
   // Called when a host becomes a duplicate or ceases to be one.
   std::function<void( const MacVlanPair& host, bool frozen )> duplicate;

 private:
   bool publish( const MacVlanPair& host, uint32_t port, Vexil::Seqno32 seqNo, bool fixed );
   void useDest( uint32_t port, int change );
   bool freeze( const MacVlanPair& host, Duplicates::Side to );

   L2Rib::Client::SourcePublisher& source_;
   uint32_t pref_;
   DuplicateLimits limits_;
   Duplicates duplicates_;
   Vexil::Ptr<Vexil::Clock> clock_;
   Winner winner_;
   std::map<uint32_t, size_t> dests_;            // hosts on each
   Vexil::HashMap<MacVlanPair, uint32_t> ports_; // of what was learned in this run
   Vexil::KeySet<MacVlanPair> unpublished_;
   bool complained_ = false;
};

} // namespace Bridge
