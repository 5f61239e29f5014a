// Tables for people.
#pragma once

#include "tools/Json.h"

#include <string>
#include <vector>

namespace Tools {

// Prints the named members of each object of a list in columns of their width, under a heading.
// null is "-", true "yes", false "no"; text is printed as it is, without control characters.
void printTable( const Json& rows, const std::vector<std::string>& columns );
// The same of cells that are text already, without a heading.
void printColumns( std::vector<std::vector<std::string>> lines );
// With headings. Numbers stand at the right of their column. The last column says what is not as it
// should be: on a terminal it is coloured, and without an entry it is left out.
struct Heading {
   const char* text;
   enum { left, right } side = left;
};
void printLines( const std::vector<Heading>& headings,
                 std::vector<std::vector<std::string>> lines );

} // namespace Tools
