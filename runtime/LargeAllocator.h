// Memory for large arrays that are accessed at random.
#pragma once

#include <cstddef>
#include <new>
#include <sys/mman.h>

namespace Vexil {

// Gives arrays of at least one huge page whole huge pages where the kernel has them (transparent
// huge pages by advice): an array of millions of entries that is accessed at random otherwise costs
// a miss in the processor's address translation for each access. Only a wish: it does not fail.
template<class T>
struct LargeAllocator {
   using value_type = T;

   T* allocate( size_t count ) {
      const size_t size = count * sizeof( T );
      if( size < hugePage )
         return static_cast<T*>( ::operator new( size ) );
      void* const memory = ::operator new( size, hugeAligned );
      madvise( memory, size, MADV_HUGEPAGE );
      return static_cast<T*>( memory );
   }
   void deallocate( T* memory, size_t count ) {
      if( count * sizeof( T ) < hugePage )
         ::operator delete( memory );
      else
         ::operator delete( memory, hugeAligned );
   }

 private:
   static constexpr size_t hugePage = size_t( 2 ) << 20; // on x86-64, and on ARM with 4K pages
   static constexpr std::align_val_t hugeAligned{ hugePage };
};

} // namespace Vexil
