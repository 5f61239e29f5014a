#include "runtime/Descriptors.h"

#include "runtime/TableFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace Vexil {

void raiseDescriptorLimit() {
   rlimit limit{};
   if( getrlimit( RLIMIT_NOFILE, &limit ) != 0 )
      return;
   limit.rlim_cur = limit.rlim_max;
   setrlimit( RLIMIT_NOFILE, &limit ); // up to the hard limit it is never refused
}

// The system gives the lowest number that is free: where that is high, all below are taken.
void requireSpareDescriptor( const std::string& path ) {
   rlimit limit{};
   const int lowest = open( "/dev/null", O_RDONLY | O_CLOEXEC );
   const int error = errno;
   if( lowest >= 0 )
      close( lowest );
   if( getrlimit( RLIMIT_NOFILE, &limit ) != 0 )
      return;
   if( lowest < 0 ||
       static_cast<rlim_t>( lowest ) + static_cast<rlim_t>( descriptorReserve ) >= limit.rlim_cur )
      throw TableError( TableError::system,
                        path + ": opening: " + std::strerror( lowest < 0 ? error : EMFILE ) );
}

} // namespace Vexil
