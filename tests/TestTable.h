// A table for tests: records that show when they are torn, a reactor that mirrors the table, and a
// ledger of what the writer has promised, to which readers in other threads and processes hold it.
#pragma once

#include "runtime/SharedTable.h"
#include "tests/TestSupport.h"

#include <array>
#include <atomic>
#include <map>
#include <string>

namespace TestTable {

using namespace Vexil;
using TestSupport::Random;

// Few hashes, the highest among them: long runs in the index, one of them across its end.
struct Key {
   uint32_t number;
   uint64_t hash() const { return number % 40 == 0 ? ~0ull : mix64( number % 40 ); }
   bool operator==( const Key& ) const = default;
};

// Every word follows from the key and the serial number. Neither key nor record is a multiple of
// the table's words.
struct Record {
   Key key;
   uint32_t serial;
   std::array<uint32_t, 15> words;

   static Record of( uint32_t number, uint32_t serial ) {
      Record record{ { number }, serial, {} };
      uint64_t hash = hashCombine( number, serial );
      for( uint32_t& word : record.words )
         word = static_cast<uint32_t>( hash = mix64( hash + 1 ) );
      return record;
   }
   bool whole() const { return words == of( key.number, serial ).words; }
};
static_assert( sizeof( Record ) == 68 );

constexpr TableSpec spec{ "TestRecord", "record", sizeof( Key ), sizeof( Record ) };
using Table = SharedTable<Key, Record>;
using Contents = std::map<uint32_t, uint32_t>; // serial numbers by key

inline Ptr<Table> written( const std::string& path, uint32_t capacity ) {
   return makeEntity<Table>( spec, path, Table::Mode::write, capacity );
}
inline Ptr<Table> read( const std::string& path ) {
   return makeEntity<Table>( spec, path, Table::Mode::read );
}
template<class Reader>
Contents contentsOf( const Reader& table ) {
   Contents contents;
   table.forEach(
      [ & ]( const Record& record ) { contents[ record.key.number ] = record.serial; } );
   return contents;
}
// Brings the entry of one key up to date.
template<class Reader>
void refresh( Contents& contents, const Reader& table, uint32_t number ) {
   Record record;
   if( table.get( { number }, record ) )
      contents[ number ] = record.serial;
   else
      contents.erase( number );
}

// Follows a table and remembers it.
class Mirror : public Reactor<Table> {
 public:
   explicit Mirror( const Ptr<Table>& table )
      : Reactor<Table>( table ), contents( contentsOf( *table ) ), table_( *table ) {}
   void handleEntry( const Key& key ) override {
      ++told;
      refresh( contents, table_, key.number );
   }
   void handleOvertaken() override {
      for( const auto& [ number, serial ] : Contents( contents ) )
         refresh( contents, table_, number );
   }
   // Polls to the end, on a clock that gives each call no more than one batch.
   void follow() {
      ManualClock clock;
      while( table_.poll( clock, 0 ) ) {
      }
   }

   Contents contents;
   uint64_t told = 0; // changes

 private:
   Table& table_;
};

// For each key, what it was and what it becomes: two equal values when nothing is under way. A
// value is the serial number of the operation that made it, with a bit for those that erased; so
// none comes back, and a reader that finds the same promise before and after its look knows what it
// must have seen. May lie in memory that processes share.
class Ledger {
 public:
   static constexpr uint32_t keys = 300;

   // The capacity up to which the table grows by itself.
   uint32_t capacityMax = 0;

   // So many were begun; also the serial number of the last one.
   uint32_t operations() const { return serial_; }
   void announce( uint32_t number, bool erase ) {
      ++serial_;
      promises_[ number ] = uint64_t( after( promises_[ number ] ) ) << 32 |
                            ( erase ? serial_ | gone : serial_.load() );
   }
   void settle( uint32_t number, bool done ) {
      const uint64_t promise = promises_[ number ];
      const uint64_t value = done ? after( promise ) : before( promise );
      promises_[ number ] = value << 32 | value;
   }
   // Takes what the table has for the outcome of the operation under way.
   void settleAs( const Table& table ) {
      for( uint32_t number = 0; number < keys; ++number ) {
         Record record;
         const bool found = table.get( { number }, record );
         settle( number, matches( after( promises_[ number ] ), found, record ) );
      }
   }

