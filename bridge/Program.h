// The whole of l2rib-bridge in one event loop: the output and the kernel on one side, the
// reconcilers of the bridges in the middle, the kernel and a source on the other.
//
// Each turn hears both sides out first, then writes what differs, for 50 ms at most. Whatever can
// have been missed (lost notifications, a foreign hand, an answer that did not come) is found by
// comparing with a whole dump, which is read in steps between turns.
#pragma once

#include "bridge/Learner.h"
#include "bridge/NetlinkKernel.h"
#include "bridge/StatusTables.h"
#include "client/AgentProgress.h"
#include "client/OutputReader.h"
#include "runtime/Agent.h"

#include <deque>
#include <map>
#include <memory>

namespace Bridge {

struct ProgramOptions {
   std::string stateDirectory;
   std::map<uint32_t, std::string> bridges; // by VLAN
   bool learn = true;
   bool program = true;
   std::string source = "bridge";
   L2Rib::Source value = L2Rib::sourceBit3_;
   uint32_t pref = 100;
   Vexil::Seconds audit = 60;
   DuplicateLimits duplicates;
};

class Program : private KernelListener, private HostListener {
 public:
   // Throws Vexil::TableError, PublishRefused or std::system_error when it can't start.
   Program( Vexil::ActivityManager& loop, const ProgramOptions& options );
   ~Program();

   // "in sync", or what it is waiting for.
   Vexil::BaseAgent::Progress progress() const;

 private:
   struct Managed {
      Managed( Program& program, uint32_t vlan, std::string name );

      std::string name;
      Reconciler reconciler;
      // Its entries have been dumped since its devices are what they are, or an earlier run has
      // left word of them.
      bool known = false;
      bool fresh = true;                  // no devices have been seen yet
      uint64_t floodVersion = UINT64_MAX; // that has been told
      size_t floodRefused = 0;
   };

   // The kernel tells.
   void linkIs( const Link& link ) override;
   void linkDel( uint32_t index ) override;
   void entryIs( const FdbEntry& entry ) override;
   void entryDel( const FdbEntry& entry ) override;
   void nexthopIs( const Nexthop& nexthop ) override;
   void nexthopDel( uint32_t id ) override;
   // The reconcilers tell.
   std::optional<Hold> learned( const MacVlanPair& host, uint32_t port, bool fixed ) override;
   void forgotten( const MacVlanPair& host ) override;
   void programmed( const MacVlanPair& host, const Goal& goal ) override;
   void refused( const MacVlanPair& host, const std::string& reason, unsigned tries ) override;
   void released( const MacVlanPair& host ) override;

   void followOutput();
   void startLearning();
   void turn();
   void hear();
   void place();
   bool presume( Managed& bridge );
   void dumpOn();
   void verify();
   void compare();
   void audit();
   void relearn();
   void write();
   void settle();
   void publish();
   void schedule();

   Managed* managed( Bridging::VlanId vlan );
   bool allKnown() const;

   Vexil::ActivityManager& loop_;
   Vexil::Ptr<Vexil::Clock> clock_;
   ProgramOptions options_;
   int lock_ = -1; // one such program in a network namespace
   StatusTables status_;
   NetlinkKernel kernel_;
   Topology topology_;
   NexthopSet nexthops_;
   L2Rib::Client::AgentProgress agent_;
   L2Rib::Client::OutputReader output_;
   std::map<uint32_t, Managed> bridges_;
   std::unique_ptr<L2Rib::Client::SourcePublisher> source_;
   std::unique_ptr<Learner> learner_;
   bool learning_ = false; // all that was there at first has been told

   Reconciler::Origin origin_ = Reconciler::Origin::notification;
   bool linksChanged_ = true;
   std::deque<Managed*> dumps_; // still to come; the first one is under way
   bool dumping_ = false;
   bool outputInSync_ = false;
   bool inSync_ = false;
   bool left_ = false;          // to write in the next turn
   bool more_ = false;          // to do in the next turn
   uint64_t groupsVersion_ = 0; // that has been told
   Vexil::Seconds started_;
   Vexil::Seconds nextAudit_;
   Vexil::Seconds nextSign_ = 0;
   L2Rib::BridgeProgramRecord figures_;
   L2Rib::BridgeProgramRecord toldFigures_;
   std::shared_ptr<void> endOfTurn_;
   Vexil::TimerReactor wake_;
};

} // namespace Bridge
