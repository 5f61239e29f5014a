// l2ribctl config: set, delete, delete-vlan, tunnel, apply; and show config.
#include "L2Rib/L2RibTarn.h"
#include "tools/Commands.h"
#include "tools/ConfigDocument.h"
#include "tools/ConfigStore.h"
#include "tools/Filter.h"
#include "tools/Show.h"
#include "tools/TextTable.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <unistd.h>
#include <vector>

namespace Tools {

using Bridging::ConfiguredHostRecord;
using Bridging::MacVlanPair;
using Bridging::TunnelId;
using Bridging::TunnelRecord;
using Bridging::VlanId;
using Vexil::EthAddr;
using Vexil::IpGenAddr;

namespace {

int refuse( int status, const std::string& text ) {
   complain( text );
   return status;
}

// --- what the commands do

int setHost( const Context& context, const ConfiguredHostRecord& host ) {
   if( const auto fault = faultIn( host ) )
      return refuse( inputRejected, fault->text );
   ConfigEdit edit( context );
   Configuration wanted = edit.current();
   const TunnelId tunnel( host.intf.value() );
   if( host.onTunnel && !wanted.tunnels.contains( tunnel ) )
      return refuse( inputRejected, "tunnel " + tunnel.str() +
                                       " is not configured; 'l2ribctl config tunnel " +
                                       tunnel.str() + " --source IP --destination IP' adds it" );
   wanted.hosts[ host.key ] = host;
   edit.commit( wanted );
   return done;
}

// Removes the hosts that it is true of; what they are is for the complaint when there are none.
template<class Predicate>
int deleteHosts( const Context& context, const std::string& what, Predicate predicate ) {
   ConfigEdit edit( context );
   Configuration wanted = edit.current();
   if( std::erase_if( wanted.hosts,
                      [ & ]( const auto& host ) { return predicate( host.first ); } ) == 0 )
      return refuse( answerIsNo, what + "; 'l2ribctl show config' shows what is" );
   edit.commit( wanted );
   return done;
}

int setTunnel( const Context& context, const TunnelRecord& tunnel ) {
   if( const auto fault = faultIn( tunnel ) )
      return refuse( inputRejected, fault->text );
   ConfigEdit edit( context );
   Configuration wanted = edit.current();
   wanted.tunnels[ tunnel.key ] = tunnel;
   edit.commit( wanted );
   return done;
}

int deleteTunnel( const Context& context, TunnelId id ) {
   ConfigEdit edit( context );
   Configuration wanted = edit.current();
   if( wanted.tunnels.erase( id ) == 0 )
      return refuse( answerIsNo, "tunnel " + id.str() +
                                    " is not configured; 'l2ribctl show config' shows what is" );
   for( const auto& [ key, host ] : wanted.hosts )
      if( host.onTunnel && host.intf.value() == id.value() )
         return refuse( answerIsNo, "tunnel " + id.str() + " is used by host " + key.str() +
                                       ": delete or move the hosts on it first" );
   edit.commit( wanted );
   return done;
}

// The whole of a file, or of standard input for "-"; nothing, with errno, when it can't be read.
// By system calls: a stream does not tell a directory from an empty file.
std::optional<std::string> contentOf( const std::string& name ) {
   const int fd = name == "-" ? STDIN_FILENO : open( name.c_str(), O_RDONLY | O_CLOEXEC );
   if( fd < 0 )
      return std::nullopt;
   std::string content;
   std::vector<char> block( 256 * 1024 );
   ssize_t got;
   while( ( got = ::read( fd, block.data(), block.size() ) ) > 0 )
      content.append( block.data(), static_cast<size_t>( got ) );
   const int error = errno;
   if( fd != STDIN_FILENO )
      close( fd );
   errno = error;
   return got < 0 ? std::nullopt : std::optional( content );
}

int applyFile( const Context& context, const std::string& name ) {
   const std::optional<std::string> content = contentOf( name );
   if( !content )
      return refuse( answerIsNo, name + ": reading: " + std::strerror( errno ) );
   Configuration wanted;
   try {
      wanted = parseConfiguration( name == "-" ? "standard input" : name, *content );
   } catch( const DocumentRefused& refused ) {
      for( const std::string& complaint : refused.complaints )
         complain( complaint );
      return refuse( inputRejected, "nothing was changed" );
   }
   ConfigEdit edit( context );
   const ConfigEdit::Changes changes = edit.commit( wanted );
   std::cout << "hosts: " << changes.hostsSet << " set, " << changes.hostsDeleted
             << " deleted; tunnels: " << changes.tunnelsSet << " set, " << changes.tunnelsDeleted
             << " deleted\n";
   return done;
}

int show( const Context& context, RowFilter& filter ) {
   if( !std::filesystem::exists( context.stateDirectory ) )
      return refuse( answerIsNo, context.stateDirectory + ": there is no such state directory" );
   mentionStoppedAgent( context );
   Configuration shown = readConfiguration( context );
   filter.resolve( SourceNames( context ) );
   if( filter.any() ) {
      std::erase_if( shown.hosts,
                     [ & ]( const auto& host ) { return !filter.wants( host.first ); } );
      std::erase_if( shown.tunnels, [ & ]( const auto& tunnel ) {
         return std::none_of( shown.hosts.begin(), shown.hosts.end(), [ & ]( const auto& host ) {
            return host.second.onTunnel && host.second.intf.value() == tunnel.first.value();
         } );
      } );
   }
   const Json document = toJson( shown );
   if( context.json ) {
      std::cout << text( document ) << '\n';
      return done;
   }
   Json hosts = Json::array();
   for( const Json& host : document[ "hosts" ] ) {
      hosts.push_back( { { "interface", nullptr }, { "label", nullptr }, { "tunnel", nullptr } } );
      hosts.back().update( host );
      if( host.contains( "interface" ) )
         hosts.back()[ "interface" ] = interfaceText( host[ "interface" ].get<uint64_t>() );
   }
   printTable( hosts, { "vlan", "mac", "interface", "label", "tunnel" } );
   if( !shown.tunnels.empty() ) {
      std::cout << '\n';
      Json tunnels = Json::array();
      for( Json tunnel : document[ "tunnels" ] ) {
         tunnel[ "tunnel" ] = tunnel[ "id" ];
         tunnels.push_back( tunnel );
      }
      printTable( tunnels, { "tunnel", "source", "destination", "tos", "ttl" } );
   }
   return done;
}

// --- how they are called

std::string checkAddress( const std::string& text ) {
   return IpGenAddr::parse( text ) ? ""
                                   : text + "; expected an address such as 10.0.0.1 or 2001:db8::1";
}

// The two arguments that name a host.
struct HostArguments {
   uint32_t vlan = 0;
   std::string mac;

