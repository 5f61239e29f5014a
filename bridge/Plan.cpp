#include "bridge/Plan.h"

namespace Bridge {

There::Entry entryKind( const FdbEntry& entry, uint32_t vxlan ) {
   if( entry.permanent )
      return There::permanent;
   if( entry.marked )
      return There::marked;
   if( entry.external )
      return entry.device == vxlan ? There::external : There::fixed;
   return entry.fixed ? There::fixed : There::dynamic;
}

void remoteFrom( There& there, const FdbEntry& entry, uint32_t deviceVni ) {
   const uint32_t vni = entry.vni == deviceVni ? 0 : entry.vni;
   const bool second = there.remote == There::viaVtep && entry.nexthop == 0 &&
                       std::pair( there.vtep, there.vni ) != std::pair( entry.vtep, vni );
   there.remote = second ? There::several : entry.nexthop != 0 ? There::viaGroup : There::viaVtep;
   there.remoteForeign = !entry.external;
   there.remoteLearned = !entry.external && !entry.permanent && !entry.fixed;
   there.group = entry.nexthop;
   there.vtep = entry.vtep;
   there.vni = vni;
}

namespace {

Write entryWrite( Write::Kind kind, uint32_t device, EthAddr mac ) {
   return { .kind = kind, .device = device, .mac = mac };
}

bool reached( const There& there, const Goal& goal ) {
   if( goal.kind == Goal::viaGroup )
      return there.remote == There::viaGroup && there.group == goal.id;
   return there.remote == There::viaVtep && there.vtep == goal.vtep && there.vni == goal.vni;
}

void planRemote( const There& there, const Goal& goal, EthAddr mac, uint32_t vxlan,
                 std::vector<Write>& writes ) {
   if( !there.remoteForeign && reached( there, goal ) )
      return;
   const There::Remote wanted = goal.kind == Goal::viaGroup ? There::viaGroup : There::viaVtep;
   if( there.remote != There::noRemote && there.remote != wanted )
      writes.push_back( entryWrite( Write::remoteDel, vxlan, mac ) );
   Write write = entryWrite( Write::remoteIs, vxlan, mac );
   write.id = goal.id;
   write.vtep = goal.vtep;
   write.vni = goal.vni;
   writes.push_back( std::move( write ) );
}

std::string planVxlan( const There& there, const Goal& goal, EthAddr mac, uint32_t vxlan,
                       std::vector<Write>& writes ) {
   if( there.entry == There::permanent || there.entry == There::fixed )
      return "the bridge has an entry of somebody else for this address";
   if( there.remote != There::noRemote && there.remoteForeign && !there.remoteLearned )
      return "the VXLAN device has an entry of somebody else for this address";
   planRemote( there, goal, mac, vxlan, writes );
   if( there.entry == There::external && there.port == vxlan )
      return {};
   if( there.entry == There::marked ) // an entry that becomes external stays static if it was
      writes.push_back( entryWrite( Write::dynamicIs, vxlan, mac ) );
   writes.push_back( entryWrite( Write::externalIs, vxlan, mac ) );
   return {};
}

std::string planPort( const There& there, const Goal& goal, EthAddr mac,
                      std::vector<Write>& writes ) {
   if( there.entry == There::permanent ||
       ( there.entry == There::fixed && there.port != goal.port ) )
      return "the bridge has an entry of somebody else for this address";
   if( there.entry != There::fixed && ( there.entry != There::marked || there.port != goal.port ) )
      writes.push_back( entryWrite( Write::fixedIs, goal.port, mac ) );
   return {};
}

} // namespace

bool hasOurs( const There& there, uint32_t vxlan ) {
   return there.entry == There::marked ||
          ( there.entry == There::external && there.port == vxlan ) ||
          ( there.remote != There::noRemote && !there.remoteForeign );
}

std::string plan( const There& there, const Goal& goal, EthAddr mac, uint32_t vxlan,
                  std::vector<Write>& writes ) {
   if( goal.kind == Goal::viaGroup || goal.kind == Goal::viaVtep )
      return planVxlan( there, goal, mac, vxlan, writes );
   std::string obstacle;
   if( goal.kind == Goal::onPort )
      obstacle = planPort( there, goal, mac, writes );
   else if( there.entry == There::external && there.port == vxlan )
      writes.push_back( entryWrite( Write::entryDel, vxlan, mac ) );
   else if( there.entry == There::marked )
      writes.push_back( entryWrite( goal.kind == Goal::local ? Write::dynamicIs : Write::entryDel,
                                    there.port, mac ) );
   if( there.remote != There::noRemote && !there.remoteForeign )
      writes.push_back( entryWrite( Write::remoteDel, vxlan, mac ) );
   return obstacle;
}

There reachedGoal( const Goal& goal, uint32_t vxlan ) {
   std::vector<Write> writes;
   plan( There(), goal, EthAddr(), vxlan, writes );
   There there;
   for( const Write& write : writes )
      carryOut( there, write );
   return there;
}

void carryOut( There& there, const Write& write ) {
   switch( write.kind ) {
   case Write::remoteIs:
      there.remote = write.id != 0 ? There::viaGroup : There::viaVtep;
      there.remoteForeign = there.remoteLearned = false;
      there.group = write.id;
      there.vtep = write.vtep;
      there.vni = write.vni;
      return;
   case Write::remoteDel:
      there.remote = There::noRemote;
      there.remoteForeign = there.remoteLearned = false;
      there.group = there.vni = 0;
      there.vtep = IpGenAddr();
      return;
   case Write::entryDel:
      there.entry = There::noEntry;
      there.port = 0;
      return;
   default:
      there.entry = write.kind == Write::externalIs ? There::external
                    : write.kind == Write::fixedIs  ? There::marked
                                                    : There::dynamic;
      there.port = write.device;
   }
}

} // namespace Bridge
