// l2rib-evpn: joins the layer-2 RIB to BGP EVPN, through the API of gobgpd.
#include "evpn/Program.h"
#include "runtime/ServiceNotifier.h"
#include "runtime/StateDirectory.h"
#include "runtime/Trace.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <csignal>
#include <cstdlib>
#include <iostream>

namespace {

[[noreturn]] void refuse( const std::string& what, const std::string& why ) {
   throw CLI::ValidationError( what, why );
}

// "10=...": the VLAN and the rest.
std::pair<uint32_t, std::string> parsedPair( const std::string& option, const std::string& word ) {
   const size_t equals = word.find( '=' );
   const char* const end = word.data() + std::min( equals, word.size() );
   uint32_t vlan = 0;
   const auto [ at, error ] = std::from_chars( word.data(), end, vlan );
   if( equals == word.npos || error != std::errc() || at != end || vlan < 1 || vlan > 4094 )
      refuse( option + " " + word, "VLAN=... is wanted, with a VLAN of 1 to 4094" );
   return { vlan, word.substr( equals + 1 ) };
}

uint32_t parsedVni( const std::string& word, const std::string& text ) {
   uint32_t vni = 0;
   const auto [ at, error ] = std::from_chars( text.data(), text.data() + text.size(), vni );
   if( text.empty() || error != std::errc() || at != text.data() + text.size() || vni < 1 ||
       vni > Evpn::maxVni )
      refuse( "--vni " + word, "VLAN=VNI is wanted, with a VNI of 1 to 16777215" );
   return vni;
}

std::map<uint32_t, Evpn::VlanOptions> parsedVlans( const std::vector<std::string>& vnis,
                                                   const std::vector<std::string>& targets,
                                                   const std::vector<std::string>& rds ) {
   std::map<uint32_t, Evpn::VlanOptions> vlans;
   for( const std::string& word : vnis ) {
      const auto [ vlan, text ] = parsedPair( "--vni", word );
      const uint32_t vni = parsedVni( word, text );
      for( const auto& [ other, options ] : vlans )
         if( other == vlan || options.vni == vni )
            refuse( "--vni " + word, "a VLAN has one VNI, and a VNI one VLAN" );
      vlans[ vlan ].vni = vni;
   }
   const auto ofVlan = [ & ]( const std::string& option, const std::string& word ) {
      const auto [ vlan, text ] = parsedPair( option, word );
      const auto found = vlans.find( vlan );
      if( found == vlans.end() )
         refuse( option + " " + word, "there is no --vni for that VLAN" );
      return std::pair( &found->second, text );
   };
   for( const std::string& word : targets ) {
      const auto [ options, text ] = ofVlan( "--rt", word );
      const auto target = Evpn::parsedTarget( text );
      if( !target )
         refuse( "--rt " + word, "VLAN=AS:NUMBER is wanted, or VLAN=ADDRESS:NUMBER" );
      options->targets.push_back( *target );
   }
   for( const std::string& word : rds ) {
      const auto [ options, text ] = ofVlan( "--rd", word );
      options->rd = Evpn::parsedRd( text );
      if( !options->rd )
         refuse( "--rd " + word, "VLAN=ADDRESS:NUMBER is wanted, or VLAN=AS:NUMBER" );
      for( const auto& [ vlan, other ] : vlans )
         if( &other != options && other.rd == options->rd )
            refuse( "--rd " + word, "VLAN " + std::to_string( vlan ) + " has it" );
   }
   return vlans;
}

int run( const Evpn::ProgramOptions& options ) {
   Vexil::requireStateDirectory( options.stateDirectory );
   Vexil::ActivityManager loop;
   loop.signalIs( SIGTERM, [ & ] { loop.stop(); } );
   loop.signalIs( SIGINT, [ & ] { loop.stop(); } );
   Vexil::ServiceNotifier service( loop );
   const Evpn::Program program( loop, options );
   Vexil::log( "running on " + options.stateDirectory );
   service.ready( [ & ] { return program.progress(); } );
   loop.run();
   service.stopping();
   Vexil::log( "ended in order; the BGP speaker keeps what was announced" );
   return 0;
}

} // namespace

int main( int argc, char** argv ) {
   CLI::App app(
      "Publishes BGP EVPN routes as a source of the layer-2 RIB, and announces the hosts "
      "of this switch; gobgpd speaks BGP." );
   const char* const environment = std::getenv( "L2RIB_STATE_DIR" );
   Evpn::ProgramOptions options;
   options.stateDirectory = environment ? environment : "/run/l2rib";
   options.gobgp.address = "127.0.0.1:50051";
   std::string vtep;
   std::string value = "0x40";
   std::vector<std::string> vnis;
   std::vector<std::string> targets;
   std::vector<std::string> rds;
   app.add_option( "--state-dir", options.stateDirectory, "where the tables are" )
      ->capture_default_str();
   app.add_option( "--gobgp", options.gobgp.address, "ADDRESS:PORT of gobgpd's API" )
      ->capture_default_str();
   app.add_option( "--vtep", vtep, "the address of this switch's VXLAN tunnels" )->required();
   app.add_option( "--vni", vnis, "VLAN=VNI; any number" )->required();
   app.add_option( "--rt", targets, "VLAN=RT: route target; any number (default AS:VNI)" );
   app.add_option( "--rd", rds, "VLAN=RD: route distinguisher (default router-id:VLAN)" );
   app.add_option( "--source", options.source, "the source to publish as" )->capture_default_str();
   app.add_option( "--value", value, "its value, a single bit" )->capture_default_str();
   app.add_option( "--pref", options.pref,
                   "the preference of its hosts; sticky ones have one more" )
      ->check( CLI::Range( 0u, UINT32_MAX - 1 ) )
      ->capture_default_str();
   app.add_option( "--stale-time", options.staleTime,
                   "seconds for which routes of a lost speaker outlast its return" )
      ->check( CLI::Range( 0.0, 1e9 ) )
      ->capture_default_str();
   try {
      app.parse( argc, argv );
      options.gobgp.vlans = parsedVlans( vnis, targets, rds );
      const auto address = Evpn::IpGenAddr::parse( vtep );
      if( !address )
         refuse( "--vtep " + vtep, "an IPv4 or IPv6 address is wanted" );
      options.gobgp.vtep = *address;
      const auto parsed = L2Rib::sourceParse( value );
      if( !parsed )
         refuse( "--value " + value, "a single bit is wanted, such as 0x40" );
      options.value = *parsed;
   } catch( const CLI::CallForHelp& help ) {
      return app.exit( help );
   } catch( const CLI::ParseError& error ) {
      std::cerr << "l2rib-evpn: " << error.what() << " (l2rib-evpn --help says what there is)\n";
      return 2;
   }
   try {
      return run( options );
   } catch( const std::runtime_error& failure ) { // TableError, PublishRefused, system_error too
      std::cerr << "l2rib-evpn: " << failure.what() << '\n';
      return 1;
   }
}
