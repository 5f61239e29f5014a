// Entities, references to them, and reactors.
//
// An entity is shared by counting its references; the holder of the last one destroys it. Its
// creator has the first one (makeEntity), before the constructor runs: so the constructor may hand
// out references to the entity. A reactor
// is attached to one entity (its notifier) and is called for each change of it, at the time of the
// change: with no argument for a single-valued attribute, with the key for an entry of a
// collection. An entity class names what it reports in a struct Handlers of virtual functions:
//
//    class Door : public Vexil::Entity {
//     public:
//       struct Handlers {
//          virtual void handleOpen() {}
//       };
//       VEXIL_ATTRIBUTE_NOTIFYING( bool, open, handleOpen );
//       Vexil::Notifiees<Handlers> notifiees;
//    };
//
// Everything here is for one thread: counts are not atomic.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

namespace Vexil {

class Entity {
 public:
   Entity() = default;
   Entity( const Entity& ) = delete;
   Entity& operator=( const Entity& ) = delete;
   virtual ~Entity() = default;

   void addReference() const { ++references_; }
   uint32_t referenceCount() const { return references_; }
   void releaseReference() const {
      if( --references_ == 0 )
         delete this;
   }

 private:
   mutable uint32_t references_ = 1; // the creator's
};

// A strong reference; may be null.
template<class T>
class Ptr {
 public:
   Ptr() = default;
   Ptr( std::nullptr_t ) {}
   Ptr( T* entity ) : entity_( entity ) {
      if( entity_ )
         entity_->addReference();
   }
   Ptr( const Ptr& other ) : Ptr( other.entity_ ) {}
   Ptr( Ptr&& other ) noexcept : entity_( std::exchange( other.entity_, nullptr ) ) {}
   template<class U>
   requires std::is_convertible_v<U*, T*> Ptr( const Ptr<U>& other ) : Ptr( other.get() ) {}
   Ptr& operator=( Ptr other ) noexcept {
      std::swap( entity_, other.entity_ );
      return *this;
   }
   ~Ptr() {
      if( entity_ )
         entity_->releaseReference();
   }

   T* get() const { return entity_; }
   T* operator->() const { return entity_; }
   T& operator*() const { return *entity_; }
   explicit operator bool() const { return entity_ != nullptr; }
   friend bool operator==( const Ptr& a, const Ptr& b ) { return a.entity_ == b.entity_; }
   friend bool operator==( const Ptr& a, const T* b ) { return a.entity_ == b; }

 private:
   template<class Made, class... Arguments>
   friend Ptr<Made> makeEntity( Arguments&&... arguments );

   T* entity_ = nullptr;
};

// Makes an entity; the result is the creator's reference to it.
template<class Made, class... Arguments>
Ptr<Made> makeEntity( Arguments&&... arguments ) {
   Ptr<Made> made;
   made.entity_ = new Made( std::forward<Arguments>( arguments )... );
   return made;
}

// The reactors attached to one entity. A reactor may detach itself or others, attach others, or
// drop the last outside reference to the entity's other users while it is being notified.
template<class Handlers>
class Notifiees {
 public:
   void attach( Handlers* reactor ) const { reactors_.push_back( reactor ); }
   void detach( Handlers* reactor ) const {
      const auto found = std::find( reactors_.begin(), reactors_.end(), reactor );
      if( found == reactors_.end() )
         return;
      if( notifying_ > 0 )
         *found = nullptr; // its place is closed when the notification is over
      else
         reactors_.erase( found );
   }
   bool empty() const { return reactors_.empty(); }

   template<class... Parameters, class... Arguments>
   void notify( void ( Handlers::*handler )( Parameters... ),
                const Arguments&... arguments ) const {
      if( reactors_.empty() )
         return;
      ++notifying_;
      const size_t count = reactors_.size(); // one attached meanwhile waits for the next change
      for( size_t i = 0; i < count; ++i )
         if( Handlers* reactor = reactors_[ i ] )
            ( reactor->*handler )( arguments... );
      if( --notifying_ == 0 )
         std::erase( reactors_, nullptr );
   }

