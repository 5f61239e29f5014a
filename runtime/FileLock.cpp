#include "runtime/FileLock.h"

#include "runtime/TableFile.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace Vexil {

FileLock::FileLock( const std::string& file )
   : FileLock( file, std::numeric_limits<double>::infinity() ) {}

FileLock::FileLock( const std::string& file, double longestWait ) {
   using Clock = std::chrono::steady_clock;
   const auto begin = Clock::now();
   const auto waited = [ & ] {
      return std::chrono::duration<double>( Clock::now() - begin ).count() >= longestWait;
   };
   makeFoldersFor( file );
   fd_ = open( file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640 );
   int locked = -1;
   if( fd_ >= 0 ) {
      // Whatever the umask of its maker was. Refused when another user made it; it is his then.
      [[maybe_unused]] const int refused = fchmod( fd_, 0640 );
      while( ( locked = flock( fd_, LOCK_EX | LOCK_NB ) ) != 0 &&
             ( errno == EWOULDBLOCK || errno == EINTR ) && !waited() )
         std::this_thread::sleep_for( std::chrono::milliseconds( 2 ) );
   }
   if( locked == 0 )
      return;
   const int error = errno;
   if( fd_ >= 0 )
      close( fd_ );
   if( error == EWOULDBLOCK )
      throw TableError( TableError::busy, file + ": another process has had this lock for " +
                                             std::to_string( static_cast<int>( longestWait ) ) +
                                             " seconds" );
   throw TableError( TableError::system, file + ": locking: " + std::strerror( error ) );
}

FileLock::~FileLock() { close( fd_ ); }

} // namespace Vexil
