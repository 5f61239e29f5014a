// What a record consists of, as a number: writer and reader of a table compare it, so that a member
// that moved is noticed although all sizes are the same.
//
// The number is a hash of the layout's text: for each member its name, offset and width, and the
// same of what it consists of. docs/table-format.md has the rule, and the number of each table.
#pragma once

#include "L2Rib/ConfigRecords.h"
#include "L2Rib/EvpnStatus.h"
#include "L2Rib/FloodRecords.h"
#include "L2Rib/L2RibTarn.h"

#include <string>

namespace L2Rib {

// "key 0 12 (mac 0 8, vlan 8 4), host 12 100 (...), source 112 4", for each type of record. The
// table classes take the number from layoutOf( record ), which stands beside each record.
template<class Record>
std::string layoutText();

} // namespace L2Rib
