#include "bridge/NetlinkKernel.h"

#include <array>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <optional>
#include <string_view>

namespace Bridge {

namespace {

// --- attributes

// The highest attribute number that is looked at here, with room to spare.
constexpr size_t attributes = 128;
static_assert( IFLA_MAX < attributes && IFLA_BR_MAX < attributes && IFLA_VXLAN_MAX < attributes &&
               NDA_MAX < attributes && NHA_MAX < attributes );

// The attributes of a message behind its family header, or of a nest, by their numbers.
class Parsed {
 public:
   Parsed( const nlmsghdr* message, size_t familySize ) {
      mnl_attr_parse( message, static_cast<unsigned>( familySize ), &Parsed::enter, this );
   }
   explicit Parsed( const nlattr* nest ) {
      if( nest )
         mnl_attr_parse_nested( nest, &Parsed::enter, this );
   }
   // Null when absent or shorter than that.
   const nlattr* at( size_t type, size_t size = 0 ) const {
      const nlattr* const found = found_[ type ];
      return found && mnl_attr_get_payload_len( found ) >= size ? found : nullptr;
   }
   uint32_t number( size_t type ) const {
      const nlattr* const found = at( type, sizeof( uint32_t ) );
      return found ? mnl_attr_get_u32( found ) : 0;
   }
   bool flag( size_t type ) const {
      const nlattr* const found = at( type, 1 );
      return found && mnl_attr_get_u8( found ) != 0;
   }
   std::string_view text( size_t type ) const {
      const nlattr* const found = at( type, 1 );
      return found ? mnl_attr_get_str( found ) : "";
   }
   IpGenAddr address( size_t type ) const {
      const nlattr* const found = at( type );
      const size_t size = found ? mnl_attr_get_payload_len( found ) : 0;
      std::array<uint8_t, 16> bytes{};
      if( size != 4 && size != 16 )
         return {};
      std::memcpy( bytes.data(), mnl_attr_get_payload( found ), size );
      return { size == 4 ? IpGenAddr::familyIpv4 : IpGenAddr::familyIpv6, bytes };
   }

 private:
   static int enter( const nlattr* attribute, void* self ) {
      const uint16_t type = mnl_attr_get_type( attribute );
      if( type < attributes )
         static_cast<Parsed*>( self )->found_[ type ] = attribute;
      return MNL_CB_OK;
   }

   std::array<const nlattr*, attributes> found_{};
};

// Writes at once of which the notifications are heard; of more, those of foreign hands that fall in
// between are left to the audit.
constexpr size_t mostHeard = 32;

class Quiet {
 public:
   Quiet( NetlinkSocket& notifications, bool wanted )
      : notifications_( wanted ? &notifications : nullptr ) {
      if( notifications_ )
         notifications_->externalEntriesAre( false );
   }
   ~Quiet() {
      if( notifications_ )
         notifications_->externalEntriesAre( true );
   }
   Quiet( const Quiet& ) = delete;
   Quiet& operator=( const Quiet& ) = delete;

