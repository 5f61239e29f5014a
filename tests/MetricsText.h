// A strict reader of the Prometheus text format: what it accepts, any scraper does.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace TestSupport {

class MetricsText {
 public:
   explicit MetricsText( const std::string& text ) {
      EXPECT_TRUE( text.ends_with( '\n' ) );
      std::istringstream lines( text );
      for( std::string line; std::getline( lines, line ); )
         if( line.starts_with( "# HELP " ) )
            help( line );
         else if( line.starts_with( "# TYPE " ) )
            type( line );
         else
            sample( line );
   }

   // By name and labels as they stand: l2rib_users, l2rib_hosts{source="evpn",kind="inline"}.
   double operator[]( const std::string& series ) const {
      const auto found = values_.find( series );
      EXPECT_NE( found, values_.end() ) << series << " is missing";
      return found == values_.end() ? -1 : found->second;
   }
   bool has( const std::string& series ) const { return values_.contains( series ); }
   const std::set<std::string>& labelNames() const { return labelNames_; }

 private:
   void help( const std::string& line ) {
      std::smatch parts;
      ASSERT_TRUE(
         std::regex_match( line, parts, std::regex( "# HELP ([a-z][a-z0-9_]*) (\\S.*)" ) ) )
         << line;
      metric_ = parts[ 1 ];
      type_.clear();
      EXPECT_TRUE( metrics_.insert( metric_ ).second ) << metric_ << " begins twice";
   }
   void type( const std::string& line ) {
      std::smatch parts;
      ASSERT_TRUE( std::regex_match( line, parts, std::regex( "# TYPE (\\S+) (counter|gauge)" ) ) )
         << line;
      EXPECT_EQ( parts[ 1 ], metric_ ) << "TYPE follows its HELP";
      type_ = parts[ 2 ];
      EXPECT_EQ( type_ == "counter", metric_.ends_with( "_total" ) ) << line;
   }
   void sample( const std::string& line ) {
      std::smatch parts;
      ASSERT_TRUE( std::regex_match(
         line, parts,
         std::regex( R"re(([a-z0-9_]+)(\{(.+)\})? (\d+(?:\.\d+)?(?:e[+-]?\d+)?))re" ) ) )
         << line;
      EXPECT_EQ( parts[ 1 ], metric_ ) << "a sample stands below its TYPE";
      EXPECT_FALSE( type_.empty() ) << line;
      labels( parts[ 3 ] );
      const std::string series = line.substr( 0, line.rfind( ' ' ) );
      EXPECT_TRUE( values_.emplace( series, std::stod( parts[ 4 ] ) ).second ) << line;
   }
   void labels( std::string rest ) {
      const std::regex label( R"re(([a-z_]+)="((?:[^"\\]|\\[\\"n])*)"(,(?=.)|$))re" );
      while( !rest.empty() ) {
         std::smatch parts;
         ASSERT_TRUE(
            std::regex_search( rest, parts, label, std::regex_constants::match_continuous ) )
            << rest;
         labelNames_.insert( parts[ 1 ] );
         rest = parts.suffix().str();
      }
   }

   std::string metric_;
   std::string type_;
   std::set<std::string> metrics_;
   std::set<std::string> labelNames_;
   std::map<std::string, double> values_;
};

} // namespace TestSupport
