// The policy engine: from the tables of all sources to one consistent output.
//
// Sources report which keys changed (handleHost, handleOtas). That only queues: the review timer
// works the queues off in slices of at most reviewQuantum seconds, hosts first. A host is decided
// anew from the sources' present content each time (processHost); the object that the winner points
// to is copied to the output first, members before what points at them (processOtas); the copy
// counts its users and goes with the last one (addUser, rmUser). What can't be done now is parked,
// and tried again when the hammer timer ticks or when something came that a parked entry waits for.
//
// Invariants of the output, after every single write: what a row points to exists; every object has
// a user or is about to go; every row's ids are output ids.
//
// A new engine adopts the output that it finds, checks it and reconciles it with the sources before
// it enters normal work; until then changes are only queued.
//
// One source file a concern: L2RibPolicySm.cpp (construction), BestHost.cpp, ObjectMapping.cpp,
// Users.cpp, Review.cpp, Restart.cpp, FloodSetMerge.cpp, Sources.cpp. The bookkeeping is in classes
// of its own, each with one question: Awaited, ObjectMemo, ObjectDepths, OutputTables, OutputUsers,
// OutputSweep, VanishedSources.
//
// All of it runs on the event-loop thread.
#pragma once

#include "L2Rib/ObjTupleManager.h"
#include "L2Rib/RestartState.h"
#include "L2Rib/SourceDir.h"
#include "engine/Awaited.h"
#include "engine/HostsAhead.h"
#include "engine/L2RibPolicySourceSm.h"
#include "engine/ObjectDepths.h"
#include "engine/ObjectMemo.h"
#include "engine/OutputSweep.h"
#include "engine/OutputTables.h"
#include "engine/OutputUsers.h"
#include "engine/VanishedSources.h"
#include "runtime/Clock.h"
#include "runtime/StateDb.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace L2Rib {

class PolicySm : public Vexil::Entity {
 public:
   using Seconds = Vexil::Seconds;
   template<class T>
   using Ptr = Vexil::Ptr<T>;

   using Tables = OutputTables;

   PolicySm( Ptr<Vexil::EntityManager> entityManager, Ptr<const Vexil::Directory> sourceDir,
             Ptr<const AgentSourceDir> agentSourceDir, const Tables& output );
   ~PolicySm() override;

   // --- tunables, in seconds ------------------------------------------------------------------
   VEXIL_ATTRIBUTE( Seconds, reviewQuantum, 0.05 )
   VEXIL_ATTRIBUTE( Seconds, floodReviewQuantum, 0.05 )
   VEXIL_ATTRIBUTE( Seconds, hammerReviewInterval, 10.0 )
   // How long what a source that vanished left in the output stays there unexamined.
   VEXIL_ATTRIBUTE( Seconds, sourceHoldTime, 30.0 )

   // --- best host (BestHost.cpp) --------------------------------------------------------------
   // A source's host for mvp appeared, changed or went. Only queues.
   void handleHost( const Bridging::MacVlanPair& mvp );
   // That many hosts are about to be named, or these ones next: hints that make a replay faster.
   void expectHosts( size_t count );
   void prefetchHandleHost( const Bridging::MacVlanPair& mvp ) const;
   // Decides mvp anew and brings the output in line. False when the winner could not be programmed:
   // the output is as it was and mvp is parked.
   bool processHost( const Bridging::MacVlanPair& mvp );
   bool hostIsBetter( const Host& host, Source source, const Host& curBestHost,
                      Source curBestHostSource ) const;
   // Whether the VTEPs of an inline destination are in strictly ascending order.
   bool validDest( const CiDest& ciDest ) const;
   // Whether a row's source is one of the known external ones; for inspection only.
   static bool sourceValid( const HostAndSource& row );

