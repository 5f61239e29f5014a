#include "runtime/ActivityManager.h"

#include "runtime/Failure.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

namespace Vexil {

ActivityManager::ActivityManager( Ptr<Clock> clock )
   : clock_( std::move( clock ) ), epoll_( epoll_create1( EPOLL_CLOEXEC ) ) {
   if( epoll_ < 0 )
      throw std::system_error( errno, std::generic_category(), "epoll_create1" );
}

ActivityManager::~ActivityManager() {
   if( signals_ >= 0 )
      close( signals_ );
   close( epoll_ );
}

void ActivityManager::watch( int fd, std::function<void()> readable ) {
   const bool known = watched_.contains( fd );
   watched_[ fd ] = std::move( readable );
   epoll_event event{};
   event.events = EPOLLIN;
   event.data.fd = fd;
   if( !known && epoll_ctl( epoll_, EPOLL_CTL_ADD, fd, &event ) != 0 )
      throw std::system_error( errno, std::generic_category(), "watching a descriptor" );
}

void ActivityManager::unwatch( int fd ) {
   if( watched_.erase( fd ) > 0 )
      epoll_ctl( epoll_, EPOLL_CTL_DEL, fd, nullptr );
}

void ActivityManager::signalIs( int signal, std::function<void()> handler ) {
   signalHandlers_[ signal ] = std::move( handler );
   sigset_t handled;
   sigemptyset( &handled );
   for( const auto& [ number, ignored ] : signalHandlers_ )
      sigaddset( &handled, number );
   sigprocmask( SIG_BLOCK, &handled, nullptr );
   const int fd = signalfd( signals_, &handled, SFD_NONBLOCK | SFD_CLOEXEC );
   if( fd < 0 )
      throw std::system_error( errno, std::generic_category(), "signalfd" );
   signals_ = fd;
   watch( signals_, [ this ] { readSignals(); } );
}

void ActivityManager::readSignals() {
   signalfd_siginfo info;
   while( read( signals_, &info, sizeof info ) == sizeof info ) {
      const auto found = signalHandlers_.find( static_cast<int>( info.ssi_signo ) );
      if( found != signalHandlers_.end() )
         found->second();
   }
}

std::shared_ptr<void> ActivityManager::atEndOfTurn( std::function<void()> work ) {
   std::erase_if( endOfTurn_, []( const auto& kept ) { return kept.expired(); } );
   const auto kept = std::make_shared<std::function<void()>>( std::move( work ) );
   endOfTurn_.push_back( kept );
   return kept;
}

void ActivityManager::turn( Seconds longestWait ) {
   const Seconds wait = std::min( longestWait, clock_->nextWake() - clock_->now() );
   // Rounded up, so that a timer is due when the wait for it is over.
   const int milliseconds =
      wait == never ? -1 : static_cast<int>( std::clamp( std::ceil( wait * 1000 ), 0.0, 1e9 ) );
   std::array<epoll_event, 16> events;
   const int ready = epoll_wait( epoll_, events.data(), events.size(), milliseconds );
   if( ready < 0 && errno != EINTR )
      throw std::system_error( errno, std::generic_category(), "epoll_wait" );

   const Seconds start = clock_->now();
   for( int i = 0; i < ready; ++i ) {
      const auto found = watched_.find( events[ static_cast<size_t>( i ) ].data.fd );
      if( found == watched_.end() )
         continue; // unwatched by a handler of this turn
      const auto readable = found->second;
      readable();
   }
   clock_->fireDue();
   for( size_t i = endOfTurn_.size(); i-- > 0; )
      if( const auto work = endOfTurn_[ i ].lock() )
         ( *work )();
   longestHold_ = std::max( longestHold_, clock_->now() - start );
}

void ActivityManager::run() {
   running_ = true;
   while( running_ )
      turn();
}

} // namespace Vexil
