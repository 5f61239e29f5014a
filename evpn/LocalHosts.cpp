#include "evpn/LocalHosts.h"

namespace Evpn {

using namespace L2Rib;

LocalHosts::LocalHosts( Client::OutputReader& output, std::set<uint32_t> vlans, Source own,
                        Changed changed )
   : output_( output ), vlans_( std::move( vlans ) ), own_( own ),
     changed_( std::move( changed ) ) {
   output_.hosts.follow(
      [ this ]( const MacVlanPair& key, const HostAndSource* row ) { hostIs( key, row ); } );
   output_.dests.follow(
      [ this ]( const DestId& id, const DestAndSource* row ) { destIs( id, row ); } );
}

void LocalHosts::hostIs( const MacVlanPair& key, const HostAndSource* row ) {
   if( !vlans_.contains( key.vlan().value() ) )
      return;
   bool local = false;
   if( row && row->source() != own_ ) {
      const ObjTuple& next = row->next();
      if( next == Util::objTupleInvalid() ) {
         local = row->host().ciDest().destType() == destTypeDefault_;
      } else if( next.tableType() == tableTypeDest_ ) {
         const auto dest = output_.dests.get( next.destId() );
         local = dest && dest->dest().destType() == objDestTypeIntf_;
         *interfaces_.emplace( next.destId() ).first = local;
      }
   }
   if( !local )
      return changed_( key, nullptr );
   const Announcer::Local announced{ row->host().seqNo().value(), row->source() == sourceStatic_ };
   changed_( key, &announced );
}

void LocalHosts::destIs( const DestId& id, const DestAndSource* row ) {
   const bool* const known = interfaces_.find( id );
   if( !known )
      return;
   if( !row ) { // the hosts on it are told by themselves
      interfaces_.erase( id );
      return;
   }
   const bool interface = row->dest().destType() == objDestTypeIntf_;
   if( *known == interface )
      return;
   for( const HostAndSource& host : output_.hosts.list() )
      if( host.next() == ObjTuple( id ) )
         hostIs( host.key(), &host );
}

} // namespace Evpn