   // --- object mapping (ObjectMapping.cpp) ----------------------------------------------------
   // A source's object appeared, changed or went. Only queues.
   void handleOtas( const ObjTupleAndSource& otas );
   // Brings the output copy of an input object, and all below it, up to date; makes copies that do
   // not exist when forceCreate is true. False when something below it could not be.
   bool processOtas( const ObjTupleAndSource& otas, bool forceCreate );
   // The output object of an input object; invalid when it has no copy.
   ObjTuple outputObjTuple( const ObjTupleAndSource& otas ) const;
   // Takes back the id of an input object that is gone from its source, if no row has it.
   void forgetUnwritten( const ObjTupleAndSource& otas );
   DestId outputDestId( const ObjTupleAndSource& otas ) const;
   LoadBalanceId outputLbId( const ObjTupleAndSource& otas ) const;
   LabelId outputLabelId( const ObjTupleAndSource& otas ) const;
   const Ptr<ObjTupleManager>& tupleManager( TableType tableType ) const;
   const Ptr<ObjTupleManager>& tupleManagerIs( TableType tableType, uint64_t lowest,
                                               uint64_t highest );
   void tupleManagerDel( TableType tableType ) { tupleManager_.erase( tableType ); }
   void tupleManagerDelAll() { tupleManager_.clear(); }

   // --- users (Users.cpp) ---------------------------------------------------------------------
   // A user is an output object or an output host: exactly one of the two is valid.
   void addUser( const ObjTuple& otUsed, const ObjTuple& otUser,
                 const Bridging::MacVlanPair& mvpUser );
   void rmUser( const ObjTuple& otUsed, const ObjTuple& otUser,
                const Bridging::MacVlanPair& mvpUser );
   bool isUser( const ObjTuple& otUsed, const ObjTuple& otUser,
                const Bridging::MacVlanPair& mvpUser ) const;
   // The users of one output object; null when it has none.
   Ptr<ObjTupleUsers> usersMap( const ObjTuple& used ) const { return users_.record( used ); }
   const Vexil::HashMap<ObjTuple, Ptr<ObjTupleUsers>>& usersMap() const { return users_.records(); }
   const Ptr<ObjTupleUsers>& usersMapIs( const ObjTuple& used ) { return users_.recordIs( used ); }
   void usersMapDel( const ObjTuple& used ) { users_.recordDel( used ); }
   void usersMapDelAll() { users_.recordDelAll(); }
   // All relations between a user and what it uses.
   uint64_t userCount() const { return users_.relations(); }

   // --- review (Review.cpp) -------------------------------------------------------------------
   VEXIL_KEY_SET( Bridging::MacVlanPair, hostList )
   VEXIL_KEY_SET( ObjTupleAndSource, otasList )
   VEXIL_KEY_SET( Bridging::MacVlanPair, failedHost )
   VEXIL_KEY_SET( ObjTupleAndSource, failedOtas )
   VEXIL_ATTRIBUTE( Bridging::MacVlanPair, hostBookmark )
   VEXIL_ATTRIBUTE( ObjTupleAndSource, otasBookmark )
   void maybeRescheduleHostReview();
   void foundFailedHost( const Bridging::MacVlanPair& mvp );
   void foundFailedOtas( const ObjTupleAndSource& otas );
   void handleReviewTimer();
   void handleHammerReviewTimer();
   // Parked entries that were tried again, so far.
   uint64_t retries() const { return retries_; }
   // What the parked entries wait for, flood members among them.
   const Awaited& awaited() const { return awaited_; }
   Awaited& awaited() { return awaited_; }

