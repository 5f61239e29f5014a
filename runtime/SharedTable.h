// A shared table as an entity: attach it as its writer or as a reader, look up, walk, write, and
// be told of changes.
//
// The same class serves three ways of use:
//  - the writer of a file (Mode::write): set() and erase() change it; reactors in this process
//    are called at the time of the change; ring() wakes the readers in other processes;
//  - a reader of a file (Mode::read): poll() delivers what has changed since the last time to
//    the reactors; the FileWatcher calls it when the writer rings;
//  - a table in memory, without a file, for tests and for tables that never leave a process: writer
//  and
//    reader at once.
//
// A reader that can't keep up with the writer is overtaken by the journal's ring. It then calls
// handleOvertaken() of its reactors, once, and handleEntry() for every key that is in the table. A
// reactor that remembers keys re-examines those that it knows when it is overtaken: so deletions
// are not missed either. The same happens when the writer has replaced the file.
#pragma once

#include "runtime/Clock.h"
#include "runtime/Entity.h"
#include "runtime/TableWriter.h"
#include "runtime/Trace.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace Vexil {

// Whether a table takes one more record.
enum class Room {
   yes,
   full,    // it has the highest capacity that it may have
   noMemory // it could grow, but there is no memory for it
};

// What the event loop and the status report need to know of a table, whatever it holds.
class TableBase : public Entity {
 public:
   // Delivers changes to the reactors until there are no more or the deadline has passed (at least
   // one batch is delivered). Returns whether more are left. Never throws: corruption is recorded.
   virtual bool poll( const Clock& clock, Seconds deadline ) = 0;
   // Wakes the readers if something was written since the last time. Once per batch of writes.
   virtual void ring() = 0;

   virtual const std::string& path() const = 0;
   virtual uint64_t tableId() const = 0;
   virtual uint32_t capacity() const = 0;
   virtual uint32_t count() const = 0;
   // How far the writer and this entity have come in the journal. What stands before the cursor has
   // been delivered; 0 while all keys are being walked.
   virtual uint64_t journalHead() const = 0;
   virtual uint64_t journalCursor() const = 0;
   // How many of the changes have been delivered: grows with each, in a walk over all keys too.
   virtual uint64_t changesTold() const = 0;
   uint64_t overruns() const { return overruns_; }

   // Records that the table was found corrupt: a line in the log for each new message, and a count.
   void corruptionDetected( const std::string& message ) const {
      ++corruptions_;
      if( message == lastCorruption_ )
         return;
      lastCorruption_ = message;
      log( "corruption detected: " + message );
   }
   uint64_t corruptions() const { return corruptions_; }

 protected:
   uint64_t cursor_ = 0;
   uint64_t overruns_ = 0;

 private:
   mutable uint64_t corruptions_ = 0;
   mutable std::string lastCorruption_;
};

template<class Key, class Record>
class SharedTable : public TableBase {
 public:
   struct Handlers {
      virtual ~Handlers() = default;
      // The entry of key appeared, changed or went; what it is now is read from the table.
      virtual void handleEntry( const Key& key ) = 0;
      // Changes were lost; every present key follows through handleEntry().
      virtual void handleOvertaken() {}
   };
   Notifiees<Handlers> notifiees;

   // Memory of this process.
   SharedTable( const TableSpec& spec, uint32_t capacity )
      : spec_( spec ), mapping_( TableMapping::anonymous( spec, capacity ) ), table_( *mapping_ ) {}

   enum class Mode { read, write };
   // Mode::write: the existing file with its content recovered, brought to capacity (at least to
   // its number of records), or a new one. Mode::read: the existing file; capacity is not looked
   // at. Throws TableError.
   SharedTable( const TableSpec& spec, const std::string& path, Mode mode, uint32_t capacity = 0 )
      : spec_( spec ) {
      if( mode == Mode::write )
         attachForWriting( path, capacity );
      else
         attachForReading( TableMapping::forReading( path, spec ) );
   }
   // The writer of a new file that takes the name path, from the file that has it if there is one,
   // when it already holds the record: nobody meets the name without it. Throws TableError.
   SharedTable( const TableSpec& spec, const std::string& path, uint32_t capacity,
                const Record& first )
      : spec_( spec ), mapping_( TableMapping::unpublished( path, spec, capacity ) ),
        table_( *mapping_ ) {
      if( !set( first ) ) // a new table has room, but the file system may have none for the file
         throw TableError( TableError::system, path + ": its first record can't be written" );
      mapping_->publish();
   }

