// The engine under test of the merge workload: three sources in tables on a real state directory,
// the engine on an event loop, and one phase after the other.
//
// The five phases, in the order in which they run in one engine process:
//
//    first    the source of the lowest preference becomes initialized: all keys enter the output
//    better   a source of higher preference becomes initialized: all rows change over to it
//    best     a third one, higher still
//    leave    the third withdraws: all rows fall back to the second
//    return   the third is initialized again
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace Bench {

constexpr int phaseCount = 5;
constexpr std::array<const char*, phaseCount> phaseName{ "first", "better", "best", "leave",
                                                         "return" };

struct PhaseResult {
   double seconds;   // from the change of `initialized` to the last output write
   double processor; // seconds of processor time of the engine process meanwhile
   double replay;    // seconds of the one call that takes the change in: no other work runs then
   double slice;     // the longest turn of the event loop after it, in seconds
};

struct MergeResult {
   std::array<PhaseResult, phaseCount> phase;
   double outputBytes;     // of the host output table's file, resident
   double inputBytes;      // of the three sources' tables, resident
   double engineBytes;     // most private memory that the engine process ever had, above its start
   double mappedBytes;     // of the tables, as the engine process has them mapped
   double mappedHugeBytes; // of these, in huge pages
};

// Fills the tables of the three sources below the state directory, each in an order of its own.
void fillSources( const std::string& stateDirectory, uint32_t keys );
// Runs the phases on an empty output, in a process of its own, and verifies the output after each.
MergeResult runEngine( const std::string& stateDirectory, uint32_t keys );
// Runs the phases in this process, and then lets the source whose hosts are in the output change so
// many of them; for a count of the instructions.
void runPhasesAndChanges( const std::string& stateDirectory, uint32_t keys, uint32_t changes );

} // namespace Bench
