#include "engine/HostRank.h"

namespace L2Rib {

const char* rankRuleStr( RankRule rule ) {
   switch( rule ) {
   case RankRule::pref:
      return "pref";
   case RankRule::seqNo:
      return "seqNo";
   case RankRule::inlineOverObject:
      return "inline over object";
   case RankRule::ciDest:
      return "ciDest";
   case RankRule::source:
      return "source";
   }
   return "unknown";
}

Ranking rankHost( const Host& host, Source source, const Host& curBestHost,
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
