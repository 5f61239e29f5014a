#include "client/SourceFolder.h"

#include "runtime/TableFile.h"

#include <filesystem>
#include <system_error>
#include <vector>

namespace L2Rib::Client {

namespace {

std::vector<std::filesystem::path> filesIn( const std::string& folder ) {
   std::vector<std::filesystem::path> found;
   std::error_code absent;
   for( const auto& file : std::filesystem::directory_iterator( folder, absent ) )
      found.push_back( file.path() );
   return found;
}

bool hidden( const std::filesystem::path& file ) {
   return file.filename().string().starts_with( '.' );
}

} // namespace

std::string SourceFolder::entryFile( const std::string& name ) const {
   return fileOf( Path::inputDir ) + "/" + name;
}

std::string SourceFolder::tablePath( const std::string& name, const std::string& table ) {
   return "bridging/l2Rib/input/" + name + ( table.empty() ? "" : "/" + table );
}

std::map<std::string, SourceFolder::Published>
SourceFolder::publishedIn( const char* directory ) const {
   std::map<std::string, Published> found;
   for( const auto& file : filesIn( fileOf( directory ) ) ) {
      if( hidden( file ) )
         continue;
      const std::string name = file.filename();
      Published source;
      try {
         const SourceEntryTable entry( file, SourceEntryTable::Mode::read );
         source.readable =
            entry.get( SourceName::of( name ).value_or( SourceName() ), source.record );
      } catch( const Vexil::TableError& failure ) {
         if( failure.kind() == Vexil::TableError::absent )
            continue; // it has gone meanwhile
      }
      found[ name ] = source;
   }
   return found;
}

std::map<std::string, SourceFolder::Published> SourceFolder::allSources() const {
   auto all = sources();
   all.merge( agentSources() );
   return all;
}

bool SourceFolder::published( const std::string& name ) const {
   std::error_code unknown;
   return std::filesystem::exists( entryFile( name ), unknown );
}

bool SourceFolder::running( const std::string& name ) const {
   if( Vexil::tableHasWriter( entryFile( name ) ) ||
       Vexil::tableHasWriter( fileOf( Path::agentInputDir ) + "/" + name ) )
      return true;
   for( const auto& file : filesIn( tableFolder( name ) ) )
      if( Vexil::tableHasWriter( file ) )
         return true;
   return false;
}

void SourceFolder::remove( const std::string& name ) const {
   std::error_code absent;
   std::filesystem::remove( entryFile( name ), absent );
   std::filesystem::remove_all( tableFolder( name ), absent );
}

void SourceFolder::removeUnpublished( const std::string& name ) const {
   std::error_code absent;
   for( const std::string& folder : { fileOf( Path::inputDir ), tableFolder( name ) } )
      for( const auto& file : filesIn( folder ) )
         if( hidden( file ) && file.extension() == ".new" && !Vexil::tableHasWriter( file ) )
            std::filesystem::remove( file, absent );
}

} // namespace L2Rib::Client
