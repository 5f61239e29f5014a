// The policy engine: from the tables of all sources to one consistent output.
//
// Sources report which keys changed (handleHost, handleOtas). That only queues: the review timer
// works the queues off in slices of at most reviewQuantum seconds, hosts first. A host is decided
// anew from the sources' present content each time (processHost); the object that the winner points
// to is copied to the output first, members before what points at them (processOtas); the copy
// counts its users and goes with the last one (addUser, rmUser). What can't be done now is parked
// and tried again when the hammer timer ticks.
//
// Invariants of the output, after every single write: what a row points to exists; every object has
// a user or is about to go; every row's ids are output ids.
//
// A new engine adopts the output that it finds, checks it and reconciles it with the sources before
// it enters normal work; until then changes are only queued.
//
// One source file a concern: L2RibPolicySm.cpp (construction), BestHost.cpp, ObjectMapping.cpp,
// Users.cpp, Review.cpp, Restart.cpp, FloodSetMerge.cpp, Sources.cpp.
//
// All of it runs on the event-loop thread.
#pragma once

#include "L2Rib/FloodSets.h"
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/ObjTupleManager.h"
#include "L2Rib/SourceDir.h"
#include "L2Rib/Status.h"
#include "engine/FailureAges.h"
#include "engine/L2RibPolicySourceSm.h"
#include "engine/ObjTupleUsers.h"
#include "engine/RestartState.h"
#include "runtime/Clock.h"
#include "runtime/StateDb.h"