   // --- reading -------------------------------------------------------------------------------
   // The record of key, or a zero record when absent. Content that can't be read is recorded as
   // corruption and reads as absent.
   Record get( const Key& key ) const { return get( key, keyHash( key ) ); }
   bool get( const Key& key, Record& record ) const { return get( key, keyHash( key ), record ); }
   // The same for a caller that looks one key up in several tables: hash is keyHash( key ).
   Record get( const Key& key, uint64_t hash ) const {
      Record record;
      if( !get( key, hash, record ) )
         record = Record();
      return record;
   }
   bool get( const Key& key, uint64_t hash, Record& record ) const {
      return recorded( [ & ] { return table_.get( key, hash, record ); } );
   }
   bool contains( const Key& key ) const {
      return recorded( [ & ] { return table_.contains( key ); } );
   }
   // Bring the index word of the key with that hash, or its record, nearer to the processor.
   void prefetchIndex( uint64_t hash ) const { table_.prefetchIndex( hash ); }
   void prefetchRecord( uint64_t hash ) const { table_.prefetchRecord( hash ); }

   // Calls each( record ) for every record, in memory order. Records may change meanwhile: one that
   // stays is met once. Corruption is recorded and ends the walk.
   template<class Each>
   void forEach( Each each ) const {
      try {
         Record record;
         for( uint32_t slot = 0; slot < slotCount(); ++slot )
            if( table_.readSlot( slot, record ) )
               each( std::as_const( record ) );
      } catch( const CorruptionDetected& failure ) {
         corruptionDetected( failure.what() );
      }
   }
   // Calls each( key ) for every key likewise.
   template<class Each>
   void forEachKey( Each each ) const {
      try {
         Key key;
         for( uint32_t slot = 0; slot < slotCount(); ++slot )
            if( table_.readKey( slot, key ) )
               each( key );
      } catch( const CorruptionDetected& failure ) {
         corruptionDetected( failure.what() );
      }
   }
   // The same in steps, for a walk in slices: slots 0 to slotCount() - 1.
   uint32_t slotCount() const {
      const uint32_t slots = table_.highWater();
      if( slots == 0 )
         recorded( [ & ] { return table_.requireHeader(), true; } );
      return slots;
   }
   std::optional<Record> inSlot( uint32_t slot ) const {
      Record record;
      if( recorded( [ & ] { return table_.readSlot( slot, record ); } ) )
         return record;
      return std::nullopt;
   }

   const std::string& path() const override { return mapping_->path(); }
   uint64_t tableId() const override { return mapping_->tableId(); }
   uint32_t capacity() const override { return table_.capacity(); }
   uint32_t count() const override { return table_.count(); }
   uint64_t journalHead() const override { return table_.journalHead(); }
   uint64_t journalCursor() const override {
      if( writable() )
         return journalHead(); // delivered at the time of the change
      return walkingAt_ ? 0 : cursor_;
   }
   uint64_t changesTold() const override { return writable() ? journalHead() : cursor_; }
   bool writable() const { return mapping_->writable(); }

   // --- writing -------------------------------------------------------------------------------
   // Writes the record under its own key. False, and nothing changed, when the table is full; false
   // too when the file has been cut short and takes nothing any more, which is recorded.
   [[nodiscard]] bool set( const Record& record ) {
      if( !recorded( [ & ] { return table_.set( record ); } ) )
         return false;
      changed( TableView<Key, Record>::keyOf( record ) );
      return true;
   }
   // Sees to it that the next new record finds room.
   [[nodiscard]] Room makeRoom() {
      return table_.count() < table_.capacity() ? Room::yes : Room::full;
   }
   // False when there was no such record.
   bool erase( const Key& key ) {
      if( !recorded( [ & ] { return table_.erase( key ); } ) )
         return false;
      changed( key );
      return true;
   }
   void eraseAll() {
      for( uint32_t slot = 0; slot < slotCount(); ++slot )
         if( const std::optional<Record> record = inSlot( slot ) )
            erase( TableView<Key, Record>::keyOf( *record ) );
   }
   // Brings the table, which is in a file, to another capacity; at least to its number of records.
   // The content is kept; readers follow. Takes the time of copying it. Throws TableError.
   void capacityIs( uint32_t capacity );
   void ring() override {
      if( !unrung_ )
         return;
      unrung_ = false;
      mapping_->ringBell();
   }

   // --- following -----------------------------------------------------------------------------
   bool poll( const Clock& clock, Seconds deadline ) override;
   // Lets poll() name every key that the table has now, before it goes on with the changes from
   // now on: how a reader that begins reads the whole table in slices.
   void walkAll() {
      cursor_ = table_.journalHead(); // what changes during the walk is told again by the journal
      walkingAt_ = 0;
   }
   // Whether such a walk, or that of a reader that was overtaken, is still under way.
   bool walking() const { return walkingAt_.has_value(); }

 private:
   using View = TableView<Key, Record>;

   void attachForReading( std::unique_ptr<TableMapping> mapping ) {
      mapping_ = std::move( mapping );
      static_cast<View&>( table_ ) = View( *mapping_ );
      cursor_ = table_.journalHead();
   }
   void attachForWriting( const std::string& path, uint32_t capacity );
   // What the operation returns; false when it finds corruption, which is recorded.
   template<class Operation>
   bool recorded( Operation operation ) const {
      try {
         return operation();
      } catch( const CorruptionDetected& failure ) {
         corruptionDetected( failure.what() );
         return false;
      }
   }
   void changed( const Key& key ) {
      unrung_ = true;
      notifiees.notify( &Handlers::handleEntry, key );
   }
   void startOver();
   bool walkOn( const Clock& clock, Seconds deadline );

