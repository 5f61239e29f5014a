// The host records: a MAC/VLAN entry as a source writes it, with the destination that it may carry
// inline, and the form with source that the host output table holds.
//
// Sources in other processes write these bytes. Accessors hand out what is there; only the count
// of VTEPs is never trusted further than the slots go.
#pragma once

#include "L2Rib/Identifiers.h"
#include "L2Rib/NetTypes.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace L2Rib {

// What a CiDest is. Compared as a signed number; no value beside these may reach a comparison.
enum CiDestType : int32_t {
   destTypeDefault_ =
      0,               // one opaque 64-bit number, the payload; what a host with an object carries
   destTypeVxlan_ = 1, // a list of VTEPs
};
inline constexpr Vexil::EnumName<CiDestType> ciDestTypeNames[] = {
   { destTypeDefault_, "destTypeDefault" }, { destTypeVxlan_, "destTypeVxlan" } };
constexpr std::span<const Vexil::EnumName<CiDestType>> enumNames( CiDestType ) {
   return ciDestTypeNames;
}

// The destination that a host carries inline. The kind is chosen at construction.
class CiDest {
 public:
   CiDest() = default;
   explicit CiDest( int32_t destType ) : destType_( static_cast<CiDestType>( destType ) ) {}

   CiDestType destType() const { return destType_; }

   // Meaningful for the default kind, and written for no other. It says where the host is in terms
   // that the source and the readers share (the static source: the number of an interface); here it
   // is copied and compared whole.
   uint64_t payload() const { return payload_.value(); }
   void payloadIs( uint64_t payload ) {
      VEXIL_ASSERT( destType() == destTypeDefault_ );
      payload_ = payload;
   }

   // The count as it stands in the record, 0 to 2 unless another process wrote an invalid one.
   uint32_t vtepCount() const { return vtepCount_; }
   // The VTEPs in use, at most as many as there are slots whatever the count says.
   std::span<const Vexil::IpGenAddr> vteps() const {
      return { vtep_.data(), std::min<size_t>( vtepCount_, vtep_.size() ) };
   }
   const Vexil::IpGenAddr& vtep( CiVtepIndex at ) const { return vtep_[ at.value() ]; }
   // For destTypeVxlan_ only. The count grows to take the slot in, slots between are unset. Two
   // VTEPs are to be in strictly ascending order, or the engine refuses the host.
   void vtepIs( CiVtepIndex at, const Vexil::IpGenAddr& vtep ) {
      VEXIL_ASSERT( destType() == destTypeVxlan_ );
      for( ; vtepCount_ <= at.value(); ++vtepCount_ )
         vtep_[ vtepCount_ ] = Vexil::IpGenAddr();
      vtep_[ at.value() ] = vtep;
   }

   // Ranks inline destinations: -1, 0 or 1. By kind; then the default kind by payload, VXLAN by the
   // number of VTEPs and then by their addresses, slot by slot. Asserts on an unknown kind; throws
   // RangeFailure when it would have to look past the last slot.
   int cmp( const CiDest& other ) const;
   // "value 12", "vteps [ 10.0.0.1 10.0.0.2 ]"; what is not of the kind, or past the slots, stands
   // behind it.
   std::string str() const;
   uint64_t hash() const;

   // Slots past the count hold no value and do not count. The order is any total one, to sort by:
   // hosts are ranked by cmp().
   friend bool operator==( const CiDest& a, const CiDest& b ) {
      return a.destType_ == b.destType_ && a.payload_ == b.payload_ &&
             a.vtepCount_ == b.vtepCount_ && std::ranges::equal( a.vteps(), b.vteps() );
   }
   friend std::strong_ordering operator<=>( const CiDest& a, const CiDest& b );

 private:
   friend RecordLayout;
   CiDestType destType_ = destTypeDefault_;
   Vexil::Wire64<uint64_t> payload_;
   uint32_t vtepCount_ = 0;
   std::array<Vexil::IpGenAddr, CiVtepIndex::max + 1> vtep_{};
};

// Whether the kind is a known one and the count has slots. Another process may have written
// anything.
inline bool isSound( const CiDest& ciDest ) {
   return ( ciDest.destType() == destTypeDefault_ || ciDest.destType() == destTypeVxlan_ ) &&
          ciDest.vtepCount() <= CiVtepIndex::max + 1;
}

