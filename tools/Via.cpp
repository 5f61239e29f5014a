#include "tools/Via.h"

#include "tools/Words.h"

#include <vector>

namespace Tools {

using namespace L2Rib;

namespace {

// A damaged output may lead in a circle.
constexpr unsigned deepest = 64;

void add( Leaves& to, const Leaves& more ) {
   to.addresses.insert( more.addresses.begin(), more.addresses.end() );
   to.interfaces.insert( more.interfaces.begin(), more.interfaces.end() );
   to.vnis.insert( more.vnis.begin(), more.vnis.end() );
}

std::vector<std::string> addressesOf( const CiDest& dest ) {
   std::vector<std::string> addresses;
   for( const Vexil::IpGenAddr& vtep : dest.vteps() )
      addresses.push_back( vtep.str() );
   return addresses;
}

std::string briefOf( const Dest& dest ) {
   switch( dest.destType() ) {
   case objDestTypeVxlan_:
      return dest.vxlan().vtep.str();
   case objDestTypeIntf_:
      return interfaceText( dest.intf().intf.value() );
   default:
      return Vias::text( dest );
   }
}

} // namespace

std::string Vias::text( const Dest& dest ) {
   switch( dest.destType() ) {
   case objDestTypeVxlan_:
      return "vxlan " + dest.vxlan().vtep.str() + " vni " + std::to_string( dest.vxlan().vni );
   case objDestTypeIntf_:
      return interfaceText( dest.intf().intf.value() );
   case objDestTypeTunnel_:
      return "tunnel " + dest.tunnel().source.str() + " > " + dest.tunnel().destination.str();
   case objDestTypeMpls_: {
      std::vector<std::string> labels;
      for( const Vexil::MplsLabel label : dest.mpls().used() )
         labels.push_back( label.str() );
      return "mpls " + joined( labels, "/" ) + " on " + interfaceText( dest.mpls().intf.value() );
   }
   default:
      return dest.str();
   }
}

Leaves Vias::leaves( const Dest& dest ) {
   Leaves leaves;
   switch( dest.destType() ) {
   case objDestTypeVxlan_:
      leaves.addresses.insert( dest.vxlan().vtep.str() );
      leaves.vnis.insert( dest.vxlan().vni );
      break;
   case objDestTypeIntf_:
      leaves.interfaces.insert( dest.intf().intf.value() );
      break;
   case objDestTypeTunnel_:
      leaves.addresses.insert( dest.tunnel().destination.str() );
      break;
   case objDestTypeMpls_:
      leaves.interfaces.insert( dest.mpls().intf.value() );
      break;
   default:
      break;
   }
   return leaves;
}

// --- hosts

std::string Vias::text( const Host& host ) {
   if( host.next() != Util::objTupleInvalid() )
      return text( host.next() );
   return text( host.ciDest() );
}

std::string Vias::text( const CiDest& dest ) {
   if( dest.destType() == destTypeVxlan_ )
      return "vxlan " + joined( addressesOf( dest ), ", " );
   return interfaceText( dest.payload() );
}

Leaves Vias::leaves( const Host& host ) {
   if( host.next() != Util::objTupleInvalid() )
      return leaves( host.next() );
   Leaves leaves;
   for( const std::string& address : addressesOf( host.ciDest() ) )
      leaves.addresses.insert( address );
   if( host.ciDest().destType() == destTypeDefault_ )
      leaves.interfaces.insert( host.ciDest().payload() );
   return leaves;
}

// --- objects

const Vias::Found& Vias::found( const ObjTuple& object ) {
   const auto known = known_.find( object );
   if( known != known_.end() )
      return known->second;
   ++depth_;
   Found made = depth_ <= deepest ? lookedUp( object ) : Found{ "...", "...", {} };
   --depth_;
   return known_[ object ] = std::move( made );
}

Vias::Found Vias::lookedUp( const ObjTuple& object ) {
   if( object.tableType() == tableTypeDest_ ) {
      if( const auto row = output_.dests.get( object.destId() ) )
         return { text( row->dest() ), briefOf( row->dest() ), leaves( row->dest() ) };
   } else if( object.tableType() == tableTypeLabel_ ) {
      if( const auto row = output_.labels.get( object.labelId() ) ) {
         const std::string push = "label " + row->label().label().str() + " > ";
         const Found& next = found( row->label().next() );
         return { push + next.text, push + next.brief, next.leaves };
      }
   } else if( object.tableType() == tableTypeLoadBalance_ ) {
      if( const auto row = output_.groups.get( object.lbId() ) )
         return ofGroup( row->lb() );
   }
   return { object.str() + ", which is not there", object.str(), {} };
}

Vias::Found Vias::ofGroup( const LoadBalance& group ) {
   Found made;
   std::vector<std::string> members;
   for( const ObjTuple& next : group.used() ) {
      members.push_back( brief( next ) );
      add( made.leaves, leaves( next ) );
   }
   const std::string paths = countText( members.size(), "path" );
   made.text = paths + ": " + joined( members, ", " );
   made.brief = "(" + joined( members, ", " ) + ")";
   return made;
}

} // namespace Tools
