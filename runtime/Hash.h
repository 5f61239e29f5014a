// Hashes that are the same in every process and every run.
//
// Shared tables hash with them, so they are part of the table format: changing one means a new
// format version. Keyed collections use the same hash, so that a walk over a work list meets the
// index of a shared table in ascending order (see HashMap.h).
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace Vexil {

// The finalizer of MurmurHash3 (Appleby): a bijection in which every input bit reaches every output
// bit, so the high bits alone may serve as a position.
constexpr uint64_t mix64( uint64_t x ) {
   x ^= x >> 33;
   x *= 0xff51afd7ed558ccdULL;
   x ^= x >> 33;
   x *= 0xc4ceb9fe1a85ec53ULL;
   x ^= x >> 33;
   return x;
}

// Folds another hash into one; order matters.
constexpr uint64_t hashCombine( uint64_t seed, uint64_t hash ) {
   return mix64( seed * 0x9e3779b97f4a7c15ULL + hash );
}

// Hashes bytes in words of eight, the last one filled up with zeros.
inline uint64_t hashBytes( const void* data, size_t size ) {
   const char* at = static_cast<const char*>( data );
   uint64_t hash = size;
   for( ; size > 0; ) {
      uint64_t word = 0;
      const size_t part = size < sizeof word ? size : sizeof word;
      std::memcpy( &word, at, part );
      hash = hashCombine( hash, word );
      at += part;
      size -= part;
   }
   return hash;
}

// The hash of a key: its own hash() where it has one.
template<class Key>
uint64_t keyHash( const Key& key ) {
   if constexpr( requires {
                    { key.hash() } -> std::convertible_to<uint64_t>;
                 } )
      return key.hash();
   else if constexpr( std::is_integral_v<Key> || std::is_enum_v<Key> )
      return mix64( static_cast<uint64_t>( key ) );
   else {
      const std::string_view text = key;
      return hashBytes( text.data(), text.size() );
   }
}

// The hash of a record that is made of these fields, in this order.
template<class... Fields>
uint64_t hashFields( const Fields&... fields ) {
   uint64_t hash = sizeof...( fields );
   ( ( hash = hashCombine( hash, keyHash( fields ) ) ), ... );
   return hash;
}

} // namespace Vexil
