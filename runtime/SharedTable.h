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
//
// A record whose format is broken (Fault.h) is recorded as corruption and not handed out: a lookup
// finds nothing, a walk over the records ends. The next writer drops it when it attaches the table.
#pragma once

#include "runtime/Fault.h"
#include "runtime/TableBase.h"
#include "runtime/TableWriter.h"

#include <array>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>

namespace Vexil {

// A table of so many slots is copied in one go when it has to grow: that takes some milliseconds. A
// larger one is copied a little at a time.
#ifdef VEXIL_TEST_HOOKS
inline uint32_t slotsCopiedAtOnce = 65536;
#else
constexpr uint32_t slotsCopiedAtOnce = 65536;
#endif

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
   // Mode::write: the existing file with its content recovered, brought to that capacity if it has
   // less, or a new one; an empty one has memory for its first record. Mode::read: the existing
   // file; capacity is not looked at. Throws TableError.
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
      return recorded( [ & ] { return table_.get( key, hash, record ); } ) && isSound( record );
   }
   // slot is what prefetchRecord() said.
   bool get( const Key& key, uint64_t hash, uint32_t slot, Record& record ) const {
      return recorded( [ & ] { return table_.get( key, hash, slot, record ); } ) &&
             isSound( record );
   }
   // Looks many keys up: calls each( key, record ) for those that are there, in the order given.
   // Several times faster than one get() after the other where the table is larger than the
   // processor's caches: while one record is copied, the next ones come from memory.
   template<class Each>
   void getEach( std::span<const Key> keys, Each each ) const {
      constexpr size_t distance = 16; // keys: enough work to hide a memory access behind
      std::array<uint64_t, distance> hashes;
      std::array<uint32_t, distance> slots;
      for( size_t at = 0; at < keys.size() + 2 * distance; ++at ) {
         // Each key meets all three in turn: its index word is fetched, then its record, then
         // copied.
         if( at >= 2 * distance ) {
            const Key& key = keys[ at - 2 * distance ];
            Unfilled<Record> found;
            if( get( key, hashes[ at % distance ], slots[ at % distance ], found.record ) )
               each( key, std::as_const( found.record ) );
         }
         if( at >= distance && at - distance < keys.size() ) {
            hashes[ at % distance ] = keyHash( keys[ at - distance ] );
            slots[ at % distance ] = table_.prefetchRecord( hashes[ at % distance ] );
         }
         if( at < keys.size() )
            table_.prefetchIndex( keyHash( keys[ at ] ) );
      }
   }
   // Whether there is a record of that key; not whether its format is sound.
   bool contains( const Key& key ) const {
      return recorded( [ & ] { return table_.contains( key ); } );
   }
   // Bring the index word of the key with that hash, or its record, nearer to the processor. The
   // latter says in which slot the record seems to be, which spares get() and set() the index;
   // noSlot when it seems to be in none.
   void prefetchIndex( uint64_t hash ) const { table_.prefetchIndex( hash ); }
   uint32_t prefetchRecord( uint64_t hash ) const { return table_.prefetchRecord( hash ); }

   // Calls each( record ) for every record, in memory order. Records may change meanwhile: one that
   // stays is met once. Corruption is recorded and ends the walk.
   template<class Each>
   void forEach( Each each ) const {
      try {
         Record record;
         for( uint32_t slot = 0; slot < slotCount(); ++slot ) {
            if( !table_.readSlot( slot, record ) )
               continue;
            if( !isSound( record ) )
               return;
            each( std::as_const( record ) );
         }
      } catch( const CorruptionDetected& failure ) {
         corruptionDetected( failure.what() );
      }
   }
   // Calls each( record, fault ) for every record whose format is broken, with what is wrong.
   template<class Each>
   void forEachBroken( Each each ) const {
      if( spec_.formatFault )
         forEachStored( [ & ]( const Record& record ) {
            if( const auto fault = spec_.formatFault( &record ) )
               each( record, *fault );
         } );
   }
   // Calls each( key ) for every key likewise.
   template<class Each>
   void forEachKey( Each each ) const {
      try {
         for( uint32_t slot = 0, end; slot < ( end = slotCount() ); slot = end )
            table_.forEachKeyIn( slot, end, each );
      } catch( const CorruptionDetected& failure ) {
         corruptionDetected( failure.what() );
      }
   }
   // The same nearly in the order of the keys' hashes, for whoever fills a keyed collection from a
   // table that this process writes: it then finds each place beside the one before.
   template<class Each>
   void forEachKeyByHash( Each each ) const {
      recorded( [ & ] { return table_.forEachKeyByHash( each ), true; } );
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
      if( recorded( [ & ] { return table_.readSlot( slot, record ); } ) && isSound( record ) )
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
   // How far the table may grow by itself: a full one takes double the capacity, up to this.
   // Without it a table stays as it was made. Throws TableError above maxCapacity.
   void capacityMaxIs( uint32_t capacity ) final;
   // Writes the record under its own key. False, and nothing changed, when there is no room for a
   // new one (makeRoom() says why); false too when the file has been cut short and takes nothing
   // any more, which is recorded. What is there can always be written again.
   [[nodiscard]] bool set( const Record& record ) {
      return set( record, keyHash( TableView<Key, Record>::keyOf( record ) ) );
   }
   // The same for a caller that has looked the key up: hash is keyHash( key ), slot as for get().
   [[nodiscard]] bool set( const Record& record, uint64_t hash, uint32_t slot = noSlot ) {
      if( table_.count() >= growAt_ )
         growOn();
      if( !recorded( [ & ] { return table_.set( record, hash, slot ); } ) &&
          ( !grows() || makeRoom() != Room::yes ||
            !recorded( [ & ] { return table_.set( record, hash ); } ) ) )
         return false;
      changed( TableView<Key, Record>::keyOf( record ) );
      return true;
   }
   // Sees to it that the next new record finds room, and says why if it doesn't. Costs two loads
   // while there is room; a table that has to grow is copied first. After noMemory nothing is tried
   // for a second: asking again is cheap, and room that comes is found within that time. expected
   // says how many new records may come in all: a table that has to grow grows for all of them, so
   // that readers have one new file to follow rather than many, and so that keys that come in the
   // order of their hashes don't crowd in a part of the index.
   [[nodiscard]] Room makeRoom( size_t expected = 1 ) final {
      return table_.hasRoom() ? Room::yes : makeMoreRoom( expected );
   }
   uint64_t roomLeft() const final {
      return uint64_t( std::max( table_.capacity(), capacityMax_ ) ) - table_.count();
   }
   // False when there was no such record.
   bool erase( const Key& key ) {
      if( !recorded( [ & ] { return table_.erase( key ); } ) )
         return false;
      if( growth_ && table_.count() < growAt_ / 2 )
         growth_.reset(); // the larger table is not needed after all
      changed( key );
      return true;
   }
   void eraseAll() {
      forEachKey( [ this ]( const Key& key ) { erase( key ); } );
   }
   // Brings the table to another capacity; at least to its number of records. The content is kept;
   // readers follow. Takes the time of copying it. Throws TableError.
   void capacityIs( uint32_t capacity ) final;
   void ring() override {
      if( !unrung_ )
         return;
      if( onLoss_ && mapping_->cutShort() )
         lost( path() + ": the file was cut short" );
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
   void dropBroken();
   // Where the record's own header has a quick answer, the rule is asked only when that is no.
   bool isSound( const Record& record ) const {
      if constexpr( requires { isFormatSound( record ); } )
         if( isFormatSound( record ) ) [[likely]]
            return true;
      return !spec_.formatFault || !isBroken( record );
   }
   bool isBroken( const Record& record ) const {
      const auto fault = spec_.formatFault( &record );
      if( fault ) [[unlikely]]
         corruptionDetected( path() + ": " + *fault );
      return fault.has_value();
   }
   // Every record, whatever is in it.
   template<class Each>
   void forEachStored( Each each ) const {
      Record record;
      for( uint32_t slot = 0; slot < slotCount(); ++slot )
         if( recorded( [ & ] { return table_.readSlot( slot, record ); } ) )
            each( std::as_const( record ) );
   }
   // What the operation returns; false when it finds corruption, which is recorded.
   template<class Operation>
   bool recorded( Operation operation ) const {
      try {
         return operation();
      } catch( const CorruptionDetected& failure ) {
         lost( failure.what() );
         return false;
      }
   }
   void changed( const Key& key ) {
      unrung_ = true;
      notifiees.notify( &Handlers::handleEntry, key );
   }
   bool grows() const { return table_.capacity() < capacityMax_; }
   uint32_t nextCapacity( size_t expected ) const;
   [[gnu::noinline]] Room makeMoreRoom( size_t expected );
   [[gnu::noinline]] void growOn();
   void grow( uint32_t capacity, uint32_t slots );
   void moveTo( uint32_t capacity );
   void capacityChanged();
   void follow( std::unique_ptr<TableMapping> newer );
   void startOver();
   bool walkOn( const Clock& clock, Seconds deadline );

   static constexpr size_t batch = 256; // changes between two looks at the clock

   TableSpec spec_;
   std::unique_ptr<TableMapping> mapping_;
   TableWriter<Key, Record> table_; // its reading part alone, on a read-only mapping
   bool unrung_ = false;
   std::optional<uint32_t>
      walkingAt_; // overtaken: the slot at which the walk over all keys goes on

   uint32_t capacityMax_ = 0;
   uint32_t growAt_ = UINT32_MAX; // records from which on the table is copied a little at a time
   std::unique_ptr<TableGrowth<Key, Record>> growth_;
   LastFailure shortage_;
};

// Goes over to the file that has taken the name. One that goes on with the slots and the journal of
// this one is read on at the same places.
template<class Key, class Record>
void SharedTable<Key, Record>::follow( std::unique_ptr<TableMapping> newer ) {
   const bool goesOn = loadWord( &newer->header().predecessor ) == tableId();
   const uint64_t cursor = cursor_;
   attachForReading( std::move( newer ) );
   if( goesOn )
      cursor_ = cursor;
   else
      startOver();
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
         if( newer->tableId() != tableId() ) // else it is about to be, or its writer died first
            follow( std::move( newer ) );
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

// Some more of the walk over all keys; returns whether the deadline cut it short. Corruption ends
// the walk.
template<class Key, class Record>
bool SharedTable<Key, Record>::walkOn( const Clock& clock, Seconds deadline ) {
   try {
      while( *walkingAt_ < slotCount() ) {
         const uint32_t first = *walkingAt_;
         *walkingAt_ = std::min( first + uint32_t( batch ), slotCount() );
         table_.forEachKeyIn( first, *walkingAt_, [ this ]( const Key& key ) {
            notifiees.notify( &Handlers::handleEntry, key );
         } );
         if( clock.now() >= deadline )
            return true;
      }
   } catch( const CorruptionDetected& failure ) {
      corruptionDetected( failure.what() );
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
//
// Where there is a formatFaultIn( const Door& ) beside the record, it is the rule of the table;
// where there is a layoutOf( const Door& ), the number that it returns is compared with the
// writer's.
template<class Self, class Key, class Record>
class NamedTable : public SharedTable<Key, Record> {
 public:
   using Mode = typename SharedTable<Key, Record>::Mode;

   static TableSpec spec() {
      TableSpec spec{ Self::typeName, Self::collection, sizeof( Key ), sizeof( Record ) };
      if constexpr( requires( const Record& record ) { formatFaultIn( record ); } )
         spec.formatFault = formatFault;
      if constexpr( requires( const Record& record ) { layoutOf( record ); } )
         spec.recordLayout = layoutOf( Record() );
      return spec;
   }
   explicit NamedTable( uint32_t capacity ) : SharedTable<Key, Record>( spec(), capacity ) {}
   NamedTable( const std::string& file, Mode mode, uint32_t capacity = 0 )
      : SharedTable<Key, Record>( spec(), file, mode, capacity ) {}
   NamedTable( const std::string& file, uint32_t capacity, const Record& first )
      : SharedTable<Key, Record>( spec(), file, capacity, first ) {}

 private:
   static std::optional<std::string> formatFault( const void* bytes ) {
      const auto& record = *static_cast<const Record*>( bytes );
      const std::optional<Fault> fault = formatFaultIn( record );
      if( !fault ) [[likely]]
         return std::nullopt;
      std::string key;
      if constexpr( requires( const Key& k ) { k.str(); } )
         key = TableView<Key, Record>::keyOf( record ).str() + ": ";
      return key + fault->text;
   }
};

} // namespace Vexil

#include "runtime/SharedTableGrowth.h" // the rest of it

// Before a table of known types is used: its code stands where VEXIL_TABLE_CODE is, and is not made
// again in each file that uses it. At global scope.
#define VEXIL_TABLE( Key, Record )                                                                 \
   extern template class Vexil::TableView<Key, Record>;                                            \
   extern template class Vexil::TableWriter<Key, Record>;                                          \
   extern template class Vexil::TableGrowth<Key, Record>;                                          \
   extern template class Vexil::SharedTable<Key, Record>;
#define VEXIL_TABLE_CODE( Key, Record )                                                            \
   template class Vexil::TableView<Key, Record>;                                                   \
   template class Vexil::TableWriter<Key, Record>;                                                 \
   template class Vexil::TableGrowth<Key, Record>;                                                 \
   template class Vexil::SharedTable<Key, Record>;
