// How far the agent is, from its status tables: whether it has taken over what this source has
// published, and whether its output is whole.
#pragma once

#include <cstdint>
#include <string>

namespace L2Rib::Client {

class AgentProgress {
 public:
   AgentProgress( std::string stateDirectory, std::string source );

   // Whether a host that is not in the output is not wanted any more. While an agent starts it may
   // have emptied its output, to fill it again; one that died meanwhile has left it like that.
   bool outputIsWhole() const;
   // Up to where the source's hosts have been worked off: the cursor in the table of that id; 0
   // while the agent is at work, or not there.
   uint64_t takenOver( uint64_t tableId ) const;

 private:
   std::string stateDirectory_;
   std::string source_;
};

} // namespace L2Rib::Client
