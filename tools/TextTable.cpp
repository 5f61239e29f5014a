#include "tools/TextTable.h"

#include <algorithm>
#include <cctype>
#include <iostream>
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

} // namespace

void printColumns( std::vector<std::vector<std::string>> lines ) {
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
