// The static configuration as l2ribctl reads and changes it.
//
// A change is made under the lock of the folder: read what is configured, decide what it shall be,
// commit that. So no two commands overwrite each other, and whatever they refuse, they refuse
// before anything is changed. An agent may run or not.
#pragma once

#include "L2Rib/ConfigRecords.h"
#include "runtime/FileLock.h"
#include "tools/Commands.h"

#include <cstddef>
#include <map>
#include <optional>

namespace Tools {

struct Configuration {
   std::map<Bridging::TunnelId, Bridging::TunnelRecord> tunnels;
   std::map<Bridging::MacVlanPair, Bridging::ConfiguredHostRecord> hosts;

   friend bool operator==( const Configuration&, const Configuration& ) = default;
};

// What is configured now, without the records that are invalid. Tables that do not exist are
// empty. Throws Vexil::TableError when one can't be read.
Configuration readConfiguration( const Context& context );

class ConfigEdit {
 public:
   // Takes the lock, for as long as this lives; makes the folder when there is none. Waits up to
   // ten seconds for another command to end, then throws std::runtime_error.
   explicit ConfigEdit( const Context& context );
   ConfigEdit( const ConfigEdit& ) = delete;
   ConfigEdit& operator=( const ConfigEdit& ) = delete;

   Configuration current() const { return readConfiguration( context_ ); }

   struct Changes {
      size_t tunnelsSet = 0;
      size_t tunnelsDeleted = 0;
      size_t hostsSet = 0;
      size_t hostsDeleted = 0;
   };
   // Makes the configuration equal to wanted, which is free of faults and of hosts on tunnels that
   // it does not have. All of it or nothing, even when this process is killed. A single record is
   // written in place, anything else to new tables. Throws Vexil::TableError when the tables can't
   // be had or there is no room for them, and nothing is changed then.
   Changes commit( const Configuration& wanted );

 private:
   const Context& context_;
   std::optional<Vexil::FileLock> lock_;
};

} // namespace Tools
