// Keeps a process alive when the file under one of its mappings is cut short.
//
// Touching a page behind the end of a mapped file raises SIGBUS. The guard's handler puts zeros
// under the whole mapping and lets the access go on: a table then reads as empty, its magic number
// is gone, and the table code reports it as corrupt. A SIGBUS anywhere else goes its usual way.
#pragma once

#include <cstddef>

namespace Vexil {

// Registers a mapping until guardMapping is undone by unguardMapping. At most 4096 at a time; one
// more is left unguarded. The first call installs the handler.
void guardMapping( void* base, size_t size, bool writable );
void unguardMapping( void* base );

} // namespace Vexil
