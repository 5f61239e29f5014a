// The commands of l2ribctl, one source file a group, and what they share.
//
// Each add function enters its commands into the command line; the one that the user chose leaves
// its work in the context, and main() runs it. A command returns its exit status and throws what it
// can't go on with: BadInput (Json.h) is bad usage, anything else the answer no.
#pragma once

#include "client/SourceFolder.h"

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

namespace Tools {

// Exit statuses.
constexpr int done = 0;
constexpr int answerIsNo = 1; // not found, check failed, timed out, and what can't be done
constexpr int badUsage = 2;
constexpr int inputRejected = 3;

struct Context {
   std::string stateDirectory;
   bool json = false;
   std::function<int()> command;

   L2Rib::Client::SourceFolder sources() const {
      return L2Rib::Client::SourceFolder( stateDirectory );
   }
   std::string fileOf( const std::string& path ) const { return stateDirectory + "/" + path; }
};

// One line on standard error: "l2ribctl: TEXT".
void complain( const std::string& text );

void addSourceCommands( CLI::App& app, Context& context );
void addShow( CLI::App& app, Context& context );
void addWatch( CLI::App& app, Context& context );
void addExplain( CLI::App& app, Context& context );
void addCheck( CLI::App& app, Context& context );
void addGraph( CLI::App& app, Context& context );
void addSettle( CLI::App& app, Context& context );
void addMetrics( CLI::App& app, Context& context );
void addWeb( CLI::App& app, Context& context );
// After addShow: "show config" is one of these.
void addConfigCommands( CLI::App& app, Context& context );
// "show failed", a subcommand of show.
void addShowFailed( CLI::App& showing, Context& context );
void addShowBridge( CLI::App& showing, Context& context );
void addShowEvpn( CLI::App& showing, Context& context );

// What is wrong with an option's or argument's MAC address, or "": for its check().
std::string checkMac( const std::string& text );

// The --json flag of a command that has an answer for programs.
void addJsonFlag( CLI::App& command, Context& context );

} // namespace Tools
