// What the fuzz targets share: a private folder, a silent log, input taken apart, and seeds.
//
// A target is a program of libFuzzer's. Where the first folder on its command line is empty it
// writes its seeds there: inputs that the system itself would produce.
#pragma once

#include "runtime/Trace.h"
#include "tests/TestSupport.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <type_traits>
#include <vector>

namespace Fuzz {

// Of a target: inputs to begin with.
std::vector<std::string> seeds();

// Ends the run when something does not hold.
inline void require( bool condition, const char* what ) {
   if( condition )
      return;
   std::fprintf( stderr, "broken: %s\n", what );
   std::abort();
}

inline const TestSupport::TemporaryFolder& folder() {
   static const TestSupport::TemporaryFolder made;
   return made;
}

// Takes values from the front of the input; zeros when it has ended.
class Input {
 public:
   Input( const uint8_t* data, size_t size ) : at_( data ), left_( size ) {}

   bool empty() const { return left_ == 0; }
   template<class Value>
   Value take() {
      static_assert( std::is_trivially_copyable_v<Value> );
      Value value{};
      const size_t size = std::min( sizeof value, left_ );
      std::memcpy( static_cast<void*>( &value ), at_, size );
      at_ += size;
      left_ -= size;
      return value;
   }

 private:
   const uint8_t* at_;
   size_t left_;
};

// The bytes of some values, one after the other, as Input takes them.
template<class... Values>
std::string bytes( const Values&... values ) {
   std::string all;
   ( all.append( reinterpret_cast<const char*>( &values ), sizeof values ), ... );
   return all;
}

} // namespace Fuzz

// Called by libFuzzer where there is one; each program includes this header once.
extern "C" int LLVMFuzzerInitialize( int* argc, char*** argv ) {
   Vexil::logSinkIs( []( std::string_view ) {} );
   Fuzz::folder();
   for( int i = 1; i < *argc; ++i ) {
      const std::filesystem::path corpus = ( *argv )[ i ];
      if( ( *argv )[ i ][ 0 ] == '-' || !std::filesystem::is_directory( corpus ) )
         continue;
      if( std::filesystem::is_empty( corpus ) ) {
         size_t number = 0;
         for( const std::string& seed : Fuzz::seeds() )
            TestSupport::replace( corpus / ( "seed" + std::to_string( number++ ) ), seed );
      }
      break;
   }
   return 0;
}
