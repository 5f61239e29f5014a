// Publishes the agent's status and work queues, what is parked and why, and how far each source's
// tables and the configuration have been read.
//
// Written at the end of an event-loop turn, after the outputs and before their doorbells: whoever
// sees a figure here sees the output that goes with it. l2ribctl shows the figures, and its settle
// waits for them. The sources are written before the agent's figures in a turn: whoever reads them
// in that order sees figures that are not older.
#pragma once

#include "L2Rib/Bridging.h"
#include "L2Rib/Status.h"
#include "engine/L2RibPolicySm.h"
#include "runtime/ActivityManager.h"

#include <memory>

namespace L2Rib {

class StatusPublisher {
 public:
   // Attaches the status tables; throws TableError. The configuration is mounted. Works as long as
   // the loop turns.
   StatusPublisher( Vexil::EntityManager& manager, Vexil::ActivityManager& loop,
                    Vexil::Ptr<PolicySm> policySm );
   ~StatusPublisher();

 private:
   void publish();
   void publishAgent();
   void publishSources();
   void publishParked();
   AgentStatusRecord figures() const;

   Vexil::ActivityManager& loop_;
   Vexil::Ptr<PolicySm> policySm_;
   Vexil::Ptr<SourceStatusTable> sources_; // taken before the agent's
   Vexil::Ptr<AgentStatusTable> agent_;
   Vexil::Ptr<ParkedTable> parked_;
   Vexil::Ptr<const Bridging::Config> config_;
   AgentStatusRecord published_;
   bool saidNoRoom_ = false;
   Vexil::Wire64<double> since_;
   std::shared_ptr<void> endOfTurnWork_;
   Vexil::TimerReactor parkedTimer_; // brings about the turn that publishes more of what is parked
};

} // namespace L2Rib