   static constexpr size_t batch = 256; // changes between two looks at the clock

   TableSpec spec_;
   std::unique_ptr<TableMapping> mapping_;
   TableWriter<Key, Record> table_; // its reading part alone, on a read-only mapping
   bool unrung_ = false;
   std::optional<uint32_t>
      walkingAt_; // overtaken: the slot at which the walk over all keys goes on
};

template<class Key, class Record>
void SharedTable<Key, Record>::attachForWriting( const std::string& path, uint32_t capacity ) {
   mapping_ = TableMapping::forWriting( path, spec_, capacity );
   table_ = TableWriter<Key, Record>( *mapping_ );
   capacityIs( capacity );
   unrung_ = true; // the previous writer may have died before it rang
   ring();
   cursor_ = table_.journalHead();
}

template<class Key, class Record>
void SharedTable<Key, Record>::capacityIs( uint32_t capacity ) {
   capacity = std::max( capacity, table_.count() );
   if( capacity == table_.capacity() )
      return;
   // The content moves to a new file that takes over the name. Whoever has the old one mapped reads
   // on there until it sees that it is superseded.
   auto moved = TableMapping::unpublished( mapping_->path(), spec_, capacity );
   TableWriter<Key, Record> copy( *moved );
   bool complete = true;
   forEach( [ & ]( const Record& record ) {
      try {
         complete = copy.set( record ) && complete;
      } catch( const CorruptionDetected& ) {
         complete = false; // there is no memory for the new file
      }
   } );
   if( !complete ) // the old file stays as it is
      throw TableError( TableError::system, path() + ": no room to change its capacity" );
   // First the mark, then the new file: killed in between, this writer leaves a mark too many,
   // which the next one takes back, and not readers who stay with the old file for ever.
   table_.supersededIs( true );
   moved->publish();
   mapping_->ringBell();
   mapping_ = std::move( moved );
   table_ = std::move( copy );
   unrung_ = true;
}

template<class Key, class Record>
void SharedTable<Key, Record>::startOver() {
   ++overruns_;
   walkAll();
   notifiees.notify( &Handlers::handleOvertaken );
}

template<class Key, class Record>
bool SharedTable<Key, Record>::poll( const Clock& clock, Seconds deadline ) {
   try {
      if( table_.superseded() ) {
         auto newer = TableMapping::forReading( path(), spec_ );
         if( newer->tableId() != tableId() ) { // else it is about to be, or its writer died first
            attachForReading( std::move( newer ) );
            startOver();
         }
      }
      do {
         if( walkingAt_ ) {
            if( walkOn( clock, deadline ) )
               return true;
            continue;
         }
         const auto found = table_.readJournal( cursor_, batch, [ & ]( const Key& key ) {
            notifiees.notify( &Handlers::handleEntry, key );
         } );
         if( found == View::Journal::drained )
            return false;
         if( found == View::Journal::overtaken )
            startOver();
      } while( clock.now() < deadline );
      return true;
   } catch( const TableError& failure ) {
      corruptionDetected( failure.what() ); // a replaced file that can't be read
   } catch( const CorruptionDetected& failure ) {
      corruptionDetected( failure.what() );
   }
   return false;
}

// Some more of the walk over all keys; returns whether the deadline cut it short.
template<class Key, class Record>
bool SharedTable<Key, Record>::walkOn( const Clock& clock, Seconds deadline ) {
   for( uint32_t& slot = *walkingAt_; slot < slotCount(); ) {
      if( const std::optional<Record> record = inSlot( slot++ ) )
         notifiees.notify( &Handlers::handleEntry, View::keyOf( *record ) );
      if( slot % batch == 0 && clock.now() >= deadline )
         return true;
   }
   walkingAt_.reset();
   return false;
}

// The base of a table class: Self names its record type and collection.
//
//    class Doors : public Vexil::NamedTable<Doors, DoorId, Door> {
//     public:
//       using NamedTable::NamedTable;
//       static constexpr const char* typeName = "House::Doors";
//       static constexpr const char* collection = "door";
//    };
template<class Self, class Key, class Record>
class NamedTable : public SharedTable<Key, Record> {
 public:
   using Mode = typename SharedTable<Key, Record>::Mode;

   static TableSpec spec() {
      return { Self::typeName, Self::collection, sizeof( Key ), sizeof( Record ) };
   }
   explicit NamedTable( uint32_t capacity ) : SharedTable<Key, Record>( spec(), capacity ) {}
   NamedTable( const std::string& file, Mode mode, uint32_t capacity = 0 )
      : SharedTable<Key, Record>( spec(), file, mode, capacity ) {}
   NamedTable( const std::string& file, uint32_t capacity, const Record& first )
      : SharedTable<Key, Record>( spec(), file, capacity, first ) {}
};

} // namespace Vexil
