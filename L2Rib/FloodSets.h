// Flood sets as entities: per VLAN and flood address, the destinations that a frame is copied to.
//
// The same structure serves on both sides: a source's flood sets hang under its directory entry,
// the merged ones under the output. Every level notifies its reactors per key.
//
// A flood set, or a VLAN's whole collection, that is deleted loses its members one by one first,
// each with its notification. Whoever follows members alone then misses none of them: the engine's
// reactors on a level say nothing when they go themselves.
#pragma once

#include "L2Rib/L2Rib.h"
#include "runtime/Entity.h"
#include "runtime/Failure.h"
#include "runtime/HashMap.h"
#include "runtime/SharedTable.h"

namespace L2Rib {

// The members of one flood address. Each carries the key Util::destIdNotInTarn().
class FloodSet : public Vexil::Entity {
 public:
   struct Handlers {
      virtual void handleFloodSetType() {}
      virtual void handleDestSet( const Dest& ) {}
   };
   Vexil::Notifiees<Handlers> notifiees;

   VEXIL_ATTRIBUTE_NOTIFYING( FloodSetType, floodSetType, handleFloodSetType,
                              floodSetTypeInvalid_ );

   const Vexil::KeySet<Dest>& destSet() const { return destSet_; }
   bool destSet( const Dest& dest ) const { return destSet_.contains( dest ); }
   void destSetIs( const Dest& dest, bool member ) {
      if( !member )
         return destSetDel( dest );
      if( destSet_.emplace( dest ).second )
         notifiees.notify( &Handlers::handleDestSet, dest );
   }
   void destSetDel( const Dest& dest ) {
      if( destSet_.erase( dest ) )
         notifiees.notify( &Handlers::handleDestSet, dest );
   }
   VEXIL_DELETE_ALL( destSet )
   void clear() { destSetDelAll(); }

 private:
   Vexil::KeySet<Dest> destSet_;
};

// A keyed collection of owned entities, each made when its key is first entered and cleared before
// it goes.
#define L2RIB_CHILDREN( Key, Child, name, handler )                                                \
 public:                                                                                           \
   const Vexil::HashMap<Key, Vexil::Ptr<Child>>& name() const { return name##_; }                  \
   Vexil::Ptr<Child> name( const Key& key ) const {                                                \
      const Vexil::Ptr<Child>* found = name##_.find( key );                                        \
      return found ? *found : nullptr;                                                             \
   }                                                                                               \
   Vexil::Ptr<Child> name##Is( const Key& key ) {                                                  \
      if( const Vexil::Ptr<Child> present = name( key ) )                                          \
         return present;                                                                           \
      const Vexil::Ptr<Child> made = Vexil::makeEntity<Child>();                                   \
      name##_.emplace( key, made );                                                                \
      notifiees.notify( &Handlers::handler, key );                                                 \
      return made;                                                                                 \
   }                                                                                               \
   void name##Del( const Key& key ) {                                                              \
      if( const Vexil::Ptr<Child> leaving = name( key ) )                                          \
         leaving->clear();                                                                         \
      if( name##_.erase( key ) )                                                                   \
         notifiees.notify( &Handlers::handler, key );                                              \
   }                                                                                               \
   VEXIL_DELETE_ALL( name )                                                                        \
                                                                                                   \
 private:                                                                                          \
   Vexil::HashMap<Key, Vexil::Ptr<Child>> name##_;                                                 \
                                                                                                   \
 public:

// The flood sets of one VLAN, by flood address.
class VlanFloodSet : public Vexil::Entity {
 public:
   struct Handlers {
      virtual void handleFloodSet( const Vexil::EthAddr& ) {}
   };
   Vexil::Notifiees<Handlers> notifiees;

   L2RIB_CHILDREN( Vexil::EthAddr, FloodSet, floodSet, handleFloodSet )
   void clear() { floodSetDelAll(); }
};

// The merged flood sets, by VLAN; written by the engine alone.
class FloodSetOutput : public Vexil::Entity {
 public:
   struct Handlers {
      virtual void handleSource() {}
      virtual void handleVlanFloodSet( const Bridging::VlanId& ) {}
   };
   Vexil::Notifiees<Handlers> notifiees;

   // Whoever keeps the members where there is not room for any number.
   struct MemberRoom {
      virtual ~MemberRoom() = default;
      virtual Vexil::Room makeRoom() = 0;
      virtual uint64_t freeMembers() const = 0;
      virtual uint32_t capacity() const = 0;
   };
   void memberRoomIs( MemberRoom* room ) { memberRoom_ = room; }

   // Sees to it that one more member finds room; to be asked before it is entered. One that is
   // entered without is not seen by readers until there is some.
   [[nodiscard]] Vexil::Room makeRoom() {
      return memberRoom_ ? memberRoom_->makeRoom() : Vexil::Room::yes;
   }
   uint32_t capacity() const { return memberRoom_ ? memberRoom_->capacity() : ~0u; }
   uint64_t freeMembers() const {
      return memberRoom_ ? memberRoom_->freeMembers() : ~uint64_t( 0 );
   }

   // The mask of the Source values of all initialized sources.
   VEXIL_ATTRIBUTE_NOTIFYING( unsigned, source, handleSource, 0 );
   // The table that the members are written to, for whoever says how large it may become; null when
   // they are in this process alone.
   VEXIL_ATTRIBUTE( Vexil::Ptr<Vexil::TableBase>, memberTable )
   L2RIB_CHILDREN( Bridging::VlanId, VlanFloodSet, vlanFloodSet, handleVlanFloodSet )

 private:
   MemberRoom* memberRoom_ = nullptr;
};

} // namespace L2Rib
