// Reads the output of the agent: what a daemon links that programs hardware or routes from it.
//
//    OutputReader output( "/run/l2rib" );
//    output.hosts.follow( []( const MacVlanPair& key, const HostAndSource* row ) { ... } );
//    output.inSyncIs( [] { ... } ); // the present content has been told
//    while( ... ) {
//       poll( output.fd() ... );    // beside the daemon's own descriptors
//       output.process();
//    }
//
// A row of the flood output is one member of a flood set: a frame to that address in that VLAN is
// copied to that destination. A set is there for as long as it has a member.
//
// Rows can be looked up and listed at any time, without following them. A follower is told each row
// that is there, and then each row that appears, changes or goes, once per net change: what changed
// several times since the last process() is told as it is now, and what came and went is not told.
// A follower that falls behind misses nothing in the end.
//
// No agent needs to run: its tables stay, and the reader goes on when the next agent takes them
// over. No agent needs ever to have run: the reader waits for the tables to appear. It only reads,
// and nothing that it does can disturb the agent.
//
// Ownership: the reader owns its mappings and descriptors; rows are handed out as copies, or, to a
// follower, for the time of the call. A follower must not destroy the reader.
//
// Errors: the constructor throws Vexil::TableError when a table is there that can't be read, or the
// state directory isn't. Damage found later is logged, and rows that can't be read count as absent.
//
// Threads: all calls from one thread at a time, the followers are called from within process().
#pragma once

#include "L2Rib/FloodRecords.h"
#include "L2Rib/L2RibTarn.h"
#include "client/AwaitedFolder.h"
#include "runtime/FileWatcher.h"
#include "runtime/HashMap.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace L2Rib::Client {

// One output table. Its members are the same for all of them; a row of it is a Record.
template<class Table, class Key, class Record>
class OutputTable {
 public:
   explicit OutputTable( std::string file );
   ~OutputTable();
   OutputTable( const OutputTable& ) = delete;
   OutputTable& operator=( const OutputTable& ) = delete;

   // Null while no agent has made the table; rows are then absent.
   const Vexil::Ptr<Table>& table() const { return table_; }
   std::optional<Record> get( const Key& key ) const;
   // All rows, ordered by key.
   std::vector<Record> list() const;

   // row is null when the row of that key has gone.
   using Changed = std::function<void( const Key& key, const Record* row )>;
   // To be called once, before the first process().
   void follow( Changed changed ) { changed_ = std::move( changed ); }

 private:
   friend class OutputReader;
   class Mirror;

   // Goes over to the file that has the table's name now, if there is one.
   void attach( Vexil::FileWatcher& watcher );
   // Starts the follower on a table that is new to it.
   void tell();

   std::string file_;
   Vexil::Ptr<Table> table_;
   Changed changed_;
   std::unique_ptr<Mirror> mirror_;
};

using HostRows = OutputTable<HostOutput, Bridging::MacVlanPair, HostAndSource>;
using DestRows = OutputTable<DestOutput, DestId, DestAndSource>;
using GroupRows = OutputTable<LoadBalanceOutput, LoadBalanceId, LoadBalanceAndSource>;
using LabelRows = OutputTable<LabelOutput, LabelId, LabelAndSource>;
using FloodRows = OutputTable<FloodMemberTable, FloodMemberKey, FloodMember>;
using FloodSourceRows = OutputTable<FloodSourceTable, uint32_t, FloodSourceRecord>;

class OutputReader {
 public:
   explicit OutputReader( const std::string& stateDirectory );
   ~OutputReader();

   HostRows hosts;
   DestRows dests;
   GroupRows groups;
   LabelRows labels;
   FloodRows flood;
   // Under the key 1: the mask of the sources that take part.
   FloodSourceRows floodSource;

   // Whether all tables are there.
   bool complete() const;

   // Readable whenever process() has something to do, from the start on.
   int fd() const { return loop_.fd(); }
   // Tells the followers what has changed, for some 0.1 s at most once they know the present
   // content; what is left then keeps fd() readable. Never waits.
   void process();
   // Calls inSync() once, when all that was there at first has been told.
   void inSyncIs( std::function<void()> inSync ) { inSync_ = std::move( inSync ); }

 private:
   void attachAll();
   // Calls use( table ) for each of them.
   template<class Use>
   void forEachTable( Use use );

   Vexil::ActivityManager loop_;
   Vexil::FileWatcher watcher_;
   std::optional<AwaitedFolder> folder_; // of the tables
   int more_ = -1;                       // an eventfd that keeps fd() readable
   std::function<void()> inSync_;
};

} // namespace L2Rib::Client
