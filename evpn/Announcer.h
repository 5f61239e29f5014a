// What of this machine goes out to BGP: its hosts as routes of type 2, one route of type 3 a VLAN.
//
// Holds what is wanted against what the speaker has, and gives out the differences. What it has is
// read once a session, from its own table; a run that takes over from an earlier one therefore
// writes nothing that is there already. A route is compared by a digest of all that is announced.
// What the speaker refuses is offered again at growing intervals.
//
// Pure but for the clock that it is told.
#pragma once

#include "evpn/Import.h"
#include "runtime/Clock.h"
#include "runtime/HashMap.h"

#include <memory>

namespace Evpn {

struct Announcement {
   bool withdraw = false;
   Route route;
};

class Announcer {
 public:
   struct Local {
      uint32_t seqNo = 0;
      bool sticky = false;

      friend bool operator==( const Local&, const Local& ) = default;
   };

   // --- what is wanted
   void hostIs( const MacVlanPair& host, const Local& local );
   void hostDel( const MacVlanPair& host );
   const Vexil::HashMap<MacVlanPair, Local>& hosts() const { return hosts_; }

   // --- what is there
   // A session begins: nothing is known of what the speaker has.
   void sessionBegins( std::shared_ptr<const Import> import );
   // It tells that it has a route of ours, or has it no more. Once all is present, what it tells
   // may be older than what was written since: what is still not as it was written a second later
   // is believed, and put right.
   void thereIs( const Route& route, Vexil::Seconds now );
   void goneIs( const RouteKey& key, Vexil::Seconds now );
   // All that it has has been told.
   void present();
   void sessionEnds();

   // --- the difference
   // Some of what is to be written; it is under way until written() or refused(). Nothing is taken
   // back without mayWithdraw: the output may be about to be filled again.
   std::vector<Announcement> take( bool mayWithdraw, Vexil::Seconds now );
   void written( const RouteKey& key );
   void refused( const RouteKey& key, const std::string& reason, Vexil::Seconds now );
   // When there may be something to take again; never when there is nothing.
   Vexil::Seconds nextTry() const;
   bool inStep() const { return present_ && dirty_.empty() && underWay_.empty(); }
   bool writing() const { return !underWay_.empty(); }

   size_t announced( RouteType type ) const { return counts_[ static_cast<size_t>( type ) ]; }
   size_t waiting() const { return dirty_.size() + underWay_.size(); }
   const std::string& refusal() const { return refusal_; }

 private:
   // What was told and is not as it was written.
   struct Suspect {
      std::optional<uint64_t> digest; // none: it is not there
      Vexil::Seconds due = 0;
   };

   void told( const RouteKey& key, std::optional<uint64_t> digest, Vexil::Seconds now );
   std::optional<uint64_t> believed( const RouteKey& key ) const;
   void lookAtSuspects( Vexil::Seconds now );
   std::optional<Route> wanted( const RouteKey& key ) const;
   std::optional<RouteKey> keyOf( const MacVlanPair& host ) const;
   void set( const RouteKey& key, std::optional<uint64_t> digest );
   void touch( const MacVlanPair& host );

   std::shared_ptr<const Import> import_;
   std::map<uint64_t, uint16_t> vlanOfRd_;
   bool present_ = false;
   Vexil::HashMap<MacVlanPair, Local> hosts_;
   Vexil::HashMap<RouteKey, uint64_t> there_; // digests
   std::array<size_t, 4> counts_{};
   Vexil::KeySet<RouteKey> dirty_;
   Vexil::HashMap<RouteKey, std::optional<uint64_t>> underWay_; // what it leads to
   Vexil::HashMap<RouteKey, Suspect> suspects_;
   Vexil::Seconds nextTry_ = Vexil::never;
   Vexil::Seconds interval_ = 0;
   std::string refusal_;
};

} // namespace Evpn
