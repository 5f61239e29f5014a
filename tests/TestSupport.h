// What tests share: random choices that can be replayed, a private folder, files as strings, and
// waiting for a condition with a deadline.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

namespace TestSupport {

// L2RIB_TEST_SEED, or another number in every run. Printed, so that a failure can be replayed.
inline uint64_t seed() {
   static const uint64_t chosen = [] {
      const char* const given = std::getenv( "L2RIB_TEST_SEED" );
      const uint64_t number = given ? std::strtoull( given, nullptr, 0 ) : std::random_device()();
      std::fprintf( stderr, "L2RIB_TEST_SEED=%llu\n", static_cast<unsigned long long>( number ) );
      return number;
   }();
   return chosen;
}

class Random {
 public:
   explicit Random( uint64_t stream = 0 ) : engine_( seed() + stream ) {}
   // 0 to limit - 1
   uint32_t below( uint64_t limit ) { return static_cast<uint32_t>( engine_() % limit ); }
   bool percent( unsigned chance ) { return below( 100 ) < chance; }

 private:
   std::mt19937_64 engine_;
};

// A new folder, in memory where the system has room there; removed with all that it holds.
class TemporaryFolder {
 public:
   TemporaryFolder() {
      const char* const given = std::getenv( "TMPDIR" );
      path_ = std::string( memoryHasRoom() ? memory
                           : given         ? given
                                           : "/tmp" ) +
              "/l2rib-test-XXXXXX";
      if( !mkdtemp( path_.data() ) )
         throw std::runtime_error( path_ + ": no folder for temporary files" );
   }
   ~TemporaryFolder() {
      std::error_code ignored;
      std::filesystem::remove_all( path_, ignored );
   }
   TemporaryFolder( const TemporaryFolder& ) = delete;
   TemporaryFolder& operator=( const TemporaryFolder& ) = delete;

   std::string file( const std::string& name ) const { return path_ + "/" + name; }

 private:
   static constexpr const char* memory = "/dev/shm";
   static bool memoryHasRoom() {
      constexpr uintmax_t enough = 512u << 20; // in containers it often has 64 MB
      std::error_code unknown;
      const auto space = std::filesystem::space( memory, unknown );
      return !unknown && space.available >= enough && access( memory, W_OK ) == 0;
   }

   std::string path_;
};

inline std::string bytesOf( const std::string& path ) {
   std::ifstream file( path, std::ios::binary );
   return { std::istreambuf_iterator<char>( file ), {} };
}

// A new file with these bytes, in the place of what stood there.
inline void replace( const std::string& path, const std::string& bytes ) {
   std::filesystem::remove( path );
   std::ofstream( path, std::ios::binary ) << bytes;
}

constexpr double patience = 60; // seconds; a test that waits so long has failed

// Whether condition() became true within that many seconds.
template<class Condition>
bool waitFor( Condition condition, double seconds = patience ) {
   const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>( seconds );
   while( !condition() ) {
      if( std::chrono::steady_clock::now() >= end )
         return condition();
      std::this_thread::yield();
   }
   return true;
}

} // namespace TestSupport
