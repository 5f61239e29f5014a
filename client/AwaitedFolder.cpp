#include "client/AwaitedFolder.h"

#include <utility>

namespace L2Rib::Client {

AwaitedFolder::AwaitedFolder( Vexil::FileWatcher& watcher, std::filesystem::path folder,
                              std::function<void()> changed )
   : watcher_( watcher ), folder_( std::move( folder ) ), changed_( std::move( changed ) ) {
   watchWhatIsThere();
}

void AwaitedFolder::watchWhatIsThere() {
   std::filesystem::path present = folder_;
   while( !std::filesystem::exists( present ) )
      present = present.has_relative_path() ? present.parent_path() : present.root_path();
   if( present == watched_ )
      return;
   watched_ = present;
   watcher_.watchFolder( present, [ this ]( const std::string& ) {
      watchWhatIsThere();
      changed_();
   } );
   watchWhatIsThere(); // what was made between the look and the watch
}

} // namespace L2Rib::Client
