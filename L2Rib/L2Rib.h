// The value types of the layer-2 RIB, all of them: this header is the one to include.
//
//    NetTypes.h     addresses, VLANs, labels, sequence numbers, MacVlanPair
//    Identifiers.h  ids, sources, slot indices, ObjTuple, ObjTupleAndSource
//    Host.h         CiDest, Host, HostAndSource
//    Objects.h      Dest, LoadBalance, Label, and their forms with source
//    here           the values of flood sets, and the layout of every record, checked
//
// They are plain values: copied whole, owning nothing, pointing nowhere. A default-constructed one
// is all zero bytes, which is its invalid value; the sentinels have names in Util. Sources, agent
// and readers share the records byte for byte, so a change of a layout or of a hash is a new
// format.
#pragma once

#include "L2Rib/Host.h"
#include "L2Rib/Identifiers.h"
#include "L2Rib/NetTypes.h"
#include "L2Rib/Objects.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace L2Rib {

// What the members of a flood set are meant for; it is carried to the readers and decides nothing
// here. A flood set that has members is never of the invalid type.
enum FloodSetType : uint32_t {
   floodSetTypeInvalid_ = 0,
   floodSetTypeVxlan_ = 1, // VTEPs
   floodSetTypeIntf_ = 2,  // local interfaces
   floodSetTypeAny_ = 3,   // no restriction
};
inline constexpr Vexil::EnumName<FloodSetType> floodSetTypeNames[] = {
   { floodSetTypeInvalid_, "floodSetTypeInvalid" },
   { floodSetTypeVxlan_, "floodSetTypeVxlan" },
   { floodSetTypeIntf_, "floodSetTypeIntf" },
   { floodSetTypeAny_, "floodSetTypeAny" },
};
constexpr std::span<const Vexil::EnumName<FloodSetType>> enumNames( FloodSetType ) {
   return floodSetTypeNames;
}
// What people and JSON call it: "vxlan", "intf", "any", "invalid", or the number of a type that no
// one knows. And back: of the four names; nullopt for anything else.
std::string floodSetTypeStr( FloodSetType floodSetType );
std::optional<FloodSetType> floodSetTypeParse( std::string_view text );

// One member of one flood set: the destination, with the VLAN and the flood address whose set it is
// in. The destination's key is Util::destIdNotInTarn(), or the engine refuses it.
class FloodSetTriple {
 public:
   FloodSetTriple() = default;
   FloodSetTriple( Bridging::VlanId vlan, Vexil::EthAddr mac, const Dest& dest )
      : vlan_( vlan ), mac_( mac ), dest_( dest ) {}

   Bridging::VlanId vlan() const { return vlan_; }
   Vexil::EthAddr mac() const { return mac_; }
   const Dest& dest() const { return dest_; }

   uint64_t hash() const {
      return Vexil::hashCombine( Vexil::hashCombine( vlan_.hash(), mac_.hash() ), dest_.hash() );
   }
   // "10/ff:ff:ff:ff:ff:ff { flood dest vxlan 10.0.0.9 vni 10010 }".
   std::string str() const;
   friend bool operator==( const FloodSetTriple&, const FloodSetTriple& ) = default;
   friend auto operator<=>( const FloodSetTriple&, const FloodSetTriple& ) = default;

 private:
   friend RecordLayout;
   Bridging::VlanId vlan_;
   Vexil::EthAddr mac_;
   Dest dest_;
};

// The layout of the records: size, and where each field begins. The key is always the first field.
struct RecordLayout {
   using MacVlanPair = Bridging::MacVlanPair;
   static_assert( Vexil::WireRecord<MacVlanPair, 12> && Vexil::WireRecord<Vexil::EthAddr, 8> &&
                  Vexil::WireRecord<Vexil::IpGenAddr, 20> );
   static_assert( offsetof( MacVlanPair, mac_ ) == 0 && offsetof( MacVlanPair, vlan_ ) == 8 );

