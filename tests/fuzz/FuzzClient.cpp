// The operations of the client library on records of any content: what is accepted is a sound
// record, and is in the table; what is refused has changed nothing.
#include "tests/fuzz/FuzzSupport.h"

#include "client/SourcePublisher.h"

using namespace L2Rib;
using namespace L2Rib::Client;
using Fuzz::require;

namespace {

constexpr uint32_t capacity = 4;

// The publisher, and its tables as the agent has them.
struct Published {
   SourcePublisher source{ { .stateDirectory = Fuzz::folder().file( "state" ),
                             .name = "fuzz",
                             .value = sourceBit6_,
                             .hostCapacity = capacity,
                             .objectCapacity = capacity,
                             .floodCapacity = capacity } };
   HostInput hosts = table<HostInput>( "hostInput" );
   LoadBalanceTable lbs = table<LoadBalanceTable>( "loadBalanceTable" );
   LabelTable labels = table<LabelTable>( "labelTable" );
   DestTable dests = table<DestTable>( "destTable" );
   FloodMemberTable floods = table<FloodMemberTable>( "floodSets" );

   template<class Table>
   static Table table( const std::string& name ) {
      return Table( Fuzz::folder().file( "state/" + SourceFolder::tablePath( "fuzz", name ) ),
                    Table::Mode::read );
   }
};

Published& published() {
   static Published made;
   return made;
}

template<class Table, class Key, class Record, class Write>
void set( const Table& table, const Key& key, const Record& record, Write write ) {
   const uint64_t before = table.journalHead();
   if( write( record ) ) {
      require( table.journalHead() == before, "what is refused changes nothing" );
      return;
   }
   require( !faultIn( record ), "what is accepted is sound" );
   require( table.contains( key ), "what is accepted is there" );
}

template<class Table, class Key, class Write>
void erase( const Table& table, const Key& key, Write write ) {
   if( !write( key ) )
      require( !table.contains( key ), "what was deleted is gone" );
}

void operate( Fuzz::Input& from ) {
   Published& all = published();
   SourcePublisher& source = all.source;
   switch( from.take<uint8_t>() % 14 ) {
   case 0: {
      const auto host = from.take<Host>();
      return set( all.hosts, host.key(), host,
                  [ & ]( const Host& h ) { return source.hostIs( h ); } );
   }
   case 1: {
      const auto dest = from.take<Dest>();
      return set( all.dests, dest.key(), dest,
                  [ & ]( const Dest& d ) { return source.destIs( d ); } );
   }
   case 2: {
      const auto lb = from.take<LoadBalance>();
      return set( all.lbs, lb.key(), lb,
                  [ & ]( const LoadBalance& g ) { return source.lbIs( g ); } );
   }
   case 3: {
      const auto label = from.take<Label>();
      return set( all.labels, label.key(), label,
                  [ & ]( const Label& l ) { return source.labelIs( l ); } );
   }
   case 4: {
      const auto member = from.take<FloodMember>();
      return set( all.floods, member.triple, member,
                  [ & ]( const FloodMember& m ) { return source.floodIs( m ); } );
   }
   case 5:
      return erase( all.hosts, from.take<Bridging::MacVlanPair>(),
                    [ & ]( const auto& key ) { return source.hostDel( key ); } );
   case 6:
      return erase( all.dests, from.take<DestId>(),
                    [ & ]( DestId id ) { return source.destDel( id ); } );
   case 7:
      return erase( all.lbs, from.take<LoadBalanceId>(),
                    [ & ]( LoadBalanceId id ) { return source.lbDel( id ); } );
   case 8:
      return erase( all.labels, from.take<LabelId>(),
                    [ & ]( LabelId id ) { return source.labelDel( id ); } );
   case 9:
      return erase( all.floods, from.take<FloodMemberKey>(),
                    [ & ]( const auto& triple ) { return source.floodDel( triple ); } );
   case 10:
      (void)source.begin();
      return;
   case 11:
      (void)source.end();
      return;
   case 12:
      source.clear();
      require( all.hosts.count() == 0 && all.floods.count() == 0, "clear leaves nothing" );
      return;
   default:
      source.initializedIs( from.take<uint8_t>() & 1 );
      source.flush();
   }
}

} // namespace

std::vector<std::string> Fuzz::seeds() {
   Host host( { Vexil::EthAddr( 0x020000000001 ), Bridging::VlanId( 10 ) } );
   host.nextIs( ObjTuple( LoadBalanceId( 1 ) ) );
   Host plain( { Vexil::EthAddr( 0x020000000002 ), Bridging::VlanId( 10 ) } );
   CiDest vteps( destTypeVxlan_ );
   vteps.vtepIs( CiVtepIndex( 0 ), *Vexil::IpGenAddr::parse( "192.0.2.1" ) );
   vteps.vtepIs( CiVtepIndex( 1 ), *Vexil::IpGenAddr::parse( "192.0.2.2" ) );
   plain.ciDestIs( vteps );
   Dest dest( DestId( 1 ) ), member( Util::destIdNotInTarn() );
   dest.tunnelIs( { vteps.vteps()[ 0 ], vteps.vteps()[ 1 ], 0, 64 } );
   member.mplsIs( { 12, 2, { Vexil::MplsLabel( 100 ), Vexil::MplsLabel( 200 ) } } );
   LoadBalance lb( LoadBalanceId( 1 ) );
   lb.nextIs( EcmpIndex( 0 ), ObjTuple( DestId( 1 ) ) );
   lb.nextIs( EcmpIndex( 15 ), ObjTuple( LabelId( 1 ) ) );
   const Label label( LabelId( 1 ), ObjTuple( DestId( 1 ) ), Vexil::MplsLabel( 1000 ) );
   const FloodMember flood{ FloodSetTriple( Bridging::VlanId( 10 ), Vexil::EthAddr( 1 ), member ),
                            floodSetTypeVxlan_ };
   const auto op = []( uint8_t number, const auto& record ) { return bytes( number, record ); };
   return { op( 0, host ),
            op( 0, plain ) + op( 5, plain.key() ),
            op( 1, dest ) + op( 6, dest.key() ),
            op( 2, lb ) + op( 7, lb.key() ),
            op( 3, label ) + op( 8, label.key() ),
            op( 4, flood ) + op( 9, flood.triple ),
            op( 0, host ) + bytes( uint8_t( 10 ) ) + op( 0, plain ) + bytes( uint8_t( 11 ) ),
            op( 13, uint8_t( 1 ) ) + bytes( uint8_t( 12 ) ) };
}

extern "C" int LLVMFuzzerTestOneInput( const uint8_t* data, size_t size ) {
   Fuzz::Input from( data, size );
   published().source.clear();
   while( !from.empty() )
      operate( from );
   (void)published().source.end();
   return 0;
}
