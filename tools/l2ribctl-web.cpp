// l2ribctl-web: a page to look at, for a browser on this machine. A program of its own, run by
// l2ribctl web: its library brings others with it (TLS, compression), which would make the start of
// every other command three times as long.
//
// It only reads, as show, explain and watch do, and answers with their JSON. Who may connect may
// see all of the state directory: so it listens on loopback addresses or on a Unix socket, and
// nowhere else. A page of another site that has its name resolved to a loopback address sends that
// name as the host, and is refused.
#include "tools/Explain.h"
#include "tools/HostList.h"
#include "tools/Status.h"
#include "tools/WebLive.h"
#include "tools/WebPage.h"
#include "tools/WebPlace.h"

#include <httplib.h>

#include <atomic>
#include <csignal>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>

namespace Tools {

using namespace L2Rib;
using Client::OutputReader;

namespace {

constexpr size_t listenersMost = 16;
constexpr size_t threads = listenersMost + 4; // each listener occupies one
constexpr size_t rowsMost = 1000;             // of hosts in an answer
constexpr size_t rowsUnlessAsked = 200;
constexpr std::chrono::milliseconds patience( 1000 ); // until a look whether the listener is there
constexpr std::chrono::milliseconds pause( 250 );     // between two deliveries to a listener

// Whether a request is meant for this server, by its Host header.
bool isForUs( const std::string& host ) {
   const std::string name = hostAndPort( host ).first;
   return name == "localhost" || isLoopback( name );
}

// --- the answers

Json hostsJson( const Context& context, const httplib::Request& request ) {
   const OutputReader output( context.stateDirectory );
   requireTables( output, context );
   const HostStates states( context );
   RowFilter filter;
   size_t most = rowsUnlessAsked;
   for( const auto& [ name, value ] : request.params )
      if( name == "limit" )
         most = std::min<uint64_t>( numberOf( Json( value ), "limit" ), rowsMost );
      else if( !value.empty() )
         filter.optionIs( name, value );
   filter.resolve( states.names );
   Vias vias( output );
   const HostSelection found = selectHosts( output, filter, vias, most );
   Json rows = Json::array();
   for( const HostAndSource& row : found.rows ) {
      Json json = toJson( row, states.names );
      json[ "via" ] = vias.text( row.host() );
      json[ "age" ] = hostAge( row );
      json[ "state" ] = states.of( row );
      rows.push_back( std::move( json ) );
   }
   return { { "total", output.hosts.table()->count() },
            { "matched", found.matched },
            { "parked", states.parkedWithoutRow( output, filter ) },
            { "rows", std::move( rows ) } };
}

Json hostJson( const Context& context, const httplib::Request& request ) {
   const OutputReader output( context.stateDirectory );
   return explainInWords(
      context, output,
      hostKeyOf( request.get_param_value( "mac" ), request.get_param_value( "vlan" ) ) );
}

Json overviewJson( const Context& context ) {
   const OutputReader output( context.stateDirectory );
   requireTables( output, context );
   const Json status = statusJson( context, output );
   Json sources = sourceList( context );
   Json lines = Json::array();
   for( const auto& line : statusLines( status, sources ) )
      lines.push_back( line );
   const bool runs = status[ "agent" ] == "running";
   for( Json& source : sources ) {
      const auto [ state, fault ] = sourceState( source, runs );
      source[ "state" ] = state;
      source[ "fault" ] = fault;
   }
   return { { "stateDirectory", context.stateDirectory },
            { "status", status },
            { "statusLines", lines },
            { "sources", sources } };
}

// --- the server

class WebServer {
 public:
   explicit WebServer( const Context& context ) : context_( context ) {
      server_.new_task_queue = [] { return new httplib::ThreadPool( threads ); };
      server_.set_keep_alive_max_count( 1 ); // no idle connection occupies a thread
      server_.set_read_timeout( 5 );
      server_.set_write_timeout( 5 );
      server_.set_payload_max_length( 0 );
      server_.set_socket_options( []( int socket ) { // two servers never share a port
         const int on = 1;
         setsockopt( socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on );
      } );
      server_.set_default_headers(
         { { "Cache-Control", "no-store" },
           { "X-Content-Type-Options", "nosniff" },
           { "Content-Security-Policy", "default-src 'none'; connect-src 'self'; img-src data:; "
                                        "style-src 'unsafe-inline'; script-src 'unsafe-inline'; "
                                        "base-uri 'none'; form-action 'none'; "
                                        "frame-ancestors 'none'" } } );
      addRoutes();
   }

