// The forwarding objects that hosts point to: destinations, load-balance groups and label pushes,
// each as a source writes it and in the form with source that the output tables hold.
//
// A default-constructed object has the invalid key and stands for "no such object". In the output
// forms, sourceOtas names the input object that the row was copied from; with it a restarted agent
// finds out what each row stands for.
#pragma once

#include "L2Rib/Identifiers.h"
#include "L2Rib/NetTypes.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>

namespace L2Rib {

// What a Dest is, and so how its payload reads. The inline destinations of hosts have kinds of
// their own, see CiDestType: hence the prefix.
enum DestType : uint32_t {
   objDestTypeNone_ = 0,
   objDestTypeIntf_ = 1,
   objDestTypeMpls_ = 2,
   objDestTypeTunnel_ = 3,
   objDestTypeVxlan_ = 4,
};
inline constexpr Vexil::EnumName<DestType> destTypeNames[] = {
   { objDestTypeNone_, "objDestTypeNone" },   { objDestTypeIntf_, "objDestTypeIntf" },
   { objDestTypeMpls_, "objDestTypeMpls" },   { objDestTypeTunnel_, "objDestTypeTunnel" },
   { objDestTypeVxlan_, "objDestTypeVxlan" },
};
constexpr std::span<const Vexil::EnumName<DestType>> enumNames( DestType ) { return destTypeNames; }

// The payloads of a Dest. Whoever fills one leaves unused parts zero: dests are compared and hashed
// by all of their bytes.

// Out of an interface, by its number.
struct DestDataIntf {
   Vexil::Wire64<uint64_t> intf;

   std::string str() const;
   friend bool operator==( const DestDataIntf&, const DestDataIntf& ) = default;
};

// Out of an interface under a stack of up to 8 labels, the outermost first.
struct DestDataMpls {
   Vexil::Wire64<uint64_t> intf;
   uint32_t labelCount = 0;
   std::array<Vexil::MplsLabel, 8> labels{};

   // The labels in use, at most as many as there are slots whatever the count says.
   std::span<const Vexil::MplsLabel> used() const {
      return { labels.data(), std::min<size_t>( labelCount, labels.size() ) };
   }
   std::string str() const;
   friend bool operator==( const DestDataMpls&, const DestDataMpls& ) = default;
};

// Into an IP tunnel, with the type of service and the time to live of its outer header, 0 to 255
// each.
struct DestDataTunnel {
   Vexil::IpGenAddr source;
   Vexil::IpGenAddr destination;
   uint32_t tos = 0;
   uint32_t ttl = 0;

   std::string str() const;
   friend bool operator==( const DestDataTunnel&, const DestDataTunnel& ) = default;
};

// To a VTEP, in the VXLAN segment `vni` (24 bits).
struct DestDataVxlan {
   Vexil::IpGenAddr vtep;
   uint32_t vni = 0;

   std::string str() const;
   friend bool operator==( const DestDataVxlan&, const DestDataVxlan& ) = default;
};

// A destination. Equality, order and hash take in every byte, the key too; two dests inside flood
// sets have the same key, Util::destIdNotInTarn(), and so differ by what they are alone.
class Dest {
 public:
   Dest() = default;
   explicit Dest( DestId key ) : key_( key ) {}

   DestId key() const { return key_; }
   void keyIs( DestId key ) { key_ = key; }
   DestType destType() const { return destType_; }

   // A copy of the payload as that of its own type; the dest must be of that type. A dest that was
   // not found is of none, so ask destType() first where that can be.
   DestDataIntf intf() const {
      VEXIL_ASSERT( destType() == objDestTypeIntf_ );
      return payload<DestDataIntf>();
   }
   DestDataMpls mpls() const {
      VEXIL_ASSERT( destType() == objDestTypeMpls_ );
      return payload<DestDataMpls>();
   }
   DestDataTunnel tunnel() const {
      VEXIL_ASSERT( destType() == objDestTypeTunnel_ );
      return payload<DestDataTunnel>();
   }
   DestDataVxlan vxlan() const {
      VEXIL_ASSERT( destType() == objDestTypeVxlan_ );
      return payload<DestDataVxlan>();
   }
   // Make the dest one of that type, whatever it was before.
   void intfIs( const DestDataIntf& data ) { payloadIs( objDestTypeIntf_, data ); }
   void mplsIs( const DestDataMpls& data ) { payloadIs( objDestTypeMpls_, data ); }
   void tunnelIs( const DestDataTunnel& data ) { payloadIs( objDestTypeTunnel_, data ); }
   void vxlanIs( const DestDataVxlan& data ) { payloadIs( objDestTypeVxlan_, data ); }

