// Where l2ribctl web listens: a loopback address or a Unix socket, and nothing else.
#pragma once

#include <string>
#include <utility>

namespace Tools {

constexpr int webPort = 8179; // unless another one is asked for

struct WebPlace {
   std::string address; // of loopback, in figures
   int port = 0;        // 0: any that is free
   std::string socket;  // the path of a Unix socket, in place of these
};
// Of "127.0.0.1:8179", "[::1]:0", "localhost:80". Throws BadInput for an address that is not one of
// loopback.
WebPlace placeFor( const std::string& listen );

bool isLoopback( const std::string& address );
// "127.0.0.1:8179" or "[::1]:8179" in two, without the brackets; no port is an empty one.
std::pair<std::string, std::string> hostAndPort( const std::string& text );

} // namespace Tools
