#include "runtime/MappingGuard.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <sys/mman.h>

namespace Vexil {

namespace {

struct Guarded {
   std::atomic<uintptr_t> base{ 0 };
   std::atomic<size_t> size{ 0 };
   std::atomic<bool> writable{ false };
};
// A fixed array of atomics, because a signal handler can take no lock.
std::array<Guarded, 4096> guarded;
struct sigaction previous;

void handleBusError( int signal, siginfo_t* info, void* context ) {
   const auto address = reinterpret_cast<uintptr_t>( info->si_addr );
   for( const Guarded& entry : guarded ) {
      const uintptr_t base = entry.base.load( std::memory_order_acquire );
      const size_t size = entry.size.load( std::memory_order_relaxed );
      if( base == 0 || address < base || address >= base + size )
         continue;
      const int protection =
         entry.writable.load( std::memory_order_relaxed ) ? PROT_READ | PROT_WRITE : PROT_READ;
      if( mmap( reinterpret_cast<void*>( base ), size, protection,
                MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0 ) != MAP_FAILED )
         return;
   }
   // Not ours: let the access fault again under the handler that was there before.
   if( previous.sa_flags & SA_SIGINFO ) {
      if( previous.sa_sigaction ) {
         previous.sa_sigaction( signal, info, context );
         return;
      }
   }
   sigaction( SIGBUS, &previous, nullptr );
}

} // namespace

void guardMapping( void* base, size_t size, bool writable ) {
   static std::once_flag installed;
   std::call_once( installed, [] {
      struct sigaction action {};
      action.sa_sigaction = handleBusError;
      action.sa_flags = SA_SIGINFO;
      sigemptyset( &action.sa_mask );
      sigaction( SIGBUS, &action, &previous );
   } );
   for( Guarded& entry : guarded ) {
      uintptr_t none = 0;
      // 1 claims the entry: it lies in no mapping.
      if( !entry.base.compare_exchange_strong( none, 1 ) )
         continue;
      entry.size.store( size, std::memory_order_relaxed );
      entry.writable.store( writable, std::memory_order_relaxed );
      entry.base.store( reinterpret_cast<uintptr_t>( base ), std::memory_order_release );
      return;
   }
}

void unguardMapping( void* base ) {
   for( Guarded& entry : guarded )
      if( entry.base.load( std::memory_order_relaxed ) == reinterpret_cast<uintptr_t>( base ) ) {
         entry.base.store( 0, std::memory_order_release );
         return;
      }
}

} // namespace Vexil
