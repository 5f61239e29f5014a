// The examples in Python, beside the programs of this system: the source publishes, and the reader,
// which shares no line with the C++ code, tells what 'l2ribctl watch --json' tells.
#include "tests/ProcessSupport.h"

#include <set>
#include <sstream>

namespace {

using namespace ProcessSupport;
using ExamplesTest = ProcessTest;

// The lines, whatever the order of the lines and of the keys in them.
std::multiset<std::string> told( const std::string& out ) {
   std::multiset<std::string> lines;
   std::istringstream from( out.substr( 0, out.rfind( '\n' ) + 1 ) );
   for( std::string line; std::getline( from, line ); )
      lines.insert( Json::parse( line, nullptr, false ).dump() );
   return lines;
}

TEST_F( ExamplesTest, PythonReaderTellsWhatWatchTells ) {
   startAgent( { "--output-capacity", "64", "--source-hold", "0.1" } );
   settle();
   const std::string readerPath = EXAMPLES_DIR "/reader.py";
   Program reader( folder, { readerPath, state } );
   Program watch = start( L2RIBCTL_PATH, { "watch", "hosts", "--json" } );
   // Waits until both have told that many lines, and compares them.
   const auto bothTell = [ & ]( size_t lines ) {
      EXPECT_TRUE( waitFor( [ & ] {
         return ( reader.count( "\n" ) >= lines && watch.count( "\n" ) >= lines ) || reader.ended();
      } ) )
         << reader.err();
      EXPECT_EQ( told( reader.out() ), told( watch.out() ) ) << reader.err();
      EXPECT_EQ( watch.count( "\n" ), lines );
   };
   bothTell( 1 ); // inSync
   Program source( folder, { EXAMPLES_DIR "/source.py", L2RIBCTL_PATH, state } );
   source.expectOut( "published" );
   bothTell( 2 );
   source.write( "\n" );
   source.expectOut( "moved" );
   bothTell( 3 );

   std::string operations = "{\"op\":\"begin\"}\n" + initialized( true ),
               end = "{\"op\":\"end\"}\n";
   for( unsigned number = 1000; number < 1500; ++number )
      operations += host( number, 100, inlineDest );
   keep( "bulk", "0x40", operations + end ); // the output doubles several times
   bothTell( 503 );
   stopAgent( SIGKILL );
   startAgent( { "--source-hold", "0.1" } );
   settle();
   keep( "bulk", "0x40", "{\"op\":\"begin\"}\n" + host( 1000, 200, inlineDest ) + end );
   bothTell( 503 + 500 );
   source.write( "\n" );
   EXPECT_EQ( source.status(), 0 ) << source.err();
   bothTell( 503 + 501 );
   EXPECT_EQ( reader.count( "\"del\"" ), 500u );
   EXPECT_EQ( reader.count( "\"example\"" ), 2u ) << "by its name";

   Program list( folder, { readerPath, state, "--list" } );
   EXPECT_EQ( list.status(), 0 ) << list.err();
   EXPECT_EQ( list.count( "\n" ), 2u ) << list.out();
   Program astray( folder, { readerPath, folder.file( "nowhere" ) } );
   EXPECT_EQ( astray.status(), 1 );
   expectIn( astray.err(), "reader.py: [Errno 2] No such file or directory" );
}

} // namespace
