// What the value types of this folder are made of: 64-bit fields that need only 4-byte alignment,
// the check that a type can lie in a shared table, and text on a stream.
//
// Records are shared between processes byte for byte: little-endian, every field on a 4-byte
// boundary, no byte that belongs to no field. Such a record may be copied by memcpy from a mapping
// into an object of its type and back.
#pragma once

#include "runtime/Hash.h"

#include <array>
#include <bit>
#include <compare>
#include <concepts>
#include <cstdint>
#include <ostream>
#include <string>
#include <type_traits>

namespace L2Rib {
struct RecordLayout; // may see the records' private fields, to check their offsets; see L2Rib.h
}

namespace Vexil {

static_assert( std::endian::native == std::endian::little, "the records are little-endian" );

// A 64-bit field that starts on a 4-byte boundary. A plain 64-bit member would be moved to the next
// 8-byte boundary, and a packed one would hand out misaligned references.
template<class T>
requires( sizeof( T ) == 8 && std::is_trivially_copyable_v<T> ) class Wire64 {
 public:
   constexpr Wire64() = default;
   constexpr Wire64( T value ) : word_( std::bit_cast<Words>( value ) ) {}

   constexpr T value() const { return std::bit_cast<T>( word_ ); }

   // Compares the bits, so that a floating-point field is equal to its own copy even when another
   // process has put a NaN into it.
   friend constexpr bool operator==( Wire64 a, Wire64 b ) {
      return std::bit_cast<uint64_t>( a.word_ ) == std::bit_cast<uint64_t>( b.word_ );
   }
   // Numbers in their order; a floating-point field by its bits, which is an order too, no more.
   friend constexpr std::strong_ordering operator<=>( Wire64 a, Wire64 b ) {
      if constexpr( std::integral<T> )
         return a.value() <=> b.value();
      else
         return std::bit_cast<uint64_t>( a.word_ ) <=> std::bit_cast<uint64_t>( b.word_ );
   }
   constexpr uint64_t hash() const { return mix64( std::bit_cast<uint64_t>( word_ ) ); }

 private:
   using Words = std::array<uint32_t, 2>;
   Words word_{};
};

// Whether T may lie in a shared table with that size. Unique representations mean that no padding
// is hidden between the fields: two values made of the same fields are the same bytes.
template<class T, size_t size>
concept WireRecord = sizeof( T ) == size && alignof( T ) == 4 &&
                     std::is_trivially_copyable_v<T>&& std::is_standard_layout_v<
                        T>&& std::has_unique_object_representations_v<T>;

// Anything that has a text form prints it, the same whatever the stream's flags are. A namespace
// whose types want this names it in a using-declaration.
template<class T>
requires requires( const T& value ) {
   { value.str() } -> std::same_as<std::string>;
}
std::ostream& operator<<( std::ostream& to, const T& value ) { return to << value.str(); }

} // namespace Vexil
