// The data of the benchmarks: hosts with an inline destination, under keys as a large bridged
// network has them, and the orders in which they are written and read.
#pragma once

#include "L2Rib/L2RibTarn.h"

#include <cstdint>
#include <numeric>
#include <random>
#include <vector>

namespace Bench {

using Key = Bridging::MacVlanPair;

inline Key keyOf( uint32_t number ) {
   return Key( Vexil::EthAddr( 0x020000000000 + uint64_t( number ) ),
               Bridging::VlanId( 1 + number % 4000 ) );
}

inline L2Rib::Host hostOf( uint32_t number, uint32_t pref ) {
   L2Rib::Host host( keyOf( number ) );
   host.prefIs( pref );
   L2Rib::CiDest destination( L2Rib::destTypeDefault_ );
   destination.payloadIs( 1 + number % 512 );
   host.ciDestIs( destination );
   return host;
}

inline L2Rib::HostAndSource rowOf( uint32_t number, uint32_t pref ) {
   return L2Rib::HostAndSource( keyOf( number ), hostOf( number, pref ), L2Rib::sourceBit6_ );
}

// 0 to count - 1 in an order that the seed gives.
inline std::vector<uint32_t> shuffled( uint32_t count, uint32_t seed ) {
   std::vector<uint32_t> order( count );
   std::iota( order.begin(), order.end(), 0 );
   std::shuffle( order.begin(), order.end(), std::mt19937( seed ) );
   return order;
}

} // namespace Bench
