#include "bridge/Duplicates.h"

namespace Bridge {

using Bridging::MacVlanPair;

bool Duplicates::moved( const MacVlanPair& host, Side to, Vexil::Seconds now ) {
   const auto [ moves, fresh ] = moves_.emplace( host );
   if( ( !fresh && moves->side == to ) || moves->frozenUntil > 0 )
      return false;
   moves->side = to;
   while( !moves->times.empty() && moves->times.front() + limits_.within <= now )
      moves->times.pop_front();
   moves->times.push_back( now );
   if( moves->times.size() <= limits_.moves )
      return false;
   moves->frozenUntil = now + limits_.within;
   return true;
}

bool Duplicates::frozen( const MacVlanPair& host ) const {
   const Moves* const moves = moves_.find( host );
   return moves && moves->frozenUntil > 0;
}

std::vector<MacVlanPair> Duplicates::thaw( Vexil::Seconds now ) {
   std::vector<MacVlanPair> thawed;
   for( auto at = moves_.begin(); at != moves_.end(); ++at ) {
      const Moves& moves = at->value;
      const bool over = moves.frozenUntil > 0 && moves.frozenUntil <= now;
      if( over )
         thawed.push_back( at->key );
      if( over || ( moves.frozenUntil == 0 && moves.times.back() + limits_.within <= now ) )
         moves_.erase( MacVlanPair( at->key ) );
   }
   return thawed;
}

} // namespace Bridge
