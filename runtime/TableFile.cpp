#include "runtime/TableFile.h"

#include "runtime/Failure.h"
#include "runtime/Hash.h"
#include "runtime/MappingGuard.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace Vexil {

namespace {

constexpr uint64_t hugePage = 2u << 20;
constexpr mode_t fileMode = 0640;
constexpr mode_t folderMode = 0750;

uint64_t roundUp( uint64_t value, uint64_t unit ) { return ( value + unit - 1 ) / unit * unit; }

[[noreturn]] void fail( TableError::Kind kind, const std::string& path, const std::string& what ) {
   throw TableError( kind, path + ": " + what );
}

[[noreturn]] void systemFailure( const std::string& path, const char* doing ) {
   const int error = errno;
   fail( error == ENOENT ? TableError::absent : TableError::system, path,
         std::string( doing ) + ": " + std::strerror( error ) );
}

// One lock on the whole file, of the open file description: it dies with the process, and a second
// attempt in the same process is refused like any other.
bool lockForWriting( int fd ) {
   struct flock lock {};
   lock.l_type = F_WRLCK;
   lock.l_whence = SEEK_SET;
   return fcntl( fd, F_OFD_SETLK, &lock ) == 0;
}

uint64_t randomId() {
   uint64_t id = 0;
   while( id == 0 )
      if( getrandom( &id, sizeof id, 0 ) != sizeof id )
         id = 0;
   return id;
}

// A file that has no name yet is called so, with the process's id and ".new" behind it: hidden from
// directory watchers by the dot.
std::string hiddenName( const std::string& path ) {
   const size_t slash = path.rfind( '/' ) + 1;
   return path.substr( 0, slash ) + "." + path.substr( slash ) + ".";
}

// Removes the unpublished files of processes that died over them. They may be large, and an agent
// that is killed for the memory that they take would leave one more each time.
void removeLeftovers( const std::string& path ) {
   const std::filesystem::path prefix = hiddenName( path );
   const std::string hidden = prefix.filename(), folder = prefix.parent_path();
   std::error_code error;
   for( const auto& file : std::filesystem::directory_iterator( folder, error ) ) {
      const std::string name = file.path().filename();
      if( !name.starts_with( hidden ) || !name.ends_with( ".new" ) )
         continue;
      const int process = std::atoi( name.c_str() + hidden.size() );
      if( process > 0 && kill( process, 0 ) != 0 && errno == ESRCH && // it could be about to lock
          !tableHasWriter( file.path() ) )
         unlink( file.path().c_str() );
   }
}

// Without waiting: for a pipe that somebody put in a table's place no writer may ever come.
int openForReading( const std::string& path ) {
   return open( path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK );
}

uint64_t layoutHashOf( const TableHeader& header ) {
   return hashBytes( &header, offsetof( TableHeader, layoutHash ) );
}

} // namespace

TableGeometry::TableGeometry( const TableSpec& spec, uint32_t records ) : capacity( records ) {
   if( capacity > maxCapacity )
      throw TableError( TableError::mismatch,
                        std::string( spec.typeName ) + ": a table has room for " +
                           std::to_string( maxCapacity ) + " records at the most, not " +
                           std::to_string( capacity ) );
   // Half full at the most, so that a probe ends after a step or two.
   indexSize = std::bit_ceil( std::max( capacity, 32u ) * 2 );
   // Half a table of changes may pile up before a reader has to look at all keys again.
   journalSize = std::bit_ceil( std::max( capacity / 2, 1024u ) );
   slotStride = slotStrideOf( spec.recordSize );
   journalStride = journalStrideOf( spec.keySize );
   indexOffset = tableHeaderSize;
   slotOffset = roundUp( indexOffset + uint64_t( indexSize ) * 4, 4096 );
   journalOffset = roundUp( slotOffset + uint64_t( capacity ) * slotStride, 4096 );
   fileSize = roundUp( journalOffset + uint64_t( journalSize ) * journalStride, 4096 );
}

