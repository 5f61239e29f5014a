// The names of things in the RIB: object ids, table types, input sources, bounded slot indices, and
// the two tuples made of them, which say which object of which source is meant.
//
// Zero is invalid everywhere. The enumerations are unscoped with a fixed 32-bit type, because their
// slots in shared tables may hold any value that another process wrote.
#pragma once

#include "L2Rib/Wire.h"
#include "runtime/EnumText.h"
#include "runtime/Failure.h"
#include "runtime/Hash.h"

#include <bit>
#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace L2Rib {

using Vexil::operator<<;

// A 64-bit id that does not mix with ids of other kinds. 0 is invalid. From an ObjId to the id of a
// kind it goes through ObjTuple, which knows the kind and checks it.
template<class Tag>
class ObjectId {
 public:
   constexpr ObjectId() = default;
   explicit constexpr ObjectId( uint64_t value ) : value_( value ) {}
   // The ObjId of an id of a kind, which is not known from then on.
   template<class Kind>
   requires std::same_as<Tag, struct ObjIdTag>
   explicit constexpr ObjectId( ObjectId<Kind> id ) : value_( id.value() ) {}

   constexpr uint64_t value() const { return value_.value(); }
   constexpr uint64_t hash() const { return Vexil::mix64( value() ); }
   std::string str() const { return std::to_string( value() ); }

   friend constexpr bool operator==( ObjectId, ObjectId ) = default;
   friend constexpr auto operator<=>( ObjectId, ObjectId ) = default;

 private:
   Vexil::Wire64<uint64_t> value_;
};

using ObjId = ObjectId<struct ObjIdTag>; // of any object, within its table type
using DestId = ObjectId<struct DestIdTag>;
using LoadBalanceId = ObjectId<struct LoadBalanceIdTag>;
using LabelId = ObjectId<struct LabelIdTag>;

namespace Constants {
constexpr ObjId objIdInvalid() { return ObjId(); }
// The top of the output's id space, above this one, is never handed out.
constexpr ObjId highestOutputId() { return ObjId( 0xFFFFFFFFFFFF0000 ); }
} // namespace Constants

// Which kind of object an ObjId names, and so which table holds it.
enum TableType : uint32_t {
   tableTypeInvalid_ = 0,
   tableTypeLoadBalance_ = 1,
   tableTypeLabel_ = 2,
   tableTypeDest_ = 3,
};
inline constexpr Vexil::EnumName<TableType> tableTypeNames[] = {
   { tableTypeInvalid_, "tableTypeInvalid" },
   { tableTypeLoadBalance_, "tableTypeLoadBalance" },
   { tableTypeLabel_, "tableTypeLabel" },
   { tableTypeDest_, "tableTypeDest" },
};
constexpr std::span<const Vexil::EnumName<TableType>> enumNames( TableType ) {
   return tableTypeNames;
}
// What people and JSON call an object of that type: "lb", "label", "dest", "invalid", or the number
// of a type that no one knows.
std::string tableTypeStr( TableType tableType );

// Which input source an entry came from: a single bit, so that a set of sources is a mask. The
// greater value is the stronger source where all else is equal. What a source is called stands in
// its directory entry; but for the static configuration, a bit by itself says no more than its
// place.
enum Source : uint32_t {
   sourceNone_ = 0, // no source; never the source of a valid entry
   sourceBit0_ = 0x1,
   sourceBit3_ = 0x8,
   sourceStatic_ = 0x10, // this agent's own static configuration
   sourceBit6_ = 0x40,
   sourceBit8_ = 0x100,
   sourceBit9_ = 0x200,
   sourceBit28_ = 0x10000000,
   sourceBit29_ = 0x20000000,
   sourceBit30_ = 0x40000000,
   sourceBit31_ = 0x80000000,
};
inline constexpr Vexil::EnumName<Source> sourceNames[] = {
   { sourceNone_, "sourceNone" },   { sourceBit0_, "sourceBit0" },
   { sourceBit3_, "sourceBit3" },   { sourceStatic_, "sourceStatic" },
   { sourceBit6_, "sourceBit6" },   { sourceBit8_, "sourceBit8" },
   { sourceBit9_, "sourceBit9" },   { sourceBit28_, "sourceBit28" },
   { sourceBit29_, "sourceBit29" }, { sourceBit30_, "sourceBit30" },
   { sourceBit31_, "sourceBit31" },
};
constexpr std::span<const Vexil::EnumName<Source>> enumNames( Source ) { return sourceNames; }
constexpr bool isSingleBit( Source source ) {
   const auto bits = static_cast<uint32_t>( source );
   return bits != 0 && ( bits & ( bits - 1 ) ) == 0; // std::has_single_bit() is a call here
}
// Hexadecimal, such as "0x40", as people know sources; fit for a mask of sources too. And back.
std::string sourceStr( Source source );
std::optional<Source> sourceParse( std::string_view text );
inline std::ostream& operator<<( std::ostream& to, Source source ) {
   return to << sourceStr( source );
}

// A slot number of 0 to Slots::max. Any other makes the constructor throw RangeFailure, with the
// name of the index type in its text; a walk that steps past the last slot ends this way.
template<class Slots>
class BoundedIndex {
 public:
   static constexpr uint32_t min = 0;
   static constexpr uint32_t max = Slots::max;

