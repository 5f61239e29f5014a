// Between the messages of GoBGP's API and our routes and peers.
//
// What comes in was made by other routers, and by a BGP speaker of some version or other: nothing
// of it is trusted to be there, or to be what it should. Nothing here throws.
#pragma once

#include "evpn/Import.h"

namespace apipb {
class Path;
class Peer;
} // namespace apipb

namespace Evpn {

struct ParsedPath {
   // unreadable, type, or taken: then the route is good as far as it can be read. A withdrawn one
   // has its key alone.
   NotTaken reason = NotTaken::unreadable;
   bool withdrawn = false;
   Route route;
};
// Of a path spelled out, or of one that is bytes alone.
ParsedPath parsedPath( const apipb::Path& path );

struct Peer;
Peer peerOf( const apipb::Peer& message );

// The path that announces the route, of type 2 or 3; or, withdrawn, takes it back.
apipb::Path pathOf( const Route& route );

} // namespace Evpn
