#include "bench/Bird.h"

#include "bench/Harness.h"
#include "bench/Hosts.h"
#include "bench/Machine.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Bench {

namespace {

constexpr const char* program = "/usr/sbin/bird";
constexpr double pollGap = 100e-6; // seconds between two polls
constexpr double patience = 300;   // seconds for a start or a phase

// One protocol's routes are in a random order, as the hosts of a source's table are.
void writeConfiguration( const std::string& file, uint32_t routes ) {
   std::ofstream to( file );
   to << "router id 192.0.2.1;\n";
   for( uint32_t protocol = 1; protocol <= 3; ++protocol ) {
      to << "protocol static s" << protocol << " {\n   disabled;\n   ipv4 { preference "
         << 100 + 10 * protocol << "; };\n";
      for( const uint32_t number : shuffled( routes, protocol ) ) {
         const uint32_t address = 0x0a000000 + number;
         to << "   route " << ( address >> 24 ) << '.' << ( address >> 16 & 255 ) << '.'
            << ( address >> 8 & 255 ) << '.' << ( address & 255 ) << "/32 blackhole;\n";
      }
      to << "}\n";
   }
   if( !to.flush() )
      throw std::runtime_error( "bird: can't write " + file );
}

class Bird {
 public:
   Bird( const std::string& folder, uint32_t routes )
      : socketPath_( folder + "/bird.ctl" ), routes_( routes ) {
      const std::string configuration = folder + "/bird.conf";
      writeConfiguration( configuration, routes );
      start( configuration, folder + "/bird.pid" );
      connectTo( socketPath_ );
      measurePolling();
   }
   ~Bird() {
      if( socket_ >= 0 )
         close( socket_ );
      kill( id_, SIGTERM );
      waitpid( id_, nullptr, 0 );
   }
   Bird( const Bird& ) = delete;
   Bird& operator=( const Bird& ) = delete;
   pid_t id() const { return id_; }

   // Enables or disables one protocol and waits until all preferred routes are the winner's.
   BirdPhase run( const std::string& verb, int protocol, int winner ) {
      BirdPhase result{};
      const double processorBefore = processorSeconds( id_ );
      const int64_t start = nanoseconds();
      command( verb + " s" + std::to_string( protocol ) );
      int polls = 0;
      for( int64_t before = start;; before = nanoseconds() ) {
         ++polls;
         const bool done = preferred( winner ) == routes_;
         const int64_t now = nanoseconds();
         result.seconds = static_cast<double>( now - start ) * 1e-9;
         result.silence = std::max( result.silence, static_cast<double>( now - before ) * 1e-9 );
         if( done )
            break;
         if( result.seconds > patience )
            throw std::runtime_error( "bird: a phase does not end" );
         pause( pollGap );
      }
      result.processor = processorSeconds( id_ ) - processorBefore - polls * pollProcessor_;
      return result;
   }
   // Until nothing of a disabled protocol is left, so that the next phase starts clean.
   void waitUntilDown( int protocol ) {
      const std::string name = "s" + std::to_string( protocol );
      while( command( "show protocols " + name ).find( " down " ) == std::string::npos )
         pause( 0.01 );
   }

 private:
   void start( const std::string& configuration, const std::string& pidFile ) {
      id_ = fork();
      if( id_ == 0 ) {
         prctl( PR_SET_PDEATHSIG, SIGTERM ); // nothing outlives the run
         execl( program, program, "-f", "-c", configuration.c_str(), "-s", socketPath_.c_str(),
                "-P", pidFile.c_str(), static_cast<char*>( nullptr ) );
         _exit( 127 );
      }
      if( id_ < 0 )
         throw std::runtime_error( "bird: can't be started" );
   }

   void connectTo( const std::string& path ) {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      if( path.size() >= sizeof address.sun_path )
         throw std::runtime_error( "bird: the socket's path is too long: " + path );
      std::strcpy( address.sun_path, path.c_str() );
      socket_ = socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
      const int64_t start = nanoseconds();
      while( connect( socket_, reinterpret_cast<const sockaddr*>( &address ), sizeof address ) !=
             0 ) {
         if( waitpid( id_, nullptr, WNOHANG ) == id_ ||
             static_cast<double>( nanoseconds() - start ) * 1e-9 > patience )
            throw std::runtime_error( "bird: does not start" );
         pause( 0.01 );
      }
      readReply(); // its greeting, once the configuration is parsed
   }

   std::string command( const std::string& text ) {
      const std::string line = text + "\n";
      if( write( socket_, line.data(), line.size() ) != static_cast<ssize_t>( line.size() ) )
         throw std::runtime_error( "bird: does not listen" );
      return readReply();
   }

   // An answer ends with a line of four digits and a space; those before have a dash there.
   std::string readReply() {
      std::string reply;
      while( true ) {
         char buffer[ 4096 ];
         const ssize_t got = read( socket_, buffer, sizeof buffer );
         if( got <= 0 )
            throw std::runtime_error( "bird: does not answer" );
         reply.append( buffer, static_cast<size_t>( got ) );
         if( reply.back() != '\n' )
            continue;
         const size_t before =
            reply.size() < 2 ? std::string::npos : reply.rfind( '\n', reply.size() - 2 );
         const size_t last = before == std::string::npos ? 0 : before + 1;
         if( reply.size() - last >= 5 && std::isdigit( reply[ last ] ) &&
             reply[ last + 4 ] == ' ' ) {
            if( reply[ last ] == '8' || reply[ last ] == '9' )
               throw std::runtime_error( "bird: " + reply );
            return reply;
         }
      }
   }

   // How many routes of a protocol are the best of their network: a counter, not a walk.
   uint32_t preferred( int protocol ) {
      const std::string reply = command( "show protocols all s" + std::to_string( protocol ) );
      const size_t end = reply.find( " preferred" );
      if( end == std::string::npos )
         return 0; // it is down
      const size_t start = reply.rfind( ' ', end - 1 );
      return static_cast<uint32_t>( std::stoul( reply.substr( start + 1 ) ) );
   }

   void measurePolling() {
      constexpr int polls = 200;
      const double before = processorSeconds( id_ );
      for( int i = 0; i < polls; ++i )
         preferred( 1 );
      pollProcessor_ = ( processorSeconds( id_ ) - before ) / polls;
   }

   std::string socketPath_;
   uint32_t routes_;
   pid_t id_ = -1;
   int socket_ = -1;
   double pollProcessor_ = 0; // seconds of its processor time for one poll
};

} // namespace

bool birdInstalled() { return access( program, X_OK ) == 0; }

BirdResult runBird( const std::string& folder, uint32_t routes ) {
   std::filesystem::create_directories( folder );
   Bird bird( folder, routes );
   const auto atStart = static_cast<double>( residentMemory( bird.id() ) );
   BirdResult result{};
   result.phase[ 0 ] = bird.run( "enable", 1, 1 );
   result.phase[ 1 ] = bird.run( "enable", 2, 2 );
   result.phase[ 2 ] = bird.run( "enable", 3, 3 );
   result.allBytes = static_cast<double>( residentMemory( bird.id() ) );
   result.tableBytes = result.allBytes - atStart;
   result.phase[ 3 ] = bird.run( "disable", 3, 2 );
   bird.waitUntilDown( 3 );
   result.phase[ 4 ] = bird.run( "enable", 3, 3 );
   return result;
}

} // namespace Bench