   // For comparing and copying between a source's dest and its output copy, which have ids of their
   // own.
   bool equalExceptKey( const Dest& other ) const {
      return destType_ == other.destType_ && payload_ == other.payload_;
   }
   void copyAllButKey( const Dest& other ) {
      destType_ = other.destType_;
      payload_ = other.payload_;
   }

   uint64_t hash() const { return Vexil::hashBytes( this, sizeof *this ); }
   // "{ dest/1 vxlan 10.0.0.1 vni 10010 }"; "flood dest" in place of the id inside a flood set.
   std::string str() const;
   friend bool operator==( const Dest&, const Dest& ) = default;
   friend auto operator<=>( const Dest&, const Dest& ) = default;

 private:
   friend RecordLayout;

   template<class Data>
   Data payload() const {
      Data data;
      std::memcpy( &data, payload_.data(), sizeof data );
      return data;
   }
   template<class Data>
   void payloadIs( DestType destType, const Data& data ) {
      static_assert( sizeof data <= sizeof payload_ );
      destType_ = destType;
      payload_.fill( 0 );
      std::memcpy( payload_.data(), &data, sizeof data );
   }

   DestId key_;
   DestType destType_ = objDestTypeNone_;
   std::array<uint8_t, 48> payload_{}; // one of the DestData types, then zeros
};

// An ECMP group: up to 16 nexts, each an object of the same source. The first nexts() slots are in
// use, and a next may stand in several of them. A group that a source publishes has at least one,
// and none of those in use is invalid.
class LoadBalance {
 public:
   LoadBalance() = default;
   explicit LoadBalance( LoadBalanceId key ) : key_( key ) {}

   LoadBalanceId key() const { return key_; }
   void keyIs( LoadBalanceId key ) { key_ = key; }

   const ObjTuple& next( EcmpIndex at ) const { return next_[ at.value() ]; }
   // Fills a slot, or empties it with the invalid tuple; nexts() is then one more than the highest
   // slot that is filled.
   void nextIs( EcmpIndex at, const ObjTuple& next );

   // The count as it stands in the record, which another process may have written: bounded by
   // nothing. A walk by EcmpIndex throws RangeFailure at the first slot that does not exist.
   uint32_t nexts() const { return nexts_; }
   // Slots past the count are emptied; slots that it takes in anew are empty, whatever stood there.
   void nextsIs( uint32_t nexts );
   // The slots in use, at most all 16 whatever the count says.
   std::span<const ObjTuple> used() const {
      return { next_.data(), std::min<size_t>( nexts_, next_.size() ) };
   }

   // "{ lb/7 nexts 2: dest/1 label/3 }". A count past the slots stands as it is, the list ends.
   std::string str() const;
   uint64_t hash() const;
   // Slots past the count hold no value and do not count.
   friend bool operator==( const LoadBalance& a, const LoadBalance& b ) {
      return a.key_ == b.key_ && a.nexts_ == b.nexts_ && std::ranges::equal( a.used(), b.used() );
   }
   friend std::strong_ordering operator<=>( const LoadBalance& a, const LoadBalance& b );

 private:
   friend RecordLayout;
   LoadBalanceId key_;
   std::array<ObjTuple, EcmpIndex::max + 1> next_{};
   uint32_t nexts_ = 0;
};

// Pushes an MPLS label, then goes on to `next`, the object below it, of the same source. A label
// that a source publishes always has a next.
class Label {
 public:
   Label() = default;
   explicit Label( LabelId key ) : key_( key ) {}
   Label( LabelId key, const ObjTuple& next, Vexil::MplsLabel label )
      : key_( key ), next_( next ), label_( label ) {}

