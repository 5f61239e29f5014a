// The configuration as a JSON document, the form that 'config apply' takes and 'show config --json'
// prints:
//
//    {"tunnels":[{"id":5,"source":"10.0.0.1","destination":"10.0.0.2","tos":0,"ttl":64}],
//     "hosts":[{"vlan":10,"mac":"02:00:00:00:00:01","interface":12},
//              {"vlan":10,"mac":"02:00:00:00:00:02","label":1000,"tunnel":5}]}
//
// A document is the whole configuration: a list that is absent is empty. "tos" is 0 and "ttl" 64
// unless they are given.
#pragma once

#include "tools/ConfigStore.h"
#include "tools/Json.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace Tools {

constexpr uint32_t defaultTos = 0;
constexpr uint32_t defaultTtl = 64;

// A document that is refused: one line for each thing that is wrong, "FILE:LINE:COLUMN: TEXT", in
// the order of the document. Never empty.
struct DocumentRefused {
   std::vector<std::string> complaints;
};

// The configuration that the text describes, free of faults. The file's name is for the complaints.
// Throws DocumentRefused.
Configuration parseConfiguration( const std::string& file, const std::string& text );

Json toJson( const Configuration& configuration );

} // namespace Tools
