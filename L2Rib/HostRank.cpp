#include "L2Rib/HostRank.h"

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

} // namespace L2Rib
