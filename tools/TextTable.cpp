#include "tools/TextTable.h"

#include <algorithm>
#include <cctype>
#include <iostream>

namespace Tools {

namespace {

std::string cellOf( const Json& value ) {
   if( value.is_null() )
      return "-";
   if( value.is_boolean() )
      return value.get<bool>() ? "yes" : "no";
   if( !value.is_string() )
      return text( value );
   std::string cell = value.get<std::string>();
   std::replace_if(
      cell.begin(), cell.end(), []( unsigned char c ) { return std::iscntrl( c ) != 0; }, '?' );
   return cell;
}

} // namespace

void printTable( const Json& rows, const std::vector<std::string>& columns ) {
   std::vector<std::vector<std::string>> lines{ columns };
   for( const Json& row : rows ) {
      lines.emplace_back();
      for( const std::string& column : columns )
         lines.back().push_back( cellOf( row.at( column ) ) );
   }
   std::vector<size_t> widths( columns.size(), 0 );
   for( const auto& line : lines )
      for( size_t i = 0; i < line.size(); ++i )
         widths[ i ] = std::max( widths[ i ], line[ i ].size() );
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

} // namespace Tools