   // --- restart (Restart.cpp) -----------------------------------------------------------------
   PolicySmRestartState restartState() const { return restartState_; }
   // How long the restart took, or has taken so far; and what it still has to look at.
   Seconds restartDuration() const;
   uint64_t restartEntriesLeft() const;
   // A check found rows that contradict each other. Never reset.
   VEXIL_ATTRIBUTE( bool, detectedInconsistentTables, false )
   VEXIL_KEY_SET( Bridging::MacVlanPair, hostForSourceCheck )
   VEXIL_ATTRIBUTE( Bridging::MacVlanPair, hostForSourceCheckBookmark )
   VEXIL_KEY_SET( ObjTuple, otForSourceCheck )
   VEXIL_ATTRIBUTE( ObjTuple, otForSourceCheckBookmark )
   VEXIL_KEY_SET( Bridging::MacVlanPair, hostForInitialSync )
   VEXIL_ATTRIBUTE( Bridging::MacVlanPair, hostForInitialSyncBookmark )
   // Objects without a user whose delete was put off: to the end of the restart, or of the work on
   // one host or object.
   VEXIL_KEY_SET( ObjTuple, otForZeroRefCleanup )
   VEXIL_ATTRIBUTE( ObjTuple, otForZeroRefCleanupBookmark )
   // The path from the object that is being wiped to the one at work.
   VEXIL_KEY_SET( ObjTuple, objTupleForLoopCheck )
   // One slice of the restart.
   void handleInitialSyncTimer();
   // The three checks of the found rows, as far as they get until end. True when they are over: the
   // state is then initialHostScan, or the output has been wiped.
   bool handleSourceCheck( const Seconds& start, const Seconds& end );
   bool existsForSourceCheck( const ObjTuple& ot );
   // Enters which input object a found row is a copy of.
   void restoreMapping( const ObjTupleAndSource& sourceOtas, const ObjTuple& outputOt );
   void handleZeroRefCleanupCheck( const ObjTuple& ot );
   // Empties the output and all that is known of it, and enters normal work.
   void handleTablesInconsistent();
   void delOtForInconsistency( const ObjTuple& ot );
   void maybeRescheduleInitialSyncReview();

   // --- flood sets (FloodSetMerge.cpp) --------------------------------------------------------
   VEXIL_KEY_SET( FloodSetTriple, floodSetBacklog )
   VEXIL_ATTRIBUTE( FloodSetTriple, floodSetBookmark )
   VEXIL_ATTRIBUTE( bool, floodSetBookmarkValid, false )
   // Members that found no room in the output; tried again like failed hosts.
   const Vexil::HashMap<ParkedKey, FloodSetTriple>& failedFloodSet() const {
      return failedFloodSet_;
   }
   // Makes the timer that works the backlog, due at the next turn.
   void floodSetTimerIs( Ptr<Vexil::Clock> clock );
   // Lets the backlog be worked at the next turn of the event loop.
   void setFloodSetTimer();
   void processFloodSetBacklog();
   // That many members are about to be queued: a hint that makes a replay faster.
   void expectFloodMembers( size_t count );
   // Judges one member anew: it is in the output exactly when a ready source has it.
   void handleFloodSetDest( const Bridging::VlanId& vlan, const Vexil::EthAddr& mac,
                            const Dest& dest );
   // Recomputes the mask of the initialized sources.
   void setFloodSetOutputType();

   // --- sources (Sources.cpp) -----------------------------------------------------------------
   // Follows a directory. handleSource() then looks at what it holds.
   void sourceDirIs( Ptr<const Vexil::Directory> sourceDir );
   void agentSourceDirIs( Ptr<const AgentSourceDir> agentSourceDir );
   // Reconciles the state machines with the directories: all names, or one.
   void handleSource();
   void handleSource( const std::string& name );
   const Vexil::HashMap<std::string, Ptr<PolicySourceSm>>& sourceSm() const { return sourceSm_; }
   Ptr<PolicySourceSm> sourceSm( const std::string& name ) const;
   Ptr<PolicySourceSm> sourceSmIs( const std::string& name, Ptr<const SourceDirEntry> source,
                                   PolicySm* policySm, Ptr<Vexil::EntityManager> entityManager );
   // The state machine that serves a source value; null when there is none.
   Ptr<PolicySourceSm> sourceSmByEnum( Source source ) const;
   void sourceSmByEnumIs( Source source, Ptr<PolicySourceSm> sm );
   // What is queued of the source's objects goes with it; its hosts stay until the hold is over.
   void sourceSmByEnumDel( Source source );
   VEXIL_DELETE_ALL( sourceSmByEnum )
   // The state machine goes, and every registration by value with it.
   void sourceSmDel( const std::string& name );
   VEXIL_DELETE_ALL( sourceSm )
   // The source's tables have been replayed: what was held for it is examined.
   void handleSourceReplayed( Source source );
   // Queues all of the output for review, in slices, but for what vanished sources keep.
   void reviewOutput();
   // How much of that is still to be looked at, at the most: slots of the host output and VLANs of
   // the flood output. 0 when none is under way.
   uint64_t withdrawalChecksLeft() const { return sweep_.left(); }
   const VanishedSources& vanishedSources() const { return vanished_; }
   // A source's table was read too late: changes were lost to us, and all of it is read again.
   void noteOverrun() { ++overruns_; }
   uint64_t overruns() const { return overruns_; }

