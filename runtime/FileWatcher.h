// Waits for what other processes do to files: tables that are written, folders whose entries come
// and go. One inotify descriptor for a whole process, watched by its event loop.
//
// No wake-up of a table is lost: its writer publishes the changes before it writes the doorbell
// byte, and the watcher, once woken, looks at all tables, drains the inotify descriptor, and looks
// at all tables again. A ring that comes after the draining leaves the descriptor readable. The
// first look, before the draining, is there for speed alone.
//
// What is left when the time of a turn is used up is read on in the next one.
#pragma once

#include "runtime/ActivityManager.h"
#include "runtime/SharedTable.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Vexil {

class FileWatcher {
 public:
   // Tables are polled for at most quantum seconds a turn, a batch of each of them apart: little
   // beside the slices of whoever works on what they say.
   explicit FileWatcher( ActivityManager& loop, Seconds quantum = 0.01 );
   ~FileWatcher();
   FileWatcher( const FileWatcher& ) = delete;
   FileWatcher& operator=( const FileWatcher& ) = delete;

   // Polls the reading table whenever its writer rings, until nobody else holds it.
   void follow( Ptr<TableBase> table );
   // Looks at all followed tables now, as when a bell rings.
   void pollTables();

   // Calls changed( name ) when the entry of that name appears in the folder, is replaced or
   // disappears, and with an empty name when any of them may have changed. Names that begin with a
   // dot are not reported. A folder that is not there, or is removed or renamed, is empty until
   // there is one, which is watched within a second. Throws TableError when it can't be watched.
   using FolderChanged = std::function<void( const std::string& name )>;
   void watchFolder( const std::string& folder, FolderChanged changed );

 private:
   struct Followed {
      Ptr<TableBase> table;
      uint64_t tableId; // of the file that is being watched
      int watch;
   };
   struct Folder {
      std::string path;
      FolderChanged changed;
   };
   void drain();
   void dropUnused();
   int addBell( const TableBase& table );
   int addFolder( const std::string& folder );
   void report( int watch, const std::string& name );
   void lose( int watch );
   void lookForLost();

   ActivityManager& loop_;
   Seconds quantum_;
   Seconds left_ = quantum_; // of this turn
   int inotify_ = -1;
   std::vector<Followed> tables_;
   std::multimap<int, Folder> folders_; // by inotify watch
   std::vector<Folder> lost_;           // those that are not there
   TimerReactor goOn_;                  // a poll that ran out of its quantum
   TimerReactor lookForLost_;           // while there are any
   std::shared_ptr<void> endOfTurnWork_;
};

} // namespace Vexil
