// Records to JSON and back, and strict reading of JSON objects. docs and scripts rely on the keys.
#pragma once

#include "L2Rib/L2Rib.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>

namespace Tools {

using Json = nlohmann::ordered_json;

// Input that is not what it should be; the text says what would be right.
class BadInput : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// One line, whatever bytes a name holds.
std::string text( const Json& json );

// The beginning of it, for an error message: what is wrong may be long.
std::string excerpt( const Json& json );

// Lists and objects within each other, at most. Nothing of ours comes near, and whatever walks JSON
// calls itself for each of them.
constexpr size_t deepestNesting = 16;

// --- to JSON

Json toJson( const L2Rib::ObjTuple& next );      // {"type":"lb","id":7}, null for the invalid one
Json toJson( const L2Rib::CiDest& inlineDest );  // {"value":12} or {"vteps":[...]}
Json toJson( const L2Rib::ObjTupleAndSource& );  // {"type","id","source"}
Json toJson( const Bridging::MacVlanPair& key ); // {"mac","vlan"}
// The key, then what a source says of the host. No source: its object has a place of its own.
Json toJson( const L2Rib::Host& host );
// {"vxlan":{...}}, or "intf", "mpls", "tunnel"; without id.
Json toJson( const L2Rib::Dest& dest );
Json toJson( const L2Rib::DestAndSource& row );
Json toJson( const L2Rib::LoadBalanceAndSource& row );
Json toJson( const L2Rib::LabelAndSource& row );
// A flood set of the output, {"type":"vxlan","dests":[{...}]}.
struct FloodSetRow {
   L2Rib::FloodSetType type = L2Rib::floodSetTypeInvalid_;
   std::set<L2Rib::Dest> dests;
};
Json toJson( const FloodSetRow& set );
// The key of an object's row, {"id":7}.
template<class Tag>
Json toJson( const L2Rib::ObjectId<Tag>& id ) {
   return { { "id", id.value() } };
}

// --- from JSON

// A number, or text such as "0x40" or "64".
uint64_t numberOf( const Json& json, const std::string& what );

// The fields of one object. A field that is absent, of the wrong type or out of range is BadInput,
// and so is one that nobody has asked for when close() is called.
class Fields {
 public:
   // what names the object in the texts.
   Fields( const Json& object, std::string what );

   // Asking is knowing: close() names the key among those that may be there.
   bool has( const char* key ) {
      known_.insert( key );
      return object_.contains( key );
   }
   const Json& any( const char* key );
   const Json& list( const char* key );
   std::string text( const char* key );
   bool boolean( const char* key );
   uint64_t number( const char* key, uint64_t max = UINT64_MAX );
   uint32_t number32( const char* key ) {
      return static_cast<uint32_t>( number( key, UINT32_MAX ) );
   }
   uint32_t number32( const char* key, uint32_t ifAbsent ) {
      return has( key ) ? number32( key ) : ifAbsent;
   }
   Vexil::EthAddr mac( const char* key );
   Vexil::IpGenAddr address( const char* key );
   void close() const;

 private:
   [[noreturn]] void wrong( const char* key, const std::string& expected ) const;

   const Json& object_;
   std::string what_;
   std::set<std::string, std::less<>> known_;
};

// Each takes what is its own from the fields; the caller closes them.
Bridging::MacVlanPair keyFrom( Fields& fields );
L2Rib::Host hostFrom( Fields& fields );
L2Rib::Dest destFrom( Fields& fields, L2Rib::DestId key );
L2Rib::LoadBalance lbFrom( Fields& fields );
L2Rib::Label labelFrom( Fields& fields );
// "vlan", "mac" and "dest".
L2Rib::FloodSetTriple floodTripleFrom( Fields& fields );

} // namespace Tools