   static_assert( Vexil::WireRecord<ObjTuple, 12> && Vexil::WireRecord<ObjTupleAndSource, 16> );
   static_assert( offsetof( ObjTuple, objId_ ) == 0 && offsetof( ObjTuple, tableType_ ) == 8 );
   static_assert( offsetof( ObjTupleAndSource, ot_ ) == 0 &&
                  offsetof( ObjTupleAndSource, source_ ) == 12 );

   static_assert( Vexil::WireRecord<CiDest, 56> );
   static_assert( offsetof( CiDest, destType_ ) == 0 && offsetof( CiDest, payload_ ) == 4 &&
                  offsetof( CiDest, vtepCount_ ) == 12 && offsetof( CiDest, vtep_ ) == 16 );

   static_assert( Vexil::WireRecord<Host, 100> && Vexil::WireRecord<HostAndSource, 116> );
   static_assert( offsetof( Host, key_ ) == 0 && offsetof( Host, seqNo_ ) == 12 &&
                  offsetof( Host, pref_ ) == 16 && offsetof( Host, updateTime_ ) == 20 &&
                  offsetof( Host, entryType_ ) == 28 && offsetof( Host, next_ ) == 32 &&
                  offsetof( Host, ciDest_ ) == 44 );
   static_assert( offsetof( HostAndSource, key_ ) == 0 && offsetof( HostAndSource, host_ ) == 12 &&
                  offsetof( HostAndSource, source_ ) == 112 );

   static_assert( Vexil::WireRecord<DestDataIntf, 8> && Vexil::WireRecord<DestDataMpls, 44> &&
                  Vexil::WireRecord<DestDataTunnel, 48> && Vexil::WireRecord<DestDataVxlan, 24> );
   static_assert( offsetof( DestDataMpls, labelCount ) == 8 &&
                  offsetof( DestDataMpls, labels ) == 12 &&
                  offsetof( DestDataTunnel, destination ) == 20 &&
                  offsetof( DestDataTunnel, tos ) == 40 && offsetof( DestDataTunnel, ttl ) == 44 &&
                  offsetof( DestDataVxlan, vni ) == 20 );
   static_assert( Vexil::WireRecord<Dest, 60> && Vexil::WireRecord<DestAndSource, 76> );
   static_assert( offsetof( Dest, key_ ) == 0 && offsetof( Dest, destType_ ) == 8 &&
                  offsetof( Dest, payload_ ) == 12 );
   static_assert( offsetof( DestAndSource, dest_ ) == 0 &&
                  offsetof( DestAndSource, sourceOtas_ ) == 60 );

   static_assert( Vexil::WireRecord<LoadBalance, 204> &&
                  Vexil::WireRecord<LoadBalanceAndSource, 220> );
   static_assert( offsetof( LoadBalance, key_ ) == 0 && offsetof( LoadBalance, next_ ) == 8 &&
                  offsetof( LoadBalance, nexts_ ) == 200 );
   static_assert( offsetof( LoadBalanceAndSource, lb_ ) == 0 &&
                  offsetof( LoadBalanceAndSource, sourceOtas_ ) == 204 );

   static_assert( Vexil::WireRecord<Label, 24> && Vexil::WireRecord<LabelAndSource, 40> );
   static_assert( offsetof( Label, key_ ) == 0 && offsetof( Label, next_ ) == 8 &&
                  offsetof( Label, label_ ) == 20 );
   static_assert( offsetof( LabelAndSource, label_ ) == 0 &&
                  offsetof( LabelAndSource, sourceOtas_ ) == 24 );

   static_assert( Vexil::WireRecord<FloodSetTriple, 72> );
   static_assert( offsetof( FloodSetTriple, vlan_ ) == 0 && offsetof( FloodSetTriple, mac_ ) == 4 &&
                  offsetof( FloodSetTriple, dest_ ) == 12 );
};

} // namespace L2Rib
