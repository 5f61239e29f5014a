#include "runtime/StateDirectory.h"

#include "runtime/TableFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace Vexil {

void requireStateDirectory( const std::string& directory ) {
   const auto refuse = [ & ]( const std::string& reason ) {
      throw std::runtime_error( "state directory " + directory + ": " + reason );
   };
   makeFoldersFor( directory + "/" );
   struct stat status {};
   if( stat( directory.c_str(), &status ) != 0 )
      refuse( std::strerror( errno ) );
   if( !S_ISDIR( status.st_mode ) )
      refuse( "it is no directory" );
   if( status.st_uid != 0 && status.st_uid != geteuid() )
      refuse( "it belongs to user " + std::to_string( status.st_uid ) +
              ", who could replace the tables; it has to belong to root or to user " +
              std::to_string( geteuid() ) + ", who runs this daemon" );
   if( status.st_mode & ( S_IWGRP | S_IWOTH ) ) {
      char mode[ 8 ];
      std::snprintf( mode, sizeof mode, "%04o", status.st_mode & 07777u );
      refuse( std::string( "other users may write it (mode " ) + mode +
              "); expected 0750: chmod go-w " + directory );
   }
}

} // namespace Vexil
