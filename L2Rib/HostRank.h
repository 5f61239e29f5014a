// Which of two hosts of different sources is the better one.
//
// The one comparator of the system: the engine decides with it, and l2ribctl explains with it.
#pragma once

#include "L2Rib/L2Rib.h"

namespace L2Rib {

// The first rule that told the two apart.
enum class RankRule { pref, seqNo, inlineOverObject, ciDest, source };
// "pref", "seqNo", "inline over object", "ciDest", "source".
const char* rankRuleStr( RankRule rule );

struct Ranking {
   bool better; // the host beats the current best
   RankRule rule;
};

// Ranks host of source against curBestHost of curBestHostSource, which is another source. Two hosts
// are never equal, so the result for the swapped arguments is the opposite one. The sequence
// numbers are compared in the serial-number order of RFC 1982, which is not transitive: among three
// hosts the winner may depend on the order in which they are compared. Whoever ranks more than two
// takes the sources in the order of the engine's sourceSm collection, which depends on their names
// alone.
inline Ranking rankHost( const Host& host, Source source, const Host& curBestHost,
                         Source curBestHostSource ) {
   if( host.pref() != curBestHost.pref() )
      return { host.pref() > curBestHost.pref(), RankRule::pref };
   if( curBestHost.seqNo() < host.seqNo() )
      return { true, RankRule::seqNo };
   if( host.seqNo() < curBestHost.seqNo() )
      return { false, RankRule::seqNo };

   const bool isInline = host.next() == Util::objTupleInvalid();
   const bool curBestIsInline = curBestHost.next() == Util::objTupleInvalid();
   if( isInline != curBestIsInline )
      return { isInline, RankRule::inlineOverObject };
   if( isInline )
      if( const int cmp = curBestHost.ciDest().cmp( host.ciDest() ); cmp != 0 )
         return { cmp < 0, RankRule::ciDest };
   return { static_cast<uint32_t>( source ) > static_cast<uint32_t>( curBestHostSource ),
            RankRule::source };
}

} // namespace L2Rib
