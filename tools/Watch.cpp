// l2ribctl watch: each change of the output as it happens, after the present content.
//
// The rows of the flood output are single members; what is printed is the whole set that a member
// came to or left, once for all that are told together. A row that a filter wanted is told once
// more when it has changed so that the filter wants it no longer.
#include "tools/Watch.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <memory>
#include <optional>
#include <utility>

namespace Tools {

using namespace L2Rib;
using Bridging::MacVlanPair;
using Client::OutputReader;

namespace {

double wallClock() {
   timespec time{};
   clock_gettime( CLOCK_REALTIME, &time );
   return static_cast<double>( time.tv_sec ) + static_cast<double>( time.tv_nsec ) * 1e-9;
}

class Watch {
 public:
   Watch( const Context& context, const Watched& asked, WatchReader& reader )
      : context_( context ), asked_( asked ), reader_( reader ), output_( context.stateDirectory ),
        lookForAgent_( loop_.clock(), [ this ] { lookForAgent(); } ) {
      if( context_.json ) // whose lines are rows, and whose readers know no others
         lookForAgent_.timeMinIs( Vexil::never );
      if( asked_.wants( "hosts" ) )
         output_.hosts.follow( [ this ]( const MacVlanPair& key, const HostAndSource* row ) {
            hostChanged( key, row );
         } );
      followObjects( "dests", output_.dests );
      followObjects( "groups", output_.groups );
      followObjects( "labels", output_.labels );
      if( asked_.wants( "flood" ) )
         output_.flood.follow( [ this ]( const FloodSetTriple& key, const FloodMember* member ) {
            noteMember( key, member );
         } );
      output_.inSyncIs( [ this ] {
         printFloodSets();
         inSync_ = true;
         if( context_.json )
            print( text( { { "event", "inSync" } } ) );
         else
            print( "(up to date)" );
      } );
   }

   void run() {
      reader_.begin( loop_ );
      loop_.watch( output_.fd(), [ & ] {
         output_.process();
         printFloodSets();
         names_.reset();
         vias_.reset();
         if( !reader_.batchDone() )
            loop_.stop(); // nobody listens any more
      } );
      loop_.run();
   }

 private:
   bool quiet() const { return asked_.noDump && !inSync_; }
   void print( const std::string& line, const MacVlanPair* host = nullptr ) {
      reader_.line( line, host );
   }

   // --- for programs: the row as it is now; null when it has gone
   void printJson( const std::string& table, const Json& key, const Json& value,
                   const MacVlanPair* host = nullptr ) {
      print( text( { { "table", table },
                     { "event", value.is_null() ? "del" : "set" },
                     { "key", key },
                     { "value", value } } ),
             host );
   }
   // --- for people: "14:22:07.113  new   ..."
   void printEvent( const char* event, const std::string& what,
                    const MacVlanPair* host = nullptr ) {
      std::string line = clockTextWithMilliseconds( wallClock() ) + "  " + event;
      line.append( 8 - std::min<size_t>( 8, std::string_view( event ).size() ), ' ' );
      print( line + what, host );
   }
   const char* eventOf( bool was, bool is ) const {
      return !is ? "gone" : was ? "change" : inSync_ ? "new" : "is";
   }

   // --- hosts

   // A host as it was told to people: what it led to may be gone when it is told again.
   struct ToldHost {
      std::string source, via;
      uint32_t seq = 0;
   };

   bool wants( const HostAndSource& row ) {
      return asked_.filter.wants( row.key() ) && asked_.filter.wants( row.source() ) &&
             ( !asked_.filter.asksForLeaves() ||
               asked_.filter.wants( vias().leaves( row.host() ) ) );
   }
   void hostChanged( const MacVlanPair& key, const HostAndSource* row ) {
      const ToldHost* const found = hosts_.find( key );
      const std::optional<ToldHost> before =
         found ? std::optional( *found ) : std::optional<ToldHost>();
      const bool wanted = row && wants( *row );
      ToldHost now;
      if( row && !context_.json )
         now = { names().text( row->source() ), vias().text( row->host() ),
                 row->host().seqNo().value() };
      if( wanted )
         *hosts_.emplace( key ).first = now;
      else
         hosts_.erase( key );
      if( quiet() || !( wanted || before ) )
         return;
      if( context_.json )
         return printJson( "hosts", toJson( key ), row ? toJson( *row, names() ) : Json(), &key );
      const std::string where = key.vlan().str() + "  " + key.mac().str() + "  ";
      if( row && before )
         printEvent( before->source == now.source ? "change" : "move",
                     where + differenceText( *before, now ), &key );
      else
         printEvent( eventOf( before.has_value(), row ),
                     where + ( row ? now : *before ).source + "   " + ( row ? now : *before ).via,
                     &key );
   }
   // "evpn -> bridge   vxlan 192.0.2.11 vni 10010 -> eth3   seq 0 -> 1"
   static std::string differenceText( const ToldHost& before, const ToldHost& now ) {
      const auto change = []( const std::string& old, const std::string& is ) {
         return old == is ? is : old + " -> " + is;
      };
      std::string line =
         change( before.source, now.source ) + "   " + change( before.via, now.via );
      if( before.seq != now.seq )
         line += "   seq " + change( std::to_string( before.seq ), std::to_string( now.seq ) );
      return line;
   }

   // --- objects

