// Operations of a source in short, and a random output with what the kernel comes to with it.
#pragma once

#include "tests/NetworkSupport.h"

namespace BridgeSupport {

using namespace NetworkSupport;
using Forwarding = std::map<std::string, std::string>;
using TestSupport::Random;

inline std::string dest( unsigned id, const std::string& vtep, unsigned vni = 10010 ) {
   return R"({"op":"dest","id":)" + std::to_string( id ) + R"(,"vxlan":{"vtep":")" + vtep +
          R"(","vni":)" + std::to_string( vni ) + "}}\n";
}
inline std::string next( const std::string& type, unsigned id ) {
   return R"("next":{"type":")" + type + R"(","id":)" + std::to_string( id ) + "}";
}
inline std::string groupOf( unsigned id,
                            const std::vector<std::pair<std::string, unsigned>>& members ) {
   std::string list;
   for( const auto& [ type, member ] : members )
      list += ( list.empty() ? "" : "," ) + ( R"({"type":")" + type + R"(","id":)" ) +
              std::to_string( member ) + "}";
   return R"({"op":"lb","id":)" + std::to_string( id ) + R"(,"nexts":[)" + list + "]}\n";
}
inline std::string floodMember( const std::string& operation, const std::string& vtep,
                                const std::string& address, const std::string& more = "" ) {
   return R"({"op":")" + operation + R"(","vlan":10,"mac":")" + address + R"(")" + more +
          R"(,"dest":{"vxlan":{"vtep":")" + vtep + R"(","vni":10010}}})" + "\n";
}
inline std::string floodTo( const std::string& vtep, const char* address = "ff:ff:ff:ff:ff:ff" ) {
   return floodMember( "flood", vtep, address, R"(,"type":"vxlan")" );
}
inline const std::string newVx10 =
   "ip link add vx10 type vxlan id 10010 local 192.0.2.1 dstport 4789 nolearning; "
   "ip link set vx10 master br10 up";

// A random output, and what the kernel comes to with it: dests 1 to 6, groups 1 to 4 of them.
struct RandomOutput {
   Random random{ 16 };
   std::map<unsigned, std::string> dests;         // "192.0.2.11", perhaps " vni 77"
   std::map<unsigned, std::set<unsigned>> groups; // of dests; from 101 on of one, itself
   std::map<unsigned, unsigned> hosts;            // the group
   std::set<std::string> floods;

   std::string newDest( unsigned id ) {
      const std::string vtep = "192.0.2." + std::to_string( 11 + random.below( 5 ) );
      const bool own = random.percent( 85 );
      dests[ id ] = vtep + ( own ? "" : " vni 77" );
      groups[ 100 + id ] = { id };
      return dest( id, vtep, own ? 10010 : 77 );
   }
   std::string newGroup( unsigned id ) {
      groups[ id ] = { 1 + random.below( 6 ), 1 + random.below( 6 ), 1 + random.below( 6 ) };
      std::vector<std::pair<std::string, unsigned>> members;
      for( const unsigned member : groups[ id ] )
         members.emplace_back( "dest", member );
      return groupOf( id, members );
   }
   // A random change, as an operation.
   std::string change() {
      const unsigned number = random.below( 40 );
      const std::string vtep = "192.0.2." + std::to_string( 11 + number % 5 );
      switch( random.below( 7 ) ) {
      case 0:
         return newDest( 1 + number % 6 );
      case 1:
         return newGroup( 1 + number % 4 );
      case 2:
         hosts.erase( number );
         return R"({"op":"hostDel","mac":")" + mac( number ) + R"(","vlan":10})" + "\n";
      case 3:
         if( floods.insert( vtep ).second )
            return floodTo( vtep );
         floods.erase( vtep );
         return floodMember( "floodDel", vtep, "ff:ff:ff:ff:ff:ff" );
      default:
         hosts[ number ] = random.percent( 60 ) ? 1 + random.below( 4 ) : 101 + random.below( 6 );
         return host( number, 1,
                      next( hosts[ number ] < 100 ? "lb" : "dest", hosts[ number ] % 100 ) );
      }
   }
   // What is forwarded, and the nexthops that takes: VTEPs, and sets of them.
   std::pair<Forwarding, std::set<std::string>> wanted() const {
      std::pair<Forwarding, std::set<std::string>> all;
      for( const auto& [ number, group ] : hosts ) {
         std::set<std::string> remotes;
         for( const unsigned id : groups.at( group ) )
            remotes.insert( dests.at( id ) );
         std::string text = "vx10";
         for( const std::string& remote : remotes )
            text += " " + remote;
         const bool shared = text.find( "vni" ) == text.npos; // one with a VNI of its own is not
         if( shared || remotes.size() == 1 )
            all.first[ mac( number ) ] = text;
         if( shared )
            all.second.insert( text );
         if( shared )
            all.second.insert( remotes.begin(), remotes.end() );
      }
      return all;
   }
   std::string foreignHand() {
      const std::string address = mac( random.below( 40 ) );
      const std::string gone = "bridge fdb del " + address + " dev vx10 ";
      const std::string added = "bridge fdb add " + address + " dev vx10 extern_learn ";
      const std::vector<std::string> hands{
         gone + "self; " + added + "self dst 192.0.2.66",
         added + "self dst 192.0.2.66; " + added + "master",
         gone + "master; bridge fdb del 00:00:00:00:00:00 dev vx10 self",
         "ip nexthop flush proto 76",
         "ip nexthop del id 7600001; ip nexthop del id 7600002",
         "ip link del vx10; " + newVx10,
         "ip link set vx10 nomaster; ip link set vx10 master br10 down; ip link set vx10 up" };
      return hands[ random.below( hands.size() ) ];
   }
};

} // namespace BridgeSupport