// How the source describes its entry. Copied, never branched on; sources use numbers of their own.
enum EntryType : uint32_t {
   entryTypeNone_ = 0,
   entryTypeStatic_ = 4, // written by the static source
};
inline constexpr Vexil::EnumName<EntryType> entryTypeNames[] = {
   { entryTypeNone_, "entryTypeNone" }, { entryTypeStatic_, "entryTypeStatic" } };
constexpr std::span<const Vexil::EnumName<EntryType>> enumNames( EntryType ) {
   return entryTypeNames;
}

// One MAC/VLAN entry of one source. It is reached through `next`, an object of the same source, or,
// when next is invalid, through the inline ciDest. A default-constructed host has the invalid key
// and stands for "no such host": a lookup has found something when the key is the one asked for.
class Host {
 public:
   Host() = default;
   explicit Host( const Bridging::MacVlanPair& key ) : key_( key ) {}

   const Bridging::MacVlanPair& key() const { return key_; }
   // The source's number of this entry; the newer one wins among equal preferences.
   Vexil::Seqno32 seqNo() const { return seqNo_; }
   void seqNoIs( Vexil::Seqno32 seqNo ) { seqNo_ = seqNo; }
   // Preference; the higher one wins.
   uint32_t pref() const { return pref_; }
   void prefIs( uint32_t pref ) { pref_ = pref; }
   // When the source wrote the entry, in seconds by the entity clock; 0.0 when unset.
   double updateTime() const { return updateTime_.value(); }
   void updateTimeIs( double seconds ) { updateTime_ = seconds; }
   EntryType entryType() const { return entryType_; }
   void entryTypeIs( EntryType entryType ) { entryType_ = entryType; }
   // Util::objTupleInvalid() when the destination is inline. In a source's table it names one of
   // the source's own objects, in the output an output object.
   const ObjTuple& next() const { return next_; }
   void nextIs( const ObjTuple& next ) { next_ = next; }
   // Of the default kind with payload 0 when the host has a next.
   const CiDest& ciDest() const { return ciDest_; }
   void ciDestIs( const CiDest& ciDest ) { ciDest_ = ciDest; }

   // "{ (02:00:00:00:00:01/10) seqNo 1 pref 100 entryType 1 updateTime 0 next dest/7 }", with
   // "inline value 12" in place of the next where there is none, and behind it where there are
   // both.
   std::string str() const;
   uint64_t hash() const;
   friend bool operator==( const Host&, const Host& ) = default;
   // By key, then the other fields: to sort by, not to rank.
   friend std::strong_ordering operator<=>( const Host& a, const Host& b );

 private:
   friend RecordLayout;
   Bridging::MacVlanPair key_;
   Vexil::Seqno32 seqNo_;
   uint32_t pref_ = 0;
   Vexil::Wire64<double> updateTime_;
   EntryType entryType_ = entryTypeNone_;
   ObjTuple next_;
   CiDest ciDest_;
};

// A row of the host output table: the host that was chosen for a key, its next translated to an
// output object, and the source that it came from. The key is always the host's own.
class HostAndSource {
 public:
   HostAndSource() = default;
   HostAndSource( const Bridging::MacVlanPair& key, const Host& host, Source source )
      : key_( key ), host_( host ), source_( source ) {}

   const Bridging::MacVlanPair& key() const { return key_; }
   const Host& host() const { return host_; }
   const ObjTuple& next() const { return host_.next(); }
   void nextIs( const ObjTuple& next ) { host_.nextIs( next ); }
   Source source() const { return source_; }

   // The host's text, then " from 0x40"; before it the row's key where it is another one.
   std::string str() const;
   uint64_t hash() const { return Vexil::hashFields( key_, host_, source_ ); }
   friend bool operator==( const HostAndSource&, const HostAndSource& ) = default;
   friend auto operator<=>( const HostAndSource&, const HostAndSource& ) = default;

 private:
   friend RecordLayout;
   Bridging::MacVlanPair key_;
   Host host_;
   Source source_ = sourceNone_;
};

// What the table of such rows says of their members: Layout.h.
uint32_t layoutOf( const Host& );
uint32_t layoutOf( const HostAndSource& );

// "(02:00:00:00:00:01/10)"; "(MVP INVALID)" for Util::mvpInvalid().
inline std::string mvpStr( const Bridging::MacVlanPair& mvp ) { return mvp.str(); }

} // namespace L2Rib

namespace Util {
constexpr Bridging::MacVlanPair mvpInvalid() { return {}; }
} // namespace Util
