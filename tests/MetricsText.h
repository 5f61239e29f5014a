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
      const std::regex help( "# HELP ([a-z][a-z0-9_]*) (\\S.*)" );
      const std::regex type( "# TYPE (\\S+) (counter|gauge)" );
      const std::string label = R"re([a-z_]+="(?:[^"\\]|\\[\\"n])*")re";
      const std::regex sample( "([a-z0-9_]+)(?:\\{" + label + "(?:," + label + ")*\\})? " +
                               R"re((\d+(?:\.\d+)?(?:e[+-]?\d+)?))re" );
      EXPECT_TRUE( text.ends_with( '\n' ) );
      std::istringstream lines( text );
      std::set<std::string> metrics;
      std::string metric, kind;
      std::smatch parts;
      for( std::string line; std::getline( lines, line ); )
         if( std::regex_match( line, parts, help ) ) {
            metric = parts[ 1 ];
            kind.clear();
            EXPECT_TRUE( metrics.insert( metric ).second ) << metric << " begins twice";
         } else if( std::regex_match( line, parts, type ) ) {
            kind = parts[ 2 ];
            EXPECT_EQ( parts[ 1 ], metric ) << "TYPE follows its HELP";
            EXPECT_EQ( kind == "counter", metric.ends_with( "_total" ) ) << line;
         } else if( std::regex_match( line, parts, sample ) ) {
            EXPECT_EQ( parts[ 1 ], metric ) << "a sample stands below its TYPE";
            EXPECT_FALSE( kind.empty() ) << line;
            const std::string series = line.substr( 0, line.rfind( ' ' ) );
            EXPECT_TRUE( values_.emplace( series, std::stod( parts[ 2 ] ) ).second ) << line;
         } else {
            ADD_FAILURE() << "neither HELP nor TYPE nor a sample: " << line;
         }
   }

   // By name and labels as they stand: l2rib_users, l2rib_hosts{source="evpn",kind="inline"}.
   double operator[]( const std::string& series ) const {
      const auto found = values_.find( series );
      EXPECT_NE( found, values_.end() ) << series << " is missing";
      return found == values_.end() ? -1 : found->second;
   }
   bool has( const std::string& series ) const { return values_.contains( series ); }

 private:
   std::map<std::string, double> values_;
};

} // namespace TestSupport
