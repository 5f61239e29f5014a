// The benchmark program: runs the chosen workloads one after the other and prints their figures.
// bench/run builds it, gives it a private directory, and passes the arguments on.
#include "bench/Harness.h"
#include "bench/Report.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <sys/utsname.h>
#include <unistd.h>

namespace {

constexpr void ( *workloads[] )( const Bench::Settings&, Bench::Report& ) = {
   Bench::benchGet,   Bench::benchSet,     Bench::benchGrow,    Bench::benchWake,
   Bench::benchMerge, Bench::benchObjects, Bench::benchRestart, Bench::benchHold,
   Bench::benchFlood, Bench::benchBridge,  Bench::benchEvpn };

enum class Form { table, json, tsv };

struct Arguments {
   Bench::Settings settings;
   Form form = Form::table;
   std::string place = "as given";
};

[[noreturn]] void usage( const char* why ) {
   std::fprintf( stderr,
                 "%s\nusage: l2ribbench --dir DIR [--dir-note TEXT] [--json | --tsv] [--scale F] "
                 "[FILTER]\nFILTER is a part of a case's name, such as get, or merge/16384\n",
                 why );
   std::exit( 2 );
}

Arguments parsed( int count, char** text ) {
   Arguments arguments;
   for( int i = 1; i < count; ++i ) {
      const std::string argument = text[ i ];
      const auto value = [ & ]() -> std::string {
         if( i + 1 == count )
            usage( ( argument + " needs a value" ).c_str() );
         return text[ ++i ];
      };
      if( argument == "--json" )
         arguments.form = Form::json;
      else if( argument == "--tsv" )
         arguments.form = Form::tsv;
      else if( argument == "--scale" )
         arguments.settings.scale = std::atof( value().c_str() );
      else if( argument == "--dir" )
         arguments.settings.directory = value();
      else if( argument == "--dir-note" )
         arguments.place = value();
      else if( argument[ 0 ] == '-' || !arguments.settings.filter.empty() )
         usage( ( "what is '" + argument + "'?" ).c_str() );
      else
         arguments.settings.filter = argument;
   }
   if( arguments.settings.directory.empty() )
      usage( "no --dir" );
   if( !( arguments.settings.scale > 0 && arguments.settings.scale <= 1 ) )
      usage( "--scale is above 0 and at most 1" );
   return arguments;
}

} // namespace

int main( int count, char** text ) {
   const Arguments arguments = parsed( count, text );
   Bench::Report report;
   utsname system;
   uname( &system );
   report.noteIs( "machine", std::to_string( sysconf( _SC_NPROCESSORS_ONLN ) ) +
                                " processors, Linux " + system.release );
   report.noteIs( "directory", arguments.place );
   report.noteIs( "scale", std::to_string( arguments.settings.scale ) );
   try {
      for( const auto& workload : workloads )
         workload( arguments.settings, report );
   } catch( const std::exception& failure ) {
      std::fprintf( stderr, "%s\n", failure.what() );
      return 1;
   }
   if( report.empty() )
      usage( "no case has such a name" );
   if( arguments.form == Form::json )
      report.printJson();
   else if( arguments.form == Form::tsv )
      report.printTsv();
   else
      report.printTable();
}
