// l2ribctl show moves: the hosts that move most, counted while it looks.
//
// The output has the present row of each host and no history, so moves are counted from the moment
// that the command has read what is there. A move is a change of the source, or of where the host
// leads to in the end; a new sequence number or preference alone is none.
#include "tools/Filter.h"
#include "tools/Progress.h"
#include "tools/TextTable.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <memory>

namespace Tools {

using namespace L2Rib;
using Bridging::MacVlanPair;
using Client::OutputReader;

namespace {

constexpr double unlessAsked = 10;
constexpr double longest = 180;

struct Moves {
   MacVlanPair key;
   uint64_t count = 0;
   std::string way; // the last move: "evpn -> bridge, eth3 -> eth4"
};

class MoveCounter {
 public:
   MoveCounter( const Context& context, const RowFilter& filter )
      : context_( context ), filter_( filter ), output_( context.stateDirectory ) {
      requireOutput( output_, context );
      output_.hosts.follow( [ this ]( const MacVlanPair& key, const HostAndSource* row ) {
         if( row )
            changed( key, *row );
      } );
      output_.inSyncIs( [ this ] { counting_ = true; } );
   }

   // Until so many seconds have passed since what is there was read, or SIGINT.
   void run( double seconds ) {
      Vexil::ActivityManager loop;
      bool ended = false;
      for( const int signal : { SIGINT, SIGTERM } )
         loop.signalIs( signal, [ & ] { ended = true; } );
      loop.watch( output_.fd(), [ & ] {
         output_.process();
         vias_.reset();
         names_.reset();
      } );
      Progress progress;
      const double begin = loop.clock()->now();
      double end = begin + seconds;
      while( !ended && loop.clock()->now() < end ) {
         const bool before = counting_;
         loop.turn( std::min( 1.0, end - loop.clock()->now() ) );
         if( !before )
            end = loop.clock()->now() + seconds;
         progress.at( counting_ ? "counting moves: " +
                                     std::to_string( std::lround( end - loop.clock()->now() ) ) +
                                     "s left, Ctrl-C ends it"
                                : "reading the hosts" );
      }
      counted_ = std::max( 0.0, seconds - ( end - loop.clock()->now() ) );
   }
   double counted() const { return counted_; } // seconds

   std::vector<Moves> top( size_t most ) const {
      std::vector<Moves> all;
      for( const auto& [ key, moves ] : moves_ )
         all.push_back( moves );
      std::stable_sort( all.begin(), all.end(),
                        []( const Moves& a, const Moves& b ) { return a.count > b.count; } );
      all.resize( std::min( all.size(), most ) );
      return all;
   }
   size_t hosts() const { return moves_.size(); }

 private:
   // Where a host was, as far as it takes to see that it moved. The words follow from the objects,
   // which may be gone by then; they are kept for those alone that have moved before.
   struct Where {
      Source source = sourceNone_;
      ObjTuple next;
      CiDest inlineDest;
      friend bool operator==( const Where&, const Where& ) = default;
   };

   void changed( const MacVlanPair& key, const HostAndSource& row ) {
      if( !filter_.wants( key ) )
         return;
      const Where now{ row.source(), row.next(), row.host().ciDest() };
      const auto [ known, fresh ] = where_.emplace( key );
      const Where before = std::exchange( *known, now );
      if( fresh || !counting_ || before == now )
         return;
      Moves& moves = moves_[ key ];
      moves.key = key;
      ++moves.count;
      if( !names_ )
         names_.emplace( context_ );
      if( !vias_ )
         vias_.emplace( output_ );
      const std::string from = names_->text( before.source ), to = names_->text( now.source );
      moves.way = ( from == to ? to : from + " -> " + to ) + ", " + vias_->text( row.host() );
   }

   const Context& context_;
   const RowFilter& filter_;
   OutputReader output_;
   bool counting_ = false;
   double counted_ = 0;
   Vexil::HashMap<MacVlanPair, Where> where_;
   std::map<MacVlanPair, Moves> moves_;
   std::optional<SourceNames> names_; // looked up at most once a batch of changes
   std::optional<Vias> vias_;
};

struct AskedMoves {
   RowFilter filter;
   double seconds = unlessAsked;
   size_t most = 20;
};

int showMoves( const Context& context, AskedMoves& asked ) {
   if( !( asked.seconds > 0 && asked.seconds <= longest ) )
      throw BadInput( "--for: expected up to 180 seconds" );
   asked.filter.resolve( SourceNames( context ) );
   MoveCounter counter( context, asked.filter );
   counter.run( asked.seconds );
   const std::vector<Moves> top = counter.top( asked.most );
   if( context.json ) {
      printJsonList( top, []( const Moves& moves ) {
         Json json = toJson( moves.key );
         json[ "moves" ] = moves.count;
         json[ "last" ] = moves.way;
         return json;
      } );
      return done;
   }
   std::vector<std::vector<std::string>> lines;
   for( const Moves& moves : top )
      lines.push_back( { moves.key.vlan().str(), moves.key.mac().str(),
                         std::to_string( moves.count ), moves.way, "" } );
   printLines( { { "VLAN" }, { "MAC" }, { "MOVES", Heading::right }, { "LAST" }, { "" } },
               std::move( lines ) );
   std::cout << countText( counter.hosts(), "host" ) << " moved in " << ageText( counter.counted() )
             << '\n';
   return done;
}

} // namespace

void addShowMoves( CLI::App& showing, Context& context ) {
   const auto asked = std::make_shared<AskedMoves>();
   CLI::App* const command =
      showing.add_subcommand( "moves", "the hosts that move most, counted from now on" );
   addJsonFlag( *command, context );
   asked->filter.addOptions( *command, RowFilter::vlan | RowFilter::mac );
   command->add_option( "--for", asked->seconds, "seconds to count, up to 180" )
      ->capture_default_str();
   command->add_option( "--most", asked->most, "hosts to show" )->capture_default_str();
   command->footer( "Counts, from now on, how often each host changes its source or where it leads "
                    "to. The output keeps\nno history: moves before the call are not in it, and "
                    "several within one turn of the agent are one.\nExample: l2ribctl show moves "
                    "--for 180" );
   command->callback( [ &context, asked ] {
      context.command = [ &context, asked ] { return showMoves( context, *asked ); };
   } );
}

} // namespace Tools