#include <algorithm>
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

   // Where the engine reads and writes; all given by the caller, who keeps the tables' writer.
   struct Tables {
      Ptr<HostOutput> host;
      Ptr<LoadBalanceOutput> lb;
      Ptr<LabelOutput> label;
      Ptr<DestOutput> dest;
      Ptr<FloodSetOutput> flood;
      Ptr<PolicySmStatus> status;
   };

   PolicySm( Ptr<Vexil::EntityManager> entityManager, Ptr<const Vexil::Directory> sourceDir,
             Ptr<const AgentSourceDir> agentSourceDir, const Tables& output );
   ~PolicySm() override;

   // --- tunables, in seconds ------------------------------------------------------------------
   VEXIL_ATTRIBUTE( Seconds, reviewQuantum, 0.05 )
   VEXIL_ATTRIBUTE( Seconds, floodReviewQuantum, 0.05 )
   VEXIL_ATTRIBUTE( Seconds, hammerReviewInterval, 10.0 )
   // How long the hosts of a source that vanished stay in the output unexamined.
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
   DestId outputDestId( const ObjTupleAndSource& otas ) const;
   LoadBalanceId outputLbId( const ObjTupleAndSource& otas ) const;
   LabelId outputLabelId( const ObjTupleAndSource& otas ) const;
   const Ptr<ObjTupleManager>& tupleManager( TableType tableType ) const;
   const Ptr<ObjTupleManager>& tupleManagerIs( TableType tableType, uint64_t lowest,
                                               uint64_t highest );

   // --- users (Users.cpp) ---------------------------------------------------------------------
   // A user is an output object or an output host: exactly one of the two is valid.
   void addUser( const ObjTuple& otUsed, const ObjTuple& otUser,
                 const Bridging::MacVlanPair& mvpUser );
   void rmUser( const ObjTuple& otUsed, const ObjTuple& otUser,
                const Bridging::MacVlanPair& mvpUser );
   bool isUser( const ObjTuple& otUsed, const ObjTuple& otUser,
                const Bridging::MacVlanPair& mvpUser ) const;
   // The users of one output object; null when it has none.
   Ptr<ObjTupleUsers> usersMap( const ObjTuple& used ) const;
   const Vexil::HashMap<ObjTuple, Ptr<ObjTupleUsers>>& usersMap() const { return usersMap_; }
   // All relations between a user and what it uses.
   uint64_t userCount() const { return userCount_; }

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
   // Since when the entry that has failed the longest has been failing, retries included; the
   // clock's time. Never, when nothing fails.
   Seconds failingSince() const {
      return std::min( failingHosts_.oldest(), failingOtas_.oldest() );
   }

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
   // Makes the timer that works the backlog, due at the next turn.
   void floodSetTimerIs( Ptr<Vexil::Clock> clock );
   // Lets the backlog be worked at the next turn of the event loop.
   void setFloodSetTimer();
   void processFloodSetBacklog();
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
   // The state machine goes, and every registration by value with it.
   void sourceSmDel( const std::string& name );
   // The source's tables have been replayed: what it no longer has is withdrawn.
   void handleSourceReplayed( Source source );
   // Queues every output host that stems from the source for review, in slices.
   void reviewHostsOf( Source source );
   // How much such a review still has to look at, at the most: slots of the host output and VLANs
   // of the flood output. 0 when none is under way.
   uint64_t withdrawalChecksLeft() const;
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
   const Ptr<Vexil::EntityManager>& entityManager() const { return entityManager_; }

 private:
   class SourceDirReactor;
   class AgentSourceDirReactor;

   void handleInitialized();
   void adoptHosts();
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
   void deleteRow( const ObjTuple& ot );

   // How an input object stood when it, and all below it, was last found to be up to date.
   struct Verified {
      PolicySourceSm::ObjectVersion version;
      unsigned depth; // of the objects below it and itself; a dest has 1
      bool whole;     // no copy of an object that the source has deleted is among them
   };
   // How an input object stood when it could not be written, and what processOtas() said then.
   struct Failed {
      PolicySourceSm::ObjectVersion version;
      bool ok;
   };
   // The longest chain of objects that is programmed. Real chains have a handful of members; the
   // bound keeps a source that publishes an endless one from exhausting the stack.
   static constexpr unsigned maxObjectDepth = 64;

   void processDest( const ObjTupleAndSource& otas, bool forceCreate );
   bool processLb( const ObjTupleAndSource& otas, bool forceCreate );
   bool processLabel( const ObjTupleAndSource& otas, bool forceCreate );
   void withdrawHost( const Bridging::MacVlanPair& mvp, const HostAndSource& oldRow );
   // What a host that is soon to be decided will need: first the index words, then the records.
   void prefetchHostIndex( const Bridging::MacVlanPair& mvp ) const;
   void prefetchHost( const Bridging::MacVlanPair& mvp ) const;

   void noteVerified( const ObjTupleAndSource& otas, const Verified& found );
   void forgetVerified( const ObjTupleAndSource& otas );
   bool usableNext( const ObjTupleAndSource& next, const ObjTuple& outOt,
                    const ObjTuple& user ) const;
   bool leadsTo( const ObjTuple& ot, const ObjTuple& target ) const;
   unsigned depthOf( const ObjTupleAndSource& otas ) const;
   bool isWhole( const ObjTupleAndSource& otas ) const;
   void forgetUnwritten( const ObjTupleAndSource& otas, bool hasRow );
   void releaseOldNexts( const LoadBalance& oldOutLb, const ObjTupleSet& newNexts,
                         const ObjTuple& outOtForLb );
   void releaseIfUnused( const ObjTuple& ot );
   bool hasOutputRow( const ObjTuple& ot ) const;
   std::vector<ObjTuple> nextsOfRow( const ObjTuple& ot ) const;
   DestId newDestId( const ObjTupleAndSource& otas );
   LoadBalanceId newLbId( const ObjTupleAndSource& otas );
   LabelId newLabelId( const ObjTupleAndSource& otas );
   void dropMapping( const ObjTupleAndSource& otas );

   const Ptr<ObjTupleUsers>& usersMapIs( const ObjTuple& used );
   void usersMapDel( const ObjTuple& used );
   void usersMapDelAll();
   bool isInProcess( const ObjTuple& ot ) const;
   void onZeroRefs( const ObjTuple& ot );
   bool isUnused( const ObjTuple& ot ) const;
   void cleanUpUnused();
   void onDestZeroRefs( const ObjTuple& ot );
   void onLabelZeroRefs( const ObjTuple& ot );
   void onLbZeroRefs( const ObjTuple& ot );

   void parkedToLists();
   void reviewOtas( Seconds deadline );

   void forgetOtasOf( Source source );
   void startWithdrawal( Source source );
   void endHold( Source source );
   void handleHoldTimer();
   void handleWithdrawalTimer();
   bool queueHostsOfVanished( Seconds deadline );
   bool queueFloodMembers( Seconds deadline );
   void queueFloodSets( const Bridging::VlanId& vlan, const VlanFloodSet& sets );

   Ptr<Vexil::EntityManager> entityManager_;
   Ptr<Vexil::Clock> clock_;
   Ptr<const Vexil::Directory> sourceDir_;
   Ptr<const AgentSourceDir> agentSourceDir_;
   Tables output_;
   std::map<TableType, Ptr<ObjTupleManager>> tupleManager_;
   Vexil::HashMap<ObjTuple, Ptr<ObjTupleUsers>> usersMap_;
   Vexil::HashMap<ObjTupleAndSource, Verified> verified_;
   struct {
      ObjTupleAndSource otas;
      PolicySourceSm::ObjectVersion version;
   } lastVerified_; // hosts that are decided one after the other often lead to one object
   // Objects that could not be written in this review pass: a million hosts behind a group without
   // its last member do not each bring the other members into the output and out again.
   Vexil::HashMap<ObjTupleAndSource, Failed> failedInPass_;
   std::vector<ObjTupleAndSource> inProcess_; // the path of processOtas calls under way
   // Relations still to be removed in the cascade under way: (used object, object that used it).
   std::vector<std::pair<ObjTuple, ObjTuple>> toRelease_;
   bool releasing_ = false;

   FailureAges<Bridging::MacVlanPair> failingHosts_;
   FailureAges<ObjTupleAndSource> failingOtas_;
   uint64_t userCount_ = 0;
   Ptr<ObjTupleUsers> lastUsers_; // of the object that a host came to use last
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

   std::map<Source, Seconds> heldUntil_; // vanished sources whose hosts are still unexamined
   Vexil::KeySet<Source> withdrawing_;   // sources whose output hosts are being queued
   uint32_t withdrawalSlot_ = 0;         // where in the host output
   Bridging::VlanId withdrawalVlan_;     // where in the flood output; 0 at its beginning

   Vexil::TimerReactor reviewTimer_;
   Vexil::TimerReactor hammerReviewTimer_;
   // Works off what was queued during a restart that ended without asking for a review.
   Vexil::TimerReactor queuedReviewTimer_;
   std::optional<Vexil::TimerReactor> initialSyncTimer_; // steps the restart
   std::optional<Vexil::TimerReactor> floodSetTimer_;
   Vexil::TimerReactor holdTimer_;
   Vexil::TimerReactor withdrawalTimer_;
};

} // namespace L2Rib
