// The engine's reactors on the two source directories.
#pragma once

#include "engine/L2RibPolicySm.h"

namespace L2Rib {

class PolicySm::SourceDirReactor : public Vexil::Reactor<Vexil::Directory> {
 public:
   SourceDirReactor( Ptr<const Vexil::Directory> directory, PolicySm& policySm )
      : Reactor( std::move( directory ) ), policySm_( policySm ) {}
   void handleEntry( const std::string& name ) override { policySm_.handleSource( name ); }

 private:
   PolicySm& policySm_;
};

class PolicySm::AgentSourceDirReactor : public Vexil::Reactor<AgentSourceDir> {
 public:
   AgentSourceDirReactor( Ptr<const AgentSourceDir> directory, PolicySm& policySm )
      : Reactor( std::move( directory ) ), policySm_( policySm ) {}
   void handleSource( const std::string& name ) override { policySm_.handleSource( name ); }

 private:
   PolicySm& policySm_;
};

} // namespace L2Rib
