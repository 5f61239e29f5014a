// A document as 'config apply' takes it: refused with complaints that have a place, or a
// configuration free of faults, which its own text describes again.
#include "tests/fuzz/FuzzSupport.h"

#include "tools/ConfigDocument.h"

using Fuzz::require;

std::vector<std::string> Fuzz::seeds() {
   return {
      R"({"tunnels":[{"id":5,"source":"192.0.2.1","destination":"192.0.2.2","tos":0,"ttl":64}],
 "hosts":[{"vlan":10,"mac":"02:00:00:00:00:01","interface":12},
          {"vlan":10,"mac":"02:00:00:00:00:02","label":1000,"tunnel":5}]})",
      R"({"tunnels":[{"id":1,"source":"::1","destination":"::2"}]})", R"({"hosts":[]})", "{}",
      R"({"hosts":[{"vlan":4095,"mac":"x","label":-1,"tunnel":1e99,"more":[{}]}]})" };
}

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
   const std::string text( reinterpret_cast<const char*>( data ), size );
   try {
      const Tools::Configuration found = Tools::parseConfiguration( "document", text );
      for( const auto& [ key, host ] : found.hosts )
         require( key == host.key && !faultIn( host ), "a host that is accepted is sound" );
      for( const auto& [ id, tunnel ] : found.tunnels )
         require( id == tunnel.key && !faultIn( tunnel ), "a tunnel that is accepted is sound" );
      require( Tools::parseConfiguration( "again", toJson( found ).dump() ) == found,
               "a configuration is what its text says" );
   } catch( const Tools::DocumentRefused& refused ) {
      require( !refused.complaints.empty(), "a refusal says why" );
      for( const std::string& complaint : refused.complaints )
         require( complaint.starts_with( "document:" ), "a complaint has a place" );
   }
   return 0;
}