void TableMapping::map( bool writable ) {
   writable_ = writable;
   const int protection = writable ? PROT_READ | PROT_WRITE : PROT_READ;
   const int flags = fd_ < 0 ? MAP_SHARED | MAP_ANONYMOUS : MAP_SHARED;
   // Large tables stand on a huge page's border, or the system couldn't give them any.
   const bool large = geometry_.fileSize >= hugePage;
   const uint64_t room = geometry_.fileSize + ( large ? hugePage : 0 );
   void* reserved =
      mmap( nullptr, room, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0 );
   if( reserved == MAP_FAILED )
      systemFailure( path_, "reserving addresses" );
   auto* const start = static_cast<uint8_t*>( reserved );
   uint8_t* at = start;
   if( large )
      at = reinterpret_cast<uint8_t*>( roundUp( reinterpret_cast<uintptr_t>( start ), hugePage ) );
   if( mmap( at, geometry_.fileSize, protection, flags | MAP_FIXED, fd_, 0 ) == MAP_FAILED ) {
      munmap( reserved, room );
      systemFailure( path_, "mapping" );
   }
   const uint64_t mappedEnd = static_cast<uint64_t>( at - start ) + geometry_.fileSize;
   if( at != start )
      munmap( start, static_cast<size_t>( at - start ) );
   if( mappedEnd != room )
      munmap( start + mappedEnd, room - mappedEnd );
   base_ = at;
   if( large )
      madvise( base_, geometry_.fileSize, MADV_HUGEPAGE ); // a wish; refusal does no harm
   if( fd_ >= 0 )
      guardMapping( base_, geometry_.fileSize, writable );
}

TableMapping::~TableMapping() {
   if( base_ ) {
      unguardMapping( base_ );
      munmap( base_, geometry_.fileSize );
   }
   if( !temporary_.empty() )
      unlink( temporary_.c_str() );
   if( fd_ >= 0 )
      close( fd_ );
}

void TableMapping::writeHeader( const TableSpec& spec ) {
   TableHeader& h = header();
   VEXIL_ASSERT( std::strlen( spec.typeName ) < sizeof h.typeName );
   VEXIL_ASSERT( std::strlen( spec.collection ) < sizeof h.collection );
   VEXIL_ASSERT( spec.recordSize <= maxRecordSize && spec.keySize <= spec.recordSize );
   h.magic = TableHeader::expectedMagic;
   h.formatVersion = TableHeader::expectedVersion;
   h.headerSize = tableHeaderSize;
   std::strcpy( h.typeName, spec.typeName );
   std::strcpy( h.collection, spec.collection );
   h.keySize = spec.keySize;
   h.recordSize = spec.recordSize;
   h.capacity = geometry_.capacity;
   h.recordLayout = spec.recordLayout;
   h.fileSize = geometry_.fileSize;
   h.tableId = tableId_ = randomId();
   h.layoutHash = layoutHashOf( h );
}

std::unique_ptr<TableMapping> TableMapping::anonymous( const TableSpec& spec, uint32_t capacity ) {
   std::unique_ptr<TableMapping> made( new TableMapping );
   made->geometry_ = TableGeometry( spec, capacity );
   made->map( true );
   made->writeHeader( spec );
   return made;
}

// Reads the header and takes over its geometry, if all of it agrees with the TableSpec, with itself
// and with the file's size.
void TableMapping::adoptHeader( const TableSpec& spec, uint64_t sizeOfFile ) {
   TableHeader h{};
   const ssize_t got = pread( fd_, &h, offsetof( TableHeader, superseded ), 0 );
   if( got < 0 )
      systemFailure( path_, "reading the header" );
   if( sizeOfFile < tableHeaderSize ||
       static_cast<size_t>( got ) < offsetof( TableHeader, superseded ) )
      fail( TableError::damaged, path_,
            "is cut short: " + std::to_string( sizeOfFile ) + " bytes hold no table header" );
   if( h.magic != TableHeader::expectedMagic )
      fail( TableError::damaged, path_, "is no shared table: wrong magic number" );
   if( h.formatVersion != TableHeader::expectedVersion )
      fail( TableError::mismatch, path_,
            "has format version " + std::to_string( h.formatVersion ) + ", this program knows " +
               std::to_string( TableHeader::expectedVersion ) );
   if( h.layoutHash != layoutHashOf( h ) )
      fail( TableError::damaged, path_, "its header is damaged: wrong check sum" );
   if( std::strncmp( h.typeName, spec.typeName, sizeof h.typeName ) != 0 ||
       std::strncmp( h.collection, spec.collection, sizeof h.collection ) != 0 ||
       h.keySize != spec.keySize || h.recordSize != spec.recordSize )
      fail( TableError::mismatch, path_,
            "holds '" + std::string( h.typeName, strnlen( h.typeName, sizeof h.typeName ) ) +
               "' records of " + std::to_string( h.recordSize ) + " bytes, not '" + spec.typeName +
               "' of " + std::to_string( spec.recordSize ) );
   if( h.recordLayout != spec.recordLayout )
      fail( TableError::mismatch, path_,
            std::string( "holds '" ) + spec.typeName +
               "' records whose members are laid out otherwise: it is of another version" );
   if( h.capacity > maxCapacity )
      fail( TableError::damaged, path_, "its header contradicts itself" );
   geometry_ = TableGeometry( spec, h.capacity );
   tableId_ = h.tableId;
   if( h.headerSize != tableHeaderSize || h.fileSize != geometry_.fileSize )
      fail( TableError::damaged, path_, "its header contradicts itself" );
   if( sizeOfFile < geometry_.fileSize )
      fail( TableError::damaged, path_,
            "is cut short: " + std::to_string( sizeOfFile ) + " bytes of " +
               std::to_string( geometry_.fileSize ) );
}

