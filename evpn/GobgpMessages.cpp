#include "evpn/GobgpMessages.h"

#include "attribute.pb.h"
#include "capability.pb.h"
#include "evpn/GobgpClient.h"
#include "evpn/PathBytes.h"
#include "evpn/StatusTables.h"
#include "gobgp.pb.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <algorithm>

namespace Evpn {

namespace {

constexpr uint32_t tunnelVxlan = 8;        // of the encapsulation community (RFC 8365, 5.1.2.4)
constexpr uint32_t ingressReplication = 6; // PMSI tunnel type (RFC 6514, section 5)
constexpr uint32_t transitiveTarget = 2;   // sub-type of a route target (RFC 4360, section 4)
constexpr uint32_t restartState = 0x8;     // of a capability's flags (RFC 4724, section 3)
constexpr uint32_t originIgp = 0;          // RFC 4271, section 4.3
const std::string noAddress = "<nil>";     // what the API says for none

std::optional<IpGenAddr> addressIn( const std::string& text ) {
   if( text.empty() || text == noAddress )
      return IpGenAddr();
   return IpGenAddr::parse( text );
}

// The three forms of administrator and number.
uint64_t packed( uint64_t type, uint64_t admin, uint64_t assigned ) {
   return type == 0 ? ( admin & 0xffff ) << 32 | ( assigned & 0xffffffff )
                    : ( admin & 0xffffffff ) << 16 | ( assigned & 0xffff );
}

std::optional<uint64_t> rdIn( const google::protobuf::Any& any ) {
   if( apipb::RouteDistinguisherTwoOctetASN rd; any.UnpackTo( &rd ) )
      return packed( 0, rd.admin(), rd.assigned() );
   if( apipb::RouteDistinguisherFourOctetASN rd; any.UnpackTo( &rd ) )
      return uint64_t( 2 ) << 48 | packed( 2, rd.admin(), rd.assigned() );
   if( apipb::RouteDistinguisherIPAddress rd; any.UnpackTo( &rd ) )
      if( const auto router = IpGenAddr::parse( rd.admin() );
          router && router->family() == IpGenAddr::familyIpv4 )
         return rdOf( *router, static_cast<uint16_t>( rd.assigned() ) );
   return {};
}

std::optional<Esi> esiIn( const apipb::EthernetSegmentIdentifier& message ) {
   Esi esi;
   esi.bytes[ 0 ] = static_cast<uint8_t>( message.type() );
   if( message.value().empty() )
      return esi;
   if( message.value().size() != esi.bytes.size() - 1 || message.type() > 0xff )
      return {};
   std::copy( message.value().begin(), message.value().end(), esi.bytes.begin() + 1 );
   return esi;
}

// Of route targets: the community's 8 bytes. 0 for one that can't be read.
template<class Community>
uint64_t targetIn( const Community& community, uint64_t type, uint64_t admin ) {
   if( community.sub_type() != transitiveTarget || !community.is_transitive() )
      return 0;
   return type << 56 | uint64_t( transitiveTarget ) << 48 |
          packed( type, admin, community.local_admin() );
}

class Communities {
 public:
   explicit Communities( Route& route ) : route_( route ) {}

   void take( const google::protobuf::Any& any ) {
      if( apipb::TwoOctetAsSpecificExtended as; any.UnpackTo( &as ) ) {
         target( targetIn( as, 0, as.asn() ) );
      } else if( apipb::MacMobilityExtended mobility; any.UnpackTo( &mobility ) ) {
         route_.seqNo = mobility.sequence_num();
         route_.sticky = mobility.is_sticky();
      } else if( apipb::EncapExtended encapsulation; any.UnpackTo( &encapsulation ) ) {
         ( encapsulation.tunnel_type() == tunnelVxlan ? vxlan_ : other_ ) = true;
      } else if( apipb::ESILabelExtended label; any.UnpackTo( &label ) ) {
         route_.singleActive = label.is_single_active();
      } else if( apipb::FourOctetAsSpecificExtended as4; any.UnpackTo( &as4 ) ) {
         target( targetIn( as4, 2, as4.asn() ) );
      } else if( apipb::IPv4AddressSpecificExtended ip; any.UnpackTo( &ip ) ) {
         uint64_t admin = 0;
         if( const auto address = IpGenAddr::parse( ip.address() ) )
            for( size_t i = 0; i < 4; ++i )
               admin = admin << 8 | address->bytes()[ i ];
         target( targetIn( ip, 1, admin ) );
      }
   }
   void end() {
      route_.foreignEncapsulation = other_ && !vxlan_;
      std::sort( route_.targets.begin(), route_.targets.end() );
   }

