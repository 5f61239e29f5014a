#include "bench/Report.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace Bench {

namespace {

std::string number( double value ) {
   char text[ 32 ];
   std::snprintf( text, sizeof text, value < 10 ? "%.3f" : value < 1000 ? "%.1f" : "%.0f", value );
   return text;
}

} // namespace

Report& Report::figure( const std::string& workload, const std::string& metric, double value,
                        const std::string& unit, Better better ) {
   figures_.push_back( { workload, metric, value, unit, {} } );
   better_ = better;
   return *this;
}

Report& Report::against( const std::string& name, double value, double target ) {
   Figure& of = figures_.back();
   const double ratio = better_ == Better::lower ? value / of.value : of.value / value;
   of.rivals.push_back( { name, true, value, ratio, target } );
   return *this;
}

Report& Report::againstAbsent( const std::string& name ) {
   figures_.back().rivals.push_back( { name, false } );
   return *this;
}

void Report::printTable() const {
   for( const auto& [ name, text ] : notes_ )
      std::printf( "%s: %s\n", name.c_str(), text.c_str() );
   std::printf( "\n%-24s %-22s %10s %-9s %s\n", "workload", "metric", "l2rib", "unit",
                "rivals: value (times better; the least that is wanted)" );
   for( const Figure& figure : figures_ ) {
      std::printf( "%-24s %-22s %10s %-9s", figure.workload.c_str(), figure.metric.c_str(),
                   number( figure.value ).c_str(), figure.unit.c_str() );
      for( const Rival& rival : figure.rivals ) {
         if( !rival.present ) {
            std::printf( "  %s not installed", rival.name.c_str() );
            continue;
         }
         std::printf( "  %s %s (x%s", rival.name.c_str(), number( rival.value ).c_str(),
                      number( rival.ratio ).c_str() );
         if( rival.target > 0 )
            std::printf( "; %s %s", number( rival.target ).c_str(),
                         rival.ratio >= rival.target ? "met" : "MISSED" );
         std::printf( ")" );
      }
      std::printf( "\n" );
   }
}

void Report::printJson() const {
   nlohmann::ordered_json all;
   all[ "notes" ] = notes_;
   all[ "figures" ] = nlohmann::ordered_json::array();
   for( const Figure& figure : figures_ ) {
      nlohmann::ordered_json one{ { "workload", figure.workload },
                                  { "metric", figure.metric },
                                  { "value", figure.value },
                                  { "unit", figure.unit },
                                  { "rivals", nlohmann::ordered_json::array() } };
      for( const Rival& rival : figure.rivals ) {
         nlohmann::ordered_json beside{ { "name", rival.name } };
         if( rival.present ) {
            beside[ "value" ] = rival.value;
            beside[ "ratio" ] = rival.ratio;
            if( rival.target > 0 ) {
               beside[ "target" ] = rival.target;
               beside[ "met" ] = rival.ratio >= rival.target;
            }
         } else {
            beside[ "absent" ] = "not installed";
         }
         one[ "rivals" ].push_back( std::move( beside ) );
      }
      all[ "figures" ].push_back( std::move( one ) );
   }
   std::printf( "%s\n", all.dump( 2 ).c_str() );
}

void Report::printTsv() const {
   const auto line = []( const Figure& of, const std::string& metric, double value,
                         const std::string& unit ) {
      std::printf( "l2rib\t%s\t%s\t%.6g\t%s\n", of.workload.c_str(), metric.c_str(), value,
                   unit.c_str() );
   };
   for( const Figure& figure : figures_ ) {
      line( figure, figure.metric, figure.value, figure.unit );
      for( const Rival& rival : figure.rivals ) {
         if( !rival.present )
            continue;
         line( figure, figure.metric + " of " + rival.name, rival.value, figure.unit );
         line( figure, figure.metric + " against " + rival.name, rival.ratio, "ratio" );
      }
   }
}

} // namespace Bench
