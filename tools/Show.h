// What the commands that read the output share.
#pragma once

#include "L2Rib/Status.h"
#include "client/OutputReader.h"
#include "tools/Commands.h"
#include "tools/Json.h"
#include "tools/Words.h"

#include <iostream>
#include <map>
#include <string>

namespace Tools {

// What the sources that are published now are called, by their values.
class SourceNames {
 public:
   explicit SourceNames( const Context& context );
   // null for a source that has no name at present.
   Json of( L2Rib::Source source ) const;
   // The name, or the value as in "0x40" where there is none at present.
   std::string text( L2Rib::Source source ) const;
   bool known( L2Rib::Source source ) const { return names_.contains( source ); }
   // The value of a source by its name, or by the value itself as in "0x40", for sources that have
   // gone. Throws BadInput for a value that is none, std::runtime_error when there is no such
   // source.
   L2Rib::Source valueOf( const std::string& name ) const;

 private:
   std::map<L2Rib::Source, std::string> names_;
};

Json toJson( const L2Rib::HostAndSource& row, const SourceNames& names );

// Throws Vexil::TableError with a text that says so when no agent ever ran on the state directory.
// Where none runs now it says so on standard error, before anything else: what follows is the
// output of the last one.
void requireOutput( const L2Rib::Client::OutputReader& output, const Context& context );
// The same without a word on standard error.
void requireTables( const L2Rib::Client::OutputReader& output, const Context& context );

// Says so on standard error when the agent that ran on the state directory does not run now.
void mentionStoppedAgent( const Context& context );

L2Rib::AgentStatusRecord agentStatus( const Context& context );
bool agentRuns( const Context& context );

// A list in one document: each row on its own, so that a million of them need no memory but the
// one's.
template<class Rows, class Convert>
void printJsonList( const Rows& rows, Convert convert );

// The subcommands of show, a source file each.
void addShowHosts( CLI::App& showing, Context& context );
void addShowMoves( CLI::App& showing, Context& context );
void addShowObjects( CLI::App& showing, Context& context );
void addShowFlood( CLI::App& showing, Context& context );
void addShowSources( CLI::App& showing, Context& context );
void addShowStatus( CLI::App& showing, Context& context );

template<class Rows, class Convert>
void printJsonList( const Rows& rows, Convert convert ) {
   std::cout << '[';
   const char* before = "";
   for( const auto& row : rows ) {
      std::cout << before << text( convert( row ) );
      before = ",";
   }
   std::cout << "]\n";
}

} // namespace Tools
