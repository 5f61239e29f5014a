#include "tools/ConfigStore.h"

#include "L2Rib/L2RibTarn.h"
#include "tools/Progress.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Tools {

using Bridging::ConfiguredHostTable;
using Bridging::TunnelTable;
using Vexil::makeEntity;
using Vexil::Ptr;
using Vexil::TableError;

namespace {

constexpr uint32_t smallest = 1024; // records that a new table has room for
constexpr double patience = 10;     // seconds

std::string fileIn( const Context& context, const std::string& name ) {
   return context.fileOf( L2Rib::Path::bridgingConfig ) + "/" + name;
}

// The folder of the generation in force.
std::string generation( const Context& context ) {
   const std::string folder = context.fileOf( L2Rib::Path::bridgingConfig );
   return folder + Bridging::configGeneration( folder );
}

// Null when there is none.
template<class Table>
Ptr<Table> reading( const std::string& folder ) {
   try {
      return makeEntity<Table>( folder + "/" + Table::fileName, Table::Mode::read );
   } catch( const TableError& failure ) {
      if( failure.kind() == TableError::mismatch )
         throw TableError( TableError::mismatch,
                           std::string( failure.what() ) +
                              "; 'l2ribctl config apply FILE' replaces the configuration" );
      if( failure.kind() != TableError::absent )
         throw;
      return nullptr;
   }
}
// The same of a table that is to be replaced: null too when it is of another version.
template<class Table>
Ptr<Table> replaceable( const std::string& folder, bool& otherVersion ) {
   try {
      return reading<Table>( folder );
   } catch( const TableError& failure ) {
      if( failure.kind() != TableError::mismatch )
         throw;
      otherVersion = true;
      return nullptr;
   }
}

// All that the table has, invalid records too.
template<class Table, class Records>
void readAll( const Ptr<Table>& table, Records& records ) {
   if( table )
      table->forEach(
         [ & ]( const typename Records::mapped_type& record ) { records[ record.key ] = record; } );
}

template<class Table, class Records>
void read( const std::string& folder, Records& records ) {
   const Ptr<Table> table = reading<Table>( folder );
   readAll( table, records );
   std::erase_if( records, [ & ]( const auto& record ) {
      const auto fault = faultIn( record.second );
      if( fault )
         table->corruptionDetected( table->path() + ": " + fault->text );
      return fault.has_value();
   } );
}

// What has to be set and deleted to make one table's records those of the other.
template<class Records>
struct Difference {
   Difference( const Records& present, const Records& wanted ) {
      for( const auto& [ key, record ] : wanted )
         if( const auto found = present.find( key );
             found == present.end() || found->second != record )
            set.push_back( record );
      for( const auto& [ key, record ] : present )
         if( !wanted.contains( key ) )
            deleted.push_back( key );
   }
   size_t size() const { return set.size() + deleted.size(); }

