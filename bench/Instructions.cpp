// What bench/instructions counts under callgrind: the phases of the merge, and changes that an
// engine at rest reads from a source's journal.
#include "bench/MergeEngine.h"

#include <cstdio>
#include <cstdlib>

int main( int argumentCount, char** arguments ) {
   if( argumentCount != 4 ) {
      std::fprintf( stderr, "usage: l2ribinstructions DIR KEYS CHANGES\n" );
      return 2;
   }
   const auto number = [ & ]( int at ) {
      return static_cast<uint32_t>( std::atoi( arguments[ at ] ) );
   };
   Bench::fillSources( arguments[ 1 ], number( 2 ) );
   Bench::runPhasesAndChanges( arguments[ 1 ], number( 2 ), number( 3 ) );
}
