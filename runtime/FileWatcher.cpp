#include "runtime/FileWatcher.h"

#include "runtime/Trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace Vexil {

namespace {

constexpr Seconds lookAgainAfter = 1; // for a folder that was removed

} // namespace

FileWatcher::FileWatcher( ActivityManager& loop, Seconds quantum )
   : loop_( loop ), quantum_( quantum ), inotify_( inotify_init1( IN_NONBLOCK | IN_CLOEXEC ) ),
     goOn_( loop.clock(), [ this ] { pollTables(); } ),
     lookForLost_( loop.clock(), [ this ] { lookForLost(); } ),
     endOfTurnWork_( loop.atEndOfTurn( [ this ] { left_ = quantum_; } ) ) {
   if( inotify_ < 0 )
      throw std::system_error( errno, std::generic_category(), "inotify_init1" );
   loop_.watch( inotify_, [ this ] {
      pollTables();
      drain();
      pollTables();
   } );
}

FileWatcher::~FileWatcher() {
   loop_.unwatch( inotify_ );
   close( inotify_ );
}

// The kernel itself reports IN_CLOSE_WRITE when a writer dies between a change and the ring.
int FileWatcher::addBell( const TableBase& table ) {
   const int watch =
      inotify_add_watch( inotify_, table.path().c_str(), IN_MODIFY | IN_CLOSE_WRITE );
   if( watch < 0 && errno != ENOENT ) // a file that has just been removed changes no more
      log( table.path() + ": watching the table: " + std::strerror( errno ) +
           ": its changes are met only when another table changes" );
   return watch;
}

void FileWatcher::follow( Ptr<TableBase> table ) {
   const int watch = addBell( *table );
   tables_.push_back( { table, table->tableId(), watch } );
   goOn_.timeMinIs( 0 ); // what was written between the attach and the watch
}

void FileWatcher::dropUnused() {
   std::vector<int> freed;
   std::erase_if( tables_, [ & ]( const Followed& followed ) {
      const bool unused = followed.table->referenceCount() == 1;
      if( unused )
         freed.push_back( followed.watch );
      return unused;
   } );
   for( const int watch : freed ) // two readers of one file share a watch
      if( std::none_of( tables_.begin(), tables_.end(),
                        [ & ]( const Followed& followed ) { return followed.watch == watch; } ) )
         inotify_rm_watch( inotify_, watch );
}

void FileWatcher::pollTables() {
   dropUnused();
   if( left_ <= 0 ) // a timer that is armed within a turn may fire in it
      return goOn_.timeMinIs( 0 );
   const Seconds start = loop_.clock()->now();
   const Seconds deadline = start + left_;
   bool more = false;
   // By index: a reactor may follow another table.
   for( size_t i = 0; i < tables_.size(); ++i ) {
      const Ptr<TableBase> table = tables_[ i ].table;
      more = table->poll( *loop_.clock(), deadline ) || more;
      if( i < tables_.size() && tables_[ i ].table == table &&
          tables_[ i ].tableId != table->tableId() ) { // the writer replaced the file
         tables_[ i ].tableId = table->tableId();
         tables_[ i ].watch = addBell( *table );
         more = true;
      }
   }
   left_ -= loop_.clock()->now() - start;
   if( more )
      goOn_.timeMinIs( 0 );
}

// Returns the inotify watch, or -1 with the reason in errno.
int FileWatcher::addFolder( const std::string& folder ) {
   return inotify_add_watch( inotify_, folder.c_str(),
                             IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF |
                                IN_MOVE_SELF | IN_ONLYDIR );
}

void FileWatcher::watchFolder( const std::string& folder, FolderChanged changed ) {
   const int watch = addFolder( folder );
   if( watch < 0 && errno == ENOENT ) {
      lost_.push_back( { folder, std::move( changed ) } );
      return lookForLost_.timeMinIs( loop_.clock()->now() + lookAgainAfter );
   }
   if( watch < 0 )
      throw TableError( TableError::system,
                        folder + ": watching the folder: " + std::strerror( errno ) );
   folders_.emplace( watch, Folder{ folder, std::move( changed ) } );
}

void FileWatcher::report( int watch, const std::string& name ) {
   const auto [ first, last ] = folders_.equal_range( watch );
   for( auto at = first; at != last; ++at )
      at->second.changed( name );
}

// The folder behind a watch was removed or renamed.
void FileWatcher::lose( int watch ) {
   std::vector<Folder> gone;
   for( auto at = folders_.find( watch ); at != folders_.end(); at = folders_.find( watch ) )
      gone.push_back( std::move( folders_.extract( at ).mapped() ) );
   inotify_rm_watch( inotify_, watch ); // a renamed folder is none of ours any more
   for( const Folder& folder : gone ) {
      log( folder.path + ": the folder was removed or renamed: waiting for another one" );
      folder.changed( "" );
      lost_.push_back( folder );
   }
   lookForLost_.timeMinIs( 0 );
}

void FileWatcher::lookForLost() {
   std::vector<Folder> stillLost;
   for( const Folder& folder : std::exchange( lost_, {} ) ) {
      const int watch = addFolder( folder.path );
      if( watch < 0 ) {
         stillLost.push_back( folder );
         continue;
      }
      log( folder.path + ": the folder is there" );
      folders_.emplace( watch, folder );
      folder.changed( "" );
   }
   lost_.insert( lost_.end(), stillLost.begin(), stillLost.end() );
   lookForLost_.timeMinIs( lost_.empty() ? never : loop_.clock()->now() + lookAgainAfter );
}

void FileWatcher::drain() {
   alignas( inotify_event ) std::array<char, 16384> buffer;
   ssize_t got;
   while( ( got = read( inotify_, buffer.data(), buffer.size() ) ) > 0 ) {
      for( ssize_t at = 0; at < got; ) {
         const auto* event = reinterpret_cast<const inotify_event*>( buffer.data() + at );
         at += static_cast<ssize_t>( sizeof *event + event->len );
         if( event->mask & IN_Q_OVERFLOW ) {
            for( const auto& [ watch, folder ] : folders_ )
               folder.changed( "" );
         } else if( event->mask & ( IN_DELETE_SELF | IN_MOVE_SELF ) ) {
            lose( event->wd );
         } else if( event->len > 0 && event->name[ 0 ] != '.' ) {
            report( event->wd, event->name );
         }
      }
   }
}

} // namespace Vexil
