#include "client/Validation.h"

namespace L2Rib::Client {

namespace {

constexpr uint32_t lastVlan = 4094;
constexpr uint32_t lastVni = 0xffffff;

Rejection checkedVlan( Bridging::VlanId vlan ) {
   if( vlan.value() < 1 || vlan.value() > lastVlan )
      return "VLAN " + vlan.str() + " is not in 1 to 4094";
   return {};
}

Rejection checkedAddress( const char* what, const Vexil::IpGenAddr& address ) {
   if( address.family() != Vexil::IpGenAddr::familyIpv4 &&
       address.family() != Vexil::IpGenAddr::familyIpv6 )
      return std::string( what ) + " " + address.str() + " is neither an IPv4 nor an IPv6 address";
   return {};
}

Rejection checkedLabel( Vexil::MplsLabel label ) {
   if( !label.valid() )
      return "label " + std::to_string( label.value() ) + " is past 20 bits (1048575)";
   return {};
}

Rejection checkedNext( const ObjTuple& next ) {
   if( next.tableType() == tableTypeInvalid_ || next.tableType() > tableTypeDest_ )
      return "a next of no known type: it is an lb, a label or a dest";
   return checkedId( next.tableType(), next.objId().value() );
}

Rejection checkedInline( const CiDest& ciDest ) {
   if( ciDest.destType() == destTypeDefault_ )
      return {};
   if( ciDest.destType() != destTypeVxlan_ )
      return "an inline destination of no known type: it is a value or a list of VTEPs";
   if( ciDest.vtepCount() > CiVtepIndex::max + 1 )
      return std::to_string( ciDest.vtepCount() ) + " VTEPs, 2 are the most";
   const auto vteps = ciDest.vteps();
   for( size_t i = 0; i < vteps.size(); ++i ) {
      if( const Rejection bad = checkedAddress( "VTEP", vteps[ i ] ) )
         return bad;
      if( i > 0 && !( vteps[ i - 1 ] < vteps[ i ] ) )
         return "VTEPs not in strictly ascending order: " + vteps[ i ].str() + " stands after " +
                vteps[ i - 1 ].str();
   }
   return {};
}

Rejection checkedPayload( const Dest& dest ) {
   switch( dest.destType() ) {
   case objDestTypeIntf_:
      return {};
   case objDestTypeVxlan_:
      if( dest.vxlan().vni > lastVni )
         return "vni " + std::to_string( dest.vxlan().vni ) + " is past 24 bits (16777215)";
      return checkedAddress( "VTEP", dest.vxlan().vtep );
   case objDestTypeTunnel_: {
      const DestDataTunnel tunnel = dest.tunnel();
      if( tunnel.tos > 255 || tunnel.ttl > 255 )
         return "tos and ttl are 0 to 255";
      const Rejection bad = checkedAddress( "tunnel source", tunnel.source );
      return bad ? bad : checkedAddress( "tunnel destination", tunnel.destination );
   }
   case objDestTypeMpls_: {
      const DestDataMpls mpls = dest.mpls();
      if( mpls.labelCount > mpls.labels.size() )
         return std::to_string( mpls.labelCount ) + " labels, 8 are the most";
      for( const Vexil::MplsLabel label : mpls.used() )
         if( const Rejection bad = checkedLabel( label ) )
            return bad;
      return {};
   }
   default:
      return "a dest of no known type: it is a vxlan, an intf, an mpls or a tunnel";
   }
}

} // namespace

Rejection checkedId( TableType kind, uint64_t id ) {
   if( id == 0 || id == UINT64_MAX )
      return tableTypeStr( kind ) + " id " + std::to_string( id ) +
             " is reserved: ids are 1 to 18446744073709551614";
   return {};
}

Rejection checked( const Bridging::MacVlanPair& key ) {
   if( key.mac() == Vexil::EthAddr() )
      return "MAC 00:00:00:00:00:00 is no host's";
   return checkedVlan( key.vlan() );
}

Rejection checked( const Host& host ) {
   if( const Rejection bad = checked( host.key() ) )
      return bad;
   if( host.next() == Util::objTupleInvalid() )
      return checkedInline( host.ciDest() );
   if( host.ciDest() != CiDest() )
      return "a host with both a next and an inline destination; it has one of the two";
   return checkedNext( host.next() );
}

Rejection checked( const Dest& dest ) {
   const Rejection bad = checkedId( tableTypeDest_, dest.key().value() );
   return bad ? bad : checkedPayload( dest );
}

Rejection checked( const LoadBalance& lb ) {
   if( const Rejection bad = checkedId( tableTypeLoadBalance_, lb.key().value() ) )
      return bad;
   if( lb.nexts() == 0 || lb.nexts() > EcmpIndex::max + 1 )
      return "a group with " + std::to_string( lb.nexts() ) + " nexts; it has 1 to 16";
   for( const ObjTuple& next : lb.used() )
      if( const Rejection bad = checkedNext( next ) )
         return bad;
   return {};
}

Rejection checked( const Label& label ) {
   if( const Rejection bad = checkedId( tableTypeLabel_, label.key().value() ) )
      return bad;
   if( const Rejection bad = checkedLabel( label.label() ) )
      return bad;
   return checkedNext( label.next() );
}

Rejection checked( const FloodMember& member ) {
   const FloodSetTriple& triple = member.triple;
   if( const Rejection bad = checkedVlan( triple.vlan() ) )
      return bad;
   if( triple.mac() == Vexil::EthAddr() )
      return "MAC 00:00:00:00:00:00 is no flood address";
   if( member.floodSetType < floodSetTypeVxlan_ || member.floodSetType > floodSetTypeAny_ )
      return "a flood set of no known type: it is vxlan, intf or any";
   if( triple.dest().key() != Util::destIdNotInTarn() )
      return "a flood destination with an id of its own; it has none";
   return checkedPayload( triple.dest() );
}

} // namespace L2Rib::Client
