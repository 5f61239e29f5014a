// Publishes one source: what a daemon links that has hosts to offer to the layer-2 RIB.
//
//    SourcePublisher source( { .stateDirectory = "/run/l2rib", .name = "evpn",
//                              .value = L2Rib::Source( 0x40 ) } );
//    if( const auto wrong = source.hostIs( host ) )
//       log( *wrong );
//    source.initializedIs( true ); // the first copy is complete
//    source.flush();               // once a batch, not once a host
//
// The agent, if one runs, reads what was written when flush() wakes it; it may start, stop and
// start again at any time, and so may this process. The tables are files that outlive both.
//
// Life: the constructor publishes the source, first its tables, then its entry. Destruction, like a
// crash, leaves both, and the agent goes on using them: the source is kept. withdraw() removes
// both. A publisher of the same name takes over what was kept with all its content: with the same
// value and tables the agent notices nothing, with another value or other tables it meets a new
// source. begin() and end() then bring the content up to date without touching what is unchanged.
//
// Errors: the constructor throws PublishRefused, with nothing touched, when the source may not be
// published, and Vexil::TableError when files can't be made or what was kept can't be read. The
// operations never throw for what they are given: they check it (Validation.h), say in one line why
// it can't be, and then have changed nothing. A full table is reported in the same way, and so is a
// state directory without memory: what was refused is to be offered again later.
//
// Threads: all calls from one thread at a time. There is no thread and no timer in here.
#pragma once

#include "L2Rib/FloodRecords.h"
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/Status.h"
#include "client/SourceFolder.h"
#include "client/Validation.h"
#include "runtime/HashMap.h"

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace L2Rib::Client {

struct SourceOptions {
   std::string stateDirectory;
   // 1 to 63 characters, without '/' and control characters, not beginning with '.', not "static".
   std::string name;
   // A single bit, not 0x10, that no other published source has.
   Source value = sourceNone_;
   // Capacities in records, with which the tables begin; a great one costs an index. A table that
   // is taken over with another one than it had begun with is brought to it; else it stays as it
   // is.
   uint32_t hostCapacity = 65536;
   uint32_t objectCapacity = 16384; // of the dests, the groups and the labels, each
   uint32_t floodCapacity = 16384;
   // A table that is full takes double the capacity, up to this.
   uint32_t capacityMax = defaultCapacityMax;
   // Only a host table, for hosts with inline destinations.
   bool hostOnly = false;
};

// The source may not be published. The text says why and what was expected.
class PublishRefused : public std::runtime_error {
 public:
   enum Kind {
      unusable, // the options are wrong in themselves
      taken     // the name or the value is another's, at present
   };
   PublishRefused( Kind kind, const std::string& text )
      : std::runtime_error( text ), kind_( kind ) {}
   Kind kind() const { return kind_; }

 private:
   Kind kind_;
};

class SourcePublisher {
 public:
   explicit SourcePublisher( const SourceOptions& options );

   // --- content -------------------------------------------------------------------------------
   // Writes the record under its own key, whether new or changed. A record that is already there
   // isn't written again, so that no reader sees a change where there is none. A host's update time
   // is filled in here: the time of its last real change, by the system's clock.
   [[nodiscard]] Rejection hostIs( Host host );
   [[nodiscard]] Rejection destIs( const Dest& dest );
   [[nodiscard]] Rejection lbIs( const LoadBalance& lb );
   [[nodiscard]] Rejection labelIs( const Label& label );
   // The type is that of the whole flood set: the set's other members take it over.
   [[nodiscard]] Rejection floodIs( const FloodMember& member );
   // Delete what has that key. What isn't there needs no deletion and is no error.
   [[nodiscard]] Rejection hostDel( const Bridging::MacVlanPair& key );
   [[nodiscard]] Rejection destDel( DestId id );
   [[nodiscard]] Rejection lbDel( LoadBalanceId id );
   [[nodiscard]] Rejection labelDel( LabelId id );
   [[nodiscard]] Rejection floodDel( const FloodSetTriple& triple );
   // Empties all tables.
   void clear();

   // What is published under that key, by this run or by the one before.
   std::optional<Host> host( const Bridging::MacVlanPair& key ) const;
   // What has been written of the hosts so far. The agent has read it when its SourceStatusRecord
   // has a mark of the same table and at least that cursor.
   ReadMark hostMark() const;

   // Whether the tables hold a complete copy; until then the agent does not look at them, and once
   // it is off again the agent takes the source's hosts for unknown. A new source starts with off.
   void initializedIs( bool initialized );

   // From begin() on, what is written is also noted as named. end() deletes whatever was not named:
   // hosts first, then labels, groups, dests and flood members. Not nested.
   [[nodiscard]] Rejection begin();
   [[nodiscard]] Rejection end();

   // Wakes the agent if anything was written since the last time.
   void flush();

   // Removes the entry, then the tables. The publisher is of no use afterwards.
   void withdraw();

   const SourceOptions& options() const { return options_; }

 private:
   // One table and, between begin() and end(), what was named in it.
   template<class Table, class Key>
   struct Owned {
      const char* content;
      Vexil::Ptr<Table> table; // null where a host-only source has none
      Vexil::KeySet<Key> named;
   };

   void requireUsable() const;
   void requireFree() const;
   SourceEntryRecord wantedRecord() const;
   void openTables();
   void openEntry( bool tablesComplete );
   void eraseHostsOnObjects();
   template<class Table, class Key>
   void open( Owned<Table, Key>& owned, const TablePath& path, uint32_t capacity,
              uint32_t capacityBefore );
   SourceEntryRecord keptRecord() const;
   template<class Each>
   void forEachOwned( Each each );

   template<class Table, class Key>
   Rejection missing( const Owned<Table, Key>& owned ) const;
   template<class Table, class Key>
   static Rejection noRoom( const Owned<Table, Key>& owned );
   // Carried out unless there is no such table, or the input is bad.
   template<class Table, class Key, class Record>
   Rejection write( Owned<Table, Key>& owned, const Rejection& bad, const Key& key,
                    const Record& record );
   template<class Table, class Key>
   Rejection erase( Owned<Table, Key>& owned, const Rejection& bad, const Key& key );
   template<class Table, class Key>
   static void eraseUnnamed( Owned<Table, Key>& owned );
   void noteFloodTypes();

   SourceOptions options_;
   SourceFolder folder_;
   Vexil::Ptr<SourceEntryTable> entry_;
   Owned<HostInput, Bridging::MacVlanPair> hosts_{ "hosts", {}, {} };
   Owned<LabelTable, LabelId> labels_{ "labels", {}, {} };
   Owned<LoadBalanceTable, LoadBalanceId> lbs_{ "groups", {}, {} };
   Owned<DestTable, DestId> dests_{ "dests", {}, {} };
   Owned<FloodMemberTable, FloodMemberKey> flood_{ "flood sets", {}, {} };
   std::map<std::pair<Bridging::VlanId, Vexil::EthAddr>, FloodSetType> floodTypes_;
   bool begun_ = false;
   Vexil::SystemClock clock_;
};

} // namespace L2Rib::Client
