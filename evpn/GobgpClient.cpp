#include "evpn/GobgpClient.h"

#include "evpn/GobgpMessages.h"
#include "gobgp.grpc.pb.h"
#include "gobgp.pb.h"

#include <google/protobuf/stubs/logging.h>
#include <grpcpp/grpcpp.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <sys/eventfd.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace Evpn {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds firstRetry( 100 );
constexpr milliseconds longestRetry( 5000 );
constexpr std::chrono::seconds callTimeout( 60 ); // a gobgpd with a large table may be long silent
// For its peers, which are asked for every few seconds. That is the sign of life: pings of HTTP/2
// more often than every 5 minutes are an offence to a server in Go, which then hangs up (grpc-go,
// keepalive.EnforcementPolicy).
constexpr std::chrono::seconds signTimeout( 10 );
constexpr int changesInEvent = 1000;
constexpr size_t eventsQueued = 64;
constexpr int pathsInMessage = 500;

std::shared_ptr<grpc::Channel> channelTo( const std::string& address ) {
   grpc::ChannelArguments arguments;
   arguments.SetMaxReceiveMessageSize( -1 );
   arguments.SetInt( GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1 ); // with no failures remembered
   arguments.SetInt( GRPC_ARG_ENABLE_HTTP_PROXY, 0 );
   return grpc::CreateCustomChannel( address, grpc::InsecureChannelCredentials(), arguments );
}

const std::string silent = "gobgpd does not answer";

std::string textOf( const grpc::Status& status ) {
   if( status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED )
      return silent;
   return status.ok() ? "the stream has ended" : status.error_message();
}

// Whether it was the speaker that failed, and not what it was asked for.
bool isAway( const grpc::Status& status ) {
   return status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED ||
          status.error_code() == grpc::StatusCode::UNAVAILABLE ||
          status.error_code() == grpc::StatusCode::CANCELLED;
}

} // namespace

bool allSettled( const std::vector<Peer>& peers ) {
   size_t settled = 0; // none at all is a speaker that has not read its configuration yet
   for( const Peer& peer : peers ) {
      if( !peer.up || !peer.evpn )
         continue;
      if( !peer.established || !peer.endOfRib || ( peer.restarting && peer.upFor < longUp ) )
         return false;
      ++settled;
   }
   return settled > 0;
}

// All that the threads share. The mutex guards what is below it; nothing is waited for with it held
// but the conditions.
struct GobgpClient::State {
   explicit State( const Options& chosen )
      : options( chosen ), wakeUp( eventfd( 0, EFD_CLOEXEC | EFD_NONBLOCK ) ) {
      if( wakeUp < 0 )
         throw std::system_error( errno, std::generic_category(), "eventfd" );
      reader = std::thread( [ this ] { readForEver(); } );
      caller = std::thread( [ this ] { callForEver(); } );
   }
   ~State() {
      {
         const std::lock_guard lock( mutex );
         stopping = true;
         for( grpc::ClientContext* const context : contexts )
            context->TryCancel();
      }
      changed.notify_all();
      reader.join();
      caller.join();
      close( wakeUp );
   }

   // A call that ends when this program does. Without a limit in time where none is given.
   class Call {
    public:
      explicit Call( State& state, std::optional<std::chrono::seconds> limit = callTimeout )
         : state_( state ) {
         if( limit )
            context.set_deadline( std::chrono::system_clock::now() + *limit );
         const std::lock_guard lock( state_.mutex );
         state_.contexts.push_back( &context );
         if( state_.stopping )
            context.TryCancel();
      }
      ~Call() {
         const std::lock_guard lock( state_.mutex );
         std::erase( state_.contexts, &context );
      }
      grpc::ClientContext context;

    private:
      State& state_;
   };

   void post( Event event, bool wait = false ) {
      std::unique_lock lock( mutex );
      if( wait )
         changed.wait( lock, [ this ] { return stopping || events.size() < eventsQueued; } );
      events.push_back( std::move( event ) );
      const uint64_t one = 1;
      [[maybe_unused]] const ssize_t never = ::write( wakeUp, &one, sizeof one );
   }
   std::shared_ptr<apipb::GobgpApi::Stub> stub() {
      const std::lock_guard lock( mutex );
      if( !channel )
         channel = apipb::GobgpApi::NewStub( channelTo( options.address ) );
      return channel;
   }
   // Returns false when the program ends.
   bool pause( milliseconds time ) {
      std::unique_lock lock( mutex );
      return !changed.wait_for( lock, time, [ this ] { return stopping; } );
   }

