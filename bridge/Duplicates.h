// Addresses that move to and fro: two hosts with one address, or a loop (RFC 7432, section 15.1).
//
// An address that moves more often than that within a time is a duplicate, and stays frozen for the
// same time again: it is not published from here meanwhile. The clock is the caller's.
#pragma once

#include "L2Rib/NetTypes.h"
#include "runtime/Clock.h"
#include "runtime/HashMap.h"

#include <deque>
#include <vector>

namespace Bridge {

// Defaults of N and M in RFC 7432, section 15.1.
struct DuplicateLimits {
   unsigned moves = 5;
   Vexil::Seconds within = 180;
};

class Duplicates {
 public:
   enum class Side { here, elsewhere };

   explicit Duplicates( DuplicateLimits limits ) : limits_( limits ) {}

   // The address is on that side now. Returns whether this has made it a duplicate.
   bool moved( const Bridging::MacVlanPair& host, Side to, Vexil::Seconds now );
   bool frozen( const Bridging::MacVlanPair& host ) const;
   // Those whose time is over; they begin anew. Forgets what has not moved for long.
   std::vector<Bridging::MacVlanPair> thaw( Vexil::Seconds now );

 private:
   struct Moves {
      std::deque<Vexil::Seconds> times;
      Side side = Side::here;
      Vexil::Seconds frozenUntil = 0; // 0: it isn't
   };

   DuplicateLimits limits_;
   Vexil::HashMap<Bridging::MacVlanPair, Moves> moves_;
};

} // namespace Bridge
