// The value types of the layer-2 RIB, all of them: this header is the one to include.
//
//    NetTypes.h     addresses, VLANs, labels, sequence numbers, MacVlanPair
//    Identifiers.h  ids, sources, slot indices, ObjTuple, ObjTupleAndSource
//    Host.h         CiDest, Host, HostAndSource
//    Objects.h      Dest, LoadBalance, Label, and their forms with source
//    here           the values of flood sets
//
// They are plain values: copied whole, owning nothing, pointing nowhere. A default-constructed one
// is all zero bytes, which is its invalid value; the sentinels have names in Util. Sources, agent
// and readers share the records byte for byte: Layout.h has what they compare, and a change of a
// hash is a new format.
#pragma once

#include "L2Rib/Host.h"
#include "L2Rib/Identifiers.h"
#include "L2Rib/NetTypes.h"
#include "L2Rib/Objects.h"

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

} // namespace L2Rib
