// Where hosts and objects of the output lead to, in words: "vxlan 192.0.2.11 vni 10010", "2 paths:
// 192.0.2.11, 192.0.2.12", "label 1000 > eth3".
#pragma once

#include "client/OutputReader.h"

#include <map>
#include <set>
#include <string>

namespace Tools {

// What an object leads to in the end, for whoever looks for it.
struct Leaves {
   std::set<std::string> addresses; // of VTEPs and tunnel ends
   std::set<uint64_t> interfaces;
   std::set<uint32_t> vnis;
};

// Looks each object up once, and remembers what it found. Of the output as it stands: rows that
// change meanwhile may be told as they were. The reader outlives it.
class Vias {
 public:
   explicit Vias( const L2Rib::Client::OutputReader& output ) : output_( output ) {}

   std::string text( const L2Rib::Host& host );
   std::string text( const L2Rib::ObjTuple& object ) { return found( object ).text; }
   static std::string text( const L2Rib::Dest& dest );
   static std::string text( const L2Rib::CiDest& dest );
   // As a member of a group, in few words: the address alone, the interface.
   std::string brief( const L2Rib::ObjTuple& object ) { return found( object ).brief; }

   // The host's inline destination, or all below its object.
   Leaves leaves( const L2Rib::Host& host );
   const Leaves& leaves( const L2Rib::ObjTuple& object ) { return found( object ).leaves; }
   static Leaves leaves( const L2Rib::Dest& dest );

 private:
   struct Found {
      std::string text, brief;
      Leaves leaves;
   };
   const Found& found( const L2Rib::ObjTuple& object );
   Found lookedUp( const L2Rib::ObjTuple& object );
   Found ofGroup( const L2Rib::LoadBalance& group );

   const L2Rib::Client::OutputReader& output_;
   std::map<L2Rib::ObjTuple, Found> known_;
   unsigned depth_ = 0;
};

} // namespace Tools
