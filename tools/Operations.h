// The operations of a source, one JSON object a line.
#pragma once

#include "client/SourcePublisher.h"

#include <cstdint>
#include <functional>
#include <string_view>

namespace Tools {

// Each operation with its fields, an example a line: what source run --help-operations prints.
const char* operationsHelp();

// Carries out operations on a publisher. Their effects become visible to others at its flush().
class Operations {
 public:
   // answer( n ) is called for a sync, after a flush; n is the number of operations that were
   // carried out so far, syncs not counted.
   Operations( L2Rib::Client::SourcePublisher& source, std::function<void( uint64_t )> answer )
      : source_( source ), answer_( std::move( answer ) ) {}

   // What is wrong with the line; nothing when it was carried out. A rejected line changes nothing.
   L2Rib::Client::Rejection carryOut( std::string_view line );

 private:
   L2Rib::Client::SourcePublisher& source_;
   std::function<void( uint64_t )> answer_;
   uint64_t done_ = 0;
};

} // namespace Tools
