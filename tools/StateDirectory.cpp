#include "tools/StateDirectory.h"

#include "L2Rib/L2RibTarn.h"
#include "runtime/TableFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace Tools {

StateDirectory::StateDirectory( std::string directory ) : directory_( std::move( directory ) ) {
   Vexil::makeFoldersFor( directory_ + "/" );
   requireOwned();
   requireAlone();
   requireWritable();
}

StateDirectory::~StateDirectory() { close( lock_ ); }

void StateDirectory::refuse( const std::string& reason ) const {
   throw std::runtime_error( "state directory " + directory_ + ": " + reason );
}

void StateDirectory::requireOwned() const {
   struct stat status {};
   if( stat( directory_.c_str(), &status ) != 0 )
      refuse( std::strerror( errno ) );
   if( !S_ISDIR( status.st_mode ) )
      refuse( "it is no directory" );
   if( status.st_uid != 0 && status.st_uid != geteuid() )
      refuse( "it belongs to user " + std::to_string( status.st_uid ) +
              ", who could replace the tables; it has to belong to root or to user " +
              std::to_string( geteuid() ) + ", who runs l2ribd" );
   if( status.st_mode & ( S_IWGRP | S_IWOTH ) ) {
      char mode[ 8 ];
      std::snprintf( mode, sizeof mode, "%04o", status.st_mode & 07777u );
      refuse( std::string( "other users may write it (mode " ) + mode +
              "); right would be 0750: chmod go-w " + directory_ );
   }
}

// A lock of the process, unlike those of the tables: of such a one the system says who has it.
void StateDirectory::requireAlone() {
   const std::string file = directory_ + "/.agent";
   lock_ = open( file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640 );
   if( lock_ < 0 )
      refuse( std::string( ".agent: " ) + std::strerror( errno ) );
   // Whatever the umask is. Refused when another user made it; it is his then.
   [[maybe_unused]] const int refused = fchmod( lock_, 0640 );
   struct flock wanted {};
   wanted.l_type = F_WRLCK;
   wanted.l_whence = SEEK_SET;
   if( fcntl( lock_, F_SETLK, &wanted ) == 0 )
      return;
   const int error = errno;
   struct flock other = wanted;
   const bool known = fcntl( lock_, F_GETLK, &other ) == 0 && other.l_type != F_UNLCK;
   close( lock_ );
   if( error != EAGAIN && error != EACCES )
      refuse( std::string( ".agent: locking: " ) + std::strerror( error ) );
   refuse( known && other.l_pid > 0 ? "agent PID " + std::to_string( other.l_pid ) + " runs here"
                                    : "another agent runs here" );
}

void StateDirectory::requireWritable() const {
   for( const char* path : { L2Rib::Path::floodOutput, L2Rib::Path::floodOutputSource,
                             L2Rib::Path::policySmStatus } ) {
      const std::string file = directory_ + "/" + path;
      Vexil::makeFoldersFor( file );
      if( Vexil::tableHasWriter( file ) )
         refuse( std::string( path ) + ": another process writes this table" );
      if( access( file.c_str(), W_OK ) == 0 )
         continue;
      if( errno != ENOENT )
         refuse( std::string( path ) + ": " + std::strerror( errno ) );
      constexpr off_t enough = 256 << 10; // for the file that is to be made
      const int error = posix_fallocate( lock_, 0, enough );
      if( error != 0 || ftruncate( lock_, 0 ) != 0 )
         refuse( std::string( "no room for " ) + path + ": " + std::strerror( error ) );
   }
}

} // namespace Tools