 private:
   void target( uint64_t target ) {
      if( target != 0 )
         route_.targets.push_back( target );
   }

   Route& route_;
   bool vxlan_ = false;
   bool other_ = false;
};

NotTaken readNlri( const google::protobuf::Any& any, Route& route ) {
   std::optional<uint64_t> rd;
   std::optional<Esi> esi = Esi();
   std::optional<IpGenAddr> ip = IpGenAddr();
   std::optional<EthAddr> mac = EthAddr();
   if( apipb::EVPNMACIPAdvertisementRoute nlri; any.UnpackTo( &nlri ) ) {
      route.key.type = RouteType::macIp;
      rd = rdIn( nlri.rd() );
      esi = esiIn( nlri.esi() );
      ip = addressIn( nlri.ip_address() );
      mac = EthAddr::parse( nlri.mac_address() );
      route.key.tag = nlri.ethernet_tag();
      route.vni = nlri.labels_size() > 0 ? nlri.labels( 0 ) : 0;
   } else if( apipb::EVPNInclusiveMulticastEthernetTagRoute nlri; any.UnpackTo( &nlri ) ) {
      route.key.type = RouteType::multicast;
      rd = rdIn( nlri.rd() );
      ip = addressIn( nlri.ip_address() );
      route.key.tag = nlri.ethernet_tag();
   } else if( apipb::EVPNEthernetAutoDiscoveryRoute nlri; any.UnpackTo( &nlri ) ) {
      route.key.type = RouteType::ethernetAd;
      rd = rdIn( nlri.rd() );
      esi = esiIn( nlri.esi() );
      route.key.esi = esi.value_or( Esi() );
      route.key.tag = nlri.ethernet_tag();
      route.vni = nlri.label();
   } else {
      return any.Is<apipb::EVPNEthernetSegmentRoute>() || any.Is<apipb::EVPNIPPrefixRoute>() ||
                   any.Is<apipb::EVPNIPMSIRoute>()
                ? NotTaken::type
                : NotTaken::unreadable;
   }
   if( !rd || !esi || !ip || !mac )
      return NotTaken::unreadable;
   route.key.rd = *rd;
   route.key.ip = *ip;
   route.key.mac = *mac;
   route.esi = *esi;
   return NotTaken::taken;
}

// Of an MpReachNLRIAttribute, without the NLRIs behind: there may be a hundred, all of the update
// that the path came with.
std::string firstNextHopIn( const std::string& message ) {
   using google::protobuf::internal::WireFormatLite;
   google::protobuf::io::CodedInputStream in( reinterpret_cast<const uint8_t*>( message.data() ),
                                              static_cast<int>( message.size() ) );
   std::string hop;
   while( const uint32_t tag = in.ReadTag() ) {
      if( WireFormatLite::GetTagFieldNumber( tag ) ==
          apipb::MpReachNLRIAttribute::kNextHopsFieldNumber )
         return WireFormatLite::ReadString( &in, &hop ) ? hop : "";
      if( !WireFormatLite::SkipField( &in, tag ) )
         break;
   }
   return {};
}

void readAttribute( const google::protobuf::Any& any, Route& route, Communities& communities ) {
   if( any.Is<apipb::MpReachNLRIAttribute>() ) {
      if( const std::string hop = firstNextHopIn( any.value() ); !hop.empty() )
         route.nextHop = addressIn( hop ).value_or( IpGenAddr() );
   } else if( apipb::NextHopAttribute hop; any.UnpackTo( &hop ) ) {
      if( route.nextHop == IpGenAddr() )
         route.nextHop = addressIn( hop.next_hop() ).value_or( IpGenAddr() );
   } else if( apipb::ExtendedCommunitiesAttribute extended; any.UnpackTo( &extended ) ) {
      for( const auto& community : extended.communities() )
         communities.take( community );
   } else if( apipb::PmsiTunnelAttribute tunnel; any.UnpackTo( &tunnel ) ) {
      route.ingressReplication = tunnel.type() == ingressReplication;
      if( route.key.type == RouteType::multicast )
         route.vni = tunnel.label();
   }
}

template<class Message>
void add( google::protobuf::RepeatedPtrField<google::protobuf::Any>* to, const Message& message ) {
   to->Add()->PackFrom( message );
}

void fillRd( google::protobuf::Any* any, uint64_t rd ) {
   const std::string text = rdStr( rd );
   if( rd >> 48 == 0 ) {
      apipb::RouteDistinguisherTwoOctetASN message;
      message.set_admin( static_cast<uint32_t>( rd >> 32 ) );
      message.set_assigned( static_cast<uint32_t>( rd ) );
      any->PackFrom( message );
   } else if( rd >> 48 == 1 ) {
      apipb::RouteDistinguisherIPAddress message;
      message.set_admin( text.substr( 0, text.find( ':' ) ) );
      message.set_assigned( static_cast<uint32_t>( rd & 0xffff ) );
      any->PackFrom( message );
   } else {
      apipb::RouteDistinguisherFourOctetASN message;
      message.set_admin( static_cast<uint32_t>( rd >> 16 ) );
      message.set_assigned( static_cast<uint32_t>( rd & 0xffff ) );
      any->PackFrom( message );
   }
}

template<class Message>
void addTarget( apipb::ExtendedCommunitiesAttribute& to, Message message, uint64_t number ) {
   message.set_is_transitive( true );
   message.set_sub_type( transitiveTarget );
   message.set_local_admin( static_cast<uint32_t>( number ) );
   add( to.mutable_communities(), message );
}

void fillTarget( apipb::ExtendedCommunitiesAttribute& to, uint64_t target ) {
   if( target >> 56 == 0 ) {
      apipb::TwoOctetAsSpecificExtended as;
      as.set_asn( static_cast<uint32_t>( target >> 32 & 0xffff ) );
      addTarget( to, as, target & 0xffffffff );
   } else if( target >> 56 == 1 ) {
      const std::string text = targetStr( target );
      apipb::IPv4AddressSpecificExtended address;
      address.set_address( text.substr( 0, text.find( ':' ) ) );
      addTarget( to, address, target & 0xffff );
   } else {
      apipb::FourOctetAsSpecificExtended as;
      as.set_asn( static_cast<uint32_t>( target >> 16 ) );
      addTarget( to, as, target & 0xffff );
   }
}

void fillNlri( apipb::Path& path, const Route& route ) {
   if( route.key.type == RouteType::multicast ) {
      apipb::EVPNInclusiveMulticastEthernetTagRoute nlri;
      fillRd( nlri.mutable_rd(), route.key.rd );
      nlri.set_ip_address( route.key.ip.str() );
      path.mutable_nlri()->PackFrom( nlri );
      return;
   }
   apipb::EVPNMACIPAdvertisementRoute nlri;
   fillRd( nlri.mutable_rd(), route.key.rd );
   nlri.mutable_esi()->set_value( std::string( 9, '\0' ) );
   nlri.set_mac_address( route.key.mac.str() );
   if( route.key.ip != IpGenAddr() )
      nlri.set_ip_address( route.key.ip.str() );
   nlri.add_labels( route.vni );
   path.mutable_nlri()->PackFrom( nlri );
}

void fillTunnel( apipb::Path& path, const Route& route ) {
   const size_t size = route.nextHop.family() == IpGenAddr::familyIpv4 ? 4 : 16;
   apipb::PmsiTunnelAttribute tunnel;
   tunnel.set_type( ingressReplication );
   tunnel.set_label( route.vni );
   tunnel.set_id(
      std::string( route.nextHop.bytes().begin(), route.nextHop.bytes().begin() + size ) );
   add( path.mutable_pattrs(), tunnel );
}

} // namespace

ParsedPath parsedPath( const apipb::Path& path ) {
   ParsedPath parsed;
   Route& route = parsed.route;
   parsed.withdrawn = path.is_withdraw();
   const std::string& neighbor = path.neighbor_ip();
   route.own = !parsed.withdrawn && ( neighbor.empty() || neighbor == noAddress );
   if( !path.nlri_binary().empty() ) {
      parsed.reason = readPath(
         path.nlri_binary(), { path.pattrs_binary().begin(), path.pattrs_binary().end() }, route );
      return parsed;
   }
   parsed.reason = readNlri( path.nlri(), route );
   if( parsed.withdrawn || parsed.reason != NotTaken::taken )
      return parsed;
   Communities communities( route );
   for( const auto& attribute : path.pattrs() )
      readAttribute( attribute, route, communities );
   communities.end();
   return parsed;
}

apipb::Path pathOf( const Route& route ) {
   apipb::Path path;
   path.mutable_family()->set_afi( apipb::Family::AFI_L2VPN );
   path.mutable_family()->set_safi( apipb::Family::SAFI_EVPN );
   fillNlri( path, route );
   apipb::OriginAttribute origin;
   origin.set_origin( originIgp );
   add( path.mutable_pattrs(), origin );
   apipb::NextHopAttribute hop;
   hop.set_next_hop( route.nextHop.str() );
   add( path.mutable_pattrs(), hop );
   apipb::ExtendedCommunitiesAttribute communities;
   for( const uint64_t target : route.targets )
      fillTarget( communities, target );
   apipb::EncapExtended encapsulation;
   encapsulation.set_tunnel_type( tunnelVxlan );
   add( communities.mutable_communities(), encapsulation );
   if( route.sticky || route.seqNo > 0 ) {
      apipb::MacMobilityExtended mobility;
      mobility.set_is_sticky( route.sticky );
      mobility.set_sequence_num( route.seqNo );
      add( communities.mutable_communities(), mobility );
   }
   add( path.mutable_pattrs(), communities );
   if( route.key.type == RouteType::multicast )
      fillTunnel( path, route );
   return path;
}

Peer peerOf( const apipb::Peer& message ) {
   Peer peer;
   peer.address = message.state().neighbor_address();
   if( peer.address.empty() )
      peer.address = message.conf().neighbor_address();
   peer.as = message.state().peer_asn();
   peer.established = message.state().session_state() == apipb::PeerState::ESTABLISHED;
   peer.up =
      !message.conf().admin_down() && message.state().admin_state() != apipb::PeerState::DOWN;
   peer.updates = message.state().messages().received().update();
   if( peer.established )
      peer.upFor = wallClock() - static_cast<double>( message.timers().state().uptime().seconds() );
   for( const google::protobuf::Any& any : message.state().remote_cap() )
      if( apipb::GracefulRestartCapability capability; any.UnpackTo( &capability ) )
         peer.restarting = ( capability.flags() & restartState ) != 0;
   for( const apipb::AfiSafi& family : message.afi_safis() ) {
      if( family.config().family().afi() != apipb::Family::AFI_L2VPN ||
          family.config().family().safi() != apipb::Family::SAFI_EVPN )
         continue;
      peer.evpn = true;
      peer.endOfRib = family.mp_graceful_restart().state().end_of_rib_received();
      peer.received = family.state().received();
   }
   return peer;
}

} // namespace Evpn
