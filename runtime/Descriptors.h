// Limits on file descriptors: the process's limit, and a reserve below it.
//
// What a process opens because others ask it to (the tables of however many sources there are) must
// not take the descriptors that it needs for its own files. So such files are only opened while
// there is more than the reserve left.
#pragma once

#include <string>

namespace Vexil {

// Descriptors that are kept for the process's own files.
constexpr int descriptorReserve = 64;

// Raises the limit of open files to the highest that this process may have.
void raiseDescriptorLimit();

// Throws TableError of the kind system, as opening the file would, when no more than the reserve is
// left. Three system calls.
void requireSpareDescriptor( const std::string& path );

} // namespace Vexil