std::unique_ptr<TableMapping> TableMapping::forReading( const std::string& path,
                                                        const TableSpec& spec ) {
   std::unique_ptr<TableMapping> made( new TableMapping );
   made->path_ = path;
   made->fd_ = openForReading( path );
   struct stat status {};
   if( made->fd_ < 0 || fstat( made->fd_, &status ) != 0 )
      systemFailure( path, "opening" );
   made->adoptHeader( spec, static_cast<uint64_t>( status.st_size ) );
   made->map( false );
   return made;
}

std::unique_ptr<TableMapping> TableMapping::created( const std::string& path,
                                                     const std::string& temporary,
                                                     const TableSpec& spec, uint32_t capacity ) {
   std::unique_ptr<TableMapping> made( new TableMapping );
   made->path_ = path;
   made->fd_ = open( temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, fileMode );
   if( made->fd_ < 0 )
      systemFailure( temporary, "creating" );
   made->temporary_ = temporary;
   if( fchmod( made->fd_, fileMode ) !=
       0 ) // whatever the umask is: a group of readers relies on it
      systemFailure( temporary, "setting the mode" );
   if( !lockForWriting( made->fd_ ) )
      systemFailure( temporary, "locking" );
   made->geometry_ = TableGeometry( spec, capacity );
   if( ftruncate( made->fd_, static_cast<off_t>( made->geometry_.fileSize ) ) != 0 )
      systemFailure( temporary, "sizing" );
   made->map( true );
   // The index is read and written all over from the start on.
   if( !made->allocate( 0, made->geometry_.slotOffset ) )
      fail( TableError::system, temporary, "there is no memory for it" );
   made->writeHeader( spec );
   return made;
}

std::unique_ptr<TableMapping>
TableMapping::unpublished( const std::string& path, const TableSpec& spec, uint32_t capacity ) {
   if( path.empty() )
      return anonymous( spec, capacity );
   makeFoldersFor( path );
   removeLeftovers( path );
   const std::string temporary = hiddenName( path ) + std::to_string( getpid() ) + ".new";
   unlink( temporary.c_str() ); // of a dead process that had the same id
   return created( path, temporary, spec, capacity );
}

// What was stored in the mapping may not have come into the file: had there been no page for it,
// the mapping would have been replaced.
void TableMapping::requireHeaderInFile() const {
   TableHeader h{};
   if( pread( fd_, &h, offsetof( TableHeader, superseded ), 0 ) !=
          static_cast<ssize_t>( offsetof( TableHeader, superseded ) ) ||
       h.magic != TableHeader::expectedMagic || h.layoutHash != layoutHashOf( h ) )
      fail( TableError::system, temporary_, "its header could not be written" );
}

void TableMapping::publish() {
   if( !inFile() )
      return;
   requireHeaderInFile();
   if( rename( temporary_.c_str(), path_.c_str() ) != 0 )
      systemFailure( path_, "publishing" );
   temporary_.clear();
}