   void readForEver();
   std::string openSession( Event& begin );
   std::string readSession( const Event& begin );
   std::string listRoutes( const Event& begin );
   void postRoutes( const google::protobuf::RepeatedPtrField<apipb::Path>& paths,
                    const Event& begin );
   grpc::Status listPeers( std::vector<Peer>& peers );
   bool endsWith( const grpc::Status& status );
   bool goesOn( uint64_t session );
   void callForEver();
   void carryOut( uint64_t session, const std::vector<Announcement>& batch );
   grpc::Status announceAll( const std::vector<Announcement>& batch );
   grpc::Status announce( const Announcement& one );

   const Options options;
   int wakeUp = -1;

   std::mutex mutex;
   std::condition_variable changed;
   bool stopping = false;
   bool peersWanted = false;
   bool again = false;
   bool hung = false;
   grpc::ClientContext* stream = nullptr;          // that is being read
   uint64_t streamed = 0;                          // its session
   std::vector<grpc::ClientContext*> contexts;     // of calls under way
   std::shared_ptr<apipb::GobgpApi::Stub> channel; // a new one after each failure
   std::deque<Event> events;
   std::deque<std::pair<uint64_t, std::vector<Announcement>>> writes;
   uint64_t sessions = 0; // used by the reader alone

   std::thread reader;
   std::thread caller;
};

// --- the reader

void GobgpClient::State::readForEver() {
   milliseconds interval = firstRetry;
   do {
      Event begin;
      begin.kind = Event::connected;
      begin.session = ++sessions;
      std::string failure = openSession( begin );
      if( failure.empty() ) {
         failure = readSession( begin );
         interval = firstRetry;
      }
      {
         const std::lock_guard lock( mutex );
         if( stopping )
            return;
         if( std::exchange( again, false ) )
            continue;
         writes.clear();  // the next session will find out anew what is to be written
         channel.reset(); // by itself, a channel waits longer and longer before it connects
      }
      Event lost;
      lost.text = failure;
      post( std::move( lost ) );
      if( !pause( interval ) )
         return;
      interval = std::min( 2 * interval, longestRetry );
   } while( true );
}

// What the session rests on; returns why there is none.
std::string GobgpClient::State::openSession( Event& begin ) {
   apipb::GetBgpResponse response;
   Call call( *this );
   if( const grpc::Status status =
          stub()->GetBgp( &call.context, apipb::GetBgpRequest(), &response );
       !status.ok() )
      return textOf( status );
   const auto router = IpGenAddr::parse( response.global().router_id() );
   if( response.global().asn() == 0 || !router )
      return "gobgpd has no AS and router id yet";
   begin.speaker = { response.global().asn(), *router };
   begin.import = std::make_shared<const Import>( options.vtep, options.vlans, begin.speaker );
   std::vector<Peer> peers;
   if( const grpc::Status status = listPeers( peers ); !status.ok() )
      return textOf( status );
   begin.settled = allSettled( peers );
   return {};
}

// First the changes are asked for, then the table: what changes meanwhile is told by both, and what
// was told last is what stands. (A stream begins with the whole table when that is asked for, but
// in one message; gobgpd sends none of more than 256 MB, which 20,000 routes may fill.)
std::string GobgpClient::State::readSession( const Event& begin ) {
   apipb::WatchEventRequest request;
   request.mutable_table()->add_filters()->set_type(
      apipb::WatchEventRequest::Table::Filter::BEST );
   request.mutable_peer(); // the end of whose list says that the changes come from here on
   Call call( *this, std::nullopt );
   {
      const std::lock_guard lock( mutex );
      stream = &call.context;
      streamed = begin.session;
   }
   const auto changes = stub()->WatchEvent( &call.context, request );
   post( begin );
   apipb::WatchEventResponse response;
   std::string failure;
   while( failure.empty() && changes->Read( &response ) ) {
      if( response.has_table() )
         postRoutes( response.table().paths(), begin );
      else if( response.peer().type() == apipb::WatchEventResponse::PeerEvent::END_OF_INIT )
         failure = listRoutes( begin );
      response.Clear();
   }
   {
      const std::lock_guard lock( mutex );
      stream = nullptr;
      if( std::exchange( hung, false ) )
         failure = silent;
   }
   call.context.TryCancel();
   const grpc::Status status = changes->Finish();
   return failure.empty() ? textOf( status ) : failure;
}

