#include "L2Rib/Fault.h"

#include "L2Rib/ConfigRecords.h"
#include "L2Rib/FloodRecords.h"
#include "L2Rib/SourceDir.h"
#include "L2Rib/Status.h"

#include <algorithm>

namespace L2Rib {

namespace {

using Vexil::Fault;

constexpr uint32_t lastVlan = 4094;    // IEEE 802.1Q, table 9-2: 0 and 4095 are reserved
constexpr uint32_t lastVni = 0xffffff; // RFC 7348, section 5

Fault broken( const char* field, std::string text ) {
   return { Fault::format, field, std::move( text ) };
}
Fault invalid( const char* field, std::string text ) {
   return { Fault::invalid, field, std::move( text ) };
}

// The first of some rules that finds fault; the others are not asked.
template<class... Rules>
MaybeFault firstOf( const Rules&... rules ) {
   MaybeFault fault;
   (void)( ( ( fault = rules() ).has_value() ) || ... );
   return fault;
}

// --- parts of records

// What a host, group or label may have in a slot for an object: an object's name, or nothing.
MaybeFault nextFormat( const ObjTuple& next ) {
   if( isSound( next ) )
      return {};
   if( next.tableType() == tableTypeInvalid_ || next.tableType() > tableTypeDest_ )
      return broken( "next", "a next of no known type: it is an lb, a label or a dest" );
   return broken( "next",
                  tableTypeStr( next.tableType() ) + " id 0 is reserved: ids are 1 or more" );
}

MaybeFault sourceFormat( Source source ) {
   if( isSingleBit( source ) )
      return {};
   return broken( "source", "source " + sourceStr( source ) + " is no single bit" );
}

MaybeFault vlanFault( Bridging::VlanId vlan ) {
   if( vlan.value() >= 1 && vlan.value() <= lastVlan )
      return {};
   return invalid( "vlan", "VLAN " + vlan.str() + " does not exist; expected 1 to 4094" );
}

MaybeFault addressFault( const char* what, const Vexil::IpGenAddr& address ) {
   if( address.family() == Vexil::IpGenAddr::familyIpv4 ||
       address.family() == Vexil::IpGenAddr::familyIpv6 )
      return {};
   return invalid( what, std::string( what ) + " " + address.str() +
                            " is neither an IPv4 nor an IPv6 address" );
}

MaybeFault labelFault( Vexil::MplsLabel label ) {
   if( label.valid() )
      return {};
   return invalid( "label", "label " + std::to_string( label.value() ) +
                               " is past 20 bits; expected 0 to 1048575" );
}

MaybeFault inlineFormat( const CiDest& ciDest ) {
   if( isSound( ciDest ) )
      return {};
   if( ciDest.destType() != destTypeDefault_ && ciDest.destType() != destTypeVxlan_ )
      return broken( "inline",
                     "an inline destination of no known type: it is a value or a list of VTEPs" );
   return broken( "vteps", std::to_string( ciDest.vtepCount() ) + " VTEPs, 2 are the most" );
}

MaybeFault inlineFault( const CiDest& ciDest ) {
   if( ciDest.destType() == destTypeDefault_ )
      return {};
   const auto vteps = ciDest.vteps();
   for( size_t i = 0; i < vteps.size(); ++i ) {
      if( const MaybeFault fault = addressFault( "VTEP", vteps[ i ] ) )
         return fault;
      if( i > 0 && !( vteps[ i - 1 ] < vteps[ i ] ) )
         return invalid( "vteps", "VTEPs not in strictly ascending order: " + vteps[ i ].str() +
                                     " stands after " + vteps[ i - 1 ].str() );
   }
   return {};
}

MaybeFault tunnelFault( const DestDataTunnel& tunnel ) {
   if( const MaybeFault fault = addressFault( "source", tunnel.source ) )
      return fault;
   if( const MaybeFault fault = addressFault( "destination", tunnel.destination ) )
      return fault;
   for( const auto& [ field, value ] : { std::pair( "tos", tunnel.tos ), { "ttl", tunnel.ttl } } )
      if( value > 255 )
         return invalid( field, std::string( field ) + " " + std::to_string( value ) +
                                   "; expected 0 to 255" );
   return {};
}

MaybeFault mplsFault( const DestDataMpls& mpls ) {
   if( mpls.labelCount > mpls.labels.size() )
      return invalid( "labels", std::to_string( mpls.labelCount ) + " labels, 8 are the most" );
   for( const Vexil::MplsLabel label : mpls.used() )
      if( const MaybeFault fault = labelFault( label ) )
         return fault;
   return {};
}

MaybeFault payloadFault( const Dest& dest ) {
   switch( dest.destType() ) {
   case objDestTypeIntf_:
      return {};
   case objDestTypeVxlan_:
      if( dest.vxlan().vni > lastVni )
         return invalid( "vni", "vni " + std::to_string( dest.vxlan().vni ) +
                                   " is past 24 bits (16777215)" );
      return addressFault( "VTEP", dest.vxlan().vtep );
   case objDestTypeTunnel_:
      return tunnelFault( dest.tunnel() );
   case objDestTypeMpls_:
      return mplsFault( dest.mpls() );
   default:
      return invalid( "type",
                      "a dest of no known type: it is a vxlan, an intf, an mpls or a tunnel" );
   }
}

// An object's row in the output, whatever the object is.
template<class Row>
MaybeFault copyFormat( const ObjTuple& object, const Row& row ) {
   if( object.objId() == Constants::objIdInvalid() ||
       object.objId() > Constants::highestOutputId() )
      return broken( "id", "id " + object.objId().str() + " is never given" );
   const ObjTupleAndSource& input = row.sourceOtas();
   if( input.tableType() != object.tableType() || input.objId() == Constants::objIdInvalid() ||
       !isSingleBit( input.source() ) )
      return broken( "input", "the copy of something else: " + input.str() );
   return {};
}

} // namespace

// --- hosts

MaybeFault faultIn( const Bridging::MacVlanPair& key ) { return vlanFault( key.vlan() ); }

MaybeFault formatFaultIn( const Host& host ) {
   if( MaybeFault fault = nextFormat( host.next() ) )
      return fault;
   return inlineFormat( host.ciDest() );
}

MaybeFault faultIn( const Host& host ) {
   return firstOf( [ & ] { return formatFaultIn( host ); }, [ & ] { return faultIn( host.key() ); },
                   [ & ]() -> MaybeFault {
                      if( host.next() == Util::objTupleInvalid() )
                         return inlineFault( host.ciDest() );
                      if( host.ciDest() != CiDest() )
                         return invalid(
                            "inline", "a host with both a next and an inline destination; it has "
                                      "one of the two" );
                      return faultIn( host.next() );
                   } );
}

MaybeFault formatFaultIn( const HostAndSource& row ) {
   if( row.host().key() != row.key() )
      return broken( "key", "it holds the host " + row.host().key().str() );
   if( MaybeFault fault = sourceFormat( row.source() ) )
      return fault;
   return formatFaultIn( row.host() );
}

MaybeFault faultIn( const HostAndSource& row ) {
   return firstOf( [ & ] { return formatFaultIn( row ); },
                   [ & ] { return faultIn( row.host() ); } );
}

// --- objects

MaybeFault faultIn( const ObjTuple& ot ) {
   if( const MaybeFault fault = nextFormat( ot ) )
      return fault;
   const bool isDest = ot.tableType() == tableTypeDest_;
   if( ot == Util::objTupleInvalid() )
      return invalid( "next", "no object: it is an lb, a label or a dest" );
   if( isDest && ot.destId() == Util::destIdNotInTarn() )
      return invalid( "id", "dest id " + ot.objId().str() +
                               " is reserved: ids are 1 to 18446744073709551614" );
   return {};
}

MaybeFault formatFaultIn( const Dest& ) { return {}; }

MaybeFault faultIn( const Dest& dest ) {
   return firstOf( [ & ] { return faultIn( ObjTuple( dest.key() ) ); },
                   [ & ] { return payloadFault( dest ); } );
}

MaybeFault formatFaultIn( const LoadBalance& lb ) {
   if( lb.nexts() > EcmpIndex::max + 1 )
      return broken( "nexts",
                     "a group with " + std::to_string( lb.nexts() ) + " nexts; it has 1 to 16" );
   for( const ObjTuple& next : lb.used() )
      if( MaybeFault fault = nextFormat( next ) )
         return fault;
   return {};
}

MaybeFault faultIn( const LoadBalance& lb ) {
   if( const MaybeFault fault = formatFaultIn( lb ) )
      return fault;
   if( const MaybeFault fault = faultIn( ObjTuple( lb.key() ) ) )
      return fault;
   if( lb.nexts() == 0 )
      return invalid( "nexts", "a group with 0 nexts; it has 1 to 16" );
   for( const ObjTuple& next : lb.used() )
      if( MaybeFault fault = faultIn( next ) )
         return fault;
   return {};
}

MaybeFault formatFaultIn( const Label& label ) { return nextFormat( label.next() ); }

MaybeFault faultIn( const Label& label ) {
   return firstOf( [ & ] { return formatFaultIn( label ); },
                   [ & ] { return faultIn( ObjTuple( label.key() ) ); },
                   [ & ] { return labelFault( label.label() ); },
                   [ & ] { return faultIn( label.next() ); } );
}

MaybeFault formatFaultIn( const DestAndSource& row ) {
   return copyFormat( ObjTuple( row.key() ), row );
}

MaybeFault formatFaultIn( const LoadBalanceAndSource& row ) {
   return firstOf( [ & ] { return copyFormat( ObjTuple( row.key() ), row ); },
                   [ & ] { return formatFaultIn( row.lb() ); } );
}

MaybeFault formatFaultIn( const LabelAndSource& row ) {
   return firstOf( [ & ] { return copyFormat( ObjTuple( row.key() ), row ); },
                   [ & ] { return formatFaultIn( row.label() ); } );
}

MaybeFault faultIn( const DestAndSource& row ) {
   return firstOf( [ & ] { return formatFaultIn( row ); },
                   [ & ] { return faultIn( row.dest() ); } );
}

MaybeFault faultIn( const LoadBalanceAndSource& row ) {
   return firstOf( [ & ] { return formatFaultIn( row ); }, [ & ] { return faultIn( row.lb() ); } );
}

MaybeFault faultIn( const LabelAndSource& row ) {
   return firstOf( [ & ] { return formatFaultIn( row ); },
                   [ & ] { return faultIn( row.label() ); } );
}

// --- flood sets

MaybeFault formatFaultIn( const FloodMember& member ) {
   if( member.floodSetType < floodSetTypeVxlan_ || member.floodSetType > floodSetTypeAny_ )
      return broken( "type", "a flood set of no known type: it is vxlan, intf or any" );
   if( member.triple.dest().key() != Util::destIdNotInTarn() )
      return broken( "dest", "a flood destination with an id of its own; it has none" );
   if( MaybeFault fault = vlanFault( member.triple.vlan() ) ) // a set of no VLAN floods nothing
      return broken( fault->field, fault->text );
   return {};
}

MaybeFault faultIn( const FloodMember& member ) {
   return firstOf( [ & ] { return formatFaultIn( member ); },
                   [ & ] { return payloadFault( member.triple.dest() ); } );
}

// --- directory entries and status

namespace {

template<size_t Size>
MaybeFault textFormat( const char* field, const FixedText<Size>& text ) {
   if( text.view().size() < Size )
      return {};
   return broken( field, std::string( field ) + " without an end" );
}

// Of a table that has room for one record: one under another key would keep that out.
MaybeFault singleFormat( bool hasTheKey ) {
   if( hasTheKey )
      return {};
   return broken( "key", "a record beside the only one" );
}

} // namespace

MaybeFault formatFaultIn( const SourceEntryRecord& entry ) {
   const std::pair<const char*, const TablePath&> paths[] = { { "host path", entry.hostPath },
                                                              { "lb path", entry.lbPath },
                                                              { "label path", entry.labelPath },
                                                              { "dest path", entry.destPath },
                                                              { "flood path", entry.floodPath } };
   for( const auto& [ field, path ] : paths )
      if( MaybeFault fault = textFormat( field, path ) )
         return fault;
   for( const uint32_t length : { entry.hostLen, entry.lbLen, entry.labelLen, entry.destLen } )
      if( length > Vexil::maxCapacity )
         return broken( "capacity", "a capacity of " + std::to_string( length ) + " records; " +
                                       std::to_string( Vexil::maxCapacity ) + " are the most" );
   if( entry.source != sourceNone_ )
      if( MaybeFault fault = sourceFormat( entry.source ) )
         return fault;
   return textFormat( "name", entry.name );
}

MaybeFault formatFaultIn( const AgentStatusRecord& status ) {
   return singleFormat( status.key == SingleKey() );
}

MaybeFault formatFaultIn( const FloodSourceRecord& record ) {
   return singleFormat( record.key == FloodSourceRecord().key );
}

MaybeFault formatFaultIn( const PolicySmStatusRecord& status ) {
   if( MaybeFault fault = singleFormat( status.key == SingleKey() ) )
      return fault;
   for( const uint64_t id :
        { status.maxDestId.value(), status.maxLbId.value(), status.maxLabelId.value() } )
      if( id > Constants::highestOutputId().value() )
         return broken( "id", "id " + std::to_string( id ) + " is never given" );
   return {};
}

} // namespace L2Rib

