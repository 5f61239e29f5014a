// Lines as 'source run' takes them: each is carried out or refused with a text, and whatever they
// are, the tables hold sound records alone.
#include "tests/fuzz/Published.h"

#include "tools/Operations.h"

using Fuzz::require;

std::vector<std::string> Fuzz::seeds() {
   const std::string key = R"("mac":"02:00:00:00:00:01","vlan":10)";
   const std::string dest = R"("dest":{"vxlan":{"vtep":"192.0.2.9","vni":10010}})";
   return { R"({"op":"host",)" + key + R"(,"pref":7,"seqNo":1,"inline":{"vteps":["192.0.2.1"]}})",
            R"({"op":"host",)" + key + R"(,"entryType":4,"inline":{"value":"0x40"}})" + "\n" +
               R"({"op":"hostDel",)" + key + "}",
            R"({"op":"host",)" + key + R"(,"next":{"type":"lb","id":1}})",
            R"({"op":"dest","id":1,"tunnel":{"source":"::1","destination":"::2","tos":0,"ttl":9}})",
            R"({"op":"dest","id":1,"mpls":{"intf":12,"labels":[100,200]}})",
            R"({"op":"dest","id":1,"intf":{"id":12}})"
            "\n"
            R"({"op":"destDel","id":1})",
            R"({"op":"lb","id":1,"nexts":[{"type":"dest","id":1},{"type":"label","id":2}]})"
            "\n"
            R"({"op":"lbDel","id":1})",
            R"({"op":"label","id":2,"label":1000,"next":{"type":"dest","id":1}})"
            "\n"
            R"({"op":"labelDel","id":2})",
            R"({"op":"flood",)" + key + R"(,"type":"vxlan",)" + dest + "}\n" +
               R"({"op":"floodDel",)" + key + "," + dest + "}",
            R"({"op":"begin"})"
            "\n"
            R"({"op":"end"})"
            "\n"
            R"({"op":"sync"})"
            "\n"
            R"({"op":"clear"})"
            "\n"
            R"({"op":"initialized","value":true})" };
}

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
   static Fuzz::Published published;
   static Tools::Operations operations{ published.source, []( uint64_t ) {} };
   published.source.clear();
   std::string_view left( reinterpret_cast<const char*>( data ), size );
   while( !left.empty() ) {
      const std::string_view line = left.substr( 0, left.find( '\n' ) );
      left.remove_prefix( std::min( line.size() + 1, left.size() ) );
      if( const auto refused = operations.carryOut( line ) )
         require( !refused->empty(), "a refusal says why" );
   }
   (void)published.source.end();
   published.requireSound();
   return 0;
}
