#include "tools/TextTable.h"

#include <algorithm>
#include <cctype>
#include <iostream>
#include <unistd.h>
#include <utility>

namespace Tools {

namespace {

std::string cellOf( const Json& value ) {
   if( value.is_null() )
      return "-";
   if( value.is_boolean() )
      return value.get<bool>() ? "yes" : "no";
   return value.is_string() ? value.get<std::string>() : text( value );
}

// Of the columns; control characters are left out.
std::vector<size_t> widthsOf( std::vector<std::vector<std::string>>& lines ) {
   std::vector<size_t> widths;
   for( auto& line : lines ) {
      widths.resize( std::max( widths.size(), line.size() ), 0 );
      for( size_t i = 0; i < line.size(); ++i ) {
         std::replace_if(
            line[ i ].begin(), line[ i ].end(),
            []( unsigned char c ) { return std::iscntrl( c ) != 0; }, '?' );
         widths[ i ] = std::max( widths[ i ], line[ i ].size() );
      }
   }
   return widths;
}

} // namespace

void printColumns( std::vector<std::vector<std::string>> lines ) {
   const std::vector<size_t> widths = widthsOf( lines );
   for( const auto& line : lines ) {
      std::string printed;
      for( size_t i = 0; i < line.size(); ++i ) {
         printed += line[ i ];
         if( i + 1 < line.size() )
            printed.append( widths[ i ] - line[ i ].size() + 2, ' ' );
      }
      std::cout << printed << '\n';
   }
}

void printLines( const std::vector<Heading>& headings,
                 std::vector<std::vector<std::string>> lines ) {
   const size_t last = headings.size() - 1;
   const bool anyFault = std::any_of( lines.begin(), lines.end(),
                                      [ & ]( const auto& line ) { return !line[ last ].empty(); } );
   lines.emplace( lines.begin() );
   for( const Heading& heading : headings )
      lines.front().push_back( heading.text );
   if( !anyFault )
      lines.front().back().clear();
   const std::vector<size_t> widths = widthsOf( lines );
   const bool coloured = isatty( STDOUT_FILENO );
   for( const auto& line : lines ) {
      std::string printed;
      for( size_t i = 0; i <= last; ++i ) {
         const std::string& cell = line[ i ];
         const std::string padding( widths[ i ] - cell.size(), ' ' );
         if( i == last && &line != &lines.front() && !cell.empty() && coloured )
            printed += "\033[33m" + cell + "\033[0m";
         else
            printed += headings[ i ].side == Heading::right ? padding + cell : cell + padding;
         printed += "  ";
      }
      printed.erase( printed.find_last_not_of( ' ' ) + 1 );
      std::cout << printed << '\n';
   }
}

void printTable( const Json& rows, const std::vector<std::string>& columns ) {
   std::vector<std::vector<std::string>> lines{ columns };
   for( const Json& row : rows ) {
      lines.emplace_back();
      for( const std::string& column : columns )
         lines.back().push_back( cellOf( row.at( column ) ) );
   }
   printColumns( std::move( lines ) );
}

} // namespace Tools