   // The writer's operations; false when the table refuses.
   template<class Writer>
   bool set( Writer& table, uint32_t number ) {
      announce( number, false );
      const Record record = Record::of( number, serial_ );
      const bool done = table.set( record, keyHash( record.key ) );
      settle( number, done );
      return done;
   }
   template<class Writer>
   bool erase( Writer& table, uint32_t number ) {
      announce( number, true );
      const bool done = table.erase( { number } );
      settle( number, done );
      return done;
   }
   // One of them; false when the table does not answer as it must.
   template<class Writer>
   bool operate( Writer& table, uint32_t number, Random& random ) {
      const bool present = !absent( after( promises_[ number ] ) );
      if( random.percent( 45 ) )
         return erase( table, number ) == present;
      const bool full = table.count() == std::max( table.capacity(), capacityMax );
      return set( table, number ) == ( present || !full );
   }

   // What is wrong with the reader's answer for one key; empty: nothing.
   template<class Reader>
   std::string wrongAt( const Reader& table, uint32_t number ) const {
      const uint64_t promise = promises_[ number ];
      Record record;
      const bool found = table.get( { number }, record );
      if( found && !( record.key.number == number && record.whole() ) )
         return "torn: key " + std::to_string( number );
      if( promises_[ number ] != promise )
         return ""; // the writer was faster
      return judged( number, promise, found ? 1 : 0, record );
   }
   // What is wrong with a walk over all records.
   template<class Reader>
   std::string wrongInWalk( const Reader& table ) const {
      std::array<uint64_t, keys> promises;
      std::copy( promises_.begin(), promises_.end(), promises.begin() );
      std::array<unsigned, keys> visits{};
      std::array<Record, keys> met;
      std::string wrong;
      table.forEach( [ & ]( const Record& record ) {
         if( record.key.number < keys && record.whole() ) {
            ++visits[ record.key.number ];
            met[ record.key.number ] = record;
         } else {
            wrong = "torn: key " + std::to_string( record.key.number );
         }
      } );
      for( uint32_t number = 0; number < keys && wrong.empty(); ++number )
         if( promises_[ number ] == promises[ number ] )
            wrong = judged( number, promises[ number ], visits[ number ], met[ number ] );
      return wrong;
   }
   template<class Reader>
   std::string wrongIn( const Reader& table ) const {
      std::string wrong = wrongInWalk( table );
      for( uint32_t number = 0; number < keys && wrong.empty(); ++number )
         wrong = wrongAt( table, number );
      return wrong;
   }

 private:
   static constexpr uint32_t gone = 1u << 31;

   static uint32_t before( uint64_t promise ) { return static_cast<uint32_t>( promise >> 32 ); }
   static uint32_t after( uint64_t promise ) { return static_cast<uint32_t>( promise ); }
   static bool absent( uint32_t value ) { return value == 0 || ( value & gone ); }
   static bool matches( uint32_t value, bool found, const Record& record ) {
      return found ? record.serial == value : absent( value );
   }
   static std::string judged( uint32_t number, uint64_t promise, unsigned visits,
                              const Record& record ) {
      if( visits <= 1 && ( matches( before( promise ), visits > 0, record ) ||
                           matches( after( promise ), visits > 0, record ) ) )
         return "";
      return "key " + std::to_string( number ) + " was " + std::to_string( before( promise ) ) +
             ", becomes " + std::to_string( after( promise ) ) + ", was met " +
             std::to_string( visits ) + " times, with " + std::to_string( record.serial );
   }

   std::array<std::atomic<uint64_t>, keys> promises_{};
   std::atomic<uint32_t> serial_{ 0 };
};

} // namespace TestTable
