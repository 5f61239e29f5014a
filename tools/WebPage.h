// The page that web serves: page.html, as it was when this was built.
#pragma once

#include <string>

namespace Tools {

extern const std::string webPage;

} // namespace Tools
