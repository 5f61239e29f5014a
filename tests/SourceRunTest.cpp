// What a source is told when it says something wrong: bad operations and bad names.
#include "tests/ProcessSupport.h"

#include <algorithm>

namespace {

using namespace ProcessSupport;

class SourceRunTest : public ProcessTest {};

TEST_F( SourceRunTest, BadLinesAreReportedAndChangeNothing ) {
   const std::string key = R"("mac":"02:00:00:00:00:01","vlan":10,)";
   const std::vector<std::pair<std::string, std::string>> lines{
      { "nonsense", "not valid JSON at character" },
      { std::string( 500000, '[' ) + std::string( 500000, ']' ), "nested deeper than 16 levels" },
      { R"({"op":"host",)" + key + inlineDest + R"(,"pref":1e999})", "a number that is too large" },
      { std::string( 2 << 20, 'x' ), "longer than 1 MiB" },
      { "[]", "the line is []; expected an object" },
      { R"({"op":"clear"})" + std::string( 1, '\0' ) + "{}", "a zero byte at character 15" },
      { R"({"vlan":1})", "\"op\" is missing" },
      { R"({"op":"hosts"})", "unknown op \"hosts\"; expected one of" },
      { R"({"op":"host",)" + key + group + R"(,"colour":1})", "unknown key \"colour\"" },
      { R"({"op":"host",)" + key + R"("pref":1})", "neither \"next\" nor \"inline\"" },
      { R"({"op":"host",)" + key + group + "," + inlineDest + "}", "both \"next\" and \"inline\"" },
      { R"({"op":"host",)" + key + inlineDest + R"(,"pref":1.0})", "\"pref\" is 1.0; expected" },
      { R"({"op":"host",)" + key + inlineDest + R"(,"pref":4294967296})", "0 to 4294967295" },
      { R"({"op":"host","mac":"2:0:0:0:0:1","vlan":1,)" + inlineDest + "}",
        "a MAC address such as" },
      { R"({"op":"host","mac":"02:00:00:00:00:01","vlan":0,)" + inlineDest + "}", "1 to 4094" },
      { R"({"op":"hostDel","mac":"02:00:00:00:00:01","vlan":4095})", "1 to 4094" },
      { R"({"op":"host",)" + key + R"("inline":{"vteps":["10.0.0.1","10.0.0.1"]}})", "ascending" },
      { R"({"op":"host",)" + key + R"("inline":{"vteps":["1.1.1.1","1.1.1.2","1.1.1.3"]}})",
        "more than 2 VTEPs" },
      { R"({"op":"host",)" + key + R"("inline":{"value":18446744073709551616}})", "whole number" },
      { R"({"op":"host",)" + key + R"("next":{"type":"host","id":1}})", "\"lb\", \"label\" or" },
      { R"({"op":"host",)" + key + R"("next":{"type":"lb","id":0}})", "lb id 0 is reserved" },
      { R"({"op":"dest","id":0,"intf":{"id":1}})", "dest id 0 is reserved" },
      { R"({"op":"dest","id":18446744073709551615,"intf":{"id":1}})", "is reserved" },
      { R"({"op":"dest","id":1,"intf":{"id":1},"vxlan":{"vtep":"1.1.1.1","vni":1}})",
        "more than one" },
      { R"({"op":"dest","id":1,"vxlan":{"vtep":"1.1.1.1","vni":16777216}})", "past 24 bits" },
      { R"({"op":"dest","id":1,"mpls":{"intf":1,"labels":[1,2,3,4,5,6,7,8,9]}})",
        "8 are the most" },
      { R"({"op":"dest","id":1,"tunnel":{"source":"1.1.1.1","destination":"1.1.1.2","ttl":256}})",
        "0 to 255" },
      { R"({"op":"lb","id":1,"nexts":[]})", "0 nexts; it has 1 to 16" },
      { R"({"op":"lb","id":1,"nexts":7})", "a list, [...]" },
      { R"({"op":"label","id":1,"label":1048576,"next":{"type":"dest","id":1}})", "past 20 bits" },
      { R"({"op":"flood",)" + key + R"("type":"all","dest":{"intf":{"id":1}}})",
        "\"vxlan\", \"intf\" or" },
      { R"({"op":"flood",)" + key + R"("type":"invalid","dest":{"intf":{"id":1}}})",
        "no known type: it is vxlan" },
      { R"({"op":"initialized","value":1})", "true or false" },
      { R"({"op":"end"})", "end without begin" },
   };
   std::string input;
   for( const auto& [ line, expected ] : lines )
      input += line + "\n";
   input +=
      "{\"op\":\"begin\"}\n\n{\"op\":\"begin\"}"; // an empty line is none; the last one counts
   const std::string file = folder.file( "lines" );
   TestSupport::replace( file, input );
   Program program = source( "evpn", "0x40", { "--keep" }, file );
   EXPECT_EQ( program.status(), 3 );
   const std::string err = program.err();
   for( size_t i = 0; i < lines.size(); ++i ) {
      const std::string start = "l2ribctl: line " + std::to_string( i + 1 ) + ": ";
      const size_t at = err.find( start );
      ASSERT_NE( at, err.npos ) << start << err;
      const std::string report = err.substr( at, err.find( '\n', at ) - at );
      expectIn( report, lines[ i ].second );
   }
   EXPECT_EQ( static_cast<size_t>( std::count( err.begin(), err.end(), '\n' ) ), lines.size() + 1 );
   expectIn( err, "begin within begin" );
   const Json entry = json( { "source", "list" } )[ 0 ];
   for( const char* table : { "hosts", "dests", "groups", "labels", "flood" } )
      EXPECT_EQ( entry[ table ], 0 ) << table;
   EXPECT_FALSE( entry[ "initialized" ] );

   // Reserved are 0, and all ones for a dest, alone.
   EXPECT_EQ( ctl( { "source", "run", "edge", "--value", "8" },
                   R"({"op":"host","mac":"00:00:00:00:00:00","vlan":1,)" + inlineDest + "}\n" +
                      R"({"op":"lb","id":18446744073709551615,"nexts":[{"type":"label","id":)" +
                      "18446744073709551615}]}\n" )
                 .status,
              0 );

   // What depends on the table: a full one, and one that a host-only source has not.
   const Result full = ctl(
      { "source", "run", "full", "--value", "1", "--host-capacity", "1", "--capacity-max", "2" },
      host( 1, 1, inlineDest ) + host( 2, 1, inlineDest ) + host( 3, 1, inlineDest ) + syncOp );
   EXPECT_EQ( full.status, 3 );
   expectIn( full.err, "line 3: host: the table of hosts is full: it has room for 2" );
   EXPECT_EQ( full.out, "{\"synced\":2}\n" );
   const Result only = ctl( { "source", "run", "only", "--value", "2", "--host-only" },
                            objects + host( 1, 1, group ) );
   EXPECT_EQ( std::count( only.err.begin(), only.err.end(), '\n' ), 4 ) << only.err;
   // One that becomes host-only keeps those hosts that can be without objects.
   keep( "became", "4", objects + host( 1, 1, group ) + host( 2, 1, inlineDest ) );
   EXPECT_EQ( ctl( { "source", "run", "became", "--value", "4", "--host-only", "--keep" } ).status,
              0 );
   EXPECT_EQ( json( { "source", "list" } )[ 0 ][ "hosts" ], 1 );
}

TEST_F( SourceRunTest, WhatMayNotBePublishedIsRefused ) {
   Program evpn = source( "evpn", "0x40" );
   evpn.write( host( 1, 100, inlineDest ) + syncOp );
   evpn.expectOut( "synced" );
   const Json before = json( { "source", "list" } );
   struct Refused {
      std::string name;
      std::string value;
      int status;
      std::string expected;
   };
   for( const auto& [ name, value, status, expected ] : std::vector<Refused>{
           { "static", "0x1", 2, "\"static\" is that of the static configuration" },
           { "", "0x1", 2, "1 to 63 characters" },
           { std::string( 64, 'x' ), "0x1", 2, "1 to 63 characters" },
           { ".hidden", "0x1", 2, "neither begins with" },
           { "a/b", "0x1", 2, "neither begins with" },
           { "other", "0x10", 2, "value 0x10 is that of the static configuration" },
           { "other", "0x3", 2, "0x3 is no single bit" },
           { "other", "0", 2, "no single bit" },
           { "other", "0x140000000", 2, "value 0x140000000 is no single bit of 32" },
           { "other", "forty", 2, "expected a whole number" },
           { "other", "64", 1, "value 0x40 is that of source evpn" },
           { "evpn", "0x40", 1, "run by another process" },
           { "evpn", "0x8", 1, "run by another process" },
        } ) {
      const Result result = ctl( { "source", "run", name, "--value", value } );
      EXPECT_EQ( result.status, status ) << name << " " << value << ": " << result.err;
      expectIn( result.err, expected );
   }
   EXPECT_EQ( ctl( { "source", "delete", "evpn" } ).status, 1 );
   EXPECT_EQ( ctl( { "source", "delete", "nobody" } ).status, 1 );
   const Result unknown = ctl( { "show", "nothing" } );
   EXPECT_EQ( unknown.status, 2 );
   expectIn( unknown.err, "not understood: nothing" );
   EXPECT_EQ( json( { "source", "list" } ), before );
}

} // namespace
