// The operations of the client library on records of any content: what is accepted is a sound
// record, and is in the table; what is refused has changed nothing.
#include "tests/Records.h"
#include "tests/fuzz/Published.h"

using namespace L2Rib;
using namespace L2Rib::Client;
using namespace L2Rib::Test;
using Fuzz::Published;
using Fuzz::require;

namespace {

Published& published() {
   static Published made;
   return made;
}

// Writes a record, or deletes what stands under a key.
template<class Record, class Key>
void change( Fuzz::Input& from, bool deletes, auto& table, auto write, auto erase ) {
   SourcePublisher& source = published().source;
   if( deletes ) {
      const auto key = from.take<Key>();
      const bool refused = ( source.*erase )( key ).has_value();
      Published::follow( table );
      if( !refused )
         require( !table.contains( key ), "what was deleted is gone" );
      return;
   }
   const auto record = from.take<Record>();
   Published::follow( table );
   const uint64_t before = table.journalHead();
   if( ( source.*write )( record ) ) {
      require( table.journalHead() == before, "what is refused changes nothing" );
      return;
   }
   require( !faultIn( record ), "what is accepted is sound" );
   Published::follow( table );
   require( table.contains( Vexil::TableView<Key, Record>::keyOf( record ) ),
            "what is accepted is there" );
}

void operate( Fuzz::Input& from ) {
   using Source = SourcePublisher;
   Published& all = published();
   Source& source = all.source;
   const auto number = from.take<uint8_t>() % 14;
   const bool deletes = number >= 5;
   switch( number ) {
   case 0:
   case 5:
      return change<Host, Bridging::MacVlanPair>( from, deletes, all.hosts, &Source::hostIs,
                                                  &Source::hostDel );
   case 1:
   case 6:
      return change<Dest, DestId>( from, deletes, all.dests, &Source::destIs, &Source::destDel );
   case 2:
   case 7:
      return change<LoadBalance, LoadBalanceId>( from, deletes, all.lbs, &Source::lbIs,
                                                 &Source::lbDel );
   case 3:
   case 8:
      return change<Label, LabelId>( from, deletes, all.labels, &Source::labelIs,
                                     &Source::labelDel );
   case 4:
   case 9:
      return change<FloodMember, FloodMemberKey>( from, deletes, all.floods, &Source::floodIs,
                                                  &Source::floodDel );
   case 10:
      (void)source.begin();
      return;
   case 11:
      (void)source.end();
      return;
   case 12:
      source.clear();
      Published::follow( all.hosts );
      Published::follow( all.floods );
      require( all.hosts.count() == 0 && all.floods.count() == 0, "clear leaves nothing" );
      return;
   default:
      source.initializedIs( from.take<uint8_t>() & 1 );
      source.flush();
   }
}

} // namespace

std::vector<std::string> Fuzz::seeds() {
   const Host host = objectHost( mvp( 1 ), Test::lb( 1 ) ),
              plain = vtepHost( mvp( 2 ), { "192.0.2.1", "192.0.2.2" } );
   const auto vteps = plain.ciDest().vteps();
   Dest dest( DestId( 1 ) ), member( Util::destIdNotInTarn() );
   dest.tunnelIs( { vteps[ 0 ], vteps[ 1 ], 0, 64 } );
   member.mplsIs( { 12, 2, { Vexil::MplsLabel( 100 ), Vexil::MplsLabel( 200 ) } } );
   const LoadBalance lb = group( 1, { Test::dest( 1 ), Test::label( 1 ) } );
   const Label label = push( 1, 1000, Test::dest( 1 ) );
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