// --- configuration

namespace Bridging {

using L2Rib::broken;
using L2Rib::invalid;
using L2Rib::MaybeFault;

MaybeFault formatFaultIn( const ConfiguredHostRecord& record ) {
   if( record.onTunnel > 1 )
      return broken( "interface", "interface of kind " + std::to_string( record.onTunnel ) );
   return {};
}

MaybeFault faultIn( const ConfiguredHostRecord& record ) {
   const Vexil::EthAddr mac = record.key.mac();
   if( const MaybeFault fault = formatFaultIn( record ) )
      return fault;
   if( const MaybeFault fault = L2Rib::vlanFault( record.key.vlan() ) )
      return fault;
   if( mac == Vexil::EthAddr() || ( mac.bytes()[ 0 ] & 1 ) != 0 )
      return invalid( "mac", "MAC address " + mac.str() + " is " +
                                ( mac == Vexil::EthAddr() ? "zero" : "a multicast address" ) +
                                "; expected a unicast address" );
   if( record.intf.value() == 0 )
      return invalid( record.onTunnel ? "tunnel" : "interface",
                      std::string( record.onTunnel ? "tunnel" : "interface" ) +
                         " 0 does not exist; expected 1 or more" );
   if( record.onTunnel )
      return L2Rib::labelFault( record.label );
   if( record.label != Vexil::MplsLabel::none )
      return invalid( "label", "label " + std::to_string( record.label.value() ) +
                                  " on a plain interface; expected a tunnel" );
   return {};
}

MaybeFault faultIn( const TunnelRecord& record ) {
   const L2Rib::DestDataTunnel& data = record.data;
   if( record.key == TunnelId() )
      return invalid( "id", "tunnel 0 does not exist; expected 1 or more" );
   if( const MaybeFault fault = L2Rib::tunnelFault( data ) )
      return fault;
   if( data.destination.family() != data.source.family() )
      return invalid( "destination", "destination " + data.destination.str() + " and source " +
                                        data.source.str() +
                                        "; expected two addresses of one family" );
   return {};
}

} // namespace Bridging
