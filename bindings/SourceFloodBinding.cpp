#include "bindings/SourceFloodBinding.h"

#include <utility>

namespace L2Rib {

using Vexil::Ptr;

namespace {

constexpr Vexil::Seconds slice = 0.01; // of the sweep, a turn

} // namespace

SourceFloodBinding::SourceFloodBinding( Ptr<Vexil::Clock> clock, Ptr<FloodMemberTable> table,
                                        Ptr<SourceDirEntry> entry )
   : Reactor( table ), clock_( clock ), table_( std::move( table ) ), entry_( std::move( entry ) ),
     sweep_( std::move( clock ), [ this ] { sweep(); } ) {
   sweep_.timeMinIs( Vexil::never );
   table_->walkAll();
   requireAllSoFar();
}

void SourceFloodBinding::requireAllSoFar() { required_ = table_->journalHead(); }

bool SourceFloodBinding::hasAll() const {
   return !table_->walking() && table_->journalCursor() >= required_;
}

bool SourceFloodBinding::readOn( const Vexil::Clock& clock, Vexil::Seconds deadline ) {
   if( !hasAll() )
      table_->poll( clock, deadline );
   if( !hasAll() )
      return false;
   if( reading_ )
      endReading();
   return !entry_->floodBehind();
}

void SourceFloodBinding::endReading() {
   reading_ = false;
   for( const auto& sets : std::exchange( read_, VlanSets() ) )
      entry_->vlanFloodSetIs( sets.key, sets.value );
}

void SourceFloodBinding::handleEntry( const FloodMemberKey& triple ) {
   FloodMember member;
   if( table_->get( triple, member ) )
      memberIs( member );
   else
      memberDel( triple );
}

// Every member that the table has is named next, all that was required among them. Its journal may
// be another one.
void SourceFloodBinding::handleOvertaken() {
   required_ = 0;
   if( reading_ )
      return read_.clear();
   entry_->floodBehindIs( true );
   swept_.reset();
   sweep_.timeMinIs( 0 );
}

// Looks some more of the entry's members up. What comes into the entry meanwhile is in the table.
void SourceFloodBinding::sweep() {
   const Vexil::Seconds deadline = clock_->now() + slice;
   while( ( swept_ = memberAfter( swept_ ) ) ) {
      const FloodSetTriple member = *swept_;
      if( !table_->contains( member ) )
         memberDel( member );
      if( clock_->isPast( deadline ) )
         return sweep_.timeMinIs( 0 );
   }
   entry_->floodBehindIs( false );
}

// The first member in the order of the collections, or the first one behind that place, where the
// member itself may have left.
std::optional<FloodSetTriple>
SourceFloodBinding::memberAfter( const std::optional<FloodSetTriple>& member ) const {
   const auto& vlans = sets();
   for( auto vlan = member ? vlans.from( member->vlan() ) : vlans.begin(); vlan != vlans.end();
        ++vlan ) {
      const bool inVlan = member && vlan->key == member->vlan();
      const auto& macs = vlan->value->floodSet();
      for( auto mac = inVlan ? macs.from( member->mac() ) : macs.begin(); mac != macs.end();
           ++mac ) {
         const bool inSet = inVlan && mac->key == member->mac();
         const auto& dests = mac->value->destSet();
         auto dest = inSet ? dests.from( member->dest() ) : dests.begin();
         if( inSet && dest != dests.end() && dest->key == member->dest() )
            ++dest;
         if( dest != dests.end() )
            return FloodSetTriple( vlan->key, mac->key, dest->key );
      }
   }
   return std::nullopt;
}

void SourceFloodBinding::memberIs( const FloodMember& member ) {
   const auto set = setsIs( member.triple.vlan() )->floodSetIs( member.triple.mac() );
   const bool otherType = set->floodSetType() != member.floodSetType;
   set->floodSetTypeIs( member.floodSetType );
   if( otherType ) // the output follows the type when a member is judged
      set->destSetDel( member.triple.dest() );
   set->destSetIs( member.triple.dest(), true );
}

Ptr<VlanFloodSet> SourceFloodBinding::setsIs( const Bridging::VlanId& vlan ) {
   if( !reading_ )
      return entry_->vlanFloodSetIs( vlan );
   const auto [ sets, isNew ] = read_.emplace( vlan );
   if( isNew )
      *sets = Vexil::makeEntity<VlanFloodSet>();
   return *sets;
}

void SourceFloodBinding::memberDel( const FloodSetTriple& triple ) {
   const Ptr<VlanFloodSet>* const found = sets().find( triple.vlan() );
   const auto sets = found ? *found : nullptr;
   const auto set = sets ? sets->floodSet( triple.mac() ) : nullptr;
   if( !set )
      return;
   set->destSetDel( triple.dest() );
   if( set->destSet().empty() )
      sets->floodSetDel( triple.mac() );
   if( !sets->floodSet().empty() )
      return;
   if( reading_ )
      read_.erase( triple.vlan() );
   else
      entry_->vlanFloodSetDel( triple.vlan() );
}

} // namespace L2Rib
