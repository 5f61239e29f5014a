// What the agent could not program, for people and for programs: one text for each reason, used by
// whatever shows it.
#pragma once

#include "L2Rib/Parked.h"
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

// A parked entry, and how often it has been tried.
struct ParkedEntry : L2Rib::ParkedRecord {
   uint64_t tries = 1;
};

// "since 14:02:11, 9 tries"; the date too, when it was another day.
std::string triedText( const ParkedEntry& parked );

// {"kind","mac","vlan" or "type","id","source","sourceName","reason","since","tries"}.
Json toJson( const ParkedEntry& parked, const SourceNames& names );

// The row of that host; none when it is not parked.
std::optional<ParkedEntry> parkedHost( const Context& context, const Bridging::MacVlanPair& key );

// All parked entries: hosts by VLAN and MAC, then objects, then flood members. The agent lists as
// many as it has room for; how many there are it knows in any case.
class ParkedEntries {
 public:
   // None when no agent has written the table.
   explicit ParkedEntries( const Context& context );

   const std::vector<ParkedEntry>& all() const { return all_; }
   // What waits for room, summed up: "33828 hosts, host output full (16384)", a text for each kind
   // and reason; empty when nothing does.
   std::vector<std::string> forWantOfRoom( const SourceNames& names ) const;
   // What waits for its source to mend something, an entry a text: the first ten, then how many
   // more there are.
   std::vector<std::string> forSources( const SourceNames& names ) const;

 private:
   uint64_t& unlisted( L2Rib::ParkedReason reason ) {
      return isForWantOfRoom( reason ) ? unlistedForRoom_ : unlistedForSources_;
   }

   std::vector<ParkedEntry> all_;
   uint64_t unlistedForRoom_ = 0;
   uint64_t unlistedForSources_ = 0;
};

} // namespace Tools