// All best routes that the speaker has; returns why there are none.
std::string GobgpClient::State::listRoutes( const Event& begin ) {
   apipb::ListPathRequest request;
   request.set_table_type( apipb::GLOBAL );
   request.mutable_family()->set_afi( apipb::Family::AFI_L2VPN );
   request.mutable_family()->set_safi( apipb::Family::SAFI_EVPN );
   request.set_enable_only_binary( true );
   Call call( *this, std::nullopt );
   const auto list = stub()->ListPath( &call.context, request );
   apipb::ListPathResponse response;
   google::protobuf::RepeatedPtrField<apipb::Path> paths;
   while( list->Read( &response ) ) {
      auto* const all = response.mutable_destination()->mutable_paths();
      if( const auto best = std::find_if( all->begin(), all->end(),
                                          []( const apipb::Path& path ) { return path.best(); } );
          best != all->end() )
         paths.Add( std::move( *best ) );
      if( paths.size() == changesInEvent ) {
         postRoutes( paths, begin );
         paths.Clear();
      }
   }
   if( const grpc::Status status = list->Finish(); !status.ok() )
      return textOf( status );
   postRoutes( paths, begin );
   Event present;
   present.kind = Event::present;
   present.session = begin.session;
   post( std::move( present ) );
   return {};
}

void GobgpClient::State::postRoutes( const google::protobuf::RepeatedPtrField<apipb::Path>& paths,
                                     const Event& begin ) {
   Event event;
   event.kind = Event::routes;
   event.session = begin.session;
   for( const apipb::Path& path : paths ) {
      if( path.has_family() && path.family().safi() != apipb::Family::SAFI_EVPN )
         continue;
      ParsedPath parsed = parsedPath( path );
      RouteChange change;
      change.reason = parsed.reason;
      change.withdrawn = parsed.withdrawn;
      if( !parsed.withdrawn && parsed.reason == NotTaken::taken ) {
         change.ours = begin.import->announcedByUs( parsed.route );
         change.reason = begin.import->judge( parsed.route, change.vlans );
      }
      change.route = std::move( parsed.route );
      event.changes.push_back( std::move( change ) );
   }
   if( !event.changes.empty() )
      post( std::move( event ), true );
}

// --- the caller

grpc::Status GobgpClient::State::listPeers( std::vector<Peer>& peers ) {
   Call call( *this, signTimeout );
   const auto list = stub()->ListPeer( &call.context, apipb::ListPeerRequest() );
   apipb::ListPeerResponse response;
   while( list->Read( &response ) )
      peers.push_back( peerOf( response.peer() ) );
   return list->Finish();
}

// A speaker that hangs keeps its connections, so the stream would stay silent for ever. Returns
// whether the session has come to its end.
bool GobgpClient::State::endsWith( const grpc::Status& status ) {
   if( !isAway( status ) )
      return false;
   const std::lock_guard lock( mutex );
   if( stream ) {
      hung = status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED;
      for( grpc::ClientContext* const context : contexts )
         context->TryCancel();
   }
   return true;
}

bool GobgpClient::State::goesOn( uint64_t session ) {
   const std::lock_guard lock( mutex );
   return stream && streamed == session && !stopping;
}

void GobgpClient::State::callForEver() {
   while( true ) {
      std::unique_lock lock( mutex );
      changed.wait( lock, [ this ] { return stopping || peersWanted || !writes.empty(); } );
      if( stopping )
         return;
      const bool wanted = std::exchange( peersWanted, false );
      std::optional<std::pair<uint64_t, std::vector<Announcement>>> batch;
      if( !writes.empty() ) {
         batch = std::move( writes.front() );
         writes.pop_front();
      }
      lock.unlock();
      if( batch )
         carryOut( batch->first, batch->second );
      if( !wanted )
         continue;
      Event event;
      event.kind = Event::peers;
      if( const grpc::Status status = listPeers( event.known ); status.ok() )
         post( std::move( event ) );
      else
         endsWith( status );
   }
}

