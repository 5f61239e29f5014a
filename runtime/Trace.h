// The log and the trace handles.
//
// A trace handle is a named debug channel with levels 0 to 9, each enabled or not. A disabled
// trace costs one load and one predictable branch and builds nothing. A source file traces through
// the handle that it names:
//
//    namespace { Vexil::TraceHandle& trace = Vexil::traceHandle( "L2RibPolicySm" ); }
//    TRACE( 0, __PRETTY_FUNCTION__ << " " << mvpStr( mvp ) );
//
// Every line is stamped with the wall-clock time, the handle, the level, the source file's name
// (without folder and ending) and line, and the function's name.
//
// What is logged may stem from another process. Whatever could end a line or move a terminal's
// cursor is written as an escape: one call is one line.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

namespace Vexil {

class TraceHandle {
 public:
   static constexpr unsigned maxLevel = 9;

   explicit TraceHandle( std::string name ) : name_( std::move( name ) ) {}
   const std::string& name() const { return name_; }
   bool enabled( unsigned level ) const { return ( levels_ >> level ) & 1; }
   // Bit n enables level n.
   void levelsIs( uint32_t mask ) { levels_ = mask; }
   // function is its whole signature, as the compiler gives it; the line has its name alone.
   void emit( unsigned level, const char* file, unsigned line, std::string_view function,
              const std::string& text ) const;

 private:
   std::string name_;
   uint32_t levels_ = 0;
};

// One line of a trace that is enabled: emitted when it is destroyed. All of it is in Trace.cpp, so
// that a function holds nothing for its traces but the calls: a stream that is made in place takes
// half a kilobyte of each frame and registers from the code around it, also while it is not made.
class TraceLine {
 public:
   [[gnu::cold]] TraceLine( const TraceHandle& handle, unsigned level, const char* file,
                            unsigned line, const char* function );
   TraceLine( const TraceLine& ) = delete;
   TraceLine& operator=( const TraceLine& ) = delete;
   [[gnu::cold]] ~TraceLine() noexcept( false ); // the log may find no memory
   std::ostream& text();

 private:
   struct State;
   std::unique_ptr<State> state_;
};

// The handle of that name, made at its first use; lives as long as the process.
TraceHandle& traceHandle( std::string_view name );

// Applies "HANDLE=LEVELS", LEVELS a list such as "0-3,8" (a handle may be named before its code is
// loaded). Throws std::invalid_argument that says what would be right.
void traceSettingIs( std::string_view setting );

// Writes one line to the log (standard error unless a sink is set).
void log( std::string_view text );

// The text with every control character, and every byte that is no UTF-8, as "\\xNN".
std::string escaped( std::string_view text );

// Takes over all log and trace lines, whole, without line ends; an empty sink restores standard
// error. For tests and for daemons with a log of their own.
using LogSink = std::function<void( std::string_view line )>;
void logSinkIs( LogSink sink );

} // namespace Vexil

#define TRACE( level, ... )                                                                        \
   do {                                                                                            \
      if( trace.enabled( level ) ) [[unlikely]]                                                    \
         ::Vexil::TraceLine( trace, level, __FILE__, __LINE__, __PRETTY_FUNCTION__ ).text()        \
            << __VA_ARGS__;                                                                        \
   } while( false )