std::unique_ptr<TableMapping>
TableMapping::forWriting( const std::string& path, const TableSpec& spec, uint32_t capacityOfNew ) {
   for( int attempt = 0; attempt < 100; ++attempt ) {
      std::unique_ptr<TableMapping> made( new TableMapping );
      made->path_ = path;
      made->fd_ = open( path.c_str(), O_RDWR | O_CLOEXEC );
      if( made->fd_ < 0 && errno == ENOENT ) {
         auto fresh = unpublished( path, spec, capacityOfNew );
         fresh->requireHeaderInFile();
         // link, unlike rename, fails where another writer was faster
         if( link( fresh->temporary_.c_str(), path.c_str() ) == 0 )
            return unlink( fresh->temporary_.c_str() ), fresh->temporary_.clear(),
                   std::move( fresh );
         if( errno != EEXIST )
            systemFailure( path, "publishing" );
         continue;
      }
      if( made->fd_ < 0 )
         systemFailure( path, "opening" );
      if( !lockForWriting( made->fd_ ) ) {
         if( errno != EAGAIN && errno != EACCES )
            systemFailure( path, "locking" );
         fail( TableError::busy, path, "another process writes this table" );
      }
      struct stat status {};
      struct stat named {};
      if( fstat( made->fd_, &status ) != 0 )
         systemFailure( path, "opening" );
      if( stat( path.c_str(), &named ) != 0 || named.st_ino != status.st_ino )
         continue; // replaced between open and lock
      made->adoptHeader( spec, static_cast<uint64_t>( status.st_size ) );
      made->map( true );
      if( !made->allocate( 0, made->geometry_.slotOffset ) )
         fail( TableError::system, path, "there is no memory for its index" );
      removeLeftovers( path );
      return made;
   }
   fail( TableError::system, path, "is neither there nor can be made" ); // a link to nowhere, say
}

bool TableMapping::allocate( uint64_t offset, uint64_t size ) const {
   if( !inFile() || size == 0 )
      return true;
   const uint64_t page = 4096;
   const uint64_t from = offset / page * page;
   const uint64_t length = roundUp( offset + size, page ) - from;
   // By the mapping rather than by fallocate(), which gives no huge pages where they are a matter
   // of advice, and would leave a fault for every page.
   while( madvise( base_ + from, length, MADV_POPULATE_WRITE ) != 0 ) {
      if( errno == EINVAL ) // a kernel before 5.14
         return posix_fallocate( fd_, static_cast<off_t>( from ), static_cast<off_t>( length ) ) ==
                0;
      if( errno != EINTR && errno != EAGAIN )
         return false;
   }
   return true;
}

bool TableMapping::cutShort() const {
   struct stat status {};
   return inFile() && fstat( fd_, &status ) == 0 &&
          static_cast<uint64_t>( status.st_size ) < geometry_.fileSize;
}

void TableMapping::ringBell() const {
   if( !inFile() )
      return;
   const char ring = 1;
   // The written byte means nothing; the write is what readers are told of.
   if( pwrite( fd_, &ring, 1, offsetof( TableHeader, bell ) ) != 1 )
      systemFailure( path_, "waking the readers" );
}

bool tableHasWriter( const std::string& path ) {
   const int fd = openForReading( path );
   if( fd < 0 )
      return false;
   struct flock lock {};
   lock.l_type = F_RDLCK;
   lock.l_whence = SEEK_SET;
   const bool held = fcntl( fd, F_OFD_GETLK, &lock ) == 0 && lock.l_type != F_UNLCK;
   close( fd );
   return held;
}

std::string tableTypeName( const std::string& path ) {
   const int fd = openForReading( path );
   if( fd < 0 )
      systemFailure( path, "opening" );
   TableHeader h{};
   const bool isTable = pread( fd, &h, offsetof( TableHeader, superseded ), 0 ) ==
                           static_cast<ssize_t>( offsetof( TableHeader, superseded ) ) &&
                        h.magic == TableHeader::expectedMagic &&
                        h.formatVersion == TableHeader::expectedVersion &&
                        h.layoutHash == layoutHashOf( h );
   close( fd );
   return isTable ? std::string( h.typeName, strnlen( h.typeName, sizeof h.typeName ) )
                  : std::string();
}

void makeFoldersFor( const std::string& path ) {
   for( size_t slash = path.find( '/', 1 ); slash != std::string::npos;
        slash = path.find( '/', slash + 1 ) ) {
      const std::string folder = path.substr( 0, slash );
      struct stat made {};
      if( mkdir( folder.c_str(), folderMode ) != 0 ) {
         if( errno != EEXIST )
            systemFailure( folder, "making the folder" );
      } else if( stat( folder.c_str(), &made ) != 0 ||
                 ( ( made.st_mode & 0777 ) != folderMode && // the umask took something away; the
                   chmod( folder.c_str(),                   // set-group-ID bit is inherited
                          ( made.st_mode & S_ISGID ) | folderMode ) != 0 ) ) {
         systemFailure( folder, "setting the mode" );
      }
   }
}

} // namespace Vexil
