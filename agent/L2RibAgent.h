// The layer-2 RIB agent: what the host process creates from this library.
//
// doInit() declares the mounts; doMountsComplete() attaches the output tables and creates the state
// machines and loads the plug-ins. From then on the agent lives on their reactors and timers.
// Destruction releases the engine, the plug-in context with the plug-ins, and the static host
// source, in this order.
#pragma once

#include "L2Rib/Bridging.h"
#include "L2Rib/L2RibTarn.h"
#include "agent/Plugin.h"
#include "agent/StatusPublisher.h"
#include "engine/L2RibPolicySm.h"
#include "runtime/Agent.h"
#include "static/L2RibStaticHostSm.h"

#include <memory>
#include <string>

namespace L2Rib {

class Agent : public Vexil::BaseAgent {
 public:
   explicit Agent( const std::string& name );
   ~Agent() override;

   void doInit() override;
   // Throws TableError when an output table can't be attached (another agent writes it, say).
   void doMountsComplete( Vexil::MountStatus mountStatus,
                          Vexil::Ptr<Vexil::EntityManager> em ) override;
   // The engine's restart state, and how many entries it has still to look at.
   Progress progress() const override;

   VEXIL_ATTRIBUTE( Vexil::Ptr<AgentSourceDir>, l2RibAgentSourceDir )
   VEXIL_ATTRIBUTE( Vexil::Ptr<Bridging::Config>, bridgingConfig )
   // What doMountsComplete() was called with.
   VEXIL_ATTRIBUTE( Vexil::MountStatus, mountStatus, Vexil::MountStatus::failed )
   // Loads the plug-ins of the test category in place of the normal ones. doInit() sets it from the
   // process's settings when they name it.
   VEXIL_ATTRIBUTE( bool, loadTestPlugin, false )
   const Vexil::Ptr<PolicySm>& policySm() const { return policySm_; }
   // Makes the engine; returns the present one when there is one.
   const Vexil::Ptr<PolicySm>&
   policySmIs( Vexil::Ptr<Vexil::EntityManager> em, Vexil::Ptr<const Vexil::Directory> inputDir,
               Vexil::Ptr<const AgentSourceDir> agentInputDir, Vexil::Ptr<HostOutput> hostOutput,
               Vexil::Ptr<LoadBalanceOutput> lbOutput, Vexil::Ptr<LabelOutput> labelOutput,
               Vexil::Ptr<DestOutput> destOutput, Vexil::Ptr<FloodSetOutput> floodOutput,
               Vexil::Ptr<PolicySmStatus> policySmStatus );
   void policySmDel() { policySm_ = nullptr; }
   const Vexil::Ptr<StaticHostSm>& staticHostSm() const { return staticHostSm_; }
   // Makes the static host source; returns the present one when there is one.
   const Vexil::Ptr<StaticHostSm>&
   staticHostSmIs( Vexil::Ptr<Vexil::EntityManager> em, Vexil::Ptr<AgentSourceDir> agentInputDir,
                   Vexil::Ptr<const Bridging::Config> bridgingConfig );
   void staticHostSmDel() { staticHostSm_ = nullptr; }
   const Vexil::Ptr<Plugin::Context>& pluginContext() const { return pluginContext_; }
   // Makes the context, still empty; returns the present one when there is one.
   const Vexil::Ptr<Plugin::Context>& pluginContextIs();
   // Releases the plug-ins with it.
   void pluginContextDel() { pluginContext_ = nullptr; }

 private:
   Vexil::Seconds setting( const char* name, Vexil::Seconds ifAbsent ) const;
   void loadPlugins();

   Vexil::Ptr<PolicySm> policySm_;
   Vexil::Ptr<Plugin::Context> pluginContext_;
   Vexil::Ptr<StaticHostSm> staticHostSm_;
   std::unique_ptr<StatusPublisher> statusPublisher_;
};

// Makes the agent of that name.
Vexil::Ptr<Vexil::BaseAgent> agentFactory( const std::string& name );

// Makes an engine on tables that the caller supplies.
Vexil::Ptr<PolicySm>
policySmFactory( Vexil::Ptr<Vexil::EntityManager> em, Vexil::Ptr<const Vexil::Directory> sourceDir,
                 Vexil::Ptr<const AgentSourceDir> agentSourceDir, Vexil::Ptr<HostOutput> hostOutput,
                 Vexil::Ptr<LoadBalanceOutput> lbOutput, Vexil::Ptr<LabelOutput> labelOutput,
                 Vexil::Ptr<DestOutput> destOutput, Vexil::Ptr<FloodSetOutput> floodOutput,
                 Vexil::Ptr<PolicySmStatus> policySmStatus );

// Makes a static host source.
Vexil::Ptr<StaticHostSm> staticHostSmFactory( Vexil::Ptr<Vexil::EntityManager> em,
                                              Vexil::Ptr<AgentSourceDir> agentSourceDir,
                                              Vexil::Ptr<const Bridging::Config> bridgingConfig );

} // namespace L2Rib