   int run( const WebPlace& place ) {
      // Blocked before any thread is there, which would otherwise be the one that a signal ends.
      sigset_t signals;
      sigemptyset( &signals );
      sigaddset( &signals, SIGINT );
      sigaddset( &signals, SIGTERM );
      pthread_sigmask( SIG_BLOCK, &signals, nullptr );
      bind( place );
      std::thread waiting( [ & ] {
         int signal = 0;
         sigwait( &signals, &signal );
         stopping_ = true;
         server_.stop();
      } );
      const bool served = server_.listen_after_bind();
      if( !stopping_ )
         kill( getpid(), SIGTERM ); // ends the thread that waits
      waiting.join();
      if( !place.socket.empty() )
         unlink( place.socket.c_str() );
      return served ? done : answerIsNo;
   }

 private:
   void addRoutes() {
      server_.set_pre_routing_handler(
         [ this ]( const httplib::Request& request, httplib::Response& response ) {
            if( request.method != "GET" && request.method != "HEAD" )
               return refused( response, 405, "this page is for reading: expected GET" );
            if( !onSocket_ && !isForUs( request.get_header_value( "Host" ) ) )
               return refused( response, 403, "expected localhost or a loopback address as host" );
            return httplib::Server::HandlerResponse::Unhandled;
         } );
      server_.Get( "/", []( const httplib::Request&, httplib::Response& response ) {
         response.set_content( webPage, "text/html; charset=utf-8" );
      } );
      addAnswer( "/api/overview",
                 [ this ]( const httplib::Request& ) { return overviewJson( context_ ); } );
      addAnswer( "/api/hosts", [ this ]( const httplib::Request& request ) {
         return hostsJson( context_, request );
      } );
      addAnswer( "/api/host", [ this ]( const httplib::Request& request ) {
         return hostJson( context_, request );
      } );
      server_.Get( "/api/events",
                   [ this ]( const httplib::Request& request, httplib::Response& response ) {
                      answer( response, [ & ] { sendEvents( request, response ); } );
                   } );
   }

   static httplib::Server::HandlerResponse refused( httplib::Response& response, int status,
                                                    const std::string& why ) {
      response.status = status;
      response.set_content( text( { { "error", why } } ) + "\n", "application/json" );
      return httplib::Server::HandlerResponse::Handled;
   }
   // What the commands say on standard error is the text of the error here.
   template<class Work>
   static void answer( httplib::Response& response, Work work ) {
      try {
         work();
      } catch( const BadInput& wrong ) {
         refused( response, 400, wrong.what() );
      } catch( const Vexil::TableError& failure ) {
         refused( response, 503, failure.what() );
      } catch( const std::exception& failure ) {
         refused( response, 404, failure.what() );
      }
   }
   template<class Make>
   void addAnswer( const char* path, Make make ) {
      server_.Get( path,
                   [ this, make ]( const httplib::Request& request, httplib::Response& response ) {
                      answer( response, [ & ] {
                         // One at a time: however many pages are open, they take no more than one
                         // processor.
                         const std::lock_guard locked( oneAtATime_ );
                         response.set_content( text( make( request ) ) + "\n", "application/json" );
                      } );
                   } );
   }

