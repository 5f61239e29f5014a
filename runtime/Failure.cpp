#include "runtime/Failure.h"

#include "runtime/Trace.h"

#include <cstdlib>
#include <string>

namespace Vexil {

void assertionFailed( const char* expression, const char* file, unsigned line,
                      const char* function ) {
   log( std::string( "assertion failed: " ) + expression + ", file " + file + ", line " +
        std::to_string( line ) + ", function " + function );
   std::abort();
}

void rangeFailure( const char* typeName ) {
   const std::string t = typeName;
   throw RangeFailure( t + "::value < " + t + "::min or > " + t + "::max not allowed" );
}

void nullMutatorFailure( const char* className, const char* attribute ) {
   throw MutatorFailure( std::string( "null _" ) + attribute + " parameter to mutator for " +
                         className + "::" + attribute + " not allowed" );
}

} // namespace Vexil
