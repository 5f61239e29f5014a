// The agent framework: hosts an agent that lives in a loadable library.
//
// The host process loads the library, whose static initialisers register the agent's type; creates
// the agent by type name; calls doInit(), in which the agent declares its mounts; and when the
// mounts are complete, doMountsComplete(). From then on the agent lives on its reactors and timers
// in the event loop. It is released when the loop has been stopped.
#pragma once

#include "runtime/ActivityManager.h"
#include "runtime/StateDb.h"

#include <map>
#include <string>

namespace Vexil {

// The process's settings for its agent, by name; what an agent makes of them is its own.
using AgentSettings = std::map<std::string, std::string>;

class BaseAgent : public Entity {
 public:
   explicit BaseAgent( std::string name ) : name_( std::move( name ) ) {}
   const std::string& name() const { return name_; }

   // Given by the framework before doInit().
   void entityManagerIs( Ptr<EntityManager> manager ) { entityManager_ = std::move( manager ); }
   const Ptr<EntityManager>& entityManager() const { return entityManager_; }
   void activityManagerIs( ActivityManager* loop ) { activityManager_ = loop; }
   ActivityManager& activityManager() const { return *activityManager_; }
   void settingsIs( AgentSettings settings ) { settings_ = std::move( settings ); }
   const AgentSettings& settings() const { return settings_; }

   virtual void doInit() = 0;
   virtual void doMountsComplete( MountStatus status, Ptr<EntityManager> manager ) = 0;

   // How far the agent is with what it does at its start, in a line for people. Asked for after
   // doMountsComplete().
   struct Progress {
      bool complete; // there is nothing more to wait for
      std::string text;
   };
   virtual Progress progress() const = 0;

 private:
   std::string name_;
   Ptr<EntityManager> entityManager_;
   ActivityManager* activityManager_ = nullptr;
   AgentSettings settings_;
};

// Loads the library, creates the agent of that type name and takes it through its stages. The
// library stays loaded. Throws std::runtime_error when it can't be loaded or has no such agent;
// what the agent throws in its stages goes on to the caller.
Ptr<BaseAgent> startAgent( const std::string& library, const std::string& typeName,
                           const std::string& agentName, ActivityManager& loop,
                           Ptr<EntityManager> manager, AgentSettings settings );

} // namespace Vexil
