#include "bench/Machine.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <fstream>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace Bench {

namespace {

[[noreturn]] void systemFailure( const char* doing ) {
   throw std::system_error( errno, std::generic_category(), doing );
}

pid_t fork( const char* name, const std::function<void()>& work ) {
   std::fflush( nullptr );
   const pid_t id = ::fork();
   if( id < 0 )
      systemFailure( "fork" );
   if( id > 0 )
      return id;
   prctl( PR_SET_NAME, name );
   prctl( PR_SET_PDEATHSIG, SIGTERM ); // nothing outlives the run
   try {
      work();
   } catch( const std::exception& failure ) {
      std::fprintf( stderr, "benchmark process: %s\n", failure.what() );
      _exit( 1 );
   }
   _exit( 0 );
}

// The number behind a name in a file of "Name: number kB" lines, in bytes.
uint64_t kilobytesOf( const std::string& file, const std::string& name ) {
   std::ifstream lines( file );
   for( std::string line; std::getline( lines, line ); )
      if( line.compare( 0, name.size(), name ) == 0 )
         return std::strtoull( line.c_str() + name.size(), nullptr, 10 ) * 1024;
   return 0;
}

} // namespace

void runInProcess( const char* name, const std::function<void()>& work ) {
   const pid_t id = fork( name, work );
   int status = 0;
   while( waitpid( id, &status, 0 ) < 0 && errno == EINTR ) {
   }
   if( !WIFEXITED( status ) || WEXITSTATUS( status ) != 0 )
      throw std::runtime_error( "a benchmark process failed" );
}

void* sharedMemory( size_t size ) {
   void* const memory =
      mmap( nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
   if( memory == MAP_FAILED )
      systemFailure( "shared memory" );
   return memory;
}

void releaseSharedMemory( void* memory, size_t size ) { munmap( memory, size ); }

Child::Child( const char* name, const std::function<void()>& work ) : id_( fork( name, work ) ) {}

Child::~Child() {
   kill( id_, SIGTERM );
   while( waitpid( id_, nullptr, 0 ) < 0 && errno == EINTR ) {
   }
}

void pinTo( int processor ) {
   if( sysconf( _SC_NPROCESSORS_ONLN ) <= processor )
      return;
   cpu_set_t set;
   CPU_ZERO( &set );
   CPU_SET( processor, &set );
   sched_setaffinity( 0, sizeof set, &set );
}

double processorSeconds() {
   rusage used;
   getrusage( RUSAGE_SELF, &used );
   const auto seconds = []( const timeval& time ) {
      return static_cast<double>( time.tv_sec ) + static_cast<double>( time.tv_usec ) * 1e-6;
   };
   return seconds( used.ru_utime ) + seconds( used.ru_stime );
}

double processorSeconds( pid_t id ) {
   const std::string folder = "/proc/" + std::to_string( id );
   // To the nanosecond where the kernel keeps it so, else in clock ticks.
   double ran = 0;
   if( std::ifstream( folder + "/schedstat" ) >> ran )
      return ran * 1e-9;
   std::ifstream stat( folder + "/stat" );
   std::string text;
   std::getline( stat, text, ')' ); // the name may hold anything
   double user = 0;
   double system = 0;
   for( int i = 0; i < 11; ++i )
      stat >> text;
   stat >> user >> system;
   return ( user + system ) / static_cast<double>( sysconf( _SC_CLK_TCK ) );
}

uint64_t privateMemory( pid_t id ) {
   return kilobytesOf( "/proc/" + std::to_string( id ) + "/status", "RssAnon:" );
}

uint64_t residentMemory( pid_t id ) {
   return kilobytesOf( "/proc/" + std::to_string( id ) + "/status", "VmRSS:" );
}

uint64_t residentOf( const std::string& file ) {
   struct stat status {};
   return stat( file.c_str(), &status ) == 0 ? static_cast<uint64_t>( status.st_blocks ) * 512 : 0;
}

Mapped mappedUnder( const std::string& folder ) {
   Mapped sum;
   bool counts = false;
   std::ifstream lines( "/proc/self/smaps" );
   for( std::string line; std::getline( lines, line ); ) {
      std::istringstream words( line );
      std::string name;
      uint64_t kilobytes = 0;
      words >> name;
      if( name.back() != ':' )
         counts = line.find( ' ' + folder ) != std::string::npos;
      else if( counts && words >> kilobytes ) {
         if( name == "Rss:" )
            sum.resident += kilobytes * 1024;
         else if( name == "ShmemPmdMapped:" )
            sum.huge += kilobytes * 1024;
      }
   }
   return sum;
}

void makeMemoryHuge() {
   constexpr int collapse = 25; // MADV_COLLAPSE, which older headers don't have
   std::ifstream lines( "/proc/self/maps" );
   for( std::string line; std::getline( lines, line ); ) {
      unsigned long start = 0;
      unsigned long end = 0;
      char mode[ 5 ] = "";
      if( std::sscanf( line.c_str(), "%lx-%lx %4s", &start, &end, mode ) == 3 && mode[ 2 ] == '-' &&
          end - start >= ( 2u << 20 ) )
         madvise( reinterpret_cast<void*>( start ), end - start, collapse );
   }
}

void pause( double seconds ) {
   timespec time{ static_cast<time_t>( seconds ),
                  static_cast<long>(
                     ( seconds - static_cast<double>( static_cast<time_t>( seconds ) ) ) * 1e9 ) };
   ppoll( nullptr, 0, &time, nullptr );
}

} // namespace Bench
