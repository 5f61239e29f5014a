// Which hosts of the output are on this machine: those whose winner leads to an interface, by a
// dest or by an inline number.
//
// Follows the output's hosts and dests. A dest that becomes an interface, or ceases to be one,
// under hosts that do not change is rare; then all hosts are looked at again.
#pragma once

#include "client/OutputReader.h"
#include "evpn/Announcer.h"

#include <functional>
#include <set>

namespace Evpn {

class LocalHosts {
 public:
   // Called with null for a host that is not local, whether it was or not.
   using Changed = std::function<void( const MacVlanPair& host, const Announcer::Local* local )>;
   // Follows the reader's hosts and dests from its next process() on; of the given VLANs alone.
   // Hosts of the source own are not local whatever they lead to.
   LocalHosts( L2Rib::Client::OutputReader& output, std::set<uint32_t> vlans, L2Rib::Source own,
               Changed changed );
   LocalHosts( const LocalHosts& ) = delete;
   LocalHosts& operator=( const LocalHosts& ) = delete;

 private:
   void hostIs( const MacVlanPair& key, const L2Rib::HostAndSource* row );
   void destIs( const L2Rib::DestId& id, const L2Rib::DestAndSource* row );

   L2Rib::Client::OutputReader& output_;
   std::set<uint32_t> vlans_;
   L2Rib::Source own_;
   Changed changed_;
   Vexil::HashMap<L2Rib::DestId, bool> interfaces_; // of the dests that hosts lead to
};

} // namespace Evpn
