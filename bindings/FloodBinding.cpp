#include "bindings/FloodBinding.h"

#include "L2Rib/L2RibTarn.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace L2Rib {

namespace {

using Vexil::EntityManager;
using Vexil::makeEntity;
using Vexil::Ptr;

// Path::floodOutputSource
std::string sourcePathOf( const std::string& path ) { return path + "Source"; }

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

constexpr uint32_t firstCapacity = 4096; // of the members' table, which grows

// The members as their table holds them. Each carries the type of its set. Where two sources give a
// set different types it may change with every member that is judged; the members are brought in
// line once a turn, before the bells are rung.
class MembersOfOutput : public FloodMemberTable {
 public:
   using FloodMemberTable::FloodMemberTable;
   // All members of the set are looked at when the turn ends.
   void typeChanged( const Bridging::VlanId& vlan, const Vexil::EthAddr& mac,
                     Ptr<const FloodSet> floodSet ) {
      const Bridging::MacVlanPair where( mac, vlan );
      changed_.erase( where );
      changed_.emplace( where, std::move( floodSet ) );
   }
   void ring() override {
      for( const auto& entry : std::exchange( changed_, {} ) )
         bringInLine( entry.key, entry.value );
      FloodMemberTable::ring();
   }

 private:
   void bringInLine( const Bridging::MacVlanPair& where, const Ptr<const FloodSet>& floodSet ) {
      for( const auto& dest : floodSet->destSet() ) {
         const FloodMember wanted{ FloodSetTriple( where.vlan(), where.mac(), dest.key ),
                                   floodSet->floodSetType() };
         if( get( wanted.triple ) != wanted && !set( wanted ) )
            return typeChanged( where.vlan(), where.mac(), floodSet ); // it is tried again
      }
   }

   Vexil::HashMap<Bridging::MacVlanPair, Ptr<const FloodSet>> changed_;
};

// Writes the flood output's members through to their table. One reactor a level, kept as long as
// what it follows is there.
class FloodOutputBinding : public Vexil::Reactor<FloodSetOutput>,
                           private FloodSetOutput::MemberRoom {
 public:
   FloodOutputBinding( EntityManager& manager, const std::string& path, Ptr<FloodSetOutput> output )
      : Reactor( nullptr ),
        members_( manager.makeDerivedTable<MembersOfOutput>( path, firstCapacity ) ),
        source_( manager.makeDerivedTable<SourceMask>( sourcePathOf( path ), 1u ) ) {
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
      output->memberTableIs( members_ );
      output->memberRoomIs( this );
      output_ = output;
   }
   ~FloodOutputBinding() override { output_->memberRoomIs( nullptr ); }

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
   Vexil::Room makeRoom() override { return members_->makeRoom(); }
   uint64_t freeMembers() const override {
      return uint64_t( members_->capacity() ) - members_->count();
   }
   uint32_t capacity() const override { return members_->capacity(); }

   class Set : public Vexil::Reactor<FloodSet> {
    public:
      Set( Ptr<const FloodSet> set, FloodOutputBinding& binding, const Bridging::VlanId& vlan,
           const Vexil::EthAddr& mac )
         : Reactor( std::move( set ) ), binding_( binding ), vlan_( vlan ), mac_( mac ) {}
      void handleDestSet( const Dest& dest ) override {
         const FloodSetTriple triple( vlan_, mac_, dest );
         if( !notifier()->destSet( dest ) )
            binding_.members_->erase( triple );
         else if( !binding_.members_->set( { triple, notifier()->floodSetType() } ) )
            handleFloodSetType(); // added without asking for room
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

   Ptr<FloodSetOutput> output_;
   Ptr<MembersOfOutput> members_;
   Ptr<SourceMask> source_;
   Vexil::HashMap<Bridging::VlanId, std::unique_ptr<Vlan>> vlans_;
};

// Keeps the entity in step with the tables that the agent writes.
class FloodOutputReader : public Vexil::Reactor<FloodMemberTable> {
 public:
   FloodOutputReader( EntityManager& manager, const std::string& path, Ptr<FloodSetOutput> output )
      : Reactor( nullptr ), output_( std::move( output ) ),
        members_( followed<FloodMemberTable>( manager, path ) ),
        mask_( followed<FloodSourceTable>( manager, sourcePathOf( path ) ), output_ ) {
      members_->forEachKey( [ this ]( const FloodMemberKey& triple ) { handleEntry( triple ); } );
      notifierIs( members_ );
   }

   void handleEntry( const FloodMemberKey& triple ) override {
      FloodMember member;
      if( !members_->get( triple, member ) )
         return memberDel( triple );
      const auto set = output_->vlanFloodSetIs( triple.vlan() )->floodSetIs( triple.mac() );
      set->floodSetTypeIs( member.floodSetType );
      set->destSetIs( triple.dest(), true );
   }
   // What the table still has is named next.
   void handleOvertaken() override { output_->vlanFloodSetDelAll(); }

 private:
   // The mask of sources.
   class Mask : public Vexil::Reactor<FloodSourceTable> {
    public:
      Mask( const Ptr<FloodSourceTable>& table, Ptr<FloodSetOutput> output )
         : Reactor( table ), table_( table ), output_( std::move( output ) ) {
         handleEntry( 1 );
      }
      void handleEntry( const uint32_t& ) override { output_->sourceIs( table_->get( 1 ).source ); }

    private:
      Ptr<FloodSourceTable> table_;
      Ptr<FloodSetOutput> output_;
   };

   template<class Table>
   static Ptr<Table> followed( EntityManager& manager, const std::string& path ) {
      const auto table = makeEntity<Table>( manager.fileOf( path ), Table::Mode::read );
      manager.fileWatcher()->follow( table );
      return table;
   }
   void memberDel( const FloodSetTriple& triple ) {
      const auto sets = output_->vlanFloodSet( triple.vlan() );
      const auto set = sets ? sets->floodSet( triple.mac() ) : nullptr;
      if( !set )
         return;
      set->destSetDel( triple.dest() );
      if( set->destSet().empty() )
         sets->floodSetDel( triple.mac() );
      if( sets->floodSet().empty() )
         output_->vlanFloodSetDel( triple.vlan() );
   }

   Ptr<FloodSetOutput> output_;
   Ptr<FloodMemberTable> members_;
   Mask mask_;
};

} // namespace

Vexil::Mounted mountFloodOutput( EntityManager& manager, const std::string& path,
                                 Vexil::MountMode mode ) {
   const auto output = makeEntity<FloodSetOutput>();
   if( manager.inMemory() )
      return { output, nullptr };
   if( mode != Vexil::MountMode::write )
      return { output, std::make_shared<FloodOutputReader>( manager, path, output ) };
   const auto binding = std::make_shared<FloodOutputBinding>( manager, path, output );
   manager.ringAtEndOfTurn( binding->members() );
   manager.ringAtEndOfTurn( binding->source() );
   return { output, binding };
}

} // namespace L2Rib
