// The lock of a file that stands for something that one process at a time may change.
//
// The file is made when there is none, and stays. The lock goes with the object, or with the
// process, whatever ends it.
#pragma once

#include <string>

namespace Vexil {

class FileLock {
 public:
   // Waits until the lock is free, or that many seconds at most. Makes the file's folders. Throws
   // TableError: busy when the time is over, system when the file can't be made or locked.
   explicit FileLock( const std::string& file );
   FileLock( const std::string& file, double longestWait );
   ~FileLock();
   FileLock( const FileLock& ) = delete;
   FileLock& operator=( const FileLock& ) = delete;

 private:
   int fd_ = -1;
};

} // namespace Vexil
