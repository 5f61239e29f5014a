#include "runtime/ServiceNotifier.h"

#include "runtime/Trace.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Vexil {

namespace {

constexpr Seconds progressInterval = 0.25;

std::optional<unsigned long long> numberIn( const char* variable ) {
   const char* const text = std::getenv( variable );
   if( !text || !*text )
      return std::nullopt;
   char* end = nullptr;
   errno = 0;
   const unsigned long long number = std::strtoull( text, &end, 10 );
   if( *end == '\0' && errno == 0 && *text != '-' )
      return number;
   log( std::string( variable ) + "=" + text + ": no number; it is not looked at" );
   return std::nullopt;
}

} // namespace

ServiceNotifier::ServiceNotifier( ActivityManager& loop )
   : loop_( loop ), progressTimer_( loop.clock(), [ this ] { tellProgress(); } ),
     watchdogTimer_( loop.clock(), [ this ] { feedWatchdog(); } ) {
   progressTimer_.timeMinIs( never );
   watchdogTimer_.timeMinIs( never );
   const char* const name = std::getenv( "NOTIFY_SOCKET" );
   if( !name || !*name )
      return;
   if( ( *name != '/' && *name != '@' ) ||
       std::strlen( name ) >= sizeof( sockaddr_un::sun_path ) ) {
      log( std::string( "NOTIFY_SOCKET=" ) + name + ": no socket of a kind that is known" );
      return;
   }
   socketName_ = name;
   if( *name == '@' )
      socketName_[ 0 ] = '\0'; // the abstract namespace
   socket_ = socket( AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0 );
   if( const auto microseconds = numberIn( "WATCHDOG_USEC" );
       microseconds && *microseconds > 0 &&
       numberIn( "WATCHDOG_PID" ).value_or( static_cast<unsigned long long>( getpid() ) ) ==
          static_cast<unsigned long long>( getpid() ) )
      watchdogPeriod_ = static_cast<Seconds>( *microseconds ) * 1e-6 / 2;
}

ServiceNotifier::~ServiceNotifier() {
   if( socket_ >= 0 )
      close( socket_ );
}

bool ServiceNotifier::send( const std::string& lines, int flags ) const {
   if( socket_ < 0 )
      return true;
   sockaddr_un address{};
   address.sun_family = AF_UNIX;
   std::memcpy( address.sun_path, socketName_.data(), socketName_.size() );
   const auto size =
      static_cast<socklen_t>( offsetof( sockaddr_un, sun_path ) + socketName_.size() );
   return sendto( socket_, lines.data(), lines.size(), flags | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>( &address ), size ) >= 0 ||
          errno != EAGAIN;
}

void ServiceNotifier::ready( std::function<BaseAgent::Progress()> progress ) {
   if( socket_ < 0 )
      return;
   progress_ = std::move( progress );
   send( "READY=1" );
   tellProgress();
   feedWatchdog();
}

void ServiceNotifier::stopping() {
   progressTimer_.timeMinIs( never );
   send( "STOPPING=1\nSTATUS=stopping", MSG_DONTWAIT );
}

// A manager that is slow to read must not hold up the event loop: what finds no room is told again
// the next time.
void ServiceNotifier::tellProgress() {
   const auto [ complete, text ] = progress_();
   if( text != told_ && send( "STATUS=" + text, MSG_DONTWAIT ) )
      told_ = text;
   if( !complete || text != told_ )
      progressTimer_.timeMinIs( loop_.clock()->now() + progressInterval );
}

void ServiceNotifier::feedWatchdog() {
   if( watchdogPeriod_ == never )
      return;
   send( "WATCHDOG=1", MSG_DONTWAIT );
   watchdogTimer_.timeMinIs( loop_.clock()->now() + watchdogPeriod_ );
}

} // namespace Vexil