 private:
   mutable std::vector<Handlers*> reactors_;
   mutable unsigned notifying_ = 0;
};

// A reactor on an entity of class E, attached from construction to destruction; derive from it and
// override E's handlers. Holds a reference to its notifier.
template<class E>
class Reactor : public E::Handlers {
 public:
   explicit Reactor( Ptr<const E> notifier ) { notifierIs( std::move( notifier ) ); }
   Reactor( const Reactor& ) = delete;
   Reactor& operator=( const Reactor& ) = delete;
   virtual ~Reactor() { notifierIs( nullptr ); }

   const Ptr<const E>& notifier() const { return notifier_; }
   // Attaches to another entity, or to none.
   void notifierIs( Ptr<const E> notifier ) {
      if( notifier_ )
         notifier_->notifiees.detach( this );
      notifier_ = std::move( notifier );
      if( notifier_ )
         notifier_->notifiees.attach( this );
   }

 private:
   Ptr<const E> notifier_;
};

} // namespace Vexil

// One attribute of an entity: x() reads it, xIs( value ) writes it, xDel() gives it back the value
// that it began with.
#define VEXIL_ATTRIBUTE( Type, name, ... )                                                         \
 public:                                                                                           \
   const Type& name() const { return name##_; }                                                    \
   void name##Is( const Type& value ) { name##_ = value; }                                         \
   void name##Del() { name##_ = Type{ __VA_ARGS__ }; }                                             \
                                                                                                   \
 private:                                                                                          \
   Type name##_{ __VA_ARGS__ };                                                                    \
                                                                                                   \
 public:

// The same, calling the handler of every reactor when the value has changed.
#define VEXIL_ATTRIBUTE_NOTIFYING( Type, name, handler, ... )                                      \
 public:                                                                                           \
   const Type& name() const { return name##_; }                                                    \
   void name##Is( const Type& value ) {                                                            \
      if( name##_ == value )                                                                       \
         return;                                                                                   \
      name##_ = value;                                                                             \
      notifiees.notify( &Handlers::handler );                                                      \
   }                                                                                               \
   void name##Del() { name##Is( Type{ __VA_ARGS__ } ); }                                           \
                                                                                                   \
 private:                                                                                          \
   Type name##_{ __VA_ARGS__ };                                                                    \
                                                                                                   \
 public:

// A keyed collection of bools, where a key that is absent reads as false: x() the keys that are
// true, x( key ) the value, xIs( key, value ), xDel( key ), xDelAll().
#define VEXIL_KEY_SET( Key, name )                                                                 \
 public:                                                                                           \
   const ::Vexil::KeySet<Key>& name() const { return name##_; }                                    \
   bool name( const Key& key ) const { return name##_.contains( key ); }                           \
   void name##Is( const Key& key, bool value ) {                                                   \
      if( value )                                                                                  \
         name##_.emplace( key );                                                                   \
      else                                                                                         \
         name##_.erase( key );                                                                     \
   }                                                                                               \
   void name##Del( const Key& key ) { name##_.erase( key ); }                                      \
   void name##DelAll() { name##_.clear(); }                                                        \
                                                                                                   \
 private:                                                                                          \
   ::Vexil::KeySet<Key> name##_;                                                                   \
                                                                                                   \
 public:

// The deletion of all entries of a keyed collection x, one by one by xDel( key ), each with its
// notification.
#define VEXIL_DELETE_ALL( name )                                                                   \
 public:                                                                                           \
   void name##DelAll() {                                                                           \
      for( auto at = name##_.begin(); at != name##_.end(); ++at )                                  \
         name##Del( std::decay_t<decltype( at->key )>( at->key ) );                                \
   }
