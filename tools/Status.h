// The sources and the agent's status as JSON: what show sources and show status print, and the page
// that web serves.
#pragma once

#include "tools/Show.h"

#include <string>
#include <vector>

namespace Tools {

// The sources as the agent sees them, those inside the agent too, beside what is published. None is
// ready for an agent that does not run.
Json sourceList( const Context& context );
// How one of these is: "ready", and in words what is not as it should be, or "".
struct SourceState {
   std::string state, fault;
};
SourceState sourceState( const Json& source, bool agentRunning );

// The agent's status. The output is complete.
Json statusJson( const Context& context, const L2Rib::Client::OutputReader& output );
// It and the sources in words, a line a subject: its name, and what is to be said.
std::vector<std::vector<std::string>> statusLines( const Json& status, const Json& sources );

} // namespace Tools
