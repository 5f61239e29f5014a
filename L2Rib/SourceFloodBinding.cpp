#include "L2Rib/SourceFloodBinding.h"

#include <utility>
#include <vector>

namespace L2Rib {

using Vexil::Ptr;

namespace {

bool sound( const FloodMember& member ) {
   const uint32_t vlan = member.triple.vlan().value();
   return vlan >= 1 && vlan <= 4094 && member.triple.dest().key() == Util::destIdNotInTarn() &&
          member.floodSetType >= floodSetTypeVxlan_ && member.floodSetType <= floodSetTypeAny_;
}

} // namespace

SourceFloodBinding::SourceFloodBinding( Ptr<FloodMemberTable> table, Ptr<SourceDirEntry> entry )
   : Reactor( table ), table_( std::move( table ) ), entry_( std::move( entry ) ) {
   table_->forEach( [ this ]( const FloodMember& member ) { memberIs( member ); } );
}

void SourceFloodBinding::handleEntry( const FloodMemberKey& triple ) {
   FloodMember member;
   if( table_->get( triple, member ) )
      memberIs( member );
   else
      memberDel( triple );
}

// Every member that the table has is named next; what is known and no longer there goes now.
void SourceFloodBinding::handleOvertaken() {
   std::vector<FloodSetTriple> known;
   for( const auto& sets : entry_->vlanFloodSet() )
      for( const auto& set : sets.value->floodSet() )
         for( const auto& member : set.value->destSet() )
            known.emplace_back( sets.key, set.key, member.key );
   for( const FloodSetTriple& triple : known )
      handleEntry( triple );
}

void SourceFloodBinding::memberIs( const FloodMember& member ) {
   if( !sound( member ) ) {
      table_->corruptionDetected( table_->path() + ": flood member " + member.triple.str() +
                                  " has no known type, no such VLAN, or a key of its own" );
      memberDel( member.triple );
      return;
   }
   const auto set =
      entry_->vlanFloodSetIs( member.triple.vlan() )->floodSetIs( member.triple.mac() );
   const bool otherType = set->floodSetType() != member.floodSetType;
   set->floodSetTypeIs( member.floodSetType );
   if( otherType ) // the output follows the type when a member is judged
      set->destSetDel( member.triple.dest() );
   set->destSetIs( member.triple.dest(), true );
}

void SourceFloodBinding::memberDel( const FloodSetTriple& triple ) {
   const auto sets = entry_->vlanFloodSet( triple.vlan() );
   const auto set = sets ? sets->floodSet( triple.mac() ) : nullptr;
   if( !set )
      return;
   set->destSetDel( triple.dest() );
   if( set->destSet().empty() )
      sets->floodSetDel( triple.mac() );
   if( sets->floodSet().empty() )
      entry_->vlanFloodSetDel( triple.vlan() );
}

} // namespace L2Rib
