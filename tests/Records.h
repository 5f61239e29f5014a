// Records in short; the tables of an output; and what an object of them comes to.
#pragma once

#include "L2Rib/FloodRecords.h"
#include "L2Rib/L2RibTarn.h"

#include <initializer_list>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace L2Rib::Test {

using Bridging::MacVlanPair;
using Vexil::makeEntity;
using Vexil::Ptr;

inline MacVlanPair mvp( uint64_t mac, uint32_t vlan = 10 ) {
   return MacVlanPair( Vexil::EthAddr( 0x020000000000 + mac ), Bridging::VlanId( vlan ) );
}

inline Host inlineHost( const MacVlanPair& key, uint64_t value, uint32_t pref = 100,
                        uint32_t seqNo = 0 ) {
   Host host( key );
   host.prefIs( pref );
   host.seqNoIs( Vexil::Seqno32( seqNo ) );
   CiDest dest( 0 );
   dest.payloadIs( value );
   host.ciDestIs( dest );
   return host;
}

inline Host objectHost( const MacVlanPair& key, const ObjTuple& next, uint32_t pref = 100,
                        uint32_t seqNo = 0 ) {
   Host host = inlineHost( key, 0, pref, seqNo );
   host.nextIs( next );
   return host;
}

inline Host vtepHost( const MacVlanPair& key, std::initializer_list<const char*> vteps ) {
   Host host = inlineHost( key, 0 );
   CiDest dest( destTypeVxlan_ );
   uint32_t at = 0;
   for( const char* vtep : vteps )
      dest.vtepIs( CiVtepIndex( at++ ), *Vexil::IpGenAddr::parse( vtep ) );
   host.ciDestIs( dest );
   return host;
}

inline ObjTuple dest( uint64_t id ) { return ObjTuple( DestId( id ) ); }
inline ObjTuple lb( uint64_t id ) { return ObjTuple( LoadBalanceId( id ) ); }
inline ObjTuple label( uint64_t id ) { return ObjTuple( LabelId( id ) ); }

inline Dest intfDest( uint64_t id, uint64_t interface ) {
   Dest made{ DestId( id ) };
   made.intfIs( { interface } );
   return made;
}
inline LoadBalance group( uint64_t id, const std::vector<ObjTuple>& nexts ) {
   LoadBalance made{ LoadBalanceId( id ) };
   for( uint32_t at = 0; at < nexts.size(); ++at )
      made.nextIs( EcmpIndex( at ), nexts[ at ] );
   return made;
}
inline Label push( uint64_t id, uint32_t value, const ObjTuple& next ) {
   return Label( LabelId( id ), next, Vexil::MplsLabel( value ) );
}

inline Dest floodDest( uint64_t interface ) {
   Dest made{ Util::destIdNotInTarn() };
   made.intfIs( { interface } );
   return made;
}
inline FloodMember floodMember( uint32_t vlan, uint64_t mac, uint64_t interface,
                                FloodSetType type = floodSetTypeAny_ ) {
   return {
      FloodSetTriple( Bridging::VlanId( vlan ), Vexil::EthAddr( mac ), floodDest( interface ) ),
      type };
}

inline const Dest& bare( const Dest& row ) { return row; }
inline const Label& bare( const Label& row ) { return row; }
inline const LoadBalance& bare( const LoadBalance& row ) { return row; }
inline Dest bare( const DestAndSource& row ) { return row.dest(); }
inline Label bare( const LabelAndSource& row ) { return row.label(); }
inline LoadBalance bare( const LoadBalanceAndSource& row ) { return row.lb(); }

// What an object comes to, written out to its leaves: the same for a source's object and for its
// output copy, whatever their ids. nullopt when something is missing or the chain has no end.
template<class Tables>
std::optional<std::string> expansion( const Tables& tables, const ObjTuple& ot,
                                      std::set<ObjTuple>* met = nullptr, unsigned depth = 1 ) {
   std::string text;
   std::vector<ObjTuple> nexts;
   if( met )
      met->insert( ot );
   if( ot.tableType() == tableTypeDest_ ) {
      Dest found = bare( tables.dest->dest( ot.destId() ) );
      if( found.key() == ot.destId() && found.destType() == objDestTypeIntf_ )
         return "intf " + std::to_string( found.intf().intf.value() );
      if( found.key() == ot.destId() ) {
         found.keyIs( DestId() );
         return found.str();
      }
   } else if( ot.tableType() == tableTypeLabel_ ) {
      const Label found = bare( tables.label->label( ot.labelId() ) );
      if( found.key() == ot.labelId() )
         nexts = { found.next() };
      text = "push " + found.label().str();
   } else if( ot.tableType() == tableTypeLoadBalance_ ) {
      const LoadBalance found = bare( tables.lb->lb( ot.lbId() ) );
      if( found.key() == ot.lbId() )
         nexts.assign( found.used().begin(), found.used().end() );
      text = "group";
   }
   if( nexts.empty() || depth > 64 )
      return std::nullopt;
   text += " (";
   for( const ObjTuple& next : nexts ) {
      const auto below = expansion( tables, next, met, depth + 1 );
      if( !below )
         return std::nullopt;
      text += " " + *below;
   }
   return text + " )";
}

// The same of what a host's row points to.
template<class Tables>
std::string resolved( const Tables& tables, const HostAndSource& row,
                      std::set<ObjTuple>* met = nullptr ) {
   return row.next() == Util::objTupleInvalid()
             ? row.host().ciDest().str()
             : expansion( tables, row.next(), met ).value_or( "dangling" );
}

// The tables of an output in a state directory: those that are there, or new ones.
struct OutputFiles {
   explicit OutputFiles( const std::string& state, uint32_t newCapacity = 0 )
      : state_( state ), capacity_( newCapacity ) {}

   const std::string state_;
   const uint32_t capacity_;
   const Ptr<HostOutput> host = table<HostOutput>( Path::hostOutput );
   const Ptr<LoadBalanceOutput> lb = table<LoadBalanceOutput>( Path::lbOutput );
   const Ptr<LabelOutput> label = table<LabelOutput>( Path::labelOutput );
   const Ptr<DestOutput> dest = table<DestOutput>( Path::destOutput );
   const Ptr<FloodMemberTable> flood = table<FloodMemberTable>( Path::floodOutput );
   const Ptr<FloodSourceTable> floodSource = table<FloodSourceTable>( Path::floodOutputSource );

   template<class Table>
   Ptr<Table> table( const char* path ) const {
      return makeEntity<Table>( state_ + "/" + path,
                                capacity_ ? Table::Mode::write : Table::Mode::read, capacity_ );
   }
   // The file of each, and how often it was written to, ever.
   std::vector<uint64_t> writes() const {
      std::vector<uint64_t> all;
      for( const Vexil::TableBase* const table : std::initializer_list<const Vexil::TableBase*>{
              host.get(), lb.get(), label.get(), dest.get(), flood.get(), floodSource.get() } )
         all.insert( all.end(), { table->tableId(), table->journalHead() } );
      return all;
   }
};

} // namespace L2Rib::Test
