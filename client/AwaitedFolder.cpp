#include "client/AwaitedFolder.h"

#include <system_error>
#include <utility>

namespace L2Rib::Client {

AwaitedFolder::AwaitedFolder( Vexil::FileWatcher& watcher, const std::filesystem::path& folder,
                              std::function<void()> changed )
   : watcher_( watcher ), folder_( std::filesystem::absolute( folder ) ),
     changed_( std::move( changed ) ) {
   watchWhatIsThere();
}

void AwaitedFolder::watchWhatIsThere() {
   std::filesystem::path present = folder_;
   std::error_code unknown;
   while( !std::filesystem::exists( present, unknown ) )
      present = present.parent_path(); // the root at the latest
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