   LabelId key() const { return key_; }
   const ObjTuple& next() const { return next_; }
   void nextIs( const ObjTuple& next ) { next_ = next; }
   Vexil::MplsLabel label() const { return label_; }
   void labelIs( Vexil::MplsLabel label ) { label_ = label; }

   // "{ label/3 push 1000 next dest/1 }".
   std::string str() const;
   uint64_t hash() const { return Vexil::hashFields( key_, next_, label_ ); }
   friend bool operator==( const Label&, const Label& ) = default;
   friend auto operator<=>( const Label&, const Label& ) = default;

 private:
   friend RecordLayout;
   LabelId key_;
   ObjTuple next_;
   Vexil::MplsLabel label_;
};

// A row of the dest output table. The key is the output id, which is never a source's id; the same
// holds for the two below.
class DestAndSource {
 public:
   DestAndSource() = default;
   DestAndSource( const Dest& dest, const ObjTupleAndSource& sourceOtas )
      : dest_( dest ), sourceOtas_( sourceOtas ) {}

   DestId key() const { return dest_.key(); }
   const Dest& dest() const { return dest_; }
   const ObjTupleAndSource& sourceOtas() const { return sourceOtas_; }

   // The dest's text, then " copy of dest/1 from 0x40"; the other two likewise.
   std::string str() const;
   uint64_t hash() const { return Vexil::hashFields( dest_, sourceOtas_ ); }
   friend bool operator==( const DestAndSource&, const DestAndSource& ) = default;
   friend auto operator<=>( const DestAndSource&, const DestAndSource& ) = default;

 private:
   friend RecordLayout;
   Dest dest_;
   ObjTupleAndSource sourceOtas_;
};

// A row of the load-balance output table. Its nexts are output objects that exist: rows are written
// from the bottom up.
class LoadBalanceAndSource {
 public:
   LoadBalanceAndSource() = default;
   LoadBalanceAndSource( const LoadBalance& lb, const ObjTupleAndSource& sourceOtas )
      : lb_( lb ), sourceOtas_( sourceOtas ) {}

   LoadBalanceId key() const { return lb_.key(); }
   const LoadBalance& lb() const { return lb_; }
   const ObjTupleAndSource& sourceOtas() const { return sourceOtas_; }

   std::string str() const;
   uint64_t hash() const { return Vexil::hashFields( lb_, sourceOtas_ ); }
   friend bool operator==( const LoadBalanceAndSource&, const LoadBalanceAndSource& ) = default;
   friend auto operator<=>( const LoadBalanceAndSource&, const LoadBalanceAndSource& ) = default;

 private:
   friend RecordLayout;
   LoadBalance lb_;
   ObjTupleAndSource sourceOtas_;
};

// A row of the label output table. Its next is an output object that exists.
class LabelAndSource {
 public:
   LabelAndSource() = default;
   LabelAndSource( const Label& label, const ObjTupleAndSource& sourceOtas )
      : label_( label ), sourceOtas_( sourceOtas ) {}

   LabelId key() const { return label_.key(); }
   const Label& label() const { return label_; }
   const ObjTupleAndSource& sourceOtas() const { return sourceOtas_; }

   std::string str() const;
   uint64_t hash() const { return Vexil::hashFields( label_, sourceOtas_ ); }
   friend bool operator==( const LabelAndSource&, const LabelAndSource& ) = default;
   friend auto operator<=>( const LabelAndSource&, const LabelAndSource& ) = default;

 private:
   friend RecordLayout;
   Label label_;
   ObjTupleAndSource sourceOtas_;
};

// What the table of such rows says of their members: Layout.h.
uint32_t layoutOf( const Dest& );
uint32_t layoutOf( const LoadBalance& );
uint32_t layoutOf( const Label& );
uint32_t layoutOf( const DestAndSource& );
uint32_t layoutOf( const LoadBalanceAndSource& );
uint32_t layoutOf( const LabelAndSource& );

} // namespace L2Rib
