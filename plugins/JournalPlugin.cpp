// Writes each change of the host output as one JSON line: who had which host, and when.
//
// L2RIB_JOURNAL in the agent's environment says where to: the name of a file, which is appended to,
// or "stderr". Without it the plug-in does nothing. A line is as `l2ribctl watch --json` prints it,
// with the time in front, in seconds of the agent's clock (those since the machine started):
//
//    {"time":1234.567,"table":"hosts","event":"set","key":{"mac":...,"vlan":10},"value":{...}}
//
// Watch tells net changes; this tells every one, in its order. A line is made within the write that
// it tells of, while the row is as it was written. The lines go out together, at the next turn of
// the event loop, so that the engine is not held up by one system call a host.
#include "agent/Plugin.h"
#include "runtime/Trace.h"
#include "tools/Json.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

using Bridging::MacVlanPair;
using L2Rib::HostAndSource;
using L2Rib::HostOutput;

// A file whose last line was never finished: its writer was killed.
bool isTorn( const std::string& name ) {
   if( !std::filesystem::is_regular_file( name ) )
      return false;
   std::ifstream file( name, std::ios::ate );
   return file.tellg() > 0 && file.seekg( -1, std::ios::end ).get() != '\n';
}

// Where the lines go.
class LineFile {
 public:
   explicit LineFile( const std::string& name ) : name_( name ) {
      fd_ = name == "stderr"
               ? dup( STDERR_FILENO )
               : open( name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640 );
      if( fd_ < 0 )
         throw std::runtime_error( "L2RIB_JOURNAL=" + name + ": " + std::strerror( errno ) );
      if( isTorn( name ) )
         write( "\n" );
   }
   ~LineFile() { close( fd_ ); }
   LineFile( const LineFile& ) = delete;
   LineFile& operator=( const LineFile& ) = delete;

   // Some of it may be written when there is no room for all. Lost lines are reported once, until
   // some could be written again.
   void write( const std::string& lines ) {
      size_t done = 0;
      while( done < lines.size() ) {
         const ssize_t wrote = ::write( fd_, lines.data() + done, lines.size() - done );
         if( wrote < 0 && errno == EINTR )
            continue;
         if( wrote < 0 ) {
            if( !losing_ )
               Vexil::log( "JournalPlugin: lines are lost: " + name_ + ": " +
                           std::strerror( errno ) );
            losing_ = true;
            return;
         }
         done += static_cast<size_t>( wrote );
      }
      losing_ = false;
   }

 private:
   std::string name_;
   int fd_ = -1;
   bool losing_ = false;
};

class Journal : public Vexil::Reactor<HostOutput> {
 public:
   Journal( const std::string& file, const L2Rib::Plugin::Context& context )
      : Reactor( context.l2RibOutput() ), file_( file ), clock_( context.clock() ),
        writeOut_( clock_, [ this ] { writeOut(); } ) {}
   ~Journal() override { writeOut(); }

   void handleEntry( const MacVlanPair& key ) override {
      HostAndSource row;
      const bool there = notifier()->get( key, row );
      lines_ += Tools::text( { { "time", clock_->now() },
                               { "table", "hosts" },
                               { "event", there ? "set" : "del" },
                               { "key", Tools::toJson( key ) },
                               { "value", there ? valueOf( row ) : Tools::Json() } } );
      lines_ += '\n';
      if( lines_.size() < enough )
         writeOut_.timeMinIs( 0 );
      else
         writeOut(); // a large change: memory is bounded
   }

 private:
   static constexpr size_t enough = 1 << 20; // bytes

   static Tools::Json valueOf( const HostAndSource& row ) {
      Tools::Json value = Tools::toJson( row.key() );
      value[ "source" ] = L2Rib::sourceStr( row.source() );
      value.update( Tools::toJson( row.host() ) );
      return value;
   }
   void writeOut() {
      file_.write( lines_ );
      lines_.clear();
   }

   LineFile file_;
   Vexil::Ptr<Vexil::Clock> clock_;
   std::string lines_;
   Vexil::TimerReactor writeOut_;
};

class JournalPlugin : public Vexil::Entity {
 public:
   explicit JournalPlugin( const L2Rib::Plugin::Context& context ) {
      if( const char* const file = std::getenv( "L2RIB_JOURNAL" ); file && *file )
         journal_ = std::make_unique<Journal>( file, context );
   }

 private:
   std::unique_ptr<Journal> journal_;
};

} // namespace

L2RIB_PLUGIN( "L2RibPlugin", JournalPlugin )
