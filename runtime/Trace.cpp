#include "runtime/Trace.h"

#include "runtime/TraceHandles.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace Vexil {

namespace {

// Handles are looked up from static initialisers of libraries, so the registry must exist before
// any of them runs.
struct Named {
   std::unique_ptr<TraceHandle> handle;
   bool inCode = false; // not only in a setting
};
std::map<std::string, Named, std::less<>>& handles() {
   static std::map<std::string, Named, std::less<>> all;
   return all;
}

Named& handleOf( std::string_view name ) {
   auto found = handles().find( name );
   if( found == handles().end() ) {
      found = handles().emplace( std::string( name ), Named() ).first;
      found->second.handle = std::make_unique<TraceHandle>( std::string( name ) );
   }
   return found->second;
}

std::vector<std::string> namesOf( bool inCode ) {
   std::vector<std::string> names;
   for( const auto& [ name, named ] : handles() )
      if( named.inCode == inCode )
         names.push_back( name );
   return names;
}

LogSink& sink() {
   static LogSink current;
   return current;
}

std::string wallClockStamp() {
   timespec now{};
   clock_gettime( CLOCK_REALTIME, &now );
   tm local{};
   localtime_r( &now.tv_sec, &local );
   char text[ 64 ];
   const size_t used = strftime( text, sizeof text, "%Y-%m-%d %H:%M:%S", &local );
   snprintf( text + used, sizeof text - used, ".%06ld", now.tv_nsec / 1000 );
   return text;
}

uint32_t parseLevels( std::string_view text, std::string_view setting ) {
   const auto fail = [ & ] {
      throw std::invalid_argument( "trace setting '" + std::string( setting ) +
                                   "' is not HANDLE=LEVELS, LEVELS a list such as 0-3,8 of "
                                   "numbers 0 to 9" );
   };
   const auto number = [ & ]( std::string_view digits ) {
      unsigned value = 0;
      const auto [ end, error ] =
         std::from_chars( digits.data(), digits.data() + digits.size(), value );
      if( error != std::errc() || end != digits.data() + digits.size() ||
          value > TraceHandle::maxLevel )
         fail();
      return value;
   };
   uint32_t mask = 0;
   while( true ) {
      const size_t comma = text.find( ',' );
      const std::string_view item = text.substr( 0, comma );
      const size_t dash = item.find( '-' );
      const unsigned first = number( item.substr( 0, dash ) );
      const unsigned last =
         dash == std::string_view::npos ? first : number( item.substr( dash + 1 ) );
      if( last < first )
         fail();
      for( unsigned level = first; level <= last; ++level )
         mask |= 1u << level;
      if( comma == std::string_view::npos )
         return mask;
      text.remove_prefix( comma + 1 );
   }
}

// "handleHost" of "void L2Rib::PolicySm::handleHost(const Bridging::MacVlanPair&)"; the function
// around it for a lambda.
std::string_view nameOf( std::string_view signature ) {
   const std::string_view before = signature.substr( 0, signature.find( '(' ) );
   return before.substr( before.find_last_of( ": " ) + 1 ); // npos + 1 is 0
}

// How many bytes the character at the beginning of text has, when it may stand in a line as it is:
// well-formed UTF-8 (RFC 3629, section 4) and no control character. Else 0.
size_t printable( std::string_view text ) {
   const auto byte = [ & ]( size_t at ) -> unsigned {
      return at < text.size() ? static_cast<unsigned char>( text[ at ] ) : 0;
   };
   const auto continues = [ & ]( size_t from, size_t to ) {
      for( size_t at = from; at <= to; ++at )
         if( ( byte( at ) & 0xc0 ) != 0x80 )
            return false;
      return true;
   };
   const unsigned first = byte( 0 );
   if( first < 0x80 )
      return first >= ' ' && first != 0x7f;
   if( first >= 0xc2 && first <= 0xdf ) // U+0080 to U+009f are control characters
      return continues( 1, 1 ) && !( first == 0xc2 && byte( 1 ) < 0xa0 ) ? 2 : 0;
   const unsigned two = first << 8 | byte( 1 );
   if( ( first & 0xf0 ) == 0xe0 ) // not longer than need be, no surrogates
      return two >= 0xe0a0 && ( two < 0xeda0 || two > 0xedff ) && continues( 1, 2 ) ? 3 : 0;
   return two >= 0xf090 && two <= 0xf48f && continues( 1, 3 ) ? 4 : 0;
}

} // namespace

TraceHandle& traceHandle( std::string_view name ) {
   Named& named = handleOf( name );
   named.inCode = true;
   return *named.handle;
}

std::vector<std::string> traceHandles() { return namesOf( true ); }
std::vector<std::string> unknownTraceHandles() { return namesOf( false ); }

void traceSettingIs( std::string_view setting ) {
   const size_t equals = setting.find( '=' );
   const std::string_view levels =
      equals == std::string_view::npos ? std::string_view() : setting.substr( equals + 1 );
   const uint32_t mask = parseLevels( levels, setting );
   handleOf( setting.substr( 0, equals ) ).handle->levelsIs( mask );
}

void TraceHandle::emit( unsigned level, const char* file, unsigned line, std::string_view function,
                        const std::string& text ) const {
   std::string_view stem = file;
   stem.remove_prefix( stem.rfind( '/' ) + 1 ); // npos + 1 is 0: a bare name stays whole
   stem = stem.substr( 0, stem.rfind( '.' ) );
   log( name_ + " " + std::to_string( level ) + " " + std::string( stem ) + ":" +
        std::to_string( line ) + " " + std::string( nameOf( function ) ) + "() " + text );
}

struct TraceLine::State {
   const TraceHandle& handle;
   unsigned level;
   const char* file;
   unsigned line;
   const char* function;
   std::ostringstream text{};
};

TraceLine::TraceLine( const TraceHandle& handle, unsigned level, const char* file, unsigned line,
                      const char* function )
   : state_( new State{ handle, level, file, line, function } ) {}

TraceLine::~TraceLine() noexcept( false ) {
   state_->handle.emit( state_->level, state_->file, state_->line, state_->function,
                        state_->text.str() );
}

std::ostream& TraceLine::text() { return state_->text; }

std::string escaped( std::string_view text ) {
   std::string out;
   out.reserve( text.size() );
   for( size_t at = 0; at < text.size(); ) {
      const size_t length = printable( text.substr( at ) );
      if( length > 0 ) {
         out += text.substr( at, length );
      } else {
         char code[ 5 ];
         snprintf( code, sizeof code, "\\x%02x", static_cast<unsigned char>( text[ at ] ) );
         out += code;
      }
      at += std::max<size_t>( length, 1 );
   }
   return out;
}

void log( std::string_view text ) {
   const std::string line = escaped( text );
   if( sink() ) {
      sink()( line );
      return;
   }
   // One write a line, so that lines of several processes on one terminal stay whole.
   std::string out = wallClockStamp();
   out.append( " " ).append( line ).append( "\n" );
   if( ::write( STDERR_FILENO, out.data(), out.size() ) < 0 )
      return; // nowhere left to say so
}

void logSinkIs( LogSink newSink ) { sink() = std::move( newSink ); }

} // namespace Vexil
