// How the commands say ages, times, counts and interfaces to people: one form for all of them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Tools {

// "0.4s", "12s", "3m12s", "1h04m", "2d03h"; "-" for less than nothing.
std::string ageText( double seconds );

// Of seconds since 1970, local time: "2026-01-31 12:00:00"; "14:02:11", with the date before it
// when it was another day; "14:02:11.113".
std::string timeText( double seconds );
std::string clockText( double seconds );
std::string clockTextWithMilliseconds( double seconds );

// "1 host", "5 hosts".
std::string countText( uint64_t count, std::string_view what );

// "eth3", or "interface 3" when the system has none of that number.
std::string interfaceText( uint64_t number );

// The entries, with that between them.
template<class Entries>
std::string joined( const Entries& entries, std::string_view between ) {
   std::string all;
   for( const auto& entry : entries ) {
      if( !all.empty() )
         all += between;
      all += entry;
   }
   return all;
}

} // namespace Tools
