#include "runtime/PluginLoader.h"

#include "runtime/Trace.h"

#include <algorithm>
#include <dlfcn.h>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace Vexil {

namespace {

// What may be a plug-in: hidden files are somebody's work in progress.
std::vector<std::filesystem::path> librariesIn( const std::string& directory ) {
   std::vector<std::filesystem::path> found;
   std::error_code error;
   for( const auto& file : std::filesystem::directory_iterator( directory, error ) )
      if( file.path().extension() == ".so" && file.path().filename().string()[ 0 ] != '.' )
         found.push_back( file.path() );
   if( error && error != std::errc::no_such_file_or_directory )
      log( "plug-ins: " + directory + " can't be read: " + error.message() );
   std::sort( found.begin(), found.end() );
   return found;
}

const PluginDescription& descriptionOf( void* library ) {
   using EntryPoint = const PluginDescription*();
   auto* const entry = reinterpret_cast<EntryPoint*>( dlsym( library, pluginEntryPoint ) );
   if( !entry )
      throw std::runtime_error( "it has no entry point " + std::string( pluginEntryPoint ) + "()" );
   const PluginDescription* const description = entry();
   if( !description )
      throw std::runtime_error( "its entry point gives no description" );
   if( description->interfaceVersion != pluginInterfaceVersion )
      throw std::runtime_error( "it was made for plug-in interface " +
                                std::to_string( description->interfaceVersion ) +
                                ", this process has " + std::to_string( pluginInterfaceVersion ) );
   if( !description->category || !description->name || !description->create )
      throw std::runtime_error( "its description lacks category, name or create" );
   return *description;
}

// Null when the library belongs to another category. Throws std::exception with the reason when it
// can't be loaded; the library stays open then: what was thrown may be of its making.
Ptr<Entity> load( const std::string& file, const std::string& category, Entity& context ) {
   if( !std::filesystem::is_regular_file( file ) ) // opening a pipe would wait for its other end
      throw std::runtime_error( "it is no regular file" );
   void* const library = dlopen( file.c_str(), RTLD_NOW | RTLD_LOCAL );
   if( !library )
      throw std::runtime_error( dlerror() );
   const PluginDescription& description = descriptionOf( library );
   if( description.category != category ) {
      log( "plug-in " + file + " is passed over: its category is " + description.category );
      dlclose( library );
      return nullptr;
   }
   Ptr<Entity> plugin = description.create( context );
   if( !plugin )
      throw std::runtime_error( "it made no object" );
   log( std::string( "plug-in " ) + description.name + " loaded from " + file );
   return plugin;
}

} // namespace

std::vector<Ptr<Entity>> loadPlugins( const std::string& directory, const std::string& category,
                                      Entity& context ) {
   std::vector<Ptr<Entity>> loaded;
   for( const std::string file : librariesIn( directory ) ) {
      const auto refuse = [ & ]( const std::string& reason ) {
         log( "plug-in " + file + " can't be loaded: " + reason );
      };
      try {
         if( Ptr<Entity> plugin = load( file, category, context ) )
            loaded.push_back( std::move( plugin ) );
      } catch( const std::exception& failure ) {
         refuse( failure.what() );
      } catch( ... ) {
         refuse( "it threw something that is no std::exception" );
      }
   }
   return loaded;
}

} // namespace Vexil
