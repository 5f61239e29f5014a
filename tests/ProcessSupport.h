// What the tests with processes share: a program under test, a private state directory with an
// agent on it, and the operations of a source in short.
#pragma once

#include "L2Rib/NetTypes.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace ProcessSupport {

using Json = nlohmann::json;
using TestSupport::bytesOf;
using TestSupport::patience;
using TestSupport::waitFor;
using Words = std::vector<std::string>;

inline void expectIn( const std::string& text, const std::string& part ) {
   EXPECT_NE( text.find( part ), text.npos ) << part << " is missing in: " << text;
}

inline size_t occurrences( const std::string& text, const std::string& all ) {
   size_t found = 0;
   for( size_t at = 0; ( at = all.find( text, at ) ) != all.npos; at += text.size() )
      ++found;
   return found;
}

// A child process. Its standard input is a pipe or a file, its outputs go to files.
class Program {
 public:
   Program( const TestSupport::TemporaryFolder& folder, Words words,
            const std::string& input = "" ) {
      static int serial = 0;
      const std::string base = folder.file( std::to_string( ++serial ) );
      out_ = base + ".out";
      err_ = base + ".err";
      int ends[ 2 ];
      EXPECT_EQ( pipe2( ends, O_CLOEXEC ), 0 );
      std::vector<char*> arguments;
      for( std::string& word : words )
         arguments.push_back( word.data() );
      arguments.push_back( nullptr );
      pid_ = fork();
      if( pid_ == 0 ) {
         const int in = input.empty() ? ends[ 0 ] : open( input.c_str(), O_RDONLY );
         if( in < 0 || dup2( in, 0 ) < 0 || dup2( created( out_ ), 1 ) < 0 ||
             dup2( created( err_ ), 2 ) < 0 )
            _exit( 126 );
         execv( arguments[ 0 ], arguments.data() );
         _exit( 127 );
      }
      close( ends[ 0 ] );
      in_ = ends[ 1 ];
   }
   ~Program() {
      closeInput();
      if( pid_ > 0 && !ended() ) {
         signal( SIGKILL );
         waitpid( pid_, nullptr, 0 );
      }
   }
   Program( const Program& ) = delete;
   Program& operator=( const Program& ) = delete;

   void write( const std::string& text ) {
      EXPECT_EQ( ::write( in_, text.data(), text.size() ), static_cast<ssize_t>( text.size() ) );
   }
   void closeInput() {
      if( in_ >= 0 )
         close( in_ );
      in_ = -1;
   }
   void signal( int number ) { kill( pid_, number ); }
   pid_t id() const { return pid_; }
   bool ended() {
      if( !ended_ )
         ended_ = waitpid( pid_, &status_, WNOHANG ) == pid_;
      return ended_;
   }
   // The exit status, or minus the number of the signal that ended it.
   int status() {
      closeInput();
      EXPECT_TRUE( waitFor( [ this ] { return ended(); } ) ) << err();
      return WIFEXITED( status_ ) ? WEXITSTATUS( status_ ) : -WTERMSIG( status_ );
   }
   std::string out() const { return bytesOf( out_ ); }
   std::string err() const { return bytesOf( err_ ); }
   // Waits until that much is to be read, as many times.
   void expectOut( const std::string& text, size_t times = 1 ) {
      EXPECT_TRUE( waitFor( [ & ] { return count( text ) >= times || ended(); } ) );
      EXPECT_GE( count( text ), times ) << text << " is missing in: " << out() << err();
   }
   size_t count( const std::string& text ) const { return occurrences( text, out() ); }

 private:
   static int created( const std::string& file ) {
      return open( file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600 );
   }

   std::string out_;
   std::string err_;
   pid_t pid_ = -1;
   int in_ = -1;
   int status_ = 0;
   bool ended_ = false;
};

inline std::string mac( unsigned number ) {
   return Vexil::EthAddr( 0x020000000000 + number ).str();
}