   // Server-sent events (HTML standard, section 9.2): a line of watch each; "left" counts those
   // that were left out.
   void sendEvents( const httplib::Request& request, httplib::Response& response ) {
      RowFilter filter;
      for( const auto& [ name, value ] : request.params )
         if( !value.empty() && ( name == "vlan" || name == "mac" ) )
            filter.optionIs( name, value );
      filter.resolve( SourceNames( context_ ) );
      // Counted for as long as the response keeps it.
      const std::shared_ptr<void> place( nullptr, [ this ]( void* ) { --listeners_; } );
      if( ++listeners_ > listenersMost ) {
         refused( response, 503,
                  "too many pages are open: " + std::to_string( listenersMost ) +
                     " may have live changes at a time" );
         return;
      }
      const auto listener = std::make_shared<LiveListener>( liveWatch(), filter );
      response.set_chunked_content_provider(
         "text/event-stream",
         [ this, listener, place, begun = false ]( size_t, httplib::DataSink& sink ) mutable {
            std::string data = std::exchange( begun, true ) ? "" : "retry: 2000\n\n";
            const auto taken = listener->take( data.empty() ? patience : pause * 0 );
            if( taken.left != 0 )
               data += "event: left\ndata: " + std::to_string( taken.left ) + "\n\n";
            for( const std::string& line : taken.lines )
               data += "data: " + line + "\n\n";
            if( stopping_ || !sink.is_writable() ||
                ( !data.empty() && !sink.write( data.data(), data.size() ) ) )
               return false;
            if( taken.ended )
               sink.done();
            else if( !taken.lines.empty() )
               std::this_thread::sleep_for( pause );
            return true;
         } );
   }
   std::shared_ptr<LiveWatch> liveWatch() {
      const std::lock_guard locked( liveLock_ );
      std::shared_ptr<LiveWatch> watch = live_.lock();
      if( !watch )
         live_ = watch = std::make_shared<LiveWatch>( context_ );
      return watch;
   }

   void bind( const WebPlace& place ) {
      onSocket_ = !place.socket.empty();
      if( onSocket_ )
         return bindSocket( place.socket );
      const int port = place.port == 0 ? server_.bind_to_any_port( place.address )
                       : server_.bind_to_port( place.address, place.port ) ? place.port
                                                                           : -1;
      const bool six = place.address.find( ':' ) != place.address.npos;
      const std::string shown = six ? "[" + place.address + "]" : place.address;
      if( port < 0 )
         throw std::runtime_error( shown + ":" + std::to_string( place.port ) +
                                   " can't be listened on: " + std::strerror( errno ) +
                                   "; --listen takes another port" );
      std::cout << "http://" << shown << ':' << port << "/" << std::endl;
   }
   // What the path has of a server that was killed goes; of one that lives it is refused.
   void bindSocket( const std::string& path ) {
      sockaddr_un address{ .sun_family = AF_UNIX, .sun_path = {} };
      if( path.size() >= sizeof address.sun_path )
         throw BadInput( "--socket " + path + ": expected a path of at most " +
                         std::to_string( sizeof address.sun_path - 1 ) + " characters" );
      path.copy( address.sun_path, path.size() );
      const int probe = socket( AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0 );
      const bool refused =
         connect( probe, reinterpret_cast<const sockaddr*>( &address ), sizeof address ) < 0 &&
         errno == ECONNREFUSED;
      close( probe );
      struct stat status {};
      if( refused && lstat( path.c_str(), &status ) == 0 && S_ISSOCK( status.st_mode ) )
         unlink( path.c_str() );
      const mode_t before = umask( 0117 ); // for the owner and the group
      const bool bound = server_.set_address_family( AF_UNIX ).bind_to_port( path, 80 );
      const int why = errno;
      umask( before );
      if( !bound )
         throw std::runtime_error( path + " can't be listened on: " + std::strerror( why ) );
      std::cout << path << std::endl;
   }

   const Context& context_;
   httplib::Server server_;
   std::mutex oneAtATime_;
   std::mutex liveLock_;
   std::weak_ptr<LiveWatch> live_;
   std::atomic<size_t> listeners_{ 0 };
   std::atomic<bool> stopping_{ false };
   bool onSocket_ = false;
};

} // namespace

} // namespace Tools

// l2ribctl-web STATE_DIRECTORY --listen ADDRESS:PORT | --socket PATH
int main( int argc, char** argv ) {
   const std::string how = argc == 4 ? argv[ 2 ] : "";
   if( how != "--listen" && how != "--socket" ) {
      Tools::complain( "this program is run by 'l2ribctl web'" );
      return Tools::badUsage;
   }
   Tools::Context context;
   context.stateDirectory = argv[ 1 ];
   try {
      return Tools::WebServer( context ).run(
         how == "--listen" ? Tools::placeFor( argv[ 3 ] ) : Tools::WebPlace{ "", 0, argv[ 3 ] } );
   } catch( const Tools::BadInput& wrong ) {
      Tools::complain( std::string( "web: " ) + wrong.what() );
      return Tools::badUsage;
   } catch( const std::exception& failure ) {
      Tools::complain( std::string( "web: " ) + failure.what() );
      return Tools::answerIsNo;
   }
}
