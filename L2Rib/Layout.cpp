#include "L2Rib/Layout.h"

#include "runtime/Failure.h"

#include <array>
#include <cstddef>
#include <initializer_list>
#include <type_traits>

namespace L2Rib {

// The members of each record, in their order. It is a friend of the record types.
struct RecordLayout {
   using MacVlanPair = Bridging::MacVlanPair;
   static_assert( Vexil::WireRecord<MacVlanPair, 12> && Vexil::WireRecord<Vexil::EthAddr, 8> &&
                  Vexil::WireRecord<Vexil::IpGenAddr, 20> );
   static_assert( offsetof( MacVlanPair, mac_ ) == 0 && offsetof( MacVlanPair, vlan_ ) == 8 );

   static_assert( Vexil::WireRecord<ObjTuple, 12> && Vexil::WireRecord<ObjTupleAndSource, 16> );
   static_assert( offsetof( ObjTuple, objId_ ) == 0 && offsetof( ObjTuple, tableType_ ) == 8 );
   static_assert( offsetof( ObjTupleAndSource, ot_ ) == 0 &&
                  offsetof( ObjTupleAndSource, source_ ) == 12 );

   static_assert( Vexil::WireRecord<CiDest, 56> );
   static_assert( offsetof( CiDest, destType_ ) == 0 && offsetof( CiDest, payload_ ) == 4 &&
                  offsetof( CiDest, vtepCount_ ) == 12 && offsetof( CiDest, vtep_ ) == 16 );

   static_assert( Vexil::WireRecord<Host, 100> && Vexil::WireRecord<HostAndSource, 116> );
   static_assert( offsetof( Host, key_ ) == 0 && offsetof( Host, seqNo_ ) == 12 &&
                  offsetof( Host, pref_ ) == 16 && offsetof( Host, updateTime_ ) == 20 &&
                  offsetof( Host, entryType_ ) == 28 && offsetof( Host, next_ ) == 32 &&
                  offsetof( Host, ciDest_ ) == 44 );
   static_assert( offsetof( HostAndSource, key_ ) == 0 && offsetof( HostAndSource, host_ ) == 12 &&
                  offsetof( HostAndSource, source_ ) == 112 );

   static_assert( Vexil::WireRecord<DestDataIntf, 8> && Vexil::WireRecord<DestDataMpls, 44> &&
                  Vexil::WireRecord<DestDataTunnel, 48> && Vexil::WireRecord<DestDataVxlan, 24> );
   static_assert( offsetof( DestDataMpls, labelCount ) == 8 &&
                  offsetof( DestDataMpls, labels ) == 12 &&
                  offsetof( DestDataTunnel, destination ) == 20 &&
                  offsetof( DestDataTunnel, tos ) == 40 && offsetof( DestDataTunnel, ttl ) == 44 &&
                  offsetof( DestDataVxlan, vni ) == 20 );
   static_assert( Vexil::WireRecord<Dest, 60> && Vexil::WireRecord<DestAndSource, 76> );
   static_assert( offsetof( Dest, key_ ) == 0 && offsetof( Dest, destType_ ) == 8 &&
                  offsetof( Dest, payload_ ) == 12 );
   static_assert( offsetof( DestAndSource, dest_ ) == 0 &&
                  offsetof( DestAndSource, sourceOtas_ ) == 60 );

   static_assert( Vexil::WireRecord<LoadBalance, 204> &&
                  Vexil::WireRecord<LoadBalanceAndSource, 220> );
   static_assert( offsetof( LoadBalance, key_ ) == 0 && offsetof( LoadBalance, next_ ) == 8 &&
                  offsetof( LoadBalance, nexts_ ) == 200 );
   static_assert( offsetof( LoadBalanceAndSource, lb_ ) == 0 &&
                  offsetof( LoadBalanceAndSource, sourceOtas_ ) == 204 );

   static_assert( Vexil::WireRecord<Label, 24> && Vexil::WireRecord<LabelAndSource, 40> );
   static_assert( offsetof( Label, key_ ) == 0 && offsetof( Label, next_ ) == 8 &&
                  offsetof( Label, label_ ) == 20 );
   static_assert( offsetof( LabelAndSource, label_ ) == 0 &&
                  offsetof( LabelAndSource, sourceOtas_ ) == 24 );

