#include "tools/SourceRun.h"

#include "runtime/ActivityManager.h"
#include "tools/Commands.h"
#include "tools/Operations.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace Tools {

namespace {

// Cuts what is read into lines and has each carried out. Memory is bounded: of a line that is too
// long only the fact is kept.
class LineReader {
 public:
   explicit LineReader( Operations& operations ) : operations_( operations ) {}

   void take( std::string_view block ) {
      while( !block.empty() ) {
         const size_t end = block.find( '\n' );
         append( block.substr( 0, end ) );
         if( end == block.npos )
            return;
         endLine();
         block.remove_prefix( end + 1 );
      }
   }
   // A last line without a line end counts.
   void end() {
      if( !line_.empty() || tooLong_ )
         endLine();
   }
   bool rejectedAny() const { return rejected_; }

 private:
   static constexpr size_t longest = 1 << 20;

   void append( std::string_view part ) {
      tooLong_ = tooLong_ || line_.size() + part.size() > longest;
      if( tooLong_ )
         line_.clear();
      else
         line_ += part;
   }
   void endLine() {
      ++number_;
      if( tooLong_ )
         reject( "longer than 1 MiB; expected one operation a line" );
      else if( line_.find_first_not_of( " \t\r" ) != line_.npos )
         if( const auto bad = operations_.carryOut( line_ ) )
            reject( *bad );
      line_.clear();
      tooLong_ = false;
   }
   void reject( const std::string& why ) {
      rejected_ = true;
      complain( "line " + std::to_string( number_ ) + ": " + why );
   }

   Operations& operations_;
   std::string line_;
   uint64_t number_ = 0;
   bool tooLong_ = false;
   bool rejected_ = false;
};

// Whether the loop can wait for it; a regular file, say, is always ready instead.
bool canBeWaitedFor( int fd ) {
   struct stat status {};
   return fstat( fd, &status ) == 0 &&
          ( S_ISFIFO( status.st_mode ) || S_ISSOCK( status.st_mode ) || isatty( fd ) );
}

// Gives each block of standard input to take() until it ends or a signal says so. False when it
// could not be read.
bool readInput( const std::function<void( std::string_view )>& take ) {
   Vexil::ActivityManager loop;
   bool ended = false;
   bool readable = true;
   for( const int signal : { SIGINT, SIGTERM } )
      loop.signalIs( signal, [ & ] { ended = true; } );
   std::vector<char> block( 256 * 1024 );
   const auto readBlock = [ & ] {
      const ssize_t got = ::read( STDIN_FILENO, block.data(), block.size() );
      if( got < 0 && ( errno == EINTR || errno == EAGAIN ) )
         return;
      if( got < 0 ) {
         complain( std::string( "standard input: " ) + std::strerror( errno ) );
         readable = false;
      }
      if( got <= 0 )
         ended = true;
      else
         take( std::string_view( block.data(), static_cast<size_t>( got ) ) );
   };
   const bool wait = canBeWaitedFor( STDIN_FILENO );
   if( wait )
      loop.watch( STDIN_FILENO, readBlock );
   while( !ended ) {
      loop.turn( wait ? Vexil::never : 0 );
      if( !wait && !ended )
         readBlock();
   }
   return readable;
}

} // namespace

int runSource( const L2Rib::Client::SourceOptions& options, bool keep ) {
   std::signal( SIGPIPE, SIG_IGN ); // nobody may be listening to the answers
   L2Rib::Client::SourcePublisher source( options );
   Operations operations( source, []( uint64_t count ) {
      // Not through std::cout: an answer that nobody listens to is no failure.
      const std::string answer = "{\"synced\":" + std::to_string( count ) + "}\n";
      [[maybe_unused]] const ssize_t wrote = ::write( STDOUT_FILENO, answer.data(), answer.size() );
   } );
   LineReader lines( operations );
   const bool readable = readInput( [ & ]( std::string_view block ) {
      lines.take( block );
      source.flush();
   } );
   lines.end();
   if( keep )
      source.flush();
   else
      source.withdraw();
   if( !readable )
      return answerIsNo;
   return lines.rejectedAny() ? inputRejected : done;
}

} // namespace Tools
