// The two ways in which this system reports that something is wrong.
//
// A broken invariant is a programming error: VEXIL_ASSERT logs the expression, file, line and full
// function signature and stops the process. What may come from outside (a file, another process,
// a caller's argument) is an exception with a fixed text, which a caller may catch; left alone it
// stops the process too, with its text in the log.
#pragma once

#include <stdexcept>
#include <string>

namespace Vexil {

// Writes "assertion failed: EXPRESSION, file FILE, line LINE, function FUNCTION" to the log and
// aborts the process.
[[noreturn]] void assertionFailed( const char* expression, const char* file, unsigned line,
                                   const char* function );

// A bounded index left its range: "T::value < T::min or > T::max not allowed".
class RangeFailure : public std::range_error {
 public:
   using std::range_error::range_error;
};

// A mutator was given no entity where it needs one: "null _x parameter to mutator for C::x not
// allowed", or an entity was made again with other constructor arguments.
class MutatorFailure : public std::invalid_argument {
 public:
   using std::invalid_argument::invalid_argument;
};

[[noreturn]] void rangeFailure( const char* typeName );
[[noreturn]] void nullMutatorFailure( const char* className, const char* attribute );

} // namespace Vexil

#define VEXIL_ASSERT( ... )                                                                        \
   ( static_cast<bool>( __VA_ARGS__ )                                                              \
        ? static_cast<void>( 0 )                                                                   \
        : ::Vexil::assertionFailed( #__VA_ARGS__, __FILE__, __LINE__, __PRETTY_FUNCTION__ ) )
