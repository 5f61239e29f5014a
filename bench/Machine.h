// What the operating system says and does for a measurement: processes of their own, processor
// time, memory, pinning, and whether huge pages are in effect.
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <type_traits>

namespace Bench {

// Runs the work in a process of its own, of that name for profilers, and waits for its end; what it
// found out it leaves in a Shared. Throws std::runtime_error when it fails.
void runInProcess( const char* name, const std::function<void()>& work );

// Memory that a process and the children it forks have in common; zeros at first.
void* sharedMemory( size_t size );
void releaseSharedMemory( void* memory, size_t size );

template<class Result>
class Shared {
   static_assert( std::is_trivially_copyable_v<Result> );

 public:
   Shared() : result_( static_cast<Result*>( sharedMemory( sizeof( Result ) ) ) ) {}
   ~Shared() { releaseSharedMemory( result_, sizeof( Result ) ); }
   Shared( const Shared& ) = delete;
   Shared& operator=( const Shared& ) = delete;
   Result* operator->() const { return result_; }
   Result& operator*() const { return *result_; }

 private:
   Result* result_;
};

// A child process that runs until it is told to stop (SIGTERM) or ends by itself.
class Child {
 public:
   Child( const char* name, const std::function<void()>& work );
   ~Child();
   Child( const Child& ) = delete;
   Child& operator=( const Child& ) = delete;
   pid_t id() const { return id_; }

 private:
   pid_t id_;
};

// Keeps the calling process on one processor, where there are several.
void pinTo( int processor );

double processorSeconds();                      // of the calling process, user and system
double processorSeconds( pid_t id );            // of another one
uint64_t privateMemory( pid_t id );             // bytes of anonymous memory in use
uint64_t residentMemory( pid_t id );            // bytes of all memory in use
uint64_t residentOf( const std::string& file ); // bytes of a file that take up memory

// Of the calling process's mappings of files in a folder: how much is there, and how much of that
// in huge pages. Only what this process has touched counts.
struct Mapped {
   uint64_t resident = 0;
   uint64_t huge = 0;
};
Mapped mappedUnder( const std::string& folder );

// Makes the calling process's memory, its own and its mappings of files, into huge pages as far as
// the kernel does that on demand.
void makeMemoryHuge();

// Sleeps without giving up the timer's precision.
void pause( double seconds );
// Looks again and again, with pauses of gap seconds. Throws std::runtime_error when it is not done
// after a minute or two: a process that should have done it has failed.
template<class Done>
void waitUntil( double gap, Done done ) {
   constexpr double patience = 120; // seconds
   for( double waited = 0; !done(); waited += gap ) {
      if( waited > patience )
         throw std::runtime_error( "another process of the benchmark does not answer" );
      pause( gap );
   }
}

} // namespace Bench
