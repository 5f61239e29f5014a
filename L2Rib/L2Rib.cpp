#include "L2Rib/L2Rib.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <compare>
#include <tuple>

namespace L2Rib {

namespace {

// The shortest text that reads back as the same number; 0 is "0". Of what is no number, the bits.
std::string doubleStr( double value ) {
   if( std::isnan( value ) )
      return "nan " + std::to_string( std::bit_cast<uint64_t>( value ) );
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

template<class Item>
std::strong_ordering listOrder( std::span<const Item> a, std::span<const Item> b ) {
   return std::lexicographical_compare_three_way( a.begin(), a.end(), b.begin(), b.end() );
}

template<class Item>
uint64_t listHash( std::span<const Item> items ) {
   uint64_t hash = items.size();
   for( const Item& item : items )
      hash = Vexil::hashCombine( hash, item.hash() );
   return hash;
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
   const std::string value = "value " + std::to_string( payload() );
   std::string list = "vteps [" + listStr( vteps() ) + " ]";
   if( vtepCount_ > vtep_.size() )
      list += " of " + std::to_string( vtepCount_ );
   if( destType_ == destTypeDefault_ )
      return value + ( vtepCount_ == 0 ? "" : " " + list );
   if( destType_ == destTypeVxlan_ )
      return list + ( payload() == 0 ? "" : " " + value );
   return "(destType " + std::to_string( static_cast<int32_t>( destType_ ) ) + " " + value + " " +
          list + ")";
}

std::strong_ordering operator<=>( const CiDest& a, const CiDest& b ) {
   const auto scalars = []( const CiDest& dest ) {
      return std::tuple( dest.destType_, dest.payload(), dest.vtepCount_ );
   };
   const std::strong_ordering order = scalars( a ) <=> scalars( b );
   return order != 0 ? order : listOrder( a.vteps(), b.vteps() );
}

uint64_t CiDest::hash() const {
   return Vexil::hashFields( destType_, payload_, vtepCount_, listHash( vteps() ) );
}

std::strong_ordering operator<=>( const Host& a, const Host& b ) {
   const auto fields = []( const Host& host ) {
      return std::tuple( host.key_, host.seqNo_.value(), host.pref_, host.updateTime_,
                         host.entryType_, host.next_ );
   };
   const std::strong_ordering order = fields( a ) <=> fields( b );
   return order != 0 ? order : a.ciDest_ <=> b.ciDest_;
}

uint64_t Host::hash() const {
   return Vexil::hashFields( key_, seqNo_.value(), pref_, updateTime_, entryType_, next_, ciDest_ );
}

std::string Host::str() const {
   return "{ " + key_.str() + " seqNo " + seqNo_.str() + " pref " + std::to_string( pref_ ) +
          " entryType " + std::to_string( static_cast<uint32_t>( entryType_ ) ) + " updateTime " +
          doubleStr( updateTime() ) +
          ( next_ != Util::objTupleInvalid() ? " next " + next_.str() : "" ) +
          ( next_ == Util::objTupleInvalid() || ciDest_ != CiDest() ? " inline " + ciDest_.str()
                                                                    : "" ) +
          " }";
}

std::string HostAndSource::str() const {
   return ( key_ == host_.key() ? "" : key_.str() + " " ) + host_.str() + " from " +
          sourceStr( source_ );
}

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

std::strong_ordering operator<=>( const LoadBalance& a, const LoadBalance& b ) {
   const std::strong_ordering order =
      std::tuple( a.key_, a.nexts_ ) <=> std::tuple( b.key_, b.nexts_ );
   return order != 0 ? order : listOrder( a.used(), b.used() );
}

uint64_t LoadBalance::hash() const { return Vexil::hashFields( key_, nexts_, listHash( used() ) ); }

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
   for( const FloodSetType type :
        { floodSetTypeInvalid_, floodSetTypeVxlan_, floodSetTypeIntf_, floodSetTypeAny_ } )
      if( text == floodSetTypeStr( type ) )
         return type;
   return std::nullopt;
}

std::string FloodSetTriple::str() const {
   return vlan_.str() + "/" + mac_.str() + " " + dest_.str();
}

} // namespace L2Rib
