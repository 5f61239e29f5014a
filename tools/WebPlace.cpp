#include "tools/WebPlace.h"

#include "tools/Json.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <netinet/in.h>

namespace Tools {

bool isLoopback( const std::string& address ) {
   in_addr four{};
   in6_addr six{};
   if( inet_pton( AF_INET, address.c_str(), &four ) == 1 )
      return ntohl( four.s_addr ) >> 24 == IN_LOOPBACKNET;
   return inet_pton( AF_INET6, address.c_str(), &six ) == 1 && IN6_IS_ADDR_LOOPBACK( &six );
}

std::pair<std::string, std::string> hostAndPort( const std::string& text ) {
   const size_t bracket = text.starts_with( '[' ) ? text.find( ']' ) : text.npos;
   const size_t colon = text.find( ':', bracket == text.npos ? 0 : bracket );
   const std::string port = colon == text.npos ? "" : text.substr( colon + 1 );
   const std::string host = text.substr( 0, colon );
   return { bracket == text.npos ? host : text.substr( 1, bracket - 1 ), port };
}

WebPlace placeFor( const std::string& listen ) {
   auto [ host, portText ] = hostAndPort( listen );
   if( host == "localhost" )
      host = "127.0.0.1";
   char* end = nullptr;
   const long port = std::strtol( portText.c_str(), &end, 10 );
   if( portText.empty() || *end != '\0' || port < 0 || port > UINT16_MAX )
      throw BadInput( "--listen " + listen +
                      ": expected ADDRESS:PORT, such as 127.0.0.1:" + std::to_string( webPort ) );
   if( !isLoopback( host ) )
      throw BadInput( "--listen " + listen +
                      ": expected a loopback address, 127.0.0.1 or [::1]: whoever can connect may "
                      "read all; from elsewhere use ssh -L" );
   return { host, static_cast<int>( port ), "" };
}

} // namespace Tools
