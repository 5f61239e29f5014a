#include "tools/Words.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <net/if.h>

namespace Tools {

namespace {

std::string formatted( double seconds, const char* format ) {
   const auto whole = static_cast<time_t>( seconds );
   tm parts{};
   char buffer[ 32 ];
   if( !localtime_r( &whole, &parts ) )
      return "unknown";
   return std::string( buffer, strftime( buffer, sizeof buffer, format, &parts ) );
}

std::string twoParts( uint64_t first, const char* unit, uint64_t second, const char* secondUnit ) {
   char buffer[ 48 ];
   std::snprintf( buffer, sizeof buffer, "%llu%s%02llu%s", static_cast<unsigned long long>( first ),
                  unit, static_cast<unsigned long long>( second ), secondUnit );
   return buffer;
}

} // namespace

std::string ageText( double seconds ) {
   if( !( seconds >= 0 ) )
      return "-";
   if( seconds < 10 ) {
      char buffer[ 32 ];
      std::snprintf( buffer, sizeof buffer, "%.1fs", std::floor( seconds * 10 ) / 10 );
      return buffer;
   }
   const auto whole = static_cast<uint64_t>( seconds );
   constexpr uint64_t minute = 60, hour = 60 * minute, day = 24 * hour;
   if( whole < minute )
      return std::to_string( whole ) + "s";
   if( whole < hour )
      return twoParts( whole / minute, "m", whole % minute, "s" );
   if( whole < day )
      return twoParts( whole / hour, "h", whole % hour / minute, "m" );
   return twoParts( whole / day, "d", whole % day / hour, "h" );
}

std::string timeText( double seconds ) { return formatted( seconds, "%F %T" ); }

std::string clockText( double seconds ) {
   const bool today =
      formatted( seconds, "%F" ) == formatted( static_cast<double>( std::time( nullptr ) ), "%F" );
   return formatted( seconds, today ? "%T" : "%F %T" );
}

std::string clockTextWithMilliseconds( double seconds ) {
   char buffer[ 16 ];
   std::snprintf( buffer, sizeof buffer, ".%03d",
                  static_cast<int>( ( seconds - std::floor( seconds ) ) * 1000 ) );
   return formatted( seconds, "%T" ) + buffer;
}

std::string countText( uint64_t count, std::string_view what ) {
   return std::to_string( count ) + " " + std::string( what ) + ( count == 1 ? "" : "s" );
}

std::string interfaceText( uint64_t number ) {
   char name[ IF_NAMESIZE ];
   if( number <= UINT32_MAX && if_indextoname( static_cast<unsigned>( number ), name ) )
      return name;
   return "interface " + std::to_string( number );
}

} // namespace Tools
