// What the commands that read the output share.
#pragma once

#include "client/OutputReader.h"
#include "tools/Commands.h"
#include "tools/Json.h"

#include <map>
#include <string>

namespace Tools {

// What the sources that are published now are called, by their values.
class SourceNames {
 public:
   explicit SourceNames( const Context& context );
   // null for a source that has no name at present.
   Json of( L2Rib::Source source ) const;
   // The value of a source by its name, or by the value itself as in "0x40", for sources that have
   // gone. Throws BadInput for a value that is none, std::runtime_error when there is no such
   // source.
   L2Rib::Source valueOf( const std::string& name ) const;

 private:
   std::map<L2Rib::Source, std::string> names_;
};

Json toJson( const L2Rib::HostAndSource& row, const SourceNames& names );

// Throws Vexil::TableError with a text that says so when no agent ever ran on the state directory.
void requireOutput( const L2Rib::Client::OutputReader& output, const Context& context );

// "2026-01-31 12:00:00", local time, of seconds since 1970.
std::string timeText( double seconds );

// For people: says so on standard error when no agent is running.
void mentionStoppedAgent( const Context& context );

} // namespace Tools
