// The file of a shared table: its header, its geometry, and how it is created, opened and mapped.
//
// One file holds one table: a header page, a hash index, the slots with the records, and a ring
// with the keys of the latest changes. docs/table-format.md describes every byte. This layer
// treats keys and records as sizes; SharedTable.h gives them types.
//
// Everything read from a file may have been damaged by somebody else: the geometry is recomputed
// from the few numbers of the header, compared with the file's size, and then kept in private
// memory, so that no later damage can lead a reader outside of its mapping.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace Vexil {

// A table that can't be attached: absent, written by another process, of another type or format,
// damaged. The text names the file and says what is wrong.
class TableError : public std::runtime_error {
 public:
   enum Kind { absent, busy, mismatch, damaged, system };
   TableError( Kind kind, const std::string& text ) : std::runtime_error( text ), kind_( kind ) {}
   Kind kind() const { return kind_; }

 private:
   Kind kind_;
};

// A table that was attached turns out to hold what no writer would have written.
class CorruptionDetected : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// What a table holds. The names are part of the header and must agree between writer and reader.
struct TableSpec {
   const char* typeName;   // at most 47 characters
   const char* collection; // at most 15 characters
   uint32_t keySize;       // bytes; the key is the first member of the record
   uint32_t recordSize;    // bytes, at most maxRecordSize
   // What is wrong with the format of a record: its key and a text; null where there are no rules.
   std::optional<std::string> ( *formatFault )( const void* record ) = nullptr;
   // Tells one order of the record's members from another; 0 where nobody says.
   uint32_t recordLayout = 0;
};

// Bytes from one slot to the next: the state word and the record, in whole cache lines where that
// wastes little. Bytes from one entry of the journal to the next: its number and the key.
constexpr uint32_t slotStrideOf( size_t recordSize ) {
   const size_t words = ( recordSize + 7 ) / 8 * 8 + 8;
   return static_cast<uint32_t>( words > 64 ? ( words + 63 ) / 64 * 64 : words );
}
constexpr uint32_t journalStrideOf( size_t keySize ) {
   return static_cast<uint32_t>( ( keySize + 7 ) / 8 * 8 + 8 );
}

// Where everything is, in bytes from the start of the file. A function of TableSpec and capacity.
struct TableGeometry {
   TableGeometry() = default;
   // Throws TableError when the capacity is above maxCapacity.
   TableGeometry( const TableSpec& spec, uint32_t capacity );

   uint32_t capacity = 0;      // records
   uint32_t indexSize = 0;     // index words, a power of two, at least twice the capacity
   uint32_t journalSize = 0;   // ring entries, a power of two
   uint32_t slotStride = 0;    // bytes from one slot to the next
   uint32_t journalStride = 0; // bytes from one ring entry to the next
   uint64_t indexOffset = 0;
   uint64_t slotOffset = 0;
   uint64_t journalOffset = 0;
   uint64_t fileSize = 0;
};

constexpr uint32_t tableHeaderSize = 4096;
constexpr uint32_t maxRecordSize = 2048;
constexpr uint32_t maxCapacity = 1u << 30; // records: an index word has 32 bits

// The header page. All after layoutHash changes while the table is in use and is accessed as
// whole words only, atomically.
struct TableHeader {
   static constexpr uint64_t expectedMagic = 0x4c4254'4c49584556ULL; // "VEXILTBL", little-endian
   static constexpr uint32_t expectedVersion = 1;

   uint64_t magic;
   uint32_t formatVersion;
   uint32_t headerSize;
   char typeName[ 48 ];
   char collection[ 16 ];
   uint32_t keySize;
   uint32_t recordSize;
   uint32_t capacity;
   uint32_t recordLayout;
   uint64_t fileSize;
   uint64_t tableId;    // random; tells one file from another that takes its name
   uint64_t layoutHash; // of all bytes before it

   alignas( 64 ) uint64_t superseded; // 1: a newer file stands at this path
   uint64_t bell;                     // its first byte is written to the file to wake readers
   uint64_t predecessor; // id of the table whose slots and journal this one goes on with, or 0

