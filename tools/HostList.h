// The hosts of the output that a filter wants, and how each of them is: for show hosts and for the
// page that web serves.
#pragma once

#include "tools/Filter.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace Tools {

struct HostSelection {
   std::vector<L2Rib::HostAndSource> rows; // by VLAN, then MAC
   size_t matched = 0;                     // rows that the filter wants, those left out too
};
// The first rows in their order that the filter wants, at most that many: in memory for as many,
// and in one walk over the table. The filter is resolved.
HostSelection selectHosts( const L2Rib::Client::OutputReader& output, const RowFilter& filter,
                           Vias& vias, size_t most = SIZE_MAX );

// How long ago its source published it, in words.
std::string hostAge( const L2Rib::HostAndSource& row );

// What is known of hosts beside their rows.
class HostStates {
 public:
   explicit HostStates( const Context& context );
   // What is not as it should be, in words; empty when all is well.
   std::string of( const L2Rib::HostAndSource& row ) const;
   // Hosts that the filter wants, that are parked and have no row at all.
   size_t parkedWithoutRow( const L2Rib::Client::OutputReader& output,
                            const RowFilter& filter ) const;

   const SourceNames names;

 private:
   std::map<Bridging::MacVlanPair, std::string> parked_, refused_;
};

} // namespace Tools
