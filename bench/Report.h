// Collects the figures of a run and prints them: as a table for people, as one JSON document, or as
// lines for other programs. A figure stands beside its rivals, measured in the same run, each with
// the ratio that says how many times better the project is (above 1) or worse (below 1).
#pragma once

#include <map>
#include <string>
#include <vector>

namespace Bench {

enum class Better { lower, higher };

struct Rival {
   std::string name;
   bool present = true; // false: not installed here
   double value = 0;
   double ratio = 0;  // how many times better the project is
   double target = 0; // the least ratio that is wanted; 0: none
};

struct Figure {
   std::string workload; // such as "get/16384"
   std::string metric;
   double value = 0;
   std::string unit;
   std::vector<Rival> rivals;
};

class Report {
 public:
   // Adds a figure; rivals follow with against().
   Report& figure( const std::string& workload, const std::string& metric, double value,
                   const std::string& unit, Better better = Better::lower );
   // A rival of the figure added last.
   Report& against( const std::string& name, double value, double target = 0 );
   Report& againstAbsent( const std::string& name );
   // Something that the reader of the figures should know: where, with what.
   void noteIs( const std::string& name, const std::string& text ) { notes_[ name ] = text; }

   bool empty() const { return figures_.empty(); }
   void printTable() const;
   void printJson() const;
   void printTsv() const; // "l2rib", workload, metric, value, unit; rivals and ratios as metrics

 private:
   std::map<std::string, std::string> notes_;
   std::vector<Figure> figures_;
   Better better_ = Better::lower; // of the figure added last
};

} // namespace Bench
