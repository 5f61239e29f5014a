#include "L2Rib/L2Rib.h"

#include <charconv>

namespace L2Rib {

namespace {

// The shortest text that reads back as the same number; 0 is "0".
std::string doubleStr( double value ) {
   char text[ 32 ];
   return std::string( text, std::to_chars( text, text + sizeof text, value ).ptr );
}

// " a b c"
template<class Items>
std::string listStr( const Items& items ) {
   std::string text;
   for( const auto& item : items )
      text += " " + item.str();
   return text;
}

template<class Value>
int compare( const Value& a, const Value& b ) {
   return a < b ? -1 : b < a ? 1 : 0;
}

} // namespace

// --- Identifiers

std::string tableTypeStr( TableType tableType ) {
   switch( tableType ) {
   case tableTypeInvalid_:
      return "invalid";
   case tableTypeLoadBalance_:
      return "lb";
   case tableTypeLabel_:
      return "label";
   case tableTypeDest_:
      return "dest";
   }
   return std::to_string( static_cast<uint32_t>( tableType ) );
}

std::optional<TableType> tableTypeParse( std::string_view text ) {
   for( const TableType type :
        { tableTypeInvalid_, tableTypeLoadBalance_, tableTypeLabel_, tableTypeDest_ } )
      if( text == tableTypeStr( type ) )
         return type;
   return std::nullopt;
}

std::string sourceStr( Source source ) {
   char digits[ 8 ];
   const auto value = static_cast<uint32_t>( source );
   return "0x" +
          std::string( digits, std::to_chars( digits, digits + sizeof digits, value, 16 ).ptr );
}

std::optional<Source> sourceParse( std::string_view text ) {
   uint32_t value = 0;
   if( !text.starts_with( "0x" ) )
      return std::nullopt;
   const auto [ end, error ] =
      std::from_chars( text.data() + 2, text.data() + text.size(), value, 16 );
   if( error != std::errc() || end != text.data() + text.size() )
      return std::nullopt;
   return Source( value );
}

std::string ObjTuple::str() const {
   if( *this == Util::objTupleInvalid() )
      return "(invalid)";
   return tableTypeStr( tableType_ ) + "/" + objId_.str();
}

std::string ObjTupleAndSource::str() const {
   if( *this == Util::otasInvalid() )
      return "(invalid)";
   return ot_.str() + " from " + sourceStr( source_ );
}

// --- Hosts

int CiDest::cmp( const CiDest& other ) const {
   if( destType() != other.destType() )
      return compare( destType(), other.destType() );
   if( destType() == destTypeDefault_ )
      return compare( payload(), other.payload() );

   VEXIL_ASSERT( destType() == destTypeVxlan_ );
   int order = compare( vtepCount(), other.vtepCount() );
   for( uint32_t i = 0; order == 0 && i < vtepCount(); ++i )
      order = compare( vtep( CiVtepIndex( i ) ), other.vtep( CiVtepIndex( i ) ) );
   return order;
}

std::string CiDest::str() const {
   switch( destType_ ) {
   case destTypeDefault_:
      return "value " + std::to_string( payload() );
   case destTypeVxlan_:
      return "vteps [" + listStr( vteps() ) + " ]";
   }
   return "(destType " + std::to_string( static_cast<int32_t>( destType_ ) ) + ")";
}

std::string Host::str() const {
   return "{ " + key_.str() + " seqNo " + seqNo_.str() + " pref " + std::to_string( pref_ ) +
          " entryType " + std::to_string( static_cast<uint32_t>( entryType_ ) ) + " updateTime " +
          doubleStr( updateTime() ) +
          ( next_ != Util::objTupleInvalid() ? " next " + next_.str()
                                             : " inline " + ciDest_.str() ) +
          " }";
}

std::string HostAndSource::str() const { return host_.str() + " from " + sourceStr( source_ ); }

// --- Objects

std::string DestDataIntf::str() const { return "intf " + std::to_string( intf.value() ); }

std::string DestDataMpls::str() const {
   return "mpls intf " + std::to_string( intf.value() ) + " labels [" + listStr( used() ) + " ]";
}

std::string DestDataTunnel::str() const {
   return "tunnel " + source.str() + " to " + destination.str() + " tos " + std::to_string( tos ) +
          " ttl " + std::to_string( ttl );
}

std::string DestDataVxlan::str() const {
   return "vxlan " + vtep.str() + " vni " + std::to_string( vni );
}

std::string Dest::str() const {
   const std::string head =
      key_ == Util::destIdNotInTarn() ? "{ flood dest " : "{ dest/" + key_.str() + " ";
   switch( destType_ ) {
   case objDestTypeNone_:
      return head + "none }";
   case objDestTypeIntf_:
      return head + intf().str() + " }";
   case objDestTypeMpls_:
      return head + mpls().str() + " }";
   case objDestTypeTunnel_:
      return head + tunnel().str() + " }";
   case objDestTypeVxlan_:
      return head + vxlan().str() + " }";
   }
   return head + "(destType " + std::to_string( static_cast<uint32_t>( destType_ ) ) + ") }";
}

void LoadBalance::nextIs( EcmpIndex at, const ObjTuple& next ) {
   if( next != Util::objTupleInvalid() && nexts_ <= at.value() )
      nextsIs( at.value() + 1 );
   next_[ at.value() ] = next;
   if( nexts_ == at.value() + 1 ) // the highest one may be gone: down to one that is filled
      while( nexts_ > 0 && next_[ nexts_ - 1 ] == Util::objTupleInvalid() )
         --nexts_;
}

void LoadBalance::nextsIs( uint32_t nexts ) {
   for( size_t i = std::min( nexts, nexts_ ); i < next_.size(); ++i )
      next_[ i ] = Util::objTupleInvalid();
   nexts_ = nexts;
}

std::string LoadBalance::str() const {
   return "{ lb/" + key_.str() + " nexts " + std::to_string( nexts_ ) + ":" + listStr( used() ) +
          " }";
}

std::string Label::str() const {
   return "{ label/" + key_.str() + " push " + label_.str() + " next " + next_.str() + " }";
}

std::string DestAndSource::str() const { return dest_.str() + " copy of " + sourceOtas_.str(); }

std::string LoadBalanceAndSource::str() const {
   return lb_.str() + " copy of " + sourceOtas_.str();
}

std::string LabelAndSource::str() const { return label_.str() + " copy of " + sourceOtas_.str(); }

// --- Flood sets

std::string floodSetTypeStr( FloodSetType floodSetType ) {
   switch( floodSetType ) {
   case floodSetTypeInvalid_:
      return "invalid";
   case floodSetTypeVxlan_:
      return "vxlan";
   case floodSetTypeIntf_:
      return "intf";
   case floodSetTypeAny_:
      return "any";
   }
   return std::to_string( static_cast<uint32_t>( floodSetType ) );
}

std::optional<FloodSetType> floodSetTypeParse( std::string_view text ) {
   for( const FloodSetType type : { floodSetTypeVxlan_, floodSetTypeIntf_, floodSetTypeAny_ } )
      if( text == floodSetTypeStr( type ) )
         return type;
   return std::nullopt;
}

std::string FloodSetTriple::str() const {
   return vlan_.str() + "/" + mac_.str() + " " + dest_.str();
}

} // namespace L2Rib
