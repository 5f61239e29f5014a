// The whole of l2rib-evpn in one event loop: the BGP speaker on one side, a source and the output
// on the other.
//
// From BGP: routes go into the route table, what they come to into the source's tables. When the
// connection to the speaker is lost, all of it stays, as stale, until the speaker has told all that
// it has, and its peers all that they have, or until the stale time is over. The same holds for
// what an earlier run has published.
//
// To BGP: local hosts of the output go to the announcer, which writes what differs from what the
// speaker has. Nothing is taken back while the agent's output may be incomplete.
#pragma once

#include "client/OutputReader.h"
#include "evpn/LocalHosts.h"
#include "evpn/Publisher.h"
#include "evpn/StatusTables.h"
#include "runtime/Agent.h"

namespace Evpn {

struct ProgramOptions {
   std::string stateDirectory;
   GobgpClient::Options gobgp;
   std::string source = "evpn";
   L2Rib::Source value = L2Rib::sourceBit6_;
   uint32_t pref = 100;
   Vexil::Seconds staleTime = 120;
};

class Program {
 public:
   // Throws Vexil::TableError, PublishRefused or std::system_error when it can't start.
   Program( Vexil::ActivityManager& loop, const ProgramOptions& options );
   ~Program();
   Program( const Program& ) = delete;
   Program& operator=( const Program& ) = delete;

   // "in sync", or what it is waiting for.
   Vexil::BaseAgent::Progress progress() const;

 private:
   void turn();
   void hear();
   void handle( Event& event );
   void begin( const Event& event );
   void take( const RouteChange& change );
   void present();
   void lost( const std::string& reason );
   void peersAre( const std::vector<Peer>& peers );
   bool quiet( const Peer& peer );
   void complete();
   void phaseIs( L2Rib::EvpnPhase phase );
   void localIs( const MacVlanPair& host, const Announcer::Local* local );
   void tell();
   void announce();
   void publish();
   void schedule();
   bool outputIsWhole() const;

   Vexil::Ptr<Vexil::Clock> clock_;
   ProgramOptions options_;
   StatusTables status_;
   L2Rib::Client::SourcePublisher source_;
   Publisher publisher_;
   RouteTable table_;
   Announcer announcer_;
   L2Rib::Client::OutputReader output_;
   LocalHosts local_;
   GobgpClient gobgp_;

   L2Rib::EvpnPhase phase_ = L2Rib::evpnConnecting_;
   uint64_t session_ = 0;
   bool settled_ = false; // all peers had told all when the session began
   bool rereading_ = false;
   bool firstOver_ = false; // what an earlier run has published and is not wanted has gone
   bool outputInSync_ = false;
   bool more_ = false; // to do in the next turn
   std::string fault_;
   Vexil::Seconds staleUntil_ = Vexil::never;
   // By peer: the updates that it had sent, and since when there were no more.
   std::map<std::string, std::pair<uint64_t, Vexil::Seconds>> updates_;
   Vexil::Seconds nextPeers_ = 0;
   Vexil::Seconds nextSign_ = 0;
   Vexil::Seconds nextRetry_ = Vexil::never;
   L2Rib::EvpnProgramRecord figures_;
   std::shared_ptr<void> endOfTurn_;
   Vexil::TimerReactor wake_;
};

} // namespace Evpn
