// Writes the tables of L2Rib/EvpnStatus.h: the program's account of itself.
//
// They are shared memory like all tables, so what stands there can be read when the program is
// dead. A row is written when it changes.
#pragma once

#include "L2Rib/EvpnStatus.h"
#include "evpn/GobgpClient.h"

namespace Evpn {

class StatusTables {
 public:
   // Throws Vexil::TableError, of kind busy when another l2rib-evpn writes them.
   explicit StatusTables( const std::string& stateDirectory );

   // Figures that the program counts; the process and its times are filled in.
   void programIs( L2Rib::EvpnProgramRecord record );
   void vlansAre( const Import& import );
   void peersAre( const std::vector<Peer>& peers );
   // Wakes who waits for changes.
   void flush();

 private:
   Vexil::Ptr<L2Rib::EvpnProgramTable> program_;
   Vexil::Ptr<L2Rib::EvpnPeerTable> peers_;
   Vexil::Ptr<L2Rib::EvpnVlanTable> vlans_;
   double since_;
};

double wallClock(); // seconds since 1970

} // namespace Evpn