inline std::string host( unsigned number, unsigned pref, const std::string& where ) {
   return R"({"op":"host","mac":")" + mac( number ) + R"(","vlan":10,"pref":)" +
          std::to_string( pref ) + "," + where + "}\n";
}
inline const std::string inlineDest = R"("inline":{"value":12})";
inline const std::string group = R"("next":{"type":"lb","id":7})";
inline const std::string objects = R"({"op":"dest","id":1,"vxlan":{"vtep":"10.0.0.1","vni":10010}}
{"op":"label","id":3,"label":1000,"next":{"type":"dest","id":1}}
{"op":"lb","id":7,"nexts":[{"type":"dest","id":1},{"type":"label","id":3}]}
)";
inline std::string hostDel( unsigned number ) {
   return R"({"op":"hostDel","mac":")" + mac( number ) + R"(","vlan":10})" + "\n";
}
inline const std::string allHosts = "ff:ff:ff:ff:ff:ff";
inline const std::string flood =
   R"({"op":"flood","vlan":10,"mac":")" + allHosts +
   R"(","type":"vxlan","dest":{"vxlan":{"vtep":"10.0.0.9","vni":10010}}})"
   "\n";
inline std::string initialized( bool on ) {
   return std::string( R"({"op":"initialized","value":)" ) + ( on ? "true" : "false" ) + "}\n";
}
inline const std::string syncOp = "{\"op\":\"sync\"}\n";

class ProcessTest : public testing::Test {
 protected:
   struct Result {
      int status;
      std::string out;
      std::string err;
   };

   Program start( const std::string& path, Words words, const std::string& input = "" ) {
      words.insert( words.begin(), { path, "--state-dir", state } );
      return Program( folder, std::move( words ), input );
   }
   void startAgent( Words words = {} ) {
      words.insert( words.begin(), { L2RIBD_PATH, "--state-dir", state } );
      agent = std::make_unique<Program>( folder, words );
   }
   void stopAgent( int signal = SIGTERM ) {
      agent->signal( signal );
      EXPECT_EQ( agent->status(), signal == SIGKILL ? -SIGKILL : 0 ) << agent->err();
   }
   Program source( const std::string& name, const std::string& value, Words more = {},
                   const std::string& input = "" ) {
      more.insert( more.begin(), { "source", "run", name, "--value", value } );
      return start( L2RIBCTL_PATH, more, input );
   }
   Result ctl( Words words, const std::string& input = "" ) {
      Program program = start( L2RIBCTL_PATH, std::move( words ) );
      if( !input.empty() )
         program.write( input );
      const int status = program.status();
      return { status, program.out(), program.err() };
   }
   Json json( Words words, int status = 0 ) {
      words.push_back( "--json" );
      const Result result = ctl( words );
      EXPECT_EQ( result.status, status ) << result.err;
      return Json::parse( result.out, nullptr, false );
   }
   void settle() {
      const Result result = ctl( { "settle", "--timeout", "60" } );
      EXPECT_EQ( result.status, 0 ) << result.err << ( agent ? agent->err() : "" );
   }
   // Has a source carry out operations, and waits until the agent has worked them off.
   void publish( Program& source, const std::string& operations ) {
      const size_t synced = source.count( "synced" );
      source.write( operations + syncOp );
      source.expectOut( "synced", synced + 1 );
      settle();
   }
   // Runs a source on these operations and leaves it behind.
   void keep( const std::string& name, const std::string& value, const std::string& operations ) {
      const Result result =
         ctl( { "source", "run", name, "--value", value, "--keep" }, operations );
      EXPECT_EQ( result.status, 0 ) << result.err;
   }
   std::string winner( unsigned number ) {
      const Json rows = json( { "show", "hosts", "--mac", mac( number ) } );
      return rows.empty() ? "none" : rows[ 0 ][ "sourceName" ].get<std::string>();
   }

   TestSupport::TemporaryFolder folder;
   const std::string state = folder.file( "state" );
   std::unique_ptr<Program> agent;
};

} // namespace ProcessSupport
