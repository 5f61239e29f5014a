#include "L2Rib/ConfigRecords.h"

#include <filesystem>
#include <system_error>

namespace Bridging {

std::string configGeneration( const std::string& folder ) {
   std::error_code none;
   const auto target = std::filesystem::read_symlink( folder + "/" + configLink, none );
   return none ? std::string() : "/" + target.filename().string();
}

} // namespace Bridging