   alignas( 64 ) uint64_t highWater; // slots that were ever in use: all behind are empty
   uint64_t count;                   // records
   uint64_t indexMoves;              // index words that a deletion has moved so far
   uint64_t journalHead;             // changes so far; the next one's number

   // The operation under way. What is needed to give readers the old record while a new one is
   // being written, and the next writer what it needs when this one dies in the middle.
   alignas( 64 ) uint64_t operation; // TableOperation
   uint64_t operationSlot;
   uint64_t undoSlot;                   // slot + 1 whose old record stands in image, or 0
   uint64_t image[ maxRecordSize / 8 ]; // the old record, or the key alone
};
static_assert( sizeof( TableHeader ) <= tableHeaderSize );

enum class TableOperation : uint64_t { none = 0, insert = 1, update = 2, erase = 3 };

// A mapped table, of a file or anonymous. Unmaps and unlocks when it goes.
class TableMapping {
 public:
   // Memory of this process alone.
   static std::unique_ptr<TableMapping> anonymous( const TableSpec& spec, uint32_t capacity );
   // Read-only. Throws TableError.
   static std::unique_ptr<TableMapping> forReading( const std::string& path,
                                                    const TableSpec& spec );
   // The existing file of path, whatever its capacity, or a new and empty one. Holds the writer's
   // lock, which dies with the process. Throws TableError: kind busy when another writer has it.
   static std::unique_ptr<TableMapping> forWriting( const std::string& path, const TableSpec& spec,
                                                    uint32_t capacityOfNew );
   // A new, empty, locked file that has no name yet; publish() gives it one.
   static std::unique_ptr<TableMapping> unpublished( const std::string& path, const TableSpec& spec,
                                                     uint32_t capacity );
   ~TableMapping();
   TableMapping( const TableMapping& ) = delete;
   TableMapping& operator=( const TableMapping& ) = delete;

   // Moves the file of an unpublished mapping to its path, replacing what is there. Throws
   // TableError, and leaves that alone, when it can't, or when the file does not hold its header.
   void publish();
   // Sees to it that these bytes of a writable mapping have memory, and are mapped. False when
   // there is none: a store there would end the process, or the mapping (MappingGuard.h).
   bool allocate( uint64_t offset, uint64_t size ) const;
   // Whether somebody has cut the file short.
   bool cutShort() const;
   // Wakes everything that waits on the file: one system call, nothing for anonymous memory. Throws
   // TableError.
   void ringBell() const;

   const TableGeometry& geometry() const { return geometry_; }
   uint64_t tableId() const { return tableId_; }
   const std::string& path() const { return path_; }
   bool inFile() const { return fd_ >= 0; }
   uint8_t* base() const { return base_; }
   TableHeader& header() const { return *reinterpret_cast<TableHeader*>( base_ ); }
   bool writable() const { return writable_; }

 private:
   TableMapping() = default;
   void map( bool writable );
   void adoptHeader( const TableSpec& spec, uint64_t sizeOfFile );
   void writeHeader( const TableSpec& spec );
   void requireHeaderInFile() const;
   static std::unique_ptr<TableMapping> created( const std::string& path,
                                                 const std::string& temporary,
                                                 const TableSpec& spec, uint32_t capacity );

   std::string path_; // empty: anonymous
   std::string temporary_;
   int fd_ = -1;
   uint8_t* base_ = nullptr;
   bool writable_ = false;
   TableGeometry geometry_;
   uint64_t tableId_ = 0;
};

// Whether a process holds the writer's lock of the file; false when there is no such file. Takes no
// lock and disturbs nobody.
bool tableHasWriter( const std::string& path );

// The record type that a table file's header names; empty when it is no table of this format, or
// its header is damaged. Throws TableError when the file is absent or can't be opened.
std::string tableTypeName( const std::string& path );

// Makes the folders above path that are not there, each with mode 0750 whatever the umask is. One
// that is made in a folder with the set-group-ID bit has its group and that bit. Throws TableError.
void makeFoldersFor( const std::string& path );

} // namespace Vexil
