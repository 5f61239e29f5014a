// l2ribctl source: run, list, delete.
#include "tools/Commands.h"
#include "tools/Json.h"
#include "tools/Operations.h"
#include "tools/Show.h"
#include "tools/SourceRun.h"
#include "tools/SourceTables.h"
#include "tools/TextTable.h"

#include <filesystem>
#include <iostream>
#include <memory>

namespace Tools {

using namespace L2Rib;
using Client::PublishRefused;
using Client::SourceFolder;
using Client::SourceOptions;

namespace {

int run( SourceOptions options, const std::string& value, bool keep ) {
   try {
      const uint64_t number = numberOf( Json( value ), "--value" );
      if( number > UINT32_MAX )
         throw BadInput( "value " + value + " is no single bit of 32: expected 0x1 to 0x80000000" );
      options.value = static_cast<Source>( number );
      return runSource( options, keep );
   } catch( const BadInput& error ) {
      complain( error.what() );
      return badUsage;
   } catch( const PublishRefused& refusal ) {
      complain( refusal.what() );
      return refusal.kind() == PublishRefused::unusable ? badUsage : answerIsNo;
   } catch( const Vexil::TableError& failure ) {
      if( failure.kind() != Vexil::TableError::damaged &&
          failure.kind() != Vexil::TableError::mismatch )
         throw;
      complain( std::string( failure.what() ) + "; 'l2ribctl source delete " + options.name +
                "' removes what was kept" );
      return answerIsNo;
   }
}

int remove( const SourceFolder& folder, const std::string& name ) {
   if( folder.agentSources().contains( name ) ) {
      complain( "source " + name + " is inside the agent; 'l2ribctl config' changes what it has" );
      return answerIsNo;
   }
   if( !folder.sources().contains( name ) ) {
      complain( "no source named " + name + "; 'l2ribctl source list' shows those that there are" );
      return answerIsNo;
   }
   const SourceFolder::Lock lock( folder );
   if( folder.running( name ) ) {
      complain( "source " + name + " is being run by a process: end that first" );
      return answerIsNo;
   }
   folder.remove( name );
   return done;
}

// The entry and how much its tables hold.
Json sourceJson( const Context& context, const std::string& name,
                 const SourceFolder::Published& source ) {
   const SourceTables tables( context, source.record );
   return { { "name", name },
            { "source", source.readable ? Json( sourceStr( source.record.source ) ) : Json() },
            { "initialized", source.record.initialized != 0 },
            { "running", context.sources().running( name ) },
            { "hosts", countOf( tables.host ) },
            { "dests", countOf( tables.dest ) },
            { "groups", countOf( tables.lb ) },
            { "labels", countOf( tables.label ) },
            { "flood", countOf( tables.flood ) } };
}

int list( const Context& context ) {
   if( !std::filesystem::is_directory( context.stateDirectory ) )
      throw std::runtime_error( context.stateDirectory +
                                ": there is no such state directory: start l2ribd, or say which "
                                "--state-dir it runs on" );
   mentionStoppedAgent( context );
   Json all = Json::array();
   for( const auto& [ name, source ] : context.sources().allSources() )
      all.push_back( sourceJson( context, name, source ) );
   if( context.json )
      std::cout << text( all ) << '\n';
   else
      printTable( all, { "name", "source", "initialized", "running", "hosts", "dests", "groups",
                         "labels", "flood" } );
   return done;
}

void addRun( CLI::App& source, Context& context ) {
   struct Given {
      SourceOptions options;
      std::string value;
      bool keep = false;
   };
   const auto given = std::make_shared<Given>();
   CLI::App* const command =
      source.add_subcommand( "run", "be a source: operations on standard input, one a line" );
   command->add_option( "NAME", given->options.name, "the source's name" )->required();
   command->add_option( "--value", given->value, "its value, a single bit such as 0x40" )
      ->required();
   const CLI::Range capacities( 1, 1 << 30 );
   command
      ->add_option( "--host-capacity", given->options.hostCapacity,
                    "records in the host table at first" )
      ->check( capacities )
      ->capture_default_str();
   command
      ->add_option( "--object-capacity", given->options.objectCapacity,
                    "records in each of the tables of dests, groups and labels at first" )
      ->check( capacities )
      ->capture_default_str();
   command
      ->add_option( "--capacity-max", given->options.capacityMax,
                    "records up to which a table grows" )
      ->check( capacities )
      ->capture_default_str();
   command->add_flag( "--host-only", given->options.hostOnly,
                      "hosts with inline destinations only" );
   command->add_flag( "--keep", given->keep, "leave entry and tables behind at the end" );
   command->add_flag_callback(
      "--help-operations",
      [] {
         std::cout << operationsHelp();
         throw CLI::Success();
      },
      "list the operations that are read" );
   command->footer( "Example: l2ribctl source run lab --value 0x1 < operations.jsonl" );
   command->callback( [ &context, given ] {
      context.command = [ &context, given ] {
         given->options.stateDirectory = context.stateDirectory;
         return run( given->options, given->value, given->keep );
      };
   } );
}

} // namespace

void addSourceCommands( CLI::App& app, Context& context ) {
   CLI::App* const source = app.add_subcommand( "source", "be a source, list them, remove one" );
   source->require_subcommand( 1 );
   addRun( *source, context );

   CLI::App* const listing = source->add_subcommand( "list", "what sources there are" );
   addJsonFlag( *listing, context );
   listing->callback(
      [ &context ] { context.command = [ &context ] { return list( context ); }; } );

   const auto name = std::make_shared<std::string>();
   CLI::App* const deletion = source->add_subcommand( "delete", "remove a source that was kept" );
   deletion->add_option( "NAME", *name, "the source's name" )->required();
   deletion->callback( [ &context, name ] {
      context.command = [ &context, name ] { return remove( context.sources(), *name ); };
   } );
}

} // namespace Tools