   // Set once, at the start of the adoption.
   bool initialized() const { return initialized_; }
   const Ptr<HostOutput>& hostOutput() const { return output_.host; }
   const Ptr<LoadBalanceOutput>& lbOutput() const { return output_.lb; }
   const Ptr<LabelOutput>& labelOutput() const { return output_.label; }
   const Ptr<DestOutput>& destOutput() const { return output_.dest; }
   const Ptr<FloodSetOutput>& floodSet() const { return output_.flood; }
   const Ptr<Vexil::Clock>& clock() const { return clock_; }

 private:
   class SourceDirReactor;
   class AgentSourceDirReactor;

   void handleInitialized();
   void adoptHosts();
   void adoptFloodSets();
   template<class Table>
   uint64_t adoptObjects( const Table& table );
   void restartStateIs( PolicySmRestartState state );
   bool checkHosts( Seconds end );
   bool checkObjects( Seconds end );
   void checkObject( const ObjTuple& ot );
   bool checkFloating( Seconds end );
   bool requireNext( const ObjTuple& next );
   bool scanHosts( Seconds end );
   void cleanUpZeroRefs( Seconds end );

   // What a group's copy comes to: its new row, and the relations that were added on the way.
   struct Members {
      LoadBalance newLb;
      ObjTupleSet newNexts;
      std::vector<ObjTuple> otUsersAdded;
      bool changed = false; // a position differs from the old row
      bool whole = true;
      unsigned deepest = 0;
   };

   void withdrawHost( const Bridging::MacVlanPair& mvp, const HostAndSource* oldRow );
   bool programHost( const Host& bestHost, Source source, const HostAndSource* oldRow,
                     const HostsAhead::Places& places );
   bool programNext( const Bridging::MacVlanPair& mvp, const ObjTupleAndSource& otas,
                     const ObjTuple& oldNext, HostAndSource& newRow );
   // For a host that is soon to be decided: enters it in hostsAhead_.
   void prefetchHost( const Bridging::MacVlanPair& mvp );

   void processDest( const ObjTupleAndSource& otas, bool forceCreate );
   bool processLb( const ObjTupleAndSource& otas, bool forceCreate );
   bool processLabel( const ObjTupleAndSource& otas, bool forceCreate );
   bool processMembers( const ObjTupleAndSource& otas, const LoadBalance& inLb,
                        const LoadBalance& oldOutLb, Members& members );
   bool writeLb( const ObjTupleAndSource& otas, const LoadBalanceAndSource& oldRow,
                 const Members& members );
   bool writeLabel( const ObjTupleAndSource& otas, const LabelAndSource& oldRow,
                    const Label& newOutLabel );
   void undo( const Members& members );
   void writeFailed( OutputTable table, const ObjTupleAndSource& otas, bool isNew );
   void releaseOldNexts( const LoadBalance& oldOutLb, const ObjTupleSet& newNexts,
                         const ObjTuple& outOtForLb );
   void noteAbsent( const ObjTupleAndSource& otas, bool hasRow );
   void noteVerified( const ObjTupleAndSource& otas, bool whole );
   void noteFailed( const ObjTupleAndSource& otas, bool ok );
   bool hasRoom( Vexil::Room room, OutputTable name, const Vexil::TableBase& table );
   bool hasRoomForNew( const ObjTupleAndSource& otas, Vexil::Room room, OutputTable name,
                       const Vexil::TableBase& table );
   bool fitsWhole( const ObjTupleAndSource& otas, const PolicySourceSm& sm );
   void noteNoId( const ObjTupleAndSource& otas );
   bool usableNext( const ObjTupleAndSource& next, const ObjTuple& outOt, const ObjTuple& user );
   bool fits( const ObjTupleAndSource& otas, const ObjTuple& ot, unsigned depth );
   bool isWhole( const ObjTupleAndSource& otas ) const;
   void releaseIfUnused( const ObjTuple& ot );
   DestId newDestId( const ObjTupleAndSource& otas );
   LoadBalanceId newLbId( const ObjTupleAndSource& otas );
   LabelId newLabelId( const ObjTupleAndSource& otas );
   void dropMapping( const ObjTupleAndSource& otas );

