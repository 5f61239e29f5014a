// What every workload is given, and the few tools that all of them share: the clock, the median,
// and the barrier that keeps the compiler from leaving out what nobody looks at.
//
// A workload measures the project and its rivals in turns (A B C, B C A, ...), so that whatever
// else the machine does meanwhile meets all of them alike, and reports medians.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace Bench {

class Report;

struct Settings {
   double scale = 1;      // 0 to 1: of sizes and repetitions
   std::string directory; // private to this run, for tables and for the rivals' files
   std::string filter;    // a part of the names of the cases to run; empty: all

   // Whether the case of that name, such as "get/16384", is to run.
   bool wants( const std::string& name ) const { return name.find( filter ) != name.npos; }

   uint32_t size( uint32_t full ) const {
      return std::max( 64u, static_cast<uint32_t>( full * scale ) );
   }
   int repetitions( int full ) const {
      return std::max( std::min( full, 3 ), static_cast<int>( full * scale ) );
   }
};

// The workloads. Each runs the cases that are wanted, prints progress to standard error and adds
// its figures to the report.
void benchGet( const Settings& settings, Report& report );
void benchSet( const Settings& settings, Report& report );
void benchGrow( const Settings& settings, Report& report );
void benchWake( const Settings& settings, Report& report );
void benchMerge( const Settings& settings, Report& report );
void benchObjects( const Settings& settings, Report& report );
void benchRestart( const Settings& settings, Report& report );
void benchHold( const Settings& settings, Report& report );
void benchFlood( const Settings& settings, Report& report );
void benchBridge( const Settings& settings, Report& report );
void benchEvpn( const Settings& settings, Report& report );

// Nanoseconds of the monotonic clock, the same in every process.
inline int64_t nanoseconds() {
   timespec now;
   clock_gettime( CLOCK_MONOTONIC, &now );
   return now.tv_sec * 1'000'000'000 + now.tv_nsec;
}

// Makes the compiler believe that all bytes of the value are looked at.
template<class T>
inline void keep( const T& value ) {
   asm volatile( "" : : "m"( value ) : "memory" );
}

// The value that a share of the samples lies below; 0.5 gives the median. Not of an empty set.
inline double quantile( std::vector<double> samples, double share ) {
   const auto at = static_cast<size_t>( static_cast<double>( samples.size() - 1 ) * share + 0.5 );
   std::nth_element( samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>( at ),
                     samples.end() );
   return samples[ at ];
}
inline double median( std::vector<double> samples ) {
   return quantile( std::move( samples ), 0.5 );
}

} // namespace Bench