   std::vector<typename Records::mapped_type> set;
   std::vector<typename Records::key_type> deleted;
};

// Changes one record of a table that has room for it. False when there is no such table.
template<class Table, class Records>
bool changeInPlace( const Ptr<Table>& present, const Difference<Records>& difference ) {
   if( !present || present->count() + difference.set.size() > present->capacity() )
      return false;
   const auto table = makeEntity<Table>( present->path(), Table::Mode::write, present->capacity() );
   for( const auto& record : difference.set )
      if( !table->set( record ) )
         throw TableError( TableError::system, table->path() + ": there is no room for a record" );
   for( const auto& key : difference.deleted )
      table->erase( key );
   table->ring();
   return true;
}

// A table with these records, in a folder where there is none; with room for as many as the one
// that it follows.
template<class Table, class Records>
void write( const std::string& folder, const Ptr<Table>& before, const Records& records ) {
   uint32_t capacity = before ? std::max( before->capacity(), smallest ) : smallest;
   while( capacity < records.size() )
      capacity *= 2;
   const std::string file = folder + "/" + Table::fileName;
   const auto table = makeEntity<Table>( file, Table::Mode::write, capacity );
   Progress progress;
   uint64_t written = 0;
   for( const auto& [ key, record ] : records ) {
      if( !table->set( record ) )
         throw TableError( TableError::system, file + ": there is no room for its records" );
      progress.at( "writing the configuration", ++written, records.size() );
   }
}

// Leads the link to that folder, in one step.
void putInForce( const Context& context, const std::string& name ) {
   const std::string link = fileIn( context, Bridging::configLink );
   const std::string made = fileIn( context, ".link" );
   unlink( made.c_str() ); // of a command that was killed
   if( symlink( name.c_str(), made.c_str() ) != 0 || rename( made.c_str(), link.c_str() ) != 0 )
      throw TableError( TableError::system,
                        link + ": putting in force: " + std::strerror( errno ) );
}

constexpr const char* generationPrefix = ".tables.";

// Removes what is not in force: the last generation, and what commands left that were killed.
void removeOthers( const Context& context, const std::string& inForce ) {
   std::error_code error;
   for( const auto& entry : std::filesystem::directory_iterator( fileIn( context, "" ), error ) ) {
      const std::string name = entry.path().filename();
      if( ( name.starts_with( generationPrefix ) && name != inForce ) ||
          name == TunnelTable::fileName || name == ConfiguredHostTable::fileName )
         std::filesystem::remove_all( entry.path(), error );
   }
}

} // namespace

Configuration readConfiguration( const Context& context ) {
   for( std::string folder = generation( context );; ) {
      Configuration found;
      // The hosts first: a single tunnel is written before the hosts on it.
      read<ConfiguredHostTable>( folder, found.hosts );
      read<TunnelTable>( folder, found.tunnels );
      if( const std::string now = std::exchange( folder, generation( context ) ); now == folder )
         return found;
   }
}

ConfigEdit::ConfigEdit( const Context& context ) : context_( context ) {
   try {
      lock_.emplace( fileIn( context, ".lock" ), patience );
   } catch( const TableError& failure ) {
      throw std::runtime_error(
         failure.kind() != TableError::busy
            ? failure.what()
            : std::string( "another command is changing the configuration; try "
                           "again when it ends: " ) +
                 failure.what() );
   }
}

ConfigEdit::Changes ConfigEdit::commit( const Configuration& wanted ) {
   const std::string before = generation( context_ );
   bool otherVersion = false;
   const auto tunnelTable = replaceable<TunnelTable>( before, otherVersion );
   const auto hostTable = replaceable<ConfiguredHostTable>( before, otherVersion );
   Configuration present;
   readAll( tunnelTable, present.tunnels );
   readAll( hostTable, present.hosts );
   const Difference tunnels( present.tunnels, wanted.tunnels );
   const Difference hosts( present.hosts, wanted.hosts );
   const Changes changes{ tunnels.set.size(), tunnels.deleted.size(), hosts.set.size(),
                          hosts.deleted.size() };
   if( !otherVersion &&
       ( tunnels.size() + hosts.size() == 0 ||
         ( tunnels.size() == 1 && hosts.size() == 0 && changeInPlace( tunnelTable, tunnels ) ) ||
         ( hosts.size() == 1 && tunnels.size() == 0 && changeInPlace( hostTable, hosts ) ) ) )
      return changes;

   std::random_device random;
   const std::string name =
      generationPrefix + std::to_string( random() ) + std::to_string( random() );
   const std::string folder = fileIn( context_, name );
   try {
      Vexil::makeFoldersFor( folder + "/" );
      write( folder, tunnelTable, wanted.tunnels );
      write( folder, hostTable, wanted.hosts );
      putInForce( context_, name );
   } catch( const TableError& ) {
      std::error_code ignored;
      std::filesystem::remove_all( folder, ignored );
      throw;
   }
   removeOthers( context_, name );
   return changes;
}

} // namespace Tools
