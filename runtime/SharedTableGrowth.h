// The writer's side of a shared table's size: attaching with what a previous writer left, room for
// the next record, and the moves to another capacity. Part of SharedTable.h.
#pragma once

#include "runtime/SharedTable.h"

namespace Vexil {

template<class Key, class Record>
void SharedTable<Key, Record>::attachForWriting( const std::string& path, uint32_t capacity ) {
   mapping_ = TableMapping::forWriting( path, spec_, capacity );
   table_ = TableWriter<Key, Record>( *mapping_ );
   dropBroken();
   if( capacity > table_.capacity() )
      capacityIs( capacity );
   if( table_.count() == 0 && !table_.makeRoom() )
      throw TableError( TableError::system, path + ": there is no memory for its records" );
   unrung_ = true; // the previous writer may have died before it rang
   ring();
   cursor_ = table_.journalHead();
}

// Recovery has brought each record into the index under its own key.
template<class Key, class Record>
void SharedTable<Key, Record>::dropBroken() {
   forEachBroken( [ this ]( const Record& record, const std::string& fault ) {
      corruptionDetected( path() + ": " + fault + "; it is dropped" );
      table_.erase( View::keyOf( record ) );
   } );
}

template<class Key, class Record>
void SharedTable<Key, Record>::capacityMaxIs( uint32_t capacity ) {
   TableGeometry( spec_, capacity ); // refuses what is too much
   capacityMax_ = capacity;
   capacityChanged();
}

template<class Key, class Record>
void SharedTable<Key, Record>::capacityIs( uint32_t capacity ) {
   capacity = std::max( capacity, table_.count() );
   growth_.reset(); // it was for another capacity
   if( capacity >= table_.highWater() && capacity != table_.capacity() )
      grow( capacity, UINT32_MAX );
   else if( capacity != table_.capacity() )
      moveTo( capacity );
}

// Copies the records one by one, each into the next slot that is free.
template<class Key, class Record>
void SharedTable<Key, Record>::moveTo( uint32_t capacity ) {
   auto moved = TableMapping::unpublished( path(), spec_, capacity );
   TableWriter<Key, Record> copy( *moved );
   bool complete = true;
   forEachStored( [ & ]( const Record& record ) {
      complete = complete && copy.set( record, keyHash( View::keyOf( record ) ) );
   } );
   if( !complete ) // the old file stays as it is
      throw TableError( TableError::system, path() + ": no room to change its capacity" );
   table_.giveNameTo( *moved );
   table_ = std::move( copy );
   std::swap( mapping_, moved );
   capacityChanged();
   moved->ringBell();
}

// A table of many slots is copied a few at a time while records come, and has grown before it is
// full: copying all in one go would hold the event loop.
template<class Key, class Record>
void SharedTable<Key, Record>::capacityChanged() {
   const uint32_t capacity = table_.capacity();
   growAt_ = grows() && capacity > slotsCopiedAtOnce ? capacity - capacity / 8 : UINT32_MAX;
   unrung_ = true;
}

template<class Key, class Record>
uint32_t SharedTable<Key, Record>::nextCapacity( size_t expected ) const {
   uint64_t next = std::max<uint64_t>( 1, table_.capacity() ) * 2;
   while( next < table_.count() + expected && next < capacityMax_ )
      next *= 2;
   return static_cast<uint32_t>( std::min<uint64_t>( next, capacityMax_ ) );
}

template<class Key, class Record>
Room SharedTable<Key, Record>::makeMoreRoom( size_t expected ) {
   if( table_.makeRoom() )
      return Room::yes;
   if( mapping_->cutShort() )
      lost( path() + ": the file was cut short" );
   if( table_.count() < table_.capacity() )
      return Room::noMemory;
   if( !grows() )
      return Room::full;
   if( shortage_.isRecent() )
      return Room::noMemory;
   try {
      grow( nextCapacity( expected ), UINT32_MAX );
      shortage_.forget();
   } catch( const TableError& failure ) {
      if( !shortage_.isNoted() ) // else it was said
         log( std::string( failure.what() ) + ": " + path() + " can't grow" );
      shortage_.note();
   }
   return table_.makeRoom() ? Room::yes : Room::noMemory;
}

template<class Key, class Record>
void SharedTable<Key, Record>::growOn() {
   constexpr uint32_t slotsForEach = 16; // complete when half of the last eighth is left
   if( shortage_.isRecent() )
      return;
   try {
      grow( nextCapacity( 1 ), slotsForEach );
   } catch( const TableError& ) {
      shortage_.note(); // it is not full yet
   }
}

// Goes on with the move to a larger table by so many slots, and ends it with the last one. Throws
// TableError when it can't be, and all is as it was.
template<class Key, class Record>
void SharedTable<Key, Record>::grow( uint32_t capacity, uint32_t slots ) {
   try {
      if( !growth_ )
         growth_ = std::make_unique<TableGrowth<Key, Record>>( spec_, table_, capacity );
      growth_->copyOn( slots );
      if( !growth_->isComplete() )
         return;
      growth_->takeOver( mapping_ );
   } catch( const TableError& ) {
      growth_.reset();
      throw;
   }
   growth_.reset();
   capacityChanged();
}

} // namespace Vexil