 private:
   NetlinkSocket* notifications_;
};

void putAddress( nlmsghdr* message, uint16_t type, const IpGenAddr& address ) {
   const size_t size = address.family() == IpGenAddr::familyIpv4 ? 4 : 16;
   mnl_attr_put( message, type, size, address.bytes().data() );
}

// --- what the kernel tells

template<class Family>
const Family& familyOf( const nlmsghdr* message ) {
   return *static_cast<const Family*>( mnl_nlmsg_get_payload( message ) );
}

// Nothing for what a bridge says of its ports (AF_BRIDGE): the same link is told in full too.
std::optional<Link> linkOf( const nlmsghdr* message ) {
   const auto& family = familyOf<ifinfomsg>( message );
   if( family.ifi_family == AF_BRIDGE )
      return {};
   const Parsed parsed( message, sizeof family );
   const Parsed info( parsed.at( IFLA_LINKINFO ) );
   const std::string_view kind = info.text( IFLA_INFO_KIND );
   Link link;
   link.index = static_cast<uint32_t>( family.ifi_index );
   link.master = parsed.number( IFLA_MASTER );
   link.name = parsed.text( IFLA_IFNAME );
   if( kind == "bridge" ) {
      const Parsed data( info.at( IFLA_INFO_DATA ) );
      link.isBridge = true;
      link.vlanFiltering = data.flag( IFLA_BR_VLAN_FILTERING );
   } else if( kind == "vxlan" ) {
      const Parsed data( info.at( IFLA_INFO_DATA ) );
      link.isVxlan = true;
      link.external = data.flag( IFLA_VXLAN_COLLECT_METADATA );
      link.vni = data.number( IFLA_VXLAN_ID );
      link.local = data.at( IFLA_VXLAN_LOCAL ) ? data.address( IFLA_VXLAN_LOCAL )
                                               : data.address( IFLA_VXLAN_LOCAL6 );
   }
   return link;
}

// Nothing for what is of no interest: neighbours of other families, entries within a VLAN of a
// bridge that filters by VLAN.
std::optional<FdbEntry> entryOf( const nlmsghdr* message ) {
   const auto& family = familyOf<ndmsg>( message );
   if( family.ndm_family != AF_BRIDGE )
      return {};
   const Parsed parsed( message, sizeof family );
   const nlattr* const mac = parsed.at( NDA_LLADDR, 6 );
   if( !mac || parsed.at( NDA_VLAN ) )
      return {};
   std::array<uint8_t, 6> bytes{};
   std::memcpy( bytes.data(), mnl_attr_get_payload( mac ), bytes.size() );
   FdbEntry entry;
   entry.device = static_cast<uint32_t>( family.ndm_ifindex );
   entry.bridge = family.ndm_flags & NTF_SELF ? 0 : parsed.number( NDA_MASTER );
   entry.mac = EthAddr( bytes );
   entry.external = family.ndm_flags & NTF_EXT_LEARNED;
   entry.permanent = family.ndm_state & NUD_PERMANENT;
   entry.fixed = family.ndm_state & NUD_NOARP;
   entry.marked = entry.fixed && parsed.at( NDA_FDB_EXT_ATTRS );
   entry.vtep = parsed.address( NDA_DST );
   entry.vni = parsed.number( NDA_VNI );
   entry.nexthop = parsed.number( NDA_NH_ID );
   return entry;
}

// Nothing for nexthops that are not for forwarding entries; their ids are told all the same, since
// they are taken.
Nexthop nexthopOf( const nlmsghdr* message ) {
   const auto& family = familyOf<nhmsg>( message );
   const Parsed parsed( message, sizeof family );
   Nexthop nexthop;
   nexthop.id = parsed.number( NHA_ID );
   nexthop.protocol = family.nh_protocol;
   if( !parsed.at( NHA_FDB ) )
      return nexthop;
   nexthop.vtep = parsed.address( NHA_GATEWAY );
   if( const nlattr* const group = parsed.at( NHA_GROUP ) ) {
      const auto* const members = static_cast<const nexthop_grp*>( mnl_attr_get_payload( group ) );
      const size_t count = mnl_attr_get_payload_len( group ) / sizeof *members;
      for( size_t i = 0; i < count; ++i )
         nexthop.members.push_back( members[ i ].id );
   }
   return nexthop;
}

void tell( const nlmsghdr* message, KernelListener& listener ) {
   switch( message->nlmsg_type ) {
   case RTM_NEWLINK:
      if( const auto link = linkOf( message ) )
         listener.linkIs( *link );
      return;
   case RTM_DELLINK: // with AF_BRIDGE: a port has left its bridge, which RTM_NEWLINK says too
      if( const auto link = linkOf( message ) )
         listener.linkDel( link->index );
      return;
   case RTM_NEWNEIGH:
      if( const auto entry = entryOf( message ) )
         listener.entryIs( *entry );
      return;
   case RTM_DELNEIGH:
      if( const auto entry = entryOf( message ) )
         listener.entryDel( *entry );
      return;
   case RTM_NEWNEXTHOP:
      listener.nexthopIs( nexthopOf( message ) );
      return;
   case RTM_DELNEXTHOP:
      listener.nexthopDel( nexthopOf( message ).id );
      return;
   default:
      return;
   }
}

// --- what it is asked to do

void encodeNexthop( RequestBatch& batch, const Write& write ) {
   const bool isNew = write.kind == Write::newNexthopIs || write.kind == Write::newGroupIs;
   nlmsghdr* const message =
      batch.start( RTM_NEWNEXTHOP,
                   static_cast<uint16_t>( NLM_F_CREATE | ( isNew ? NLM_F_EXCL : NLM_F_REPLACE ) ),
                   sizeof( nhmsg ) );
   auto* const family = static_cast<nhmsg*>( mnl_nlmsg_get_payload( message ) );
   family->nh_protocol = nexthopProtocol;
   mnl_attr_put_u32( message, NHA_ID, write.id );
   mnl_attr_put( message, NHA_FDB, 0, nullptr );
   if( write.kind == Write::nexthopIs || write.kind == Write::newNexthopIs ) {
      family->nh_family = static_cast<uint8_t>( write.vtep.family() );
      putAddress( message, NHA_GATEWAY, write.vtep );
   } else {
      std::vector<nexthop_grp> members( write.members.size() );
      for( size_t i = 0; i < members.size(); ++i )
         members[ i ].id = write.members[ i ];
      mnl_attr_put( message, NHA_GROUP, members.size() * sizeof( nexthop_grp ), members.data() );
   }
}

void encodeNexthopDel( RequestBatch& batch, const Write& write ) {
   nlmsghdr* const message = batch.start( RTM_DELNEXTHOP, 0, sizeof( nhmsg ) );
   mnl_attr_put_u32( message, NHA_ID, write.id );
}

struct EntryForm {
   uint16_t type;
   uint16_t messageFlags;
   uint16_t state;
   uint8_t flags;
};

EntryForm formOf( Write::Kind kind ) {
   constexpr uint16_t replace = NLM_F_CREATE | NLM_F_REPLACE;
   constexpr uint16_t append = NLM_F_CREATE | NLM_F_APPEND;
   switch( kind ) {
   case Write::remoteIs: // permanent: it stays when the device goes down
      return { RTM_NEWNEIGH, replace, NUD_PERMANENT, NTF_SELF | NTF_EXT_LEARNED };
   case Write::floodIs:
      return { RTM_NEWNEIGH, append, NUD_PERMANENT, NTF_SELF | NTF_EXT_LEARNED };
   case Write::remoteDel:
   case Write::floodDel:
      return { RTM_DELNEIGH, 0, 0, NTF_SELF };
   case Write::externalIs:
      return { RTM_NEWNEIGH, replace, NUD_REACHABLE, NTF_MASTER | NTF_EXT_LEARNED };
   case Write::fixedIs:
      return { RTM_NEWNEIGH, replace, NUD_NOARP, NTF_MASTER | NTF_STICKY };
   case Write::dynamicIs:
      return { RTM_NEWNEIGH, replace, NUD_REACHABLE, NTF_MASTER };
   default:
      return { RTM_DELNEIGH, 0, 0, NTF_MASTER };
   }
}

void encodeEntry( RequestBatch& batch, const Write& write ) {
   const EntryForm form = formOf( write.kind );
   nlmsghdr* const message = batch.start( form.type, form.messageFlags, sizeof( ndmsg ) );
   auto* const family = static_cast<ndmsg*>( mnl_nlmsg_get_payload( message ) );
   family->ndm_family = AF_BRIDGE;
   family->ndm_ifindex = static_cast<int>( write.device );
   family->ndm_state = form.state;
   family->ndm_flags = form.flags;
   mnl_attr_put( message, NDA_LLADDR, 6, write.mac.bytes().data() );
   if( write.id != 0 )
      mnl_attr_put_u32( message, NDA_NH_ID, write.id );
   if( write.vtep != IpGenAddr() )
      putAddress( message, NDA_DST, write.vtep );
   if( write.vni != 0 )
      mnl_attr_put_u32( message, NDA_VNI, write.vni );
   if( write.kind == Write::fixedIs ) {
      // The mark by which it is known again: the kernel reports whether the host is active.
      nlattr* const nest = mnl_attr_nest_start( message, NDA_FDB_EXT_ATTRS );
      mnl_attr_put_u8( message, NFEA_ACTIVITY_NOTIFY, FDB_NOTIFY_BIT );
      mnl_attr_nest_end( message, nest );
   }
}

} // namespace

NetlinkKernel::NetlinkKernel() {
   for( const unsigned group : { RTNLGRP_LINK, RTNLGRP_NEIGH, RTNLGRP_NEXTHOP } )
      notifications_.join( group );
}

std::vector<Outcome> NetlinkKernel::apply( const std::vector<Write>& writes ) {
   writes_ += writes.size();
   RequestBatch batch;
   for( const Write& write : writes ) {
      if( write.kind < Write::nexthopDel )
         encodeNexthop( batch, write );
      else if( write.kind == Write::nexthopDel )
         encodeNexthopDel( batch, write );
      else
         encodeEntry( batch, write );
      batch.finish();
   }
   const Quiet quiet( notifications_, writes.size() > mostHeard );
   return requests_.exchange( batch, []( const nlmsghdr* ) {} );
}

void NetlinkKernel::dumpLinks( KernelListener& listener ) {
   RequestBatch batch;
   batch.start( RTM_GETLINK, 0, sizeof( ifinfomsg ) );
   batch.finish();
   requests_.dump( batch, [ & ]( const nlmsghdr* message ) { tell( message, listener ); } );
}

void NetlinkKernel::dumpNexthops( KernelListener& listener ) {
   RequestBatch batch;
   batch.start( RTM_GETNEXTHOP, 0, sizeof( nhmsg ) );
   batch.finish();
   requests_.dump( batch, [ & ]( const nlmsghdr* message ) { tell( message, listener ); } );
}

void NetlinkKernel::startEntryDump( uint32_t bridge ) {
   RequestBatch batch;
   nlmsghdr* const message = batch.start( RTM_GETNEIGH, 0, sizeof( ndmsg ) );
   static_cast<ndmsg*>( mnl_nlmsg_get_payload( message ) )->ndm_family = AF_BRIDGE;
   mnl_attr_put_u32( message, NDA_MASTER, bridge );
   batch.finish();
   entries_.startDump( batch );
}

bool NetlinkKernel::goOnWithEntryDump( KernelListener& listener ) {
   return entries_.goOnDumping( [ & ]( const nlmsghdr* found ) { tell( found, listener ); } );
}

void NetlinkKernel::lookUp( uint32_t bridge, uint32_t vxlan, const std::vector<EthAddr>& macs,
                            const Found& found ) {
   RequestBatch batch;
   const auto ask = [ & ]( uint8_t flags, uint32_t device, uint32_t master, EthAddr mac ) {
      nlmsghdr* const message = batch.start( RTM_GETNEIGH, 0, sizeof( ndmsg ) );
      auto* const family = static_cast<ndmsg*>( mnl_nlmsg_get_payload( message ) );
      family->ndm_family = AF_BRIDGE;
      family->ndm_ifindex = static_cast<int>( device );
      family->ndm_flags = flags;
      mnl_attr_put( message, NDA_LLADDR, 6, mac.bytes().data() );
      if( master != 0 )
         mnl_attr_put_u32( message, NDA_MASTER, master );
      batch.finish();
   };
   for( const EthAddr mac : macs ) {
      ask( NTF_MASTER, 0, bridge, mac );
      if( vxlan != 0 )
         ask( NTF_SELF, vxlan, 0, mac );
   }
   // That there is no such entry comes as a refusal, and needs no telling.
   requests_.exchange( batch, [ & ]( const nlmsghdr* message ) {
      if( const auto entry = entryOf( message ) )
         found( *entry );
   } );
}

NetlinkSocket::Drained NetlinkKernel::drain( KernelListener& listener ) {
   return notifications_.drain( [ & ]( const nlmsghdr* message ) { tell( message, listener ); } );
}

} // namespace Bridge
