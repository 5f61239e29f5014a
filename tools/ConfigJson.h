// JSON that remembers where in its text everything stands, so that whoever finds fault with a value
// can say so with line and column.
#pragma once

#include "tools/Json.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Tools {

struct PlacedJson {
   struct Member;

   size_t offset = 0; // of its first character in the text
   Json value;        // null, a boolean, a number or text; an empty object or list for the others
   std::vector<Member> members;   // of an object, in their order; a key may stand there twice
   std::vector<PlacedJson> items; // of a list
};
struct PlacedJson::Member {
   std::string key;
   size_t keyOffset;
   PlacedJson value;
};

// What is wrong at that place of a text.
struct Complaint {
   size_t offset;
   std::string text;
};

// Throws the Complaint about the first thing that is no JSON, or is nested deeper than any document
// of ours.
PlacedJson parsePlaced( std::string_view text );

// Both from 1 on. A column is a character, however many bytes it has.
struct Place {
   size_t line;
   size_t column;
};
Place placeOf( std::string_view text, size_t offset );

} // namespace Tools