   template<class Rows>
   void followObjects( const std::string& table, Rows& rows ) {
      if( asked_.wants( table ) )
         rows.follow( [ this, table ]( const auto& key, const auto* row ) {
            objectChanged( table, ObjTuple( key ), toJson( key ), row );
         } );
   }
   template<class Row>
   void objectChanged( const std::string& table, const ObjTuple& object, const Json& key,
                       const Row* row ) {
      const bool before = objects_.contains( object );
      const bool wanted = row && asked_.filter.wants( row->sourceOtas().source() ) &&
                          asked_.filter.wants( vias().leaves( object ) );
      if( wanted )
         objects_.emplace( object );
      else
         objects_.erase( object );
      if( quiet() || !( wanted || before ) )
         return;
      if( context_.json )
         return printJson( table, key, row ? toJson( *row ) : Json() );
      printEvent( eventOf( before, row ), table.substr( 0, table.size() - 1 ) + " " +
                                             object.objId().str() +
                                             ( row ? "  " + vias().text( object ) : "" ) );
   }

   // --- flood sets

   void noteMember( const FloodSetTriple& key, const FloodMember* member ) {
      const MacVlanPair set( key.mac(), key.vlan() );
      if( !asked_.filter.wants( set ) || !asked_.filter.wants( Vias::leaves( key.dest() ) ) )
         return;
      changedSets_.emplace( set, floodSets_.contains( set ) );
      FloodSetRow& row = floodSets_[ set ];
      if( member ) {
         row.type = member->floodSetType;
         row.dests.insert( key.dest() );
      } else {
         row.dests.erase( key.dest() );
      }
   }
   void printFloodSets() {
      for( const auto& [ key, before ] : std::exchange( changedSets_, {} ) ) {
         const auto set = floodSets_.find( key );
         Json value;
         std::vector<std::string> dests;
         for( const Dest& dest : set->second.dests )
            dests.push_back( Vias::text( dest ) );
         if( set->second.dests.empty() ) {
            floodSets_.erase( set );
         } else {
            value = toJson( key );
            value.update( toJson( set->second ) );
         }
         if( quiet() )
            continue;
         if( context_.json )
            printJson( "flood", toJson( key ), value );
         else
            printEvent( eventOf( before, !value.is_null() ), "flood " + key.vlan().str() + "  " +
                                                                key.mac().str() + "  " +
                                                                joined( dests, ", " ) );
      }
   }

   // --- the agent

   void lookForAgent() {
      const bool runs = agentRuns( context_ );
      if( agentRuns_ && *agentRuns_ != runs ) {
         print( clockTextWithMilliseconds( wallClock() ) +
                ( runs ? "  agent running" : "  agent stopped" ) );
         if( !reader_.batchDone() )
            loop_.stop();
      }
      agentRuns_ = runs;
      lookForAgent_.timeMinIs( loop_.clock()->now() + 1 );
   }

   // Looked up at most once a batch of changes.
   const SourceNames& names() {
      if( !names_ )
         names_.emplace( context_ );
      return *names_;
   }
   Vias& vias() {
      if( !vias_ )
         vias_.emplace( output_ );
      return *vias_;
   }

   const Context& context_;
   const Watched& asked_;
   WatchReader& reader_;
   Vexil::ActivityManager loop_;
   OutputReader output_;
   bool inSync_ = false;
   std::optional<SourceNames> names_;
   std::optional<Vias> vias_;
   // What has been told, or would have been without --no-dump.
   Vexil::HashMap<MacVlanPair, ToldHost> hosts_;
   Vexil::KeySet<ObjTuple> objects_;
   std::map<MacVlanPair, FloodSetRow> floodSets_;
   std::map<MacVlanPair, bool> changedSets_; // not yet printed; and whether they were told before
   std::optional<bool> agentRuns_;
   Vexil::TimerReactor lookForAgent_;
};

// Lines to standard output, until a signal or until nobody reads them.
class Printer : public WatchReader {
 public:
   void begin( Vexil::ActivityManager& loop ) override {
      for( const int signal : { SIGINT, SIGTERM } )
         loop.signalIs( signal, [ &loop ] { loop.stop(); } );
   }
   void line( const std::string& line, const MacVlanPair* ) override { std::cout << line << '\n'; }
   bool batchDone() override { return static_cast<bool>( std::cout.flush() ); }
};

} // namespace

void watchOutput( const Context& context, const Watched& asked, WatchReader& reader ) {
   Watch( context, asked, reader ).run();
}

void addWatch( CLI::App& app, Context& context ) {
   const std::vector<std::string> all{ "hosts", "dests", "groups", "labels", "flood" };
   const auto asked = std::make_shared<Watched>();
   CLI::App* const command =
      app.add_subcommand( "watch", "each change of the output, until SIGINT" );
   command
      ->add_option( "TABLE", asked->tables,
                    "hosts, dests, groups, labels, flood; all of them if none" )
      ->check( CLI::IsMember( all ) );
   command->add_flag( "--json", context.json, "print one JSON object a line" );
   command->add_flag( "--no-dump", asked->noDump, "only the changes, not the present content" );
   asked->filter.addOptions( *command, RowFilter::vlan | RowFilter::mac | RowFilter::source |
                                          RowFilter::via | RowFilter::vni );
   command->footer( "Example: l2ribctl watch hosts --vlan 10 --no-dump" );
   command->callback( [ &context, asked, all ] {
      context.command = [ &context, asked, all ] {
         if( asked->tables.empty() )
            asked->tables = all;
         asked->filter.resolve( SourceNames( context ) );
         mentionStoppedAgent( context );
         Printer printer;
         watchOutput( context, *asked, printer );
         return done;
      };
   } );
}

} // namespace Tools
