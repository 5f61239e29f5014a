#include "tools/Json.h"

#include <charconv>

namespace Tools {

using namespace L2Rib;
using Bridging::MacVlanPair;
using Bridging::VlanId;

std::string text( const Json& json ) {
   return json.dump( -1, ' ', false, Json::error_handler_t::replace );
}

std::string excerpt( const Json& json ) { return text( json ).substr( 0, 40 ); }

// --- to JSON

namespace {

template<class Items>
Json textList( const Items& items ) {
   Json list = Json::array();
   for( const auto& item : items )
      list.push_back( item.str() );
   return list;
}

Json nextsJson( std::span<const ObjTuple> nexts ) {
   Json list = Json::array();
   for( const ObjTuple& next : nexts )
      list.push_back( toJson( next ) );
   return list;
}

} // namespace

Json toJson( const ObjTuple& next ) {
   if( next == Util::objTupleInvalid() )
      return nullptr;
   return { { "type", tableTypeStr( next.tableType() ) }, { "id", next.objId().value() } };
}

Json toJson( const ObjTupleAndSource& otas ) {
   return { { "type", tableTypeStr( otas.tableType() ) },
            { "id", otas.objId().value() },
            { "source", sourceStr( otas.source() ) } };
}

Json toJson( const MacVlanPair& key ) {
   return { { "mac", key.mac().str() }, { "vlan", key.vlan().value() } };
}

Json toJson( const CiDest& inlineDest ) {
   switch( inlineDest.destType() ) {
   case destTypeDefault_:
      return { { "value", inlineDest.payload() } };
   case destTypeVxlan_:
      return { { "vteps", textList( inlineDest.vteps() ) } };
   }
   return { { "destType", static_cast<int32_t>( inlineDest.destType() ) } }; // no one knows it
}

Json toJson( const Host& host ) {
   Json json = toJson( host.key() );
   json[ "pref" ] = host.pref();
   json[ "seqNo" ] = host.seqNo().value();
   json[ "updateTime" ] = host.updateTime();
   json[ "entryType" ] = static_cast<uint32_t>( host.entryType() );
   const bool isInline = host.next() == Util::objTupleInvalid();
   json[ "next" ] = toJson( host.next() );
   json[ "inline" ] = isInline ? toJson( host.ciDest() ) : Json();
   return json;
}

Json toJson( const Dest& dest ) {
   switch( dest.destType() ) {
   case objDestTypeNone_:
      break;
   case objDestTypeIntf_:
      return { { "intf", { { "id", dest.intf().intf.value() } } } };
   case objDestTypeVxlan_: {
      const DestDataVxlan vxlan = dest.vxlan();
      return { { "vxlan", { { "vtep", vxlan.vtep.str() }, { "vni", vxlan.vni } } } };
   }
   case objDestTypeMpls_: {
      const DestDataMpls mpls = dest.mpls();
      Json labels = Json::array();
      for( const Vexil::MplsLabel label : mpls.used() )
         labels.push_back( label.value() );
      return { { "mpls", { { "intf", mpls.intf.value() }, { "labels", labels } } } };
   }
   case objDestTypeTunnel_: {
      const DestDataTunnel tunnel = dest.tunnel();
      return { { "tunnel",
                 { { "source", tunnel.source.str() },
                   { "destination", tunnel.destination.str() },
                   { "tos", tunnel.tos },
                   { "ttl", tunnel.ttl } } } };
   }
   }
   return { { "destType", static_cast<uint32_t>( dest.destType() ) } }; // no one knows it
}

Json toJson( const DestAndSource& row ) {
   Json json = toJson( row.key() );
   json.update( toJson( row.dest() ) );
   json[ "input" ] = toJson( row.sourceOtas() );
   return json;
}

Json toJson( const LoadBalanceAndSource& row ) {
   Json json = toJson( row.key() );
   json[ "nexts" ] = nextsJson( row.lb().used() );
   json[ "input" ] = toJson( row.sourceOtas() );
   return json;
}

Json toJson( const LabelAndSource& row ) {
   Json json = toJson( row.key() );
   json[ "label" ] = row.label().label().value();
   json[ "next" ] = toJson( row.label().next() );
   json[ "input" ] = toJson( row.sourceOtas() );
   return json;
}

Json toJson( const FloodSetRow& set ) {
   Json dests = Json::array();
   for( const Dest& dest : set.dests )
      dests.push_back( toJson( dest ) );
   return { { "type", floodSetTypeStr( set.type ) }, { "dests", dests } };
}

// --- from JSON

namespace {

uint64_t wholeNumber( const Json& json, const std::string& what, uint64_t max ) {
   const bool whole =
      json.is_number_unsigned() || ( json.is_number_integer() && json.get<int64_t>() >= 0 );
   if( !whole || json.get<uint64_t>() > max )
      throw BadInput( what + " is " + excerpt( json ) + "; expected a whole number from 0 to " +
                      std::to_string( max ) );
   return json.get<uint64_t>();
}

Vexil::IpGenAddr addressOf( const Json& json, const std::string& what ) {
   if( json.is_string() )
      if( const auto address = Vexil::IpGenAddr::parse( json.get_ref<const std::string&>() ) )
         return *address;
   throw BadInput( what + " is " + excerpt( json ) +
                   "; expected an address such as \"10.0.0.1\" or \"2001:db8::1\"" );
}

ObjTuple nextOf( const Json& json, const std::string& what ) {
   Fields fields( json, what );
   const std::string type = fields.text( "type" );
   const ObjId id( fields.number( "id" ) );
   fields.close();
   for( const TableType known : { tableTypeLoadBalance_, tableTypeLabel_, tableTypeDest_ } )
      if( type == tableTypeStr( known ) )
         return ObjTuple( id, known );
   throw BadInput( what + ": \"type\" is " + excerpt( type ) +
                   "; expected \"lb\", \"label\" or \"dest\"" );
}

CiDest inlineFrom( const Json& json ) {
   Fields fields( json, "inline" );
   if( fields.has( "value" ) == fields.has( "vteps" ) )
      throw BadInput( "inline has one of \"value\" and \"vteps\"" );
   CiDest dest( fields.has( "value" ) ? destTypeDefault_ : destTypeVxlan_ );
   if( fields.has( "value" ) ) {
      dest.payloadIs( numberOf( fields.any( "value" ), "inline: \"value\"" ) );
   } else {
      uint32_t at = 0;
      for( const Json& vtep : fields.list( "vteps" ) ) {
         if( at > CiVtepIndex::max )
            throw BadInput( "inline: more than 2 VTEPs; expected 1 or 2" );
         dest.vtepIs( CiVtepIndex( at++ ), addressOf( vtep, "inline: a VTEP" ) );
      }
   }
   fields.close();
   return dest;
}

DestDataMpls mplsFrom( Fields& fields ) {
   DestDataMpls mpls;
   mpls.intf = fields.number( "intf" );
   for( const Json& label : fields.list( "labels" ) ) {
      if( mpls.labelCount == mpls.labels.size() )
         throw BadInput( "mpls: more than 8 labels; 8 are the most" );
      mpls.labels[ mpls.labelCount++ ] = Vexil::MplsLabel(
         static_cast<uint32_t>( wholeNumber( label, "mpls: a label", 0xfffff ) ) );
   }
   return mpls;
}

} // namespace

uint64_t numberOf( const Json& json, const std::string& what ) {
   if( !json.is_string() )
      return wholeNumber( json, what, UINT64_MAX );
   std::string_view digits = json.get_ref<const std::string&>();
   const bool hexadecimal = digits.starts_with( "0x" );
   digits.remove_prefix( hexadecimal ? 2 : 0 );
   uint64_t number = 0;
   const char* const end = digits.data() + digits.size();
   const auto read = std::from_chars( digits.data(), end, number, hexadecimal ? 16 : 10 );
   if( read.ec != std::errc() || read.ptr != end )
      throw BadInput( what + " is " + excerpt( json ) +
                      "; expected a whole number of 64 bits, such as 64 or \"0x40\"" );
   return number;
}

Fields::Fields( const Json& object, std::string what )
   : object_( object ), what_( std::move( what ) ) {
   if( !object.is_object() )
      throw BadInput( what_ + " is " + excerpt( object ) + "; expected an object, {...}" );
}

void Fields::wrong( const char* key, const std::string& expected ) const {
   throw BadInput( what_ + ": \"" + key + "\" is " + excerpt( object_.at( key ) ) + "; expected " +
                   expected );
}

const Json& Fields::any( const char* key ) {
   known_.insert( key );
   const auto found = object_.find( key );
   if( found == object_.end() )
      throw BadInput( what_ + ": \"" + key + "\" is missing" );
   return *found;
}

const Json& Fields::list( const char* key ) {
   const Json& value = any( key );
   if( !value.is_array() )
      wrong( key, "a list, [...]" );
   return value;
}

std::string Fields::text( const char* key ) {
   const Json& value = any( key );
   if( !value.is_string() )
      wrong( key, "text" );
   return value.get<std::string>();
}

bool Fields::boolean( const char* key ) {
   const Json& value = any( key );
   if( !value.is_boolean() )
      wrong( key, "true or false" );
   return value.get<bool>();
}

uint64_t Fields::number( const char* key, uint64_t max ) {
   return wholeNumber( any( key ), what_ + ": \"" + key + "\"", max );
}

Vexil::EthAddr Fields::mac( const char* key ) {
   const Json& value = any( key );
   if( value.is_string() )
      if( const auto mac = Vexil::EthAddr::parse( value.get_ref<const std::string&>() ) )
         return *mac;
   wrong( key, "a MAC address such as \"02:00:00:00:00:01\"" );
}

Vexil::IpGenAddr Fields::address( const char* key ) {
   return addressOf( any( key ), what_ + ": \"" + key + "\"" );
}

void Fields::close() const {
   for( const auto& [ key, value ] : object_.items() )
      if( !known_.contains( key ) ) {
         std::string takes;
         for( const std::string& name : known_ )
            takes += ( takes.empty() ? "" : ", " ) + name;
         throw BadInput( what_ + ": unknown key " + excerpt( key ) + "; here it takes " + takes );
      }
}

MacVlanPair keyFrom( Fields& fields ) {
   const Vexil::EthAddr mac = fields.mac( "mac" );
   return { mac, VlanId( fields.number32( "vlan" ) ) };
}

Host hostFrom( Fields& fields ) {
   Host host( keyFrom( fields ) );
   host.prefIs( fields.number32( "pref", 100 ) );
   host.seqNoIs( Vexil::Seqno32( fields.number32( "seqNo", 0 ) ) );
   host.entryTypeIs( static_cast<EntryType>( fields.number32( "entryType", 1 ) ) );
   if( fields.has( "next" ) == fields.has( "inline" ) )
      throw BadInput( fields.has( "next" )
                         ? "host: both \"next\" and \"inline\"; expected one of the two"
                         : "host: neither \"next\" nor \"inline\"; expected one of the two" );
   if( fields.has( "next" ) )
      host.nextIs( nextOf( fields.any( "next" ), "next" ) );
   else
      host.ciDestIs( inlineFrom( fields.any( "inline" ) ) );
   return host;
}

Dest destFrom( Fields& fields, DestId key ) {
   Dest dest( key );
   const auto payload = [ & ]( const char* kind, auto read ) {
      if( !fields.has( kind ) )
         return;
      if( dest.destType() != objDestTypeNone_ )
         throw BadInput( "dest: more than one of \"vxlan\", \"intf\", \"mpls\", \"tunnel\"" );
      Fields data( fields.any( kind ), kind );
      read( data );
      data.close();
   };
   payload( "vxlan", [ & ]( Fields& data ) {
      dest.vxlanIs( { data.address( "vtep" ), data.number32( "vni" ) } );
   } );
   payload( "intf", [ & ]( Fields& data ) { dest.intfIs( { data.number( "id" ) } ); } );
   payload( "mpls", [ & ]( Fields& data ) { dest.mplsIs( mplsFrom( data ) ); } );
   payload( "tunnel", [ & ]( Fields& data ) {
      dest.tunnelIs( { data.address( "source" ), data.address( "destination" ),
                       data.number32( "tos", 0 ), data.number32( "ttl", 64 ) } );
   } );
   if( dest.destType() == objDestTypeNone_ )
      throw BadInput( "dest: one of \"vxlan\", \"intf\", \"mpls\", \"tunnel\" is missing" );
   return dest;
}

LoadBalance lbFrom( Fields& fields ) {
   LoadBalance lb( LoadBalanceId( fields.number( "id" ) ) );
   uint32_t at = 0;
   for( const Json& next : fields.list( "nexts" ) ) {
      if( at > EcmpIndex::max )
         throw BadInput( "lb: more than 16 nexts; expected 1 to 16" );
      lb.nextIs( EcmpIndex( at++ ), nextOf( next, "nexts" ) );
   }
   return lb;
}

Label labelFrom( Fields& fields ) {
   const LabelId id( fields.number( "id" ) );
   const Vexil::MplsLabel label( fields.number32( "label" ) );
   return Label( id, nextOf( fields.any( "next" ), "next" ), label );
}

FloodSetTriple floodTripleFrom( Fields& fields ) {
   const MacVlanPair set = keyFrom( fields );
   Fields dest( fields.any( "dest" ), "dest" );
   const Dest member = destFrom( dest, Util::destIdNotInTarn() );
   dest.close();
   return { set.vlan(), set.mac(), member };
}

} // namespace Tools