   static_assert( Vexil::WireRecord<FloodSetTriple, 72> );
   static_assert( offsetof( FloodSetTriple, vlan_ ) == 0 && offsetof( FloodSetTriple, mac_ ) == 4 &&
                  offsetof( FloodSetTriple, dest_ ) == 12 );

   struct Member {
      const char* name; // as in the type; an underscore at its end is not part of it
      size_t offset, width;
      std::string parts; // of which it consists; empty: a number, a text, an address
   };
   // The text of a record: all its bytes belong to the members.
   template<class T>
   static std::string list( std::initializer_list<Member> members ) {
      std::string all;
      size_t end = 0;
      for( const Member& member : members ) {
         VEXIL_ASSERT( member.offset == end );
         end += member.width;
         std::string name = member.name;
         if( name.ends_with( '_' ) )
            name.pop_back();
         all += ( all.empty() ? "" : ", " ) + name + " " + std::to_string( member.offset ) + " " +
                std::to_string( member.width ) +
                ( member.parts.empty() ? "" : " (" + member.parts + ")" );
      }
      VEXIL_ASSERT( end == sizeof( T ) );
      return all;
   }
   template<class T>
   static std::string text() {
      return of( static_cast<const T*>( nullptr ) );
   }
   // What has no members of its own; and of an array's elements, those of one.
   static std::string of( const void* ) { return {}; }
   template<class T, size_t count>
   static std::string of( const std::array<T, count>* ) {
      return text<T>();
   }

// clang-format off
#define M( member ) { #member, offsetof( T, member ), sizeof( T::member ), text<decltype( T::member )>() }
   // clang-format on
   static std::string of( const MacVlanPair* ) {
      using T = MacVlanPair;
      return list<T>( { M( mac_ ), M( vlan_ ) } );
   }
   static std::string of( const ObjTuple* ) {
      using T = ObjTuple;
      return list<T>( { M( objId_ ), M( tableType_ ) } );
   }
   static std::string of( const ObjTupleAndSource* ) {
      using T = ObjTupleAndSource;
      return list<T>( { M( ot_ ), M( source_ ) } );
   }
   static std::string of( const CiDest* ) {
      using T = CiDest;
      return list<T>( { M( destType_ ), M( payload_ ), M( vtepCount_ ), M( vtep_ ) } );
   }
   static std::string of( const Host* ) {
      using T = Host;
      return list<T>( { M( key_ ), M( seqNo_ ), M( pref_ ), M( updateTime_ ), M( entryType_ ),
                        M( next_ ), M( ciDest_ ) } );
   }
   static std::string of( const HostAndSource* ) {
      using T = HostAndSource;
      return list<T>( { M( key_ ), M( host_ ), M( source_ ) } );
   }
   // The payload of a dest is one of these.
   static std::string of( const DestDataIntf* ) {
      using T = DestDataIntf;
      return list<T>( { M( intf ) } );
   }
   static std::string of( const DestDataMpls* ) {
      using T = DestDataMpls;
      return list<T>( { M( intf ), M( labelCount ), M( labels ) } );
   }
   static std::string of( const DestDataTunnel* ) {
      using T = DestDataTunnel;
      return list<T>( { M( source ), M( destination ), M( tos ), M( ttl ) } );
   }
   static std::string of( const DestDataVxlan* ) {
      using T = DestDataVxlan;
      return list<T>( { M( vtep ), M( vni ) } );
   }
   static std::string of( const Dest* ) {
      using T = Dest;
      const std::string payload = text<DestDataIntf>() + " | " + text<DestDataMpls>() + " | " +
                                  text<DestDataTunnel>() + " | " + text<DestDataVxlan>();
      return list<T>( { M( key_ ),
                        M( destType_ ),
                        { "payload_", offsetof( T, payload_ ), sizeof( T::payload_ ), payload } } );
   }
   static std::string of( const DestAndSource* ) {
      using T = DestAndSource;
      return list<T>( { M( dest_ ), M( sourceOtas_ ) } );
   }
   static std::string of( const LoadBalance* ) {
      using T = LoadBalance;
      return list<T>( { M( key_ ), M( next_ ), M( nexts_ ) } );
   }
   static std::string of( const LoadBalanceAndSource* ) {
      using T = LoadBalanceAndSource;
      return list<T>( { M( lb_ ), M( sourceOtas_ ) } );
   }
   static std::string of( const Label* ) {
      using T = Label;
      return list<T>( { M( key_ ), M( next_ ), M( label_ ) } );
   }
   static std::string of( const LabelAndSource* ) {
      using T = LabelAndSource;
      return list<T>( { M( label_ ), M( sourceOtas_ ) } );
   }
   static std::string of( const FloodSetTriple* ) {
      using T = FloodSetTriple;
      return list<T>( { M( vlan_ ), M( mac_ ), M( dest_ ) } );
   }
   static std::string of( const FloodMember* ) {
      using T = FloodMember;
      return list<T>( { M( triple ), M( floodSetType ) } );
   }
   static std::string of( const FloodSourceRecord* ) {
      using T = FloodSourceRecord;
      return list<T>( { M( key ), M( source ) } );
   }
   static std::string of( const SourceEntryRecord* ) {
      using T = SourceEntryRecord;
      return list<T>( { M( name ), M( source ), M( initialized ), M( hostPath ), M( lbPath ),
                        M( labelPath ), M( destPath ), M( floodPath ), M( hostLen ), M( lbLen ),
                        M( labelLen ), M( destLen ) } );
   }
   static std::string of( const PolicySmStatusRecord* ) {
      using T = PolicySmStatusRecord;
      return list<T>( { M( key ), M( maxDestId ), M( maxLbId ), M( maxLabelId ) } );
   }
   static std::string of( const AgentStatusRecord* ) {
      using T = AgentStatusRecord;
      return list<T>( { M( key ),
                        M( restartState ),
                        M( processId ),
                        M( sources ),
                        M( since ),
                        M( lastSign ),
                        M( longestHold ),
                        M( hostList ),
                        M( otasList ),
                        M( failedHost ),
                        M( failedOtas ),
                        M( floodSetBacklog ),
                        M( withdrawalChecks ),
                        M( restartDuration ),
                        M( restartEntriesLeft ),
                        M( failingSince ),
                        M( retries ),
                        M( users ),
                        M( journalOverruns ),
                        M( failedFlood ),
                        M( parked ),
                        M( parkedUntold ),
                        M( retryRounds ),
                        M( floodRetryRounds ) } );
   }
   static std::string of( const ReadMark* ) {
      using T = ReadMark;
      return list<T>( { M( tableId ), M( cursor ) } );
   }
   static std::string of( const SourceStatusRecord* ) {
      using T = SourceStatusRecord;
      return list<T>( { M( name ), M( source ), M( ready ), M( host ), M( lb ), M( label ),
                        M( dest ), M( flood ), M( configuredHosts ), M( configuredTunnels ),
                        M( reason ), M( corruptions ) } );
   }
   static std::string of( const ParkedKey* ) {
      using T = ParkedKey;
      return list<T>( { M( kind ), M( mvp ), M( otas ) } );
   }
   static std::string of( const ParkedRecord* ) {
      using T = ParkedRecord;
      return list<T>( { M( key ), M( source ), M( reason ), M( table ), M( limit ), M( blocker ),
                        M( since ), M( round ), M( dest ) } );
   }
   static std::string of( const BridgeProgramRecord* ) {
      using T = BridgeProgramRecord;
      return list<T>( { M( key ), M( processId ), M( inSync ), M( unwritten ), M( since ),
                        M( lastSign ), M( syncTime ), M( writes ), M( audits ), M( lost ),
                        M( nexthopsRepaired ) } );
   }
   static std::string of( const BridgeRecord* ) {
      using T = BridgeRecord;
      return list<T>( { M( vlan ), M( bridge ), M( device ), M( bridgeIndex ), M( deviceIndex ),
                        M( vni ), M( local ), M( wanted ), M( programmed ), M( refused ),
                        M( learned ), M( repaired ), M( fault ) } );
   }
   static std::string of( const BridgeHostRecord* ) {
      using T = BridgeHostRecord;
      return list<T>( { M( key ), M( kind ), M( id ), M( vni ), M( vtep ), M( since ) } );
   }
   static std::string of( const BridgeGroupRecord* ) {
      using T = BridgeGroupRecord;
      return list<T>( { M( id ), M( count ), M( vteps ) } );
   }
   static std::string of( const BridgeRefusedKey* ) {
      using T = BridgeRefusedKey;
      return list<T>( { M( host ), M( kind ), M( dest ) } );
   }
   static std::string of( const BridgeRefusedRecord* ) {
      using T = BridgeRefusedRecord;
      return list<T>( { M( key ), M( reason ), M( tries ), M( since ), M( dest ) } );
   }
   static std::string of( const EvpnProgramRecord* ) {
      using T = EvpnProgramRecord;
      return list<T>( { M( key ),        M( processId ),     M( phase ),      M( as ),
                        M( routerId ),   M( vtep ),          M( since ),      M( lastSign ),
                        M( phaseSince ), M( sessions ),      M( taken ),      M( stale ),
                        M( announced ),  M( toAnnounce ),    M( notTaken ),   M( hosts ),
                        M( groups ),     M( members ),       M( unresolved ), M( refused ),
                        M( writes ),     M( writesRefused ), M( speaker ),    M( fault ) } );
   }
   static std::string of( const EvpnPeerRecord* ) {
      using T = EvpnPeerRecord;
      return list<T>(
         { M( address ), M( as ), M( established ), M( endOfRib ), M( up ), M( received ) } );
   }
   static std::string of( const EvpnVlanRecord* ) {
      using T = EvpnVlanRecord;
      return list<T>( { M( vlan ), M( vni ), M( rd ), M( targets ) } );
   }
   static std::string of( const Bridging::ConfiguredHostRecord* ) {
      using T = Bridging::ConfiguredHostRecord;
      return list<T>( { M( key ), M( onTunnel ), M( intf ), M( label ) } );
   }
   static std::string of( const Bridging::TunnelRecord* ) {
      using T = Bridging::TunnelRecord;
      return list<T>( { M( key ), M( data ) } );
   }
#undef M
};

template<class Record>
std::string layoutText() {
   return RecordLayout::text<Record>();
}

namespace {

template<class Record>
uint32_t numberOf() {
   static const uint32_t number = [] {
      const std::string text = layoutText<Record>();
      return static_cast<uint32_t>( Vexil::hashBytes( text.data(), text.size() ) );
   }();
   return number;
}

} // namespace

#define L2RIB_LAYOUT( Record )                                                                     \
   template std::string layoutText<Record>();                                                      \
   uint32_t layoutOf( const Record& ) { return numberOf<Record>(); }
L2RIB_LAYOUT( Host )
L2RIB_LAYOUT( HostAndSource )
L2RIB_LAYOUT( Dest )
L2RIB_LAYOUT( LoadBalance )
L2RIB_LAYOUT( Label )
L2RIB_LAYOUT( DestAndSource )
L2RIB_LAYOUT( LoadBalanceAndSource )
L2RIB_LAYOUT( LabelAndSource )
L2RIB_LAYOUT( FloodMember )
L2RIB_LAYOUT( FloodSourceRecord )
L2RIB_LAYOUT( SourceEntryRecord )
L2RIB_LAYOUT( PolicySmStatusRecord )
L2RIB_LAYOUT( AgentStatusRecord )
L2RIB_LAYOUT( SourceStatusRecord )
L2RIB_LAYOUT( ParkedRecord )
L2RIB_LAYOUT( BridgeProgramRecord )
L2RIB_LAYOUT( BridgeRecord )
L2RIB_LAYOUT( BridgeHostRecord )
L2RIB_LAYOUT( BridgeGroupRecord )
L2RIB_LAYOUT( BridgeRefusedRecord )
L2RIB_LAYOUT( EvpnProgramRecord )
L2RIB_LAYOUT( EvpnPeerRecord )
L2RIB_LAYOUT( EvpnVlanRecord )
#undef L2RIB_LAYOUT

} // namespace L2Rib

namespace Bridging {

uint32_t layoutOf( const ConfiguredHostRecord& ) { return L2Rib::numberOf<ConfiguredHostRecord>(); }
uint32_t layoutOf( const TunnelRecord& ) { return L2Rib::numberOf<TunnelRecord>(); }

} // namespace Bridging