   explicit constexpr BoundedIndex( uint32_t value ) : value_( value ) {
      if( value > max )
         Vexil::rangeFailure( Slots::name );
   }
   constexpr uint32_t value() const { return value_; }
   std::string str() const { return std::to_string( value_ ); }

   friend constexpr bool operator==( BoundedIndex, BoundedIndex ) = default;
   friend constexpr auto operator<=>( BoundedIndex, BoundedIndex ) = default;

 private:
   uint32_t value_;
};

struct EcmpSlots {
   static constexpr const char* name = "EcmpIndex";
   static constexpr uint32_t max = 15;
};
struct CiVtepSlots {
   static constexpr const char* name = "CiVtepIndex";
   static constexpr uint32_t max = 1;
};
using EcmpIndex = BoundedIndex<EcmpSlots>;     // a slot of a load-balance group
using CiVtepIndex = BoundedIndex<CiVtepSlots>; // a slot in the VTEP list of a CiDest

// Names one forwarding object: an id and the kind of table that it is an id of. Whose table, a
// source's or the output's, is for the holder to know. The order is by id, then type; collections
// need it, it means nothing.
class ObjTuple {
 public:
   constexpr ObjTuple() = default;
   constexpr ObjTuple( ObjId objId, TableType tableType )
      : objId_( objId ), tableType_( tableType ) {}
   explicit constexpr ObjTuple( DestId id ) : ObjTuple( ObjId( id.value() ), tableTypeDest_ ) {}
   explicit constexpr ObjTuple( LoadBalanceId id )
      : ObjTuple( ObjId( id.value() ), tableTypeLoadBalance_ ) {}
   explicit constexpr ObjTuple( LabelId id ) : ObjTuple( ObjId( id.value() ), tableTypeLabel_ ) {}

   constexpr ObjId objId() const { return objId_; }
   constexpr TableType tableType() const { return tableType_; }
   // The id as that of its own kind; the tuple must be of that kind.
   constexpr DestId destId() const {
      VEXIL_ASSERT( tableType() == tableTypeDest_ );
      return DestId( objId_.value() );
   }
   constexpr LoadBalanceId lbId() const {
      VEXIL_ASSERT( tableType() == tableTypeLoadBalance_ );
      return LoadBalanceId( objId_.value() );
   }
   constexpr LabelId labelId() const {
      VEXIL_ASSERT( tableType() == tableTypeLabel_ );
      return LabelId( objId_.value() );
   }

   // One round does: the multiplication inside keeps small ids of different types apart.
   constexpr uint64_t hash() const { return Vexil::hashCombine( objId_.value(), tableType_ ); }
   // "lb/7"; "(invalid)" for the invalid tuple.
   std::string str() const;

   friend constexpr bool operator==( const ObjTuple&, const ObjTuple& ) = default;
   friend constexpr auto operator<=>( const ObjTuple&, const ObjTuple& ) = default;

 private:
   friend RecordLayout;
   ObjId objId_;
   TableType tableType_ = tableTypeInvalid_;
};

// Whether ot can name an object, or is the invalid tuple. Another process may have written
// anything.
constexpr bool isSound( const ObjTuple& ot ) {
   return ot == ObjTuple() ||
          ( ot.objId() != Constants::objIdInvalid() && ot.tableType() >= tableTypeLoadBalance_ &&
            ot.tableType() <= tableTypeDest_ );
}

// Names one input object of one source ("otas"): ids are each source's own, so the same tuple of
// two sources is two objects.
class ObjTupleAndSource {
 public:
   constexpr ObjTupleAndSource() = default;
   constexpr ObjTupleAndSource( const ObjTuple& ot, Source source )
      : ot_( ot ), source_( source ) {}

   constexpr const ObjTuple& ot() const { return ot_; }
   constexpr Source source() const { return source_; }
   // Of the tuple, with the same conditions.
   constexpr ObjId objId() const { return ot_.objId(); }
   constexpr TableType tableType() const { return ot_.tableType(); }
   constexpr DestId destId() const { return ot_.destId(); }
   constexpr LoadBalanceId lbId() const { return ot_.lbId(); }
   constexpr LabelId labelId() const { return ot_.labelId(); }

   constexpr uint64_t hash() const { return Vexil::hashCombine( ot_.hash(), source_ ); }
   // "lb/7 from 0x40"; "(invalid)" for the invalid one.
   std::string str() const;

   friend constexpr bool operator==( const ObjTupleAndSource&, const ObjTupleAndSource& ) = default;
   friend constexpr auto operator<=>( const ObjTupleAndSource&,
                                      const ObjTupleAndSource& ) = default;

 private:
   friend RecordLayout;
   ObjTuple ot_;
   Source source_ = sourceNone_;
};

} // namespace L2Rib

namespace Util {
constexpr L2Rib::DestId destIdInvalid() { return {}; }
constexpr L2Rib::LoadBalanceId lbIdInvalid() { return {}; }
constexpr L2Rib::LabelId labelIdInvalid() { return {}; }
constexpr L2Rib::ObjTuple objTupleInvalid() { return {}; }
constexpr L2Rib::ObjTupleAndSource otasInvalid() { return {}; }
// The key of a Dest that lives only inside a flood set and never in a dest table: all ones.
constexpr L2Rib::DestId destIdNotInTarn() { return L2Rib::DestId( UINT64_MAX ); }
} // namespace Util
