#include "tools/ConfigStore.h"

#include "L2Rib/L2RibTarn.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace Tools {

using Bridging::ConfiguredHostTable;
using Bridging::TunnelTable;
using Vexil::makeEntity;
using Vexil::Ptr;
using Vexil::TableError;

namespace {

constexpr uint32_t smallest = 1024; // records that a new table has room for
constexpr int patience = 10;        // seconds

std::string fileIn( const Context& context, const std::string& name ) {
   return context.fileOf( L2Rib::Path::bridgingConfig ) + "/" + name;
}

// Null when there is none.
template<class Table>
Ptr<Table> reading( const Context& context ) {
   try {
      return makeEntity<Table>( fileIn( context, Table::fileName ), Table::Mode::read );
   } catch( const TableError& failure ) {
      if( failure.kind() != TableError::absent )
         throw;
      return nullptr;
   }
}

template<class Table, class Records>
void read( const Context& context, Records& records ) {
   const Ptr<Table> table = reading<Table>( context );
   if( !table )
      return;
   table->forEach( [ & ]( const typename Records::mapped_type& record ) {
      if( const auto fault = faultIn( record ) )
         table->corruptionDetected( table->path() + ": " + fault->text );
      else
         records[ record.key ] = record;
   } );
}

// Has the system keep room for that many bytes of the file, so that no write into a mapping of it
// is the one that finds the memory or the disk full.
void reserve( const std::string& file, uint64_t size ) {
   const int fd = open( file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640 );
   const int error = fd < 0 ? errno : posix_fallocate( fd, 0, static_cast<off_t>( size ) );
   if( fd >= 0 )
      close( fd );
   if( error != 0 )
      throw TableError( TableError::system, file + ": making room: " + std::strerror( error ) );
}

// Whether there is room for a new file beside what is there. To be known before a table is moved to
// a larger file: that takes the old one away.
void requireRoom( const Context& context, uint64_t size ) {
   const std::string trial = fileIn( context, ".room" );
   try {
      reserve( trial, size );
   } catch( const TableError& ) {
      unlink( trial.c_str() );
      throw;
   }
   unlink( trial.c_str() );
}

// The table with room for all that it has and all that it shall have; null when that is nothing.
template<class Table, class Records>
Ptr<Table> writing( const Context& context, const Records& wanted ) {
   uint32_t capacityBefore = 0;
   uint32_t capacity = smallest;
   size_t needed = wanted.size();
   if( const Ptr<Table> present = reading<Table>( context ) ) {
      capacity = capacityBefore = present->capacity();
      present->forEach( [ & ]( const typename Records::mapped_type& record ) {
         needed += !wanted.contains( record.key );
      } );
   } else if( wanted.empty() ) {
      return nullptr;
   }
   while( capacity < needed )
      capacity *= 2;
   const uint64_t size = Vexil::TableGeometry( Table::spec(), capacity ).fileSize;
   if( capacity != capacityBefore )
      requireRoom( context, size );
   const auto table =
      makeEntity<Table>( fileIn( context, Table::fileName ), Table::Mode::write, capacity );
   reserve( table->path(), size );
   return table;
}

template<class Table, class Records>
size_t setDiffering( const Ptr<Table>& table, const Records& wanted ) {
   size_t count = 0;
   for( const auto& [ key, record ] : wanted ) {
      typename Records::mapped_type present;
      if( table->get( key, present ) && present == record )
         continue;
      if( !table->set( record ) )
         throw TableError( TableError::system, table->path() + ": takes no more records" );
      ++count;
   }
   return count;
}

template<class Table, class Records>
size_t eraseOthers( const Ptr<Table>& table, const Records& wanted ) {
   size_t count = 0;
   if( table )
      table->forEach( [ & ]( const typename Records::mapped_type& record ) {
         if( !wanted.contains( record.key ) )
            count += table->erase( record.key );
      } );
   return count;
}

// Holds back, while it lives, the signals that people and terminals end a command with. What came
// meanwhile takes effect afterwards.
class SignalsHeld {
 public:
   SignalsHeld() {
      sigset_t held;
      sigemptyset( &held );
      for( const int signal : { SIGINT, SIGTERM, SIGHUP, SIGPIPE } )
         sigaddset( &held, signal );
      sigprocmask( SIG_BLOCK, &held, &before_ );
   }
   ~SignalsHeld() { sigprocmask( SIG_SETMASK, &before_, nullptr ); }
   SignalsHeld( const SignalsHeld& ) = delete;
   SignalsHeld& operator=( const SignalsHeld& ) = delete;

 private:
   sigset_t before_;
};

// Waits for the lock in the order of arrival. The alarm ends the waiting; it is repeated, in case
// that it comes just before the waiting begins. Returns whether the lock is held, with errno.
bool lockPatiently( int fd ) {
   struct sigaction wake {};
   struct sigaction before {};
   wake.sa_handler = []( int ) {};
   sigaction( SIGALRM, &wake, &before );
   itimerval alarm{ { 0, 100000 }, { patience, 0 } };
   setitimer( ITIMER_REAL, &alarm, nullptr );
   const auto end = std::chrono::steady_clock::now() + std::chrono::seconds( patience );
   int locked;
   do
      locked = flock( fd, LOCK_EX );
   while( locked != 0 && errno == EINTR && std::chrono::steady_clock::now() < end );
   const int error = errno;
   alarm = {};
   setitimer( ITIMER_REAL, &alarm, nullptr );
   sigaction( SIGALRM, &before, nullptr );
   errno = error;
   return locked == 0;
}

} // namespace

Configuration readConfiguration( const Context& context ) {
   Configuration found;
   // The hosts first: every tunnel that they are on was written before them.
   read<ConfiguredHostTable>( context, found.hosts );
   read<TunnelTable>( context, found.tunnels );
   return found;
}

ConfigEdit::ConfigEdit( const Context& context ) : context_( context ) {
   const std::string file = fileIn( context, ".lock" );
   Vexil::makeFoldersFor( file );
   lock_ = open( file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640 );
   if( lock_ >= 0 ) {
      // Whatever the umask of its maker was. Refused when another user made it; it is his then.
      [[maybe_unused]] const int refused = fchmod( lock_, 0640 );
      if( lockPatiently( lock_ ) )
         return;
   }
   const int error = errno;
   if( lock_ >= 0 )
      close( lock_ );
   throw std::runtime_error(
      file + ( error == EINTR ? ": another command has been changing the configuration for " +
                                   std::to_string( patience ) + " seconds; try again when it ends"
                              : std::string( ": locking: " ) + std::strerror( error ) ) );
}

ConfigEdit::~ConfigEdit() { close( lock_ ); }

ConfigEdit::Changes ConfigEdit::commit( const Configuration& wanted ) {
   const SignalsHeld uninterrupted;
   // Room in both for everything that is and shall be, before the first write.
   const Ptr<TunnelTable> tunnels = writing<TunnelTable>( context_, wanted.tunnels );
   const Ptr<ConfiguredHostTable> hosts = writing<ConfiguredHostTable>( context_, wanted.hosts );
   Changes changes;
   if( tunnels )
      changes.tunnelsSet = setDiffering( tunnels, wanted.tunnels );
   if( hosts ) {
      changes.hostsDeleted = eraseOthers( hosts, wanted.hosts );
      changes.hostsSet = setDiffering( hosts, wanted.hosts );
      hosts->ring();
   }
   if( tunnels ) {
      changes.tunnelsDeleted = eraseOthers( tunnels, wanted.tunnels );
      tunnels->ring();
   }
   return changes;
}

} // namespace Tools