grpc::Status GobgpClient::State::announceAll( const std::vector<Announcement>& batch ) {
   Call call( *this );
   google::protobuf::Empty nothing;
   const auto stream = stub()->AddPathStream( &call.context, &nothing );
   apipb::AddPathStreamRequest request;
   for( const Announcement& one : batch ) {
      *request.add_paths() = pathOf( one.route );
      if( request.paths_size() == pathsInMessage ) {
         if( !stream->Write( request ) )
            break;
         request.clear_paths();
      }
   }
   if( request.paths_size() > 0 )
      stream->Write( request );
   stream->WritesDone();
   return stream->Finish();
}

grpc::Status GobgpClient::State::announce( const Announcement& one ) {
   Call call( *this );
   if( one.withdraw ) {
      apipb::DeletePathRequest request;
      *request.mutable_path() = pathOf( one.route );
      *request.mutable_family() = request.path().family();
      google::protobuf::Empty nothing;
      return stub()->DeletePath( &call.context, request, &nothing );
   }
   apipb::AddPathRequest request;
   *request.mutable_path() = pathOf( one.route );
   apipb::AddPathResponse response;
   return stub()->AddPath( &call.context, request, &response );
}

// Withdrawals one by one, then announcements in a stream; one by one where that fails, so that the
// fault of one is not that of all. Dropped when the session ends: the next one finds out anew what
// is to be written.
void GobgpClient::State::carryOut( uint64_t session, const std::vector<Announcement>& batch ) {
   Event done;
   done.kind = Event::written;
   done.session = session;
   std::vector<Announcement> additions;
   const auto alone = [ & ]( const Announcement& one ) {
      if( !goesOn( session ) )
         return;
      const grpc::Status status = announce( one );
      if( status.ok() ) {
         done.keys.push_back( one.route.key );
         return;
      }
      if( endsWith( status ) )
         return;
      Event failed;
      failed.kind = Event::written;
      failed.session = session;
      failed.text = textOf( status );
      failed.keys.push_back( one.route.key );
      post( std::move( failed ) );
   };
   for( const Announcement& one : batch )
      if( one.withdraw )
         alone( one );
      else
         additions.push_back( one );
   grpc::Status together( grpc::StatusCode::UNKNOWN, "" );
   if( additions.size() > 1 && goesOn( session ) )
      together = announceAll( additions );
   if( endsWith( together ) )
      return;
   for( const Announcement& one : additions )
      if( together.ok() )
         done.keys.push_back( one.route.key );
      else
         alone( one );
   if( !done.keys.empty() )
      post( std::move( done ) );
}

// --- the owner's side

GobgpClient::GobgpClient( const Options& options ) : state_( std::make_unique<State>( options ) ) {}

GobgpClient::~GobgpClient() = default;

int GobgpClient::fd() const { return state_->wakeUp; }

std::optional<Event> GobgpClient::next() {
   std::unique_lock lock( state_->mutex );
   if( state_->events.empty() ) {
      uint64_t count = 0;
      [[maybe_unused]] const ssize_t read = ::read( state_->wakeUp, &count, sizeof count );
      return {};
   }
   Event event = std::move( state_->events.front() );
   state_->events.pop_front();
   lock.unlock();
   state_->changed.notify_all();
   return event;
}

void GobgpClient::write( uint64_t session, std::vector<Announcement> batch ) {
   {
      const std::lock_guard lock( state_->mutex );
      state_->writes.emplace_back( session, std::move( batch ) );
   }
   state_->changed.notify_all();
}

void GobgpClient::askForPeers() {
   {
      const std::lock_guard lock( state_->mutex );
      state_->peersWanted = true;
   }
   state_->changed.notify_all();
}

void GobgpClient::readAgain() {
   const std::lock_guard lock( state_->mutex );
   if( !state_->stream )
      return;
   state_->again = true;
   state_->stream->TryCancel();
}

} // namespace Evpn
