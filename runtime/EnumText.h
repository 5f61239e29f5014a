// The values of an enumeration as text, and back.
//
// An enumeration that has names lists them beside its definition, where they are found by its type:
//
//    enum Colour : uint32_t { red_ = 0, blue_ = 7 };
//    inline constexpr Vexil::EnumName<Colour> colourNames[] = { { red_, "red" }, { blue_, "blue" }
//    }; constexpr std::span<const Vexil::EnumName<Colour>> enumNames( Colour ) { return
//    colourNames; }
//
// The name of a value is that of its enumerator without the underscore at the end.
#pragma once

#include <charconv>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace Vexil {

template<class Enum>
struct EnumName {
   Enum value;
   const char* name;
};

template<class Enum>
concept NamedEnum = std::is_enum_v<Enum> && requires( Enum value ) {
   enumNames( value );
};

// The name of the value; the number of one that has none, as another process may have left it.
template<NamedEnum Enum>
std::string enumText( Enum value ) {
   for( const EnumName<Enum>& known : enumNames( value ) )
      if( known.value == value )
         return known.name;
   return std::to_string( static_cast<std::underlying_type_t<Enum>>( value ) );
}

// The value with that text, as enumText() gives it; nullopt for any other text.
template<NamedEnum Enum>
std::optional<Enum> enumParse( std::string_view text ) {
   for( const EnumName<Enum>& known : enumNames( Enum() ) )
      if( text == known.name )
         return known.value;
   std::underlying_type_t<Enum> number = 0;
   const auto [ end, error ] = std::from_chars( text.data(), text.data() + text.size(), number );
   if( error != std::errc() || end != text.data() + text.size() ||
       enumText( static_cast<Enum>( number ) ) != text )
      return std::nullopt;
   return static_cast<Enum>( number );
}

template<NamedEnum Enum>
std::ostream& operator<<( std::ostream& to, Enum value ) {
   return to << enumText( value );
}

} // namespace Vexil