   void addTo( CLI::App& command ) {
      command.add_option( "VLAN", vlan, "the VLAN, 1 to 4094" )->required();
      command.add_option( "MAC", mac, "the MAC address" )->required()->check( checkMac );
   }
   MacVlanPair key() const { return { *EthAddr::parse( mac ), VlanId( vlan ) }; }
};

void addSet( CLI::App& config, Context& context ) {
   struct Given : HostArguments {
      uint64_t intf = 0;
      uint32_t label = 0;
      uint64_t tunnel = 0;
   };
   const auto given = std::make_shared<Given>();
   CLI::App* const command =
      config.add_subcommand( "set", "configure a host, or another place for it" );
   given->addTo( *command );
   CLI::App* const place = command->add_option_group( "place" );
   CLI::Option* const intf =
      place->add_option( "--interface", given->intf, "the interface that it is on" );
   CLI::Option* const label =
      command->add_option( "--label", given->label, "the MPLS label, 0 to 1048575" );
   CLI::Option* const tunnel =
      place->add_option( "--tunnel", given->tunnel, "the tunnel that it is behind" );
   place->require_option( 1 );
   label->needs( tunnel );
   tunnel->needs( label );
   command->callback( [ &context, given, intf ] {
      context.command = [ &context, given, onInterface = intf->count() > 0 ] {
         ConfiguredHostRecord host{ given->key(), !onInterface,
                                    onInterface ? given->intf : given->tunnel };
         if( !onInterface )
            host.label = Vexil::MplsLabel( given->label );
         return setHost( context, host );
      };
   } );
}

void addDeletions( CLI::App& config, Context& context ) {
   const auto given = std::make_shared<HostArguments>();
   CLI::App* const host = config.add_subcommand( "delete", "remove a host" );
   given->addTo( *host );
   host->callback( [ &context, given ] {
      context.command = [ &context, given ] {
         return deleteHosts( context, "host " + given->key().str() + " is not configured",
                             [ & ]( const MacVlanPair& key ) { return key == given->key(); } );
      };
   } );

   const auto vlan = std::make_shared<uint32_t>();
   CLI::App* const all = config.add_subcommand( "delete-vlan", "remove all hosts of a VLAN" );
   all->add_option( "VLAN", *vlan, "the VLAN" )->required();
   all->callback( [ &context, vlan ] {
      context.command = [ &context, vlan ] {
         return deleteHosts(
            context, "VLAN " + std::to_string( *vlan ) + " has no configured hosts",
            [ & ]( const MacVlanPair& key ) { return key.vlan().value() == *vlan; } );
      };
   } );
}

void addTunnel( CLI::App& config, Context& context ) {
   struct Given {
      uint64_t id = 0;
      std::string source;
      std::string destination;
      uint32_t tos = defaultTos;
      uint32_t ttl = defaultTtl;
      bool remove = false;
   };
   const auto given = std::make_shared<Given>();
   CLI::App* const command =
      config.add_subcommand( "tunnel", "configure a dynamic tunnel interface, or remove it" );
   command->add_option( "ID", given->id, "its number" )->required();
   CLI::App* const action = command->add_option_group( "action" );
   CLI::Option* const source =
      action->add_option( "--source", given->source, "the address that it begins at" )
         ->check( checkAddress );
   CLI::Option* const destination =
      command->add_option( "--destination", given->destination, "the address that it leads to" )
         ->check( checkAddress );
   CLI::Option* const tos = command->add_option( "--tos", given->tos, "type of service, 0 to 255" )
                               ->capture_default_str();
   CLI::Option* const ttl =
      command->add_option( "--ttl", given->ttl, "time to live, 0 to 255" )->capture_default_str();
   action->add_flag( "--delete", given->remove, "remove it; refused while a host is on it" );
   action->require_option( 1 );
   source->needs( destination );
   for( CLI::Option* const option : { destination, tos, ttl } )
      option->needs( source );
   command->callback( [ &context, given ] {
      context.command = [ &context, given ] {
         if( given->remove )
            return deleteTunnel( context, TunnelId( given->id ) );
         return setTunnel(
            context, { TunnelId( given->id ),
                       { *IpGenAddr::parse( given->source ),
                         *IpGenAddr::parse( given->destination ), given->tos, given->ttl } } );
      };
   } );
}

void addApply( CLI::App& config, Context& context ) {
   const auto file = std::make_shared<std::string>();
   CLI::App* const command =
      config.add_subcommand( "apply", "make the configuration equal to a JSON document" );
   command
      ->add_option( "FILE", *file,
                    "the document, as 'show config --json' prints it; - is standard input" )
      ->required();
   command->callback( [ &context, file ] {
      context.command = [ &context, file ] { return applyFile( context, *file ); };
   } );
}

void addShowConfig( CLI::App& showing, Context& context ) {
   const auto filter = std::make_shared<RowFilter>();
   CLI::App* const command = showing.add_subcommand( "config", "the static configuration" );
   addJsonFlag( *command, context );
   filter->addOptions( *command, RowFilter::vlan | RowFilter::mac );
   command->footer( "Example: l2ribctl show config --vlan 10 --json" );
   command->callback( [ &context, filter ] {
      context.command = [ &context, filter ] { return show( context, *filter ); };
   } );
}

} // namespace

void addConfigCommands( CLI::App& app, Context& context ) {
   CLI::App* const config = app.add_subcommand( "config", "the static hosts and their tunnels" );
   config->require_subcommand( 1 );
   addSet( *config, context );
   addDeletions( *config, context );
   addTunnel( *config, context );
   addApply( *config, context );
   addShowConfig( *app.get_subcommand( "show" ), context );
}

} // namespace Tools
