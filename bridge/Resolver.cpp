#include "bridge/Resolver.h"

#include <algorithm>

namespace Bridge {

using namespace L2Rib;

namespace {

// As deep as the engine follows a chain of objects.
constexpr int deepest = 64;
// A kernel group has no use for more; it also bounds the work on groups of groups.
constexpr size_t mostVteps = 256;

Destination unsupported( std::string reason ) {
   Destination made;
   made.kind = Destination::unsupported;
   made.reason = std::move( reason );
   return made;
}

Destination absentObject( const ObjTuple& ot ) {
   Destination made;
   made.reason = ot.str() + " is not in the output";
   return made;
}

Destination followed( const ObjTuple& next, const OutputObjects& objects, int depth );

// A group of one interface is that interface; else all members lead to VTEPs.
Destination ofGroup( const LoadBalance& group, const OutputObjects& objects, int depth ) {
   Destination all;
   all.kind = Destination::remotes;
   for( const ObjTuple& next : group.used() ) {
      Destination member = followed( next, objects, depth - 1 );
      if( member.kind == Destination::interface && group.used().size() == 1 )
         return member;
      if( member.kind == Destination::interface )
         return unsupported( "a group with an interface among its members" );
      if( member.kind != Destination::remotes )
         return member;
      all.vteps.insert( all.vteps.end(), member.vteps.begin(), member.vteps.end() );
      std::sort( all.vteps.begin(), all.vteps.end() );
      all.vteps.erase( std::unique( all.vteps.begin(), all.vteps.end() ), all.vteps.end() );
      if( all.vteps.size() > mostVteps )
         return unsupported( "a group of more than " + std::to_string( mostVteps ) + " VTEPs" );
   }
   return all.vteps.empty() ? unsupported( "a group without members" ) : all;
}

Destination followed( const ObjTuple& next, const OutputObjects& objects, int depth ) {
   if( depth == 0 )
      return unsupported( "objects that lead on too far" );
   switch( next.tableType() ) {
   case tableTypeDest_: {
      const auto row = objects.dest( next.destId() );
      return row ? destinationOf( row->dest() ) : absentObject( next );
   }
   case tableTypeLoadBalance_: {
      const auto row = objects.group( next.lbId() );
      return row ? ofGroup( row->lb(), objects, depth ) : absentObject( next );
   }
   case tableTypeLabel_:
      return unsupported( "a label" );
   default:
      return unsupported( "a next of no known type" );
   }
}

} // namespace

Destination destinationOf( const ObjTuple& next, const OutputObjects& objects ) {
   return followed( next, objects, deepest );
}

Destination destinationOf( const CiDest& ciDest ) {
   Destination made;
   if( ciDest.destType() == destTypeDefault_ ) {
      made.kind = Destination::interface;
      made.ifindex = ciDest.payload();
      return made;
   }
   if( ciDest.destType() != destTypeVxlan_ || ciDest.vteps().empty() )
      return unsupported( "an inline destination of no known type" );
   made.kind = Destination::remotes;
   for( const IpGenAddr& vtep : ciDest.vteps() )
      made.vteps.push_back( { vtep, 0 } );
   return made;
}

Destination destinationOf( const Dest& dest ) {
   Destination made;
   switch( dest.destType() ) {
   case objDestTypeVxlan_:
      made.kind = Destination::remotes;
      made.vteps = { { dest.vxlan().vtep, dest.vxlan().vni } };
      return made;
   case objDestTypeIntf_:
      made.kind = Destination::interface;
      made.ifindex = dest.intf().intf.value();
      return made;
   case objDestTypeMpls_:
      return unsupported( "an MPLS label stack" );
   case objDestTypeTunnel_:
      return unsupported( "an IP tunnel" );
   default:
      return unsupported( "a dest of no known type" );
   }
}

} // namespace Bridge
