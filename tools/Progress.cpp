#include "tools/Progress.h"

#include <iostream>
#include <unistd.h>

namespace Tools {

namespace {

constexpr std::chrono::milliseconds untilTheFirst( 500 );
constexpr std::chrono::milliseconds between( 100 );

} // namespace

Progress::Progress()
   : terminal_( isatty( STDERR_FILENO ) == 1 ), next_( Clock::now() + untilTheFirst ) {}

Progress::~Progress() {
   if( shown_ )
      std::cerr << "\r\033[K" << std::flush; // ECMA-48, section 8.3.41: erase the rest of the line
}

void Progress::at( const std::string& what ) {
   if( !terminal_ || Clock::now() < next_ )
      return;
   next_ = Clock::now() + between;
   shown_ = true;
   std::cerr << "\r\033[K" << what.substr( 0, 78 ) << std::flush;
}

void Progress::at( const char* what, uint64_t done, uint64_t all ) {
   if( terminal_ && done % 1024 == 0 )
      at( std::string( what ) + ": " + std::to_string( done ) + " of " + std::to_string( all ) );
}

} // namespace Tools
