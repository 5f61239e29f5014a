// The BGP speaker, through GoBGP's gRPC API: its EVPN routes as they come and go, its peers, and
// our announcements.
//
// Two threads of its own do what waits: one reads the stream of routes, sorts out what is not
// imported and connects anew when the stream ends; one carries out what is asked for. What they
// learn is handed over as events, which the owner takes from its own thread when fd() is readable.
// A flood of routes fills a bounded queue, and then waits in gobgpd.
//
// A session begins with connected, then the routes that the speaker has, then present, then the
// changes; it ends with lost. Each has a number, and an answer to a write bears that of the session
// in which it was asked for.
//
// Errors: none is thrown. What fails shows as lost, or in the answer to a write.
#pragma once

#include "evpn/Announcer.h"

#include <memory>

namespace Evpn {

struct RouteChange {
   NotTaken reason = NotTaken::taken;
   bool withdrawn = false; // then the key alone counts
   bool ours = false;      // announced by this program
   Route route;
   std::vector<uint16_t> vlans; // that take it
};

struct Peer {
   std::string address;
   uint32_t as = 0;
   bool established = false;
   bool endOfRib = false;
   // It has said that it is restarting itself. The speaker then does not wait for its end of RIB
   // (RFC 4724, section 4.1), and says from the start that it has come.
   bool restarting = false;
   double upFor = 0;      // seconds since the session was established
   uint64_t updates = 0;  // messages received
   bool up = true;        // as configured
   bool evpn = false;     // the address family is configured
   uint64_t received = 0; // routes
};

struct Event {
   enum Kind { connected, routes, present, lost, peers, written };
   Kind kind = lost;
   uint64_t session = 0;
   std::string text;                     // of lost, and of written where it failed
   std::shared_ptr<const Import> import; // of connected
   Speaker speaker;                      // of connected
   bool settled = false;                 // of connected: all peers' routes had come before
   std::vector<RouteChange> changes;     // of routes
   std::vector<Peer> known;              // of peers
   std::vector<RouteKey> keys;           // of written
};

// Whether there are peers, and every one that is to be up is and has told all that it has (RFC
// 4724, section 2). Of one that was restarting this can't be known: it has when the session has
// been up for long.
bool allSettled( const std::vector<Peer>& peers );
constexpr double longUp = 30;

class GobgpClient {
 public:
   struct Options {
      std::string address; // "127.0.0.1:50051"
      IpGenAddr vtep;
      std::map<uint32_t, VlanOptions> vlans;
   };
   explicit GobgpClient( const Options& options );
   // Ends the threads; what was asked for and not yet carried out is dropped.
   ~GobgpClient();
   GobgpClient( const GobgpClient& ) = delete;
   GobgpClient& operator=( const GobgpClient& ) = delete;

   // Readable while there are events.
   int fd() const;
   // The next one; none when there is none now.
   std::optional<Event> next();

   // Ask for things; the answers are events: one of kind written a batch.
   void write( uint64_t session, std::vector<Announcement> batch );
   void askForPeers();
   // Begins a new session, without a lost: a copy of all routes is read once more.
   void readAgain();

 private:
   struct State;
   std::unique_ptr<State> state_;
};

} // namespace Evpn