   bool isInProcess( const ObjTuple& ot ) const;
   void onZeroRefs( const ObjTuple& ot );
   void cleanUpUnused();
   void onDestZeroRefs( const ObjTuple& ot );
   void onLbZeroRefs( const ObjTuple& ot );
   void onLabelZeroRefs( const ObjTuple& ot );

   bool parkedToLists();
   bool reviewOtas( Seconds deadline );
   bool reviewOtas( const ObjTupleAndSource& otas );
   void endPass();
   bool hasFloodRoom( const Bridging::VlanId& vlan, const Vexil::EthAddr& mac, const Dest& dest );

   void handleHoldTimer();
   void handleSweepTimer();

   Ptr<Vexil::EntityManager> entityManager_;
   Ptr<Vexil::Clock> clock_;
   Ptr<const Vexil::Directory> sourceDir_;
   Ptr<const AgentSourceDir> agentSourceDir_;
   Tables output_;
   std::map<TableType, Ptr<ObjTupleManager>> tupleManager_;
   HostsAhead hostsAhead_;
   OutputUsers users_;
   ObjectMemo memo_;
   ObjectDepths depths_{ output_, users_ };
   std::vector<ObjTupleAndSource> inProcess_; // the path of processOtas calls under way
   ObjectMemo::Version version_;              // of their source, when the outermost one began
   Obstacle obstacle_;                        // why the entry at work can't be programmed
   Source obstructed_ = sourceNone_;          // whose host it is
   Awaited awaited_;
   bool retried_ = false; // the parked entries are tried in the pass under way
   bool floodRetried_ = false;
   Vexil::HashMap<ParkedKey, FloodSetTriple> failedFloodSet_;
   uint64_t retries_ = 0;
   uint64_t overruns_ = 0;

   bool initialized_ = false;
   PolicySmRestartState restartState_ = init_;
   Seconds restartBegan_ = 0;
   Seconds restartDuration_ = 0;
   uint64_t objectsChecked_ = 0; // in otSourceCheck

   Vexil::HashMap<std::string, Ptr<PolicySourceSm>> sourceSm_;
   std::vector<PolicySourceSm*> sourceOrder_; // sourceSm_ in its order, for the walk of every host
   Vexil::HashMap<Source, Ptr<PolicySourceSm>> sourceSmByEnum_;
   std::unique_ptr<SourceDirReactor> sourceDirReactor_;
   std::unique_ptr<AgentSourceDirReactor> agentSourceDirReactor_;

   VanishedSources vanished_;
   OutputSweep sweep_{ *this };

   Vexil::TimerReactor reviewTimer_;
   Vexil::TimerReactor hammerReviewTimer_;
   // Works off what was queued during a restart that ended without asking for a review.
   Vexil::TimerReactor queuedReviewTimer_;
   std::optional<Vexil::TimerReactor> initialSyncTimer_; // steps the restart
   std::optional<Vexil::TimerReactor> floodSetTimer_;
   Vexil::TimerReactor holdTimer_;
   Vexil::TimerReactor sweepTimer_;
};

} // namespace L2Rib
