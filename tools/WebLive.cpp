#include "tools/WebLive.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace Tools {

LiveListener::LiveListener( std::shared_ptr<LiveWatch> watch, const RowFilter& filter )
   : watch_( std::move( watch ) ), filter_( filter ) {
   const std::lock_guard locked( watch_->lock_ );
   waiting_.ended = watch_->ended_;
   watch_->listeners_.insert( this );
}

LiveListener::~LiveListener() {
   const std::lock_guard locked( watch_->lock_ );
   watch_->listeners_.erase( this );
}

LiveListener::Lines LiveListener::take( std::chrono::milliseconds longest ) {
   std::unique_lock locked( watch_->lock_ );
   watch_->come_.wait_for( locked, longest,
                           [ this ] { return !waiting_.lines.empty() || waiting_.ended; } );
   const bool ended = waiting_.ended;
   Lines taken = std::exchange( waiting_, {} );
   waiting_.ended = ended;
   return taken;
}

LiveWatch::LiveWatch( const Context& context ) : stop_( eventfd( 0, EFD_NONBLOCK | EFD_CLOEXEC ) ) {
   if( stop_ < 0 )
      throw std::system_error( errno, std::generic_category(), "eventfd" );
   thread_ = std::thread( [ this, &context ] { watch( context ); } );
}

LiveWatch::~LiveWatch() {
   eventfd_write( stop_, 1 );
   thread_.join();
   close( stop_ );
}

void LiveWatch::watch( const Context& context ) {
   try {
      Watched asked;
      asked.tables = { "hosts" };
      asked.noDump = true;
      watchOutput( context, asked, *this );
   } catch( const std::exception& failure ) {
      line( failure.what(), nullptr );
   }
   const std::lock_guard locked( lock_ );
   ended_ = true;
   for( LiveListener* const listener : listeners_ )
      listener->waiting_.ended = true;
   come_.notify_all();
}

void LiveWatch::begin( Vexil::ActivityManager& loop ) {
   loop.watch( stop_, [ &loop ] { loop.stop(); } );
}

void LiveWatch::line( const std::string& line, const Bridging::MacVlanPair* host ) {
   const std::lock_guard locked( lock_ );
   for( LiveListener* const listener : listeners_ ) {
      if( host && !listener->filter_.wants( *host ) )
         continue;
      LiveListener::Lines& waiting = listener->waiting_;
      waiting.lines.push_back( line );
      if( waiting.lines.size() > LiveListener::most ) {
         waiting.lines.pop_front();
         ++waiting.left;
      }
   }
}

bool LiveWatch::batchDone() {
   come_.notify_all();
   return true;
}

} // namespace Tools
