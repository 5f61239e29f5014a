#include "L2Rib/FloodBindings.h"

#include "L2Rib/L2RibTarn.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace L2Rib {

namespace {

using Vexil::makeEntity;
using Vexil::Ptr;

// The room that the output's table has: what an earlier run made of it stays, or readers would have
// to go over to another file in every restart.
uint32_t outputCapacity( const std::string& file ) {
   constexpr uint32_t first = 4096;
   try {
      return std::max( first, FloodMemberTable( file, FloodMemberTable::Mode::read ).capacity() );
   } catch( const Vexil::TableError& ) {
      return first; // attaching it for writing makes it, or says what is wrong
   }
}

// The mask as its table holds it. An agent that starts puts the mask together source by source:
// readers see only what has come of it at the end of its first turn, when the bells are rung.
class SourceMask : public FloodSourceTable {
 public:
   using FloodSourceTable::FloodSourceTable;
   void maskIs( uint32_t mask ) {
      mask_ = mask;
      if( firstTurnOver_ )
         write();
   }
   void ring() override {
      if( !firstTurnOver_ )
         write();
      firstTurnOver_ = true;
      FloodSourceTable::ring();
   }

 private:
   void write() {
      if( get( 1 ).source != mask_ || count() == 0 ) {
         [[maybe_unused]] const bool written = set( { 1, mask_ } ); // has room for its one record
      }
   }

   uint32_t mask_ = 0;
   bool firstTurnOver_ = false;
};

// The members as their table holds them. Each carries the type of its set. Where two sources give a
// set different types it may change with every member that is judged; the members are brought in
// line once a turn, before the bells are rung.
class MembersOfOutput : public FloodMemberTable {
 public:
   using FloodMemberTable::FloodMemberTable;
   void write( const FloodMember& member ) {
      if( set( member ) )
         return;
      capacityIs( capacity() * 2 );
      const bool written = set( member );
      VEXIL_ASSERT( written );
   }
   void typeChanged( const Bridging::VlanId& vlan, const Vexil::EthAddr& mac,
                     Ptr<const FloodSet> floodSet ) {
      const Bridging::MacVlanPair where( mac, vlan );
      changed_.erase( where );
      changed_.emplace( where, std::move( floodSet ) );
   }
   void ring() override {
      for( const auto& entry : changed_ )
         for( const auto& dest : entry.value->destSet() ) {
            const FloodMember wanted{ FloodSetTriple( entry.key.vlan(), entry.key.mac(), dest.key ),
                                      entry.value->floodSetType() };
            if( get( wanted.triple ) != wanted )
               write( wanted );
         }
      changed_.clear();
      FloodMemberTable::ring();
   }

 private:
   Vexil::HashMap<Bridging::MacVlanPair, Ptr<const FloodSet>> changed_;
};

// Writes the flood output's members through to their table. One reactor a level, kept as long as
// what it follows is there.
class FloodOutputBinding : public Vexil::Reactor<FloodSetOutput> {
 public:
   FloodOutputBinding( const std::string& file, Ptr<FloodSetOutput> output )
      : Reactor( nullptr ), members_( makeEntity<MembersOfOutput>(
                               file, FloodMemberTable::Mode::write, outputCapacity( file ) ) ),
        source_( makeEntity<SourceMask>( file + "Source", // Path::floodOutputSource
                                         FloodSourceTable::Mode::write, 1u ) ) {
      members_->forEach( [ & ]( const FloodMember& member ) {
         const auto set =
            output->vlanFloodSetIs( member.triple.vlan() )->floodSetIs( member.triple.mac() );
         if( !set->destSet().empty() && set->floodSetType() != member.floodSetType )
            // The last agent ended before it had brought all of them in line.
            members_->typeChanged( member.triple.vlan(), member.triple.mac(), set );
         set->floodSetTypeIs( member.floodSetType );
         set->destSetIs( member.triple.dest(), true );
      } );
      output->sourceIs( source_->get( 1 ).source );
      source_->maskIs( output->source() );
      notifierIs( output ); // from here on changes go the other way
      for( const auto& sets : output->vlanFloodSet() )
         handleVlanFloodSet( sets.key );
   }

   void handleSource() override { source_->maskIs( notifier()->source() ); }
   void handleVlanFloodSet( const Bridging::VlanId& vlan ) override {
      if( const auto sets = notifier()->vlanFloodSet( vlan ) )
         vlans_.emplace( vlan, std::make_unique<Vlan>( sets, *this, vlan ) );
      else
         vlans_.erase( vlan );
   }

   const Ptr<MembersOfOutput>& members() const { return members_; }
   const Ptr<SourceMask>& source() const { return source_; }

 private:
   class Set : public Vexil::Reactor<FloodSet> {
    public:
      Set( Ptr<const FloodSet> set, FloodOutputBinding& binding, const Bridging::VlanId& vlan,
           const Vexil::EthAddr& mac )
         : Reactor( std::move( set ) ), binding_( binding ), vlan_( vlan ), mac_( mac ) {}
      void handleDestSet( const Dest& dest ) override {
         const FloodSetTriple triple( vlan_, mac_, dest );
         if( notifier()->destSet( dest ) )
            binding_.members_->write( { triple, notifier()->floodSetType() } );
         else
            binding_.members_->erase( triple );
      }
      void handleFloodSetType() override {
         binding_.members_->typeChanged( vlan_, mac_, notifier() );
      }

    private:
      FloodOutputBinding& binding_;
      Bridging::VlanId vlan_;
      Vexil::EthAddr mac_;
   };

   class Vlan : public Vexil::Reactor<VlanFloodSet> {
    public:
      Vlan( Ptr<const VlanFloodSet> sets, FloodOutputBinding& binding,
            const Bridging::VlanId& vlan )
         : Reactor( std::move( sets ) ), binding_( binding ), vlan_( vlan ) {
         for( const auto& set : notifier()->floodSet() )
            handleFloodSet( set.key );
      }
      void handleFloodSet( const Vexil::EthAddr& mac ) override {
         if( const auto set = notifier()->floodSet( mac ) )
            sets_.emplace( mac, std::make_unique<Set>( set, binding_, vlan_, mac ) );
         else
            sets_.erase( mac );
      }

    private:
      FloodOutputBinding& binding_;
      Bridging::VlanId vlan_;
      Vexil::HashMap<Vexil::EthAddr, std::unique_ptr<Set>> sets_;
   };

   Ptr<MembersOfOutput> members_;
   Ptr<SourceMask> source_;
   Vexil::HashMap<Bridging::VlanId, std::unique_ptr<Vlan>> vlans_;
};

} // namespace

Vexil::Mounted mountFloodOutput( Vexil::EntityManager& manager, const std::string& path,
                                 Vexil::MountMode ) {
   const auto output = makeEntity<FloodSetOutput>();
   if( manager.inMemory() )
      return { output, nullptr };
   const auto binding = std::make_shared<FloodOutputBinding>( manager.fileOf( path ), output );
   manager.ringAtEndOfTurn( binding->members() );
   manager.ringAtEndOfTurn( binding->source() );
   return { output, binding };
}

} // namespace L2Rib
