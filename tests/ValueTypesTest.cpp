// The value types: text, order, equality, hashes, and the bytes that other processes see.
#include "L2Rib/FloodSets.h"
#include "L2Rib/L2Rib.h"
#include "L2Rib/Layout.h"
#include "L2Rib/SourceDir.h"
#include "runtime/Clock.h"
#include "tests/Records.h"
#include "tests/TestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstring>
#include <map>
#include <random>
#include <regex>
#include <sstream>
#include <vector>

// The names are those of whoever uses the types from a namespace of their own.
static_assert( Util::mvpInvalid() == Bridging::MacVlanPair() &&
               Util::otasInvalid() == L2Rib::ObjTupleAndSource() );
static_assert( L2Rib::ObjId( L2Rib::LoadBalanceId( 7 ) ) == L2Rib::ObjId( 7 ) );
static_assert( Seqno32( 1 ) < Seqno32( 2 ) );

using namespace Bridging;
using namespace Vexil;

namespace L2Rib {
namespace {

IpGenAddr ip( const char* address ) { return IpGenAddr::parse( address ).value(); }

CiDest vxlan( std::initializer_list<const char*> vteps ) {
   return Test::vtepHost( {}, vteps ).ciDest();
}
CiDest plain( uint64_t payload ) { return Test::inlineHost( {}, payload ).ciDest(); }

// The record with a 32-bit field overwritten, as a process that goes wrong might leave it.
template<class T>
T withWord( T record, size_t offset, uint32_t word ) {
   std::memcpy( reinterpret_cast<char*>( &record ) + offset, &word, sizeof word );
   return record;
}

template<class... Values>
std::string lines( const Values&... values ) {
   std::ostringstream to;
   to << std::hex; // the stream's flags are not to show
   ( ( to << values << "\n" ), ... );
   return to.str();
}

TEST( ValueTypes, TextForms ) {
   const ObjTupleAndSource otas( ObjTuple( DestId( 12 ) ), Source( 0x40 ) );
   const MacVlanPair mvp( EthAddr( 0x020000000001 ), VlanId( 10 ) );
   Host host( mvp ), inlineHost( mvp );
   host.nextIs( ObjTuple( LoadBalanceId( 7 ) ) );
   host.updateTimeIs( 1700000000.25 );
   inlineHost.ciDestIs( vxlan( { "10.0.0.1", "10.0.0.2" } ) );
   Dest tunnel( DestId( 2 ) ), mpls( DestId( 3 ) ), intf( DestId( 4 ) ),
      flood( Util::destIdNotInTarn() );
   tunnel.tunnelIs( { ip( "10.0.0.1" ), ip( "10.0.0.2" ), 0, 64 } );
   mpls.mplsIs( { 12, 2, { MplsLabel( 100 ), MplsLabel( 200 ) } } );
   intf.intfIs( { 12 } );
   flood.vxlanIs( { ip( "2001:db8::1" ), 10010 } );
   LoadBalance group( LoadBalanceId( 7 ) );
   group.nextIs( EcmpIndex( 1 ), otas.ot() );
   const std::string text = lines(
      mvp, Util::mvpInvalid(), MacVlanPair( EthAddr(), VlanId( 1 ) ), mvpStr( mvp ), DestId( 31 ),
      MplsLabel::none, IpGenAddr(), IpGenAddr( 77, {} ), otas, Util::objTupleInvalid(),
      Util::otasInvalid(), ObjTuple( ObjId( 5 ), TableType( 99 ) ), sourceBit31_, sourceNone_,
      floodSetTypeAny_, tableTypeLabel_, host, HostAndSource( mvp, inlineHost, sourceStatic_ ),
      plain( 1u << 31 ), CiDest( -2 ), tunnel, mpls, DestAndSource( intf, otas ),
      withWord( intf, 8, 9 ), group, Label( LabelId( 3 ), otas.ot(), MplsLabel( 16 ) ),
      FloodSetTriple( VlanId( 10 ), EthAddr( 0xffffffffffff ), flood ) );
   EXPECT_EQ( text, R"((02:00:00:00:00:01/10)
(MVP INVALID)
(00:00:00:00:00:00/1)
(02:00:00:00:00:01/10)
31
none
(unset)
(family 77 bytes 00000000000000000000000000000000)
dest/12 from 0x40
(invalid)
(invalid)
99/5
0x80000000
0x0
floodSetTypeAny
tableTypeLabel
{ (02:00:00:00:00:01/10) seqNo 0 pref 0 entryType 0 updateTime 1700000000.25 next lb/7 }
{ (02:00:00:00:00:01/10) seqNo 0 pref 0 entryType 0 updateTime 0 inline vteps [ 10.0.0.1 10.0.0.2 ] } from 0x10
value 2147483648
(destType -2 value 0 vteps [ ])
{ dest/2 tunnel 10.0.0.1 to 10.0.0.2 tos 0 ttl 64 }
{ dest/3 mpls intf 12 labels [ 100 200 ] }
{ dest/4 intf 12 } copy of dest/12 from 0x40
{ dest/4 (destType 9) }
{ lb/7 nexts 2: (invalid) dest/12 }
{ label/3 push 16 next dest/12 }
10/ff:ff:ff:ff:ff:ff { flood dest vxlan 2001:db8::1 vni 10010 }
)" );
}

TEST( ValueTypes, ParseTakesItsOwnTextAndNothingElse ) {
   EXPECT_EQ( EthAddr::parse( "AB:cd:0E:00:00:01" ).value().str(), "ab:cd:0e:00:00:01" );
   for( const char* bad : { "", "2:0:0:0:0:1", "02-00-00-00-00-01", "02:00:00:00:00:0g",
                            "02:00:00:00:00:01 ", "02:00:00:00:00:-1", "02:00:00:00:0:001" } )
      EXPECT_FALSE( EthAddr::parse( bad ) ) << bad;
   for( const char* good : { "10.0.0.1", "255.255.255.255", "2001:db8::1", "::" } )
      EXPECT_EQ( ip( good ).str(), good );
   for( const std::string& bad : { std::string(), std::string( "10.0.0" ), std::string( 99, '1' ),
                                   std::string( "10.0.0.1\0", 9 ), std::string( "::1%lo" ) } )
      EXPECT_FALSE( IpGenAddr::parse( bad ) ) << bad;
   for( const FloodSetType type : { floodSetTypeInvalid_, floodSetTypeVxlan_, floodSetTypeAny_ } )
      EXPECT_EQ( floodSetTypeParse( floodSetTypeStr( type ) ), type );
   for( const Source source : { sourceNone_, sourceStatic_, sourceBit31_ } )
      EXPECT_EQ( sourceParse( sourceStr( source ) ), source );
   for( const char* bad : { "", "40", "0x", "0x40 ", "0xg", "0x100000000", "0x-1" } )
      EXPECT_FALSE( sourceParse( bad ) ) << bad;
   const auto bothWays = []<class Enum>( Enum, uint32_t last ) {
      for( uint32_t value = 0; value <= last; ++value )
         EXPECT_EQ( enumParse<Enum>( enumText( Enum( value ) ) ), Enum( value ) );
      for( const char* bad : { "", "destType", " 0", "00", "99999999999" } )
         EXPECT_FALSE( enumParse<Enum>( bad ) ) << bad;
   };
   bothWays( TableType(), 5 );
   bothWays( CiDestType(), 5 );
   bothWays( DestType(), 5 );
   bothWays( EntryType(), 5 );
   bothWays( FloodSetType(), 5 );
   bothWays( Source(), 70 );
   EXPECT_EQ( enumText( sourceBit6_ ), "sourceBit6" );
   EXPECT_EQ( enumText( destTypeVxlan_ ), "destTypeVxlan" );
}

// A slice asks whether its time is over: never told so too early, and not late by long either,
// though a machine that stands still for a while may hold up the kernel's tick.
TEST( SystemClock, IsPastAgreesWithNow ) {
   const Vexil::SystemClock clock;
   for( const Seconds left : { -1.0, 0.0, 0.001, 0.02 } ) {
      const Seconds deadline = clock.now() + left;
      for( bool past = false; !past; ) {
         const Seconds before = clock.now();
         past = clock.isPast( deadline );
         ASSERT_TRUE( past ? clock.now() > deadline : before < deadline + 0.5 ) << left;
      }
   }
}

TEST( ValueTypes, CiDestCmp ) {
   const std::pair<CiDest, CiDest> ascending[] = {
      { plain( 4294967295 ), plain( 4294967296 ) },
      { plain( 1 ), plain( UINT64_MAX ) }, // unsigned
      { plain( UINT64_MAX ), vxlan( {} ) },
      { CiDest( -1 ), plain( 0 ) },                                     // the kind is signed
      { vxlan( { "10.0.0.9" } ), vxlan( { "10.0.0.1", "10.0.0.2" } ) }, // by count alone
      { vxlan( { "10.0.0.9" } ), withWord( vxlan( {} ), 12, 0x80000000 ) },
      { vxlan( { "127.0.0.1" } ), vxlan( { "128.0.0.1" } ) },
      { vxlan( { "10.0.0.1", "10.0.0.2" } ), vxlan( { "10.0.0.1", "10.0.0.3" } ) },
      { vxlan( { "255.0.0.1" } ), vxlan( { "1::" } ) }, // family first
   };
   for( const auto& [ less, greater ] : ascending ) {
      EXPECT_EQ( less.cmp( greater ), -1 ) << less << " " << greater;
      EXPECT_EQ( greater.cmp( less ), 1 ) << less << " " << greater;
      EXPECT_NE( less, greater );
   }
   for( const CiDest& dest : { plain( 7 ), vxlan( {} ), vxlan( { "10.0.0.1", "10.0.0.2" } ) } )
      EXPECT_EQ( dest.cmp( dest ), 0 ) << dest;
   EXPECT_EQ( vxlan( { "1::" } ), withWord( vxlan( { "1::", "2::" } ), 12, 1 ) ); // unused slot

   // Three VTEPs, one more than there are slots: fatal to a walk only when it gets that far.
   const CiDest three = withWord( vxlan( { "10.0.0.1", "10.0.0.2" } ), 12, 3 );
   EXPECT_EQ( three.vteps().size(), 2u );
   EXPECT_EQ( three.cmp( withWord( vxlan( { "10.0.0.1", "10.0.0.3" } ), 12, 3 ) ), -1 );
   EXPECT_THROW( three.cmp( three ), RangeFailure );
}

// A strict total order that agrees with equality, and hashes that agree with equality and spread
// over the high bits, which is where tables look.
template<class Key, class Make>
void checkKey( Make make ) {
   std::mt19937 random( 20 );
   std::map<uint64_t, Key> seen;
   std::array<size_t, 64> buckets{};
   for( int i = 0; i < 4000; ++i ) {
      const Key a = make( random ), b = make( random ), c = make( random );
      ASSERT_EQ( ( a < b ) + ( b < a ) + ( a == b ), 1 ) << a << " " << b;
      ASSERT_TRUE( !( a < b && b < c ) || a < c ) << a << " " << b << " " << c;
      ASSERT_TRUE( a != b || a.hash() == b.hash() ) << a;
      ASSERT_EQ( a == b, a.str() == b.str() ) << a << " " << b;
      const auto [ at, isNew ] = seen.emplace( a.hash(), a );
      ASSERT_EQ( at->second, a ) << "one hash for two keys";
      buckets[ a.hash() >> 58 ] += isNew;
   }
   for( const size_t inBucket : buckets )
      EXPECT_LT( inBucket, 2 * seen.size() / 64 + 16 ) << "crowded high bits";
}

// Fields with small numbers, as honest and other processes leave them; most are zero.
template<class Record>
Record sparse( std::mt19937& random ) {
   Record record;
   for( int i = 0; i < 4; ++i )
      record = withWord( record, random() % ( sizeof record / 4 ) * 4, random() % 4 );
   return record;
}

TEST( ValueTypes, OrderEqualityAndHashAgree ) {
   const auto mac = []( auto& r ) { return EthAddr( r() % 8 | uint64_t( r() % 8 ) << 40 ); };
   const auto vlan = []( auto& r ) { return VlanId( r() % 32 ); };
   const auto ot = []( auto& r ) { return ObjTuple( ObjId( r() % 64 ), TableType( r() % 4 ) ); };
   const auto dest = []( auto& r ) {
      Dest dest( Util::destIdNotInTarn() );
      r() % 2 ? dest.intfIs( { r() % 4 } ) : dest.vxlanIs( { IpGenAddr(), uint32_t( r() % 4 ) } );
      return dest;
   };
   checkKey<MacVlanPair>( [ & ]( auto& r ) { return MacVlanPair( mac( r ), vlan( r ) ); } );
   checkKey<ObjTuple>( ot );
   checkKey<ObjTupleAndSource>(
      [ & ]( auto& r ) { return ObjTupleAndSource( ot( r ), Source( 1u << r() % 4 ) ); } );
   checkKey<LabelId>( []( auto& r ) { return LabelId( uint64_t( r() % 999 ) << r() % 2 * 32 ); } );
   checkKey<FloodSetTriple>(
      [ & ]( auto& r ) { return FloodSetTriple( vlan( r ), mac( r ), dest( r ) ); } );
   checkKey<CiDest>( sparse<CiDest> );
   checkKey<Host>( sparse<Host> );
   checkKey<LoadBalance>( sparse<LoadBalance> );
   checkKey<Label>( sparse<Label> );
   checkKey<HostAndSource>( sparse<HostAndSource> );
   checkKey<LoadBalanceAndSource>( sparse<LoadBalanceAndSource> );
   checkKey<LabelAndSource>( sparse<LabelAndSource> );
}

// A change of an attribute or of one key is told once; setting what is there tells nothing.
TEST( Entities, TellWhatChanged ) {
   struct Told : Reactor<SourceDirEntry> {
      using Reactor::Reactor;
      void handleSource() override { ++count; }
      void handleHostTableTarnPath() override { ++count; }
      void handleDestTableLen() override { ++count; }
      int count = 0;
   };
   const auto entry = makeEntity<SourceDirEntry>( "evpn" );
   Told told( entry );
   for( int again = 0; again < 2; ++again ) {
      entry->sourceIs( sourceBit6_ );
      entry->hostTableTarnPathIs( "a/b" );
      entry->destTableLenIs( 7 );
   }
   EXPECT_EQ( told.count, 3 );
   entry->sourceDel();
   EXPECT_EQ( entry->source(), sourceNone_ );
   EXPECT_EQ( told.count, 4 );

   struct Members : Reactor<FloodSet> {
      using Reactor::Reactor;
      void handleDestSet( const Dest& ) override { ++count; }
      int count = 0;
   };
   const auto set = makeEntity<FloodSet>();
   Members members( set );
   for( const bool value : { false, true, true, false, false, true } )
      set->destSetIs( Dest( DestId( 1 ) ), value );
   EXPECT_EQ( members.count, 3 );
   set->destSetIs( Dest( DestId( 2 ) ), true );
   set->destSetDelAll();
   EXPECT_TRUE( set->destSet().empty() );
   EXPECT_EQ( members.count, 6 );
}

// An entity that enters itself somewhere while it is being made lives on.
TEST( Entities, MayReferToThemselvesFromTheStart ) {
   struct Child : Entity {
      explicit Child( std::vector<Ptr<Child>>& all ) {
         const Ptr<Child> self( this );
         EXPECT_EQ( referenceCount(), 2u );
         all.push_back( self );
      }
   };
   std::vector<Ptr<Child>> all;
   const auto made = makeEntity<Child>( all );
   EXPECT_EQ( made->referenceCount(), 2u );
}

// Tables of running systems hash with these: a new value is a new table format.
TEST( ValueTypes, HashesAreTheFormat ) {
   const EthAddr mac( 0x020000000001 );
   const ObjTuple ot( LoadBalanceId( 7 ) );
   Dest dest( Util::destIdNotInTarn() );
   dest.vxlanIs( { ip( "10.0.0.9" ), 10010 } );
   EXPECT_EQ( mac.hash(), 0x332fa3b97f4a7c15 );
   EXPECT_EQ( withWord( mac, 4, 0xffff0100 ).hash(), mac.hash() ); // padding is not read
   EXPECT_EQ( VlanId( 10 ).hash(), 0x6519f333ff83e7be );
   EXPECT_EQ( MacVlanPair( mac, VlanId( 10 ) ).hash(), 0x46a8fde3d2bf8f91 );
   EXPECT_EQ( ot.hash(), 0xb4fd2b980a7b907a );
   EXPECT_EQ( ObjTupleAndSource( ot, sourceBit6_ ).hash(), 0x74874340cd33540d );
   EXPECT_EQ( DestId( 7 ).hash(), 0x740729cbe468d1dd );
   EXPECT_EQ( MplsLabel( 1000 ).hash(), 0xaf002c114878da41 );
   EXPECT_EQ( dest.hash(), 0xc11fa1ff5a15b37c );
   EXPECT_EQ( FloodSetTriple( VlanId( 10 ), mac, dest ).hash(), 0xd8d38b487edbaed5 );
}

TEST( ValueTypes, BytesOfAHost ) {
   Host host( MacVlanPair( EthAddr( 0x020304050607 ), VlanId( 4094 ) ) );
   host.seqNoIs( Seqno32( 0x11121314 ) );
   host.prefIs( 0x21222324 );
   host.updateTimeIs( 1.5 );
   host.entryTypeIs( entryTypeStatic_ );
   host.nextIs( ObjTuple( ObjId( 0x3132333435363738 ), tableTypeLabel_ ) );
   host.ciDestIs( withWord( vxlan( { "10.0.0.1", "2001:db8::2" } ), 4, 0x41424344 ) );
   const HostAndSource row( host.key(), host, sourceBit31_ );
   std::string expected = "020304050607 0000 fe0f0000 "         // row key: MAC, padding, VLAN
                          "020304050607 0000 fe0f0000 "         // host key
                          "14131211 24232221 000000000000f83f " // seqNo, pref, updateTime
                          "04000000 3837363534333231 02000000 " // entryType, next
                          "01000000 4443424100000000 02000000 " // kind, payload, VTEP count
                          "02000000 0a000001000000000000000000000000 " // IPv4
                          "0a000000 20010db8000000000000000000000002 " // IPv6
                          "00000080";                                  // source
   std::erase( expected, ' ' );
   std::string hex;
   for( const uint8_t byte : std::bit_cast<std::array<uint8_t, sizeof row>>( row ) )
      hex += { "0123456789abcdef"[ byte >> 4 ], "0123456789abcdef"[ byte & 15 ] };
   EXPECT_EQ( hex, expected );

   for( size_t i = 0; i < sizeof row; ++i ) { // equality sees every byte that is not padding
      HostAndSource other = row;
      reinterpret_cast<uint8_t*>( &other )[ i ] ^= 0x80;
      EXPECT_EQ( other == row, i == 6 || i == 7 || i == 18 || i == 19 ) << "byte " << i;
   }
}

TEST( ValueTypes, NextsOfAGroup ) {
   LoadBalance group( LoadBalanceId( 7 ) );
   group.nextIs( EcmpIndex( 2 ), ObjTuple( DestId( 1 ) ) );
   group.nextIs( EcmpIndex( 0 ), ObjTuple( LabelId( 2 ) ) );
   EXPECT_EQ( group.nexts(), 3u );
   group.nextIs( EcmpIndex( 2 ), Util::objTupleInvalid() );
   EXPECT_EQ( group.nexts(), 1u );
   LoadBalance wild = group;
   wild.nextsIs( 4000000000 );
   EXPECT_EQ( wild.used().size(), 16u );
   EXPECT_NE( wild, group );
   wild.nextsIs( 1 );
   EXPECT_EQ( wild, group );
   EXPECT_EQ( wild.next( EcmpIndex( 0 ) ), ObjTuple( LabelId( 2 ) ) );
   wild = withWord( wild, 200, 0 ); // what is past the count is no value, and never becomes one
   EXPECT_EQ( wild, LoadBalance( LoadBalanceId( 7 ) ) );
   wild.nextIs( EcmpIndex( 1 ), ObjTuple( DestId( 1 ) ) );
   EXPECT_EQ( wild.next( EcmpIndex( 0 ) ), Util::objTupleInvalid() );
}

template<class Index>
std::string rangeText( uint32_t value ) {
   try {
      return std::to_string( Index( value ).value() );
   } catch( const RangeFailure& failure ) {
      return failure.what();
   }
}

TEST( ValueTypes, Failures ) {
   EXPECT_EQ( rangeText<EcmpIndex>( 15 ) + rangeText<CiVtepIndex>( 1 ), "151" );
   EXPECT_EQ( rangeText<EcmpIndex>( 16 ),
              "EcmpIndex::value < EcmpIndex::min or > EcmpIndex::max not allowed" );
   EXPECT_EQ( rangeText<CiVtepIndex>( 2 ),
              "CiVtepIndex::value < CiVtepIndex::min or > CiVtepIndex::max not allowed" );

   const ObjTuple lb( LoadBalanceId( 7 ) ), dest( DestId( 7 ) );
   EXPECT_EQ( dest.destId(), DestId( lb.lbId().value() ) );
   EXPECT_DEATH( lb.destId(), "assertion failed: tableType\\(\\) == tableTypeDest_," );
   EXPECT_DEATH( dest.lbId(), "assertion failed: tableType\\(\\) == tableTypeLoadBalance_," );
   EXPECT_DEATH( dest.labelId(), "assertion failed: tableType\\(\\) == tableTypeLabel_," );
   EXPECT_DEATH( CiDest( 2 ).cmp( CiDest( 2 ) ), "failed: destType\\(\\) == destTypeVxlan_," );
   EXPECT_DEATH( Dest().tunnel(), "failed: destType\\(\\) == objDestTypeTunnel_," );
}

template<class... Tables>
std::map<std::string, uint32_t> layoutsOf() {
   return { { Tables::spec().typeName, Tables::spec().recordLayout }... };
}

// Whoever reads tables from another language takes the numbers from the documentation.
TEST( ValueTypes, LayoutsAreAsDocumented ) {
   std::map<std::string, uint32_t> documented;
   std::istringstream page( TestSupport::bytesOf( TABLE_FORMAT_PAGE ) );
   const std::regex row( "\\| `([A-Za-z0-9]+::\\w+)` \\|.*`0x([0-9a-f]{8})` \\|" );
   for( std::string line; std::getline( page, line ); )
      if( std::smatch found; std::regex_search( line, found, row ) )
         documented[ found[ 1 ] ] = static_cast<uint32_t>( std::stoul( found[ 2 ], nullptr, 16 ) );
   EXPECT_EQ(
      ( layoutsOf<HostInput, LoadBalanceTable, LabelTable, DestTable, HostOutput, LoadBalanceOutput,
                  LabelOutput, DestOutput, FloodMemberTable, FloodSourceTable, SourceEntryTable,
                  PolicySmStatusTable, AgentStatusTable, SourceStatusTable, ParkedTable,
                  BridgeProgramTable, BridgeTable, BridgeHostTable, BridgeGroupTable,
                  BridgeRefusedTable, EvpnProgramTable, EvpnPeerTable, EvpnVlanTable,
                  Bridging::ConfiguredHostTable, Bridging::TunnelTable>() ),
      documented );
   EXPECT_NE( layoutText<HostAndSource>().find( "pref 16 4" ), std::string::npos );
}

} // namespace
} // namespace L2Rib
