// What the agent could not program, for people and for programs: one text for each reason, used by
// whatever shows it.
#pragma once

#include "L2Rib/Status.h"
#include "tools/Show.h"

#include <optional>
#include <string>
#include <vector>

namespace Tools {

// "host output full (16384)", "dest 99 of source evpn does not exist".
std::string reasonText( const L2Rib::ParkedRecord& parked, const SourceNames& names );
// One word, as metrics label it: "tableFull", "objectAbsent".
const char* reasonName( L2Rib::ParkedReason reason );
// Parked because the agent has no room, memory or id for it: no source's mistake.
bool isForWantOfRoom( L2Rib::ParkedReason reason );

// All parked entries are tried in each round of retries, of which the agent keeps count.
class RetryRounds {
 public:
   explicit RetryRounds( const Context& context );
   uint64_t triesOf( const L2Rib::ParkedRecord& parked ) const;

 private:
   L2Rib::AgentStatusRecord figures_;
};
// "1 try", "9 tries".
std::string triesText( uint64_t tries );

// {"kind","mac","vlan" or "type","id","source","sourceName","reason","since","tries"}.
Json toJson( const L2Rib::ParkedRecord& parked, const SourceNames& names,
             const RetryRounds& rounds );

// The row of that host; none when it is not parked.
std::optional<L2Rib::ParkedRecord> parkedHost( const Context& context,
                                               const Bridging::MacVlanPair& key );

// All parked entries: hosts by VLAN and MAC, then objects, then flood members. The agent lists as
// many as it has room for; how many there are it knows in any case.
class ParkedEntries {
 public:
   // None when no agent has written the table.
   explicit ParkedEntries( const Context& context );

   const std::vector<L2Rib::ParkedRecord>& all() const { return all_; }
   // What waits for room, summed up: "33828 hosts, host output full (16384)", a text for each kind
   // and reason; empty when nothing does.
   std::vector<std::string> forWantOfRoom( const SourceNames& names ) const;
   // What waits for its source to mend something, an entry a text: the first ten, then how many
   // more there are.
   std::vector<std::string> forSources( const SourceNames& names ) const;

 private:
   std::vector<L2Rib::ParkedRecord> all_;
   uint64_t unlistedForRoom_ = 0;
   uint64_t unlistedForSources_ = 0;
};

} // namespace Tools
