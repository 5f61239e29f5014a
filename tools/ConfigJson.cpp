#include "tools/ConfigJson.h"

#include <algorithm>
#include <iterator>

namespace Tools {

namespace {

// Reads the text for the parser and tells how far it has come.
class CountingReader {
 public:
   using iterator_category = std::input_iterator_tag;
   using value_type = char;
   using difference_type = std::ptrdiff_t;
   using pointer = const char*;
   using reference = const char&;

   CountingReader( const char* at, const char** reached ) : at_( at ), reached_( reached ) {}
   const char& operator*() const { return *at_; }
   CountingReader& operator++() {
      *reached_ = ++at_;
      return *this;
   }
   CountingReader operator++( int ) {
      const CountingReader before = *this;
      ++*this;
      return before;
   }
   friend bool operator==( const CountingReader& a, const CountingReader& b ) {
      return a.at_ == b.at_;
   }

 private:
   const char* at_;
   const char** reached_;
};

// Is called by the parser after each token. A token begins after the one before it, behind spaces,
// commas and colons; that the parser may have read one character past a number does no harm, for
// that character begins no value.
class Builder : public nlohmann::json_sax<Json> {
 public:
   explicit Builder( std::string_view text )
      : text_( text ), reached_( text.data() ), lastEnd_( text.data() ) {}

   PlacedJson parse() {
      const char* const end = text_.data() + text_.size();
      if( !Json::sax_parse( CountingReader( text_.data(), &reached_ ),
                            CountingReader( end, &reached_ ), this ) )
         throw complaint_;
      return std::move( root_ );
   }

   bool null() override { return add( nullptr ); }
   bool boolean( bool value ) override { return add( value ); }
   bool number_integer( number_integer_t value ) override { return add( value ); }
   bool number_unsigned( number_unsigned_t value ) override { return add( value ); }
   bool number_float( number_float_t value, const string_t& ) override { return add( value ); }
   bool string( string_t& value ) override { return add( value ); }
   bool binary( binary_t& ) override { return false; } // JSON text has none
   bool key( string_t& key ) override {
      open_.back()->members.push_back( { key, tokenStart(), {} } );
      lastEnd_ = reached_;
      return true;
   }
   bool start_object( size_t ) override { return enter( Json::object() ); }
   bool start_array( size_t ) override { return enter( Json::array() ); }
   bool end_object() override { return leave(); }
   bool end_array() override { return leave(); }
   bool parse_error( size_t position, const std::string& token,
                     const nlohmann::detail::exception& error ) override {
      if( dynamic_cast<const Json::out_of_range*>( &error ) ) {
         complaint_ = { tokenStart(), "the number " + token.substr( 0, 40 ) + " is too large" };
         return false;
      }
      const size_t last = std::min( position, text_.size() + 1 ) - 1;
      std::string what = error.what(); // "[...] parse error at line 1, column 5: what is wrong"
      const size_t place = what.find( ", column " );
      if( place != what.npos )
         what.erase( 0, what.find( ": ", place ) + 2 );
      complaint_ = { std::min( tokenStart(), last ), what };
      return false;
   }

 private:
   size_t tokenStart() const {
      const auto* const end = text_.data() + text_.size();
      const char* const start = std::find_if( lastEnd_, end, []( char c ) {
         return std::string_view( " \t\r\n,:" ).find( c ) == std::string_view::npos;
      } );
      return static_cast<size_t>( start - text_.data() );
   }
   // Where the next value belongs.
   PlacedJson& place() {
      if( open_.empty() )
         return root_;
      PlacedJson& parent = *open_.back();
      return parent.value.is_object() ? parent.members.back().value : parent.items.emplace_back();
   }
   bool add( Json value ) {
      PlacedJson& added = place();
      added.offset = tokenStart();
      added.value = std::move( value );
      lastEnd_ = reached_;
      return true;
   }
   bool enter( Json empty ) {
      if( open_.size() == deepestNesting ) {
         complaint_ = { tokenStart(), "nested too deep" };
         return false;
      }
      PlacedJson& entered = place();
      entered.offset = tokenStart();
      entered.value = std::move( empty );
      lastEnd_ = reached_;
      open_.push_back( &entered ); // stays where it is: its siblings follow when it is closed
      return true;
   }
   bool leave() {
      open_.pop_back();
      lastEnd_ = reached_;
      return true;
   }

   std::string_view text_;
   const char* reached_; // by the parser
   const char* lastEnd_; // where it was when the token before was complete
   PlacedJson root_;
   std::vector<PlacedJson*> open_;
   Complaint complaint_{ 0, "" };
};

} // namespace

PlacedJson parsePlaced( std::string_view text ) { return Builder( text ).parse(); }

Place placeOf( std::string_view text, size_t offset ) {
   const std::string_view before = text.substr( 0, offset );
   const size_t lineStart = before.rfind( '\n' ) + 1; // npos + 1 is 0
   const std::string_view line = before.substr( lineStart );
   const auto characters =
      std::count_if( line.begin(), line.end(), []( char c ) { return ( c & 0xc0 ) != 0x80; } );
   return { static_cast<size_t>( std::count( before.begin(), before.end(), '\n' ) ) + 1,
            static_cast<size_t>( characters ) + 1 };
}

} // namespace Tools
