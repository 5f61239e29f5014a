// Watches a folder that need not be there yet.
#pragma once

#include "runtime/FileWatcher.h"

#include <filesystem>
#include <functional>

namespace L2Rib::Client {

// Calls changed() whenever entries of the folder come and go, and, while the folder is absent, when
// that happens in the part of the way to it that is there. What was there before is not reported:
// look into the folder after the construction.
class AwaitedFolder {
 public:
   AwaitedFolder( Vexil::FileWatcher& watcher, const std::filesystem::path& folder,
                  std::function<void()> changed );
   AwaitedFolder( const AwaitedFolder& ) = delete; // the watcher calls back here
   AwaitedFolder& operator=( const AwaitedFolder& ) = delete;

 private:
   void watchWhatIsThere();

   Vexil::FileWatcher& watcher_;
   std::filesystem::path folder_;
   std::function<void()> changed_;
   std::filesystem::path watched_;
};

} // namespace L2Rib::Client
