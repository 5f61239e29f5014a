#include "tools/Filter.h"

#include <algorithm>
#include <charconv>
#include <net/if.h>

namespace Tools {

using namespace L2Rib;

namespace {

constexpr uint32_t lastVlan = 4094; // IEEE 802.1Q, table 9-2

std::optional<uint64_t> numberIn( std::string_view text, int base = 10 ) {
   uint64_t number = 0;
   const auto [ end, error ] =
      std::from_chars( text.data(), text.data() + text.size(), number, base );
   if( text.empty() || error != std::errc() || end != text.data() + text.size() )
      return std::nullopt;
   return number;
}

std::vector<std::string_view> split( std::string_view text, std::string_view separators ) {
   std::vector<std::string_view> parts;
   for( size_t from = 0;; ) {
      const size_t end = text.find_first_of( separators, from );
      parts.push_back( text.substr( from, end - from ) );
      if( end == std::string_view::npos )
         return parts;
      from = end + 1;
   }
}

// The VLANs of "10,20-29"; throws BadInput.
std::vector<bool> parseVlans( const std::string& text ) {
   std::vector<bool> vlans( lastVlan + 1 );
   for( const std::string_view part : split( text, "," ) ) {
      const size_t dash = part.find( '-' );
      const auto first = numberIn( part.substr( 0, dash ) );
      const auto last = dash == part.npos ? first : numberIn( part.substr( dash + 1 ) );
      if( !first || !last || *first < 1 || *last > lastVlan || *first > *last )
         throw BadInput( "--vlan " + text +
                         ": expected 1 to 4094, ranges and lists such as 10,20-29" );
      std::fill( vlans.begin() + static_cast<long>( *first ),
                 vlans.begin() + static_cast<long>( *last ) + 1, true );
   }
   return vlans;
}

} // namespace

std::optional<MacPattern> parseMacPattern( const std::string& text ) {
   // Bytes between colons or dashes; pairs of bytes between dots, as some switches print them.
   const bool dotted = text.find( '.' ) != text.npos;
   const size_t digits = dotted ? 4 : 2, most = dotted ? 3 : 6;
   std::vector<std::string_view> parts = split( text, dotted ? "." : ":-" );
   if( parts.size() > 1 && parts.back().empty() )
      parts.pop_back(); // "02:00:"
   if( parts.size() > most )
      return std::nullopt;
   MacPattern pattern;
   unsigned bits = 48;
   for( const std::string_view part : parts ) {
      const auto number = numberIn( part, 16 );
      if( !number || part.size() > digits )
         return std::nullopt;
      bits -= static_cast<unsigned>( 4 * digits );
      pattern.bits |= *number << bits;
   }
   pattern.mask = ( uint64_t( 1 ) << 48 ) - ( uint64_t( 1 ) << bits );
   return pattern;
}

std::optional<Vexil::EthAddr> parseMac( const std::string& text ) {
   const auto pattern = parseMacPattern( text );
   if( !pattern || pattern->mask != ( uint64_t( 1 ) << 48 ) - 1 )
      return std::nullopt;
   return Vexil::EthAddr( pattern->bits );
}

Bridging::MacVlanPair hostKeyOf( const std::string& one, const std::string& other ) {
   const bool macFirst = parseMac( one ).has_value();
   const auto mac = parseMac( macFirst ? one : other );
   const std::string& vlanText = macFirst ? other : one;
   const auto vlan = numberIn( vlanText );
   if( !mac )
      throw BadInput( one + " " + other + ": expected a MAC address such as 02:00:00:00:00:01" );
   if( !vlan || *vlan < 1 || *vlan > lastVlan )
      throw BadInput( vlanText + ": expected a VLAN, 1 to 4094" );
   return { *mac, Bridging::VlanId( static_cast<uint32_t>( *vlan ) ) };
}

void RowFilter::addOptions( CLI::App& command, unsigned options ) {
   if( options & vlan )
      command.add_option( "--vlan", vlanText_, "only of these VLANs, such as 10,20-29" );
   if( options & mac )
      command.add_option( "--mac", macText_, "only with this MAC address, or one that begins so" );
   if( options & source )
      command.add_option_function<std::string>(
         "--source",
         [ this ]( const std::string& name ) {
            sourceText_ = name;
            sourceGiven_ = true;
         },
         "only from the source of this name, or of this value" );
   if( options & via )
      command.add_option( "--via", viaText_, "only what leads to this address or interface" );
   if( options & vni )
      command.add_option( "--vni", vniNumber_, "only what leads to this VNI" );
}

void RowFilter::optionIs( const std::string& name, const std::string& value ) {
   if( name == "vlan" ) {
      vlanText_ = value;
   } else if( name == "mac" ) {
      macText_ = value;
   } else if( name == "source" ) {
      sourceText_ = value;
      sourceGiven_ = true;
   } else if( name == "via" ) {
      viaText_ = value;
   } else if( const auto number = numberIn( value );
              name == "vni" && number && *number <= UINT32_MAX ) {
      vniNumber_ = static_cast<uint32_t>( *number );
   } else {
      throw BadInput( name + "=" + value + ": expected vlan, mac, source, via or a number as vni" );
   }
}

void RowFilter::resolve( const SourceNames& names ) {
   if( !vlanText_.empty() )
      vlans_ = parseVlans( vlanText_ );
   if( !macText_.empty() && !( macPattern_ = parseMacPattern( macText_ ) ) )
      throw BadInput( "--mac " + macText_ +
                      ": expected an address or its beginning, such as 02:00:00:00:00:01" );
   if( sourceGiven_ && sourceText_.empty() )
      throw BadInput( "--source \"\": expected a name; 'l2ribctl show sources' lists them" );
   if( sourceGiven_ )
      sourceValue_ = names.valueOf( sourceText_ );
   if( vniNumber_ && *vniNumber_ > 0xffffff ) // RFC 7348, section 5
      throw BadInput( "--vni " + std::to_string( *vniNumber_ ) + ": expected 0 to 16777215" );
   if( !viaText_.empty() ) {
      const auto number = numberIn( viaText_ );
      if( const auto address = Vexil::IpGenAddr::parse( viaText_ ) )
         viaAddress_ = address->str();
      else if( const unsigned index = if_nametoindex( viaText_.c_str() ) )
         viaInterface_ = index;
      else if( number )
         viaInterface_ = number;
      else
         throw BadInput( "--via " + viaText_ +
                         ": expected an IP address, or an interface by name or number" );
   }
   any_ = !vlans_.empty() || macPattern_ || sourceValue_ || asksForLeaves();
}

bool RowFilter::wants( const Leaves& leaves ) const {
   return ( !viaAddress_ || leaves.addresses.contains( *viaAddress_ ) ) &&
          ( !viaInterface_ || leaves.interfaces.contains( *viaInterface_ ) ) &&
          ( !vniNumber_ || leaves.vnis.contains( *vniNumber_ ) );
}

} // namespace Tools
