// Which rows of a table a command shows: --vlan, --mac, --source, --via and --vni, for people and
// for programs alike.
#pragma once

#include "tools/Show.h"
#include "tools/Via.h"

#include <optional>
#include <string>
#include <vector>

namespace Tools {

// "02:00:00:00:00:01", also with dots or dashes, with single digits, or as "0200.0000.0001"; the
// first bytes alone are a prefix.
struct MacPattern {
   uint64_t bits = 0, mask = 0;

   bool matches( const Vexil::EthAddr& mac ) const { return ( mac.number() & mask ) == bits; }
};
std::optional<MacPattern> parseMacPattern( const std::string& text );
// A whole address in any of these forms.
std::optional<Vexil::EthAddr> parseMac( const std::string& text );
// A MAC address and a VLAN, in either order. Throws BadInput.
Bridging::MacVlanPair hostKeyOf( const std::string& one, const std::string& other );

class RowFilter {
 public:
   enum Option : unsigned { vlan = 1, mac = 2, source = 4, via = 8, vni = 16 };
   // Enters those of the options that make sense for the command's rows.
   void addOptions( CLI::App& command, unsigned options );
   // The same from elsewhere than the command line: name is "vlan", "mac" and so on. Throws
   // BadInput for a number that is none, and for another name.
   void optionIs( const std::string& name, const std::string& value );

   // To be called once, before a row is asked for. Throws BadInput for what can't match anything,
   // with what would have been possible; std::runtime_error when there is no such source.
   void resolve( const SourceNames& names );

   bool any() const { return any_; }
   bool wants( const Bridging::MacVlanPair& key ) const {
      return wants( key.vlan() ) && ( !macPattern_ || macPattern_->matches( key.mac() ) );
   }
   bool wants( Bridging::VlanId id ) const {
      return vlans_.empty() || ( id.value() < vlans_.size() && vlans_[ id.value() ] );
   }
   bool wants( L2Rib::Source value ) const { return !sourceValue_ || *sourceValue_ == value; }
   // Whether one of the ways leads there.
   bool wants( const Leaves& leaves ) const;
   bool asksForHosts() const { return !vlans_.empty() || macPattern_; }
   bool asksForLeaves() const { return !viaText_.empty() || vniNumber_; }
   const std::string& sourceText() const { return sourceText_; }

 private:
   std::string vlanText_, macText_, sourceText_, viaText_;
   std::optional<uint32_t> vniNumber_;
   bool sourceGiven_ = false;
   bool any_ = false;
   std::vector<bool> vlans_; // by number; empty: all of them
   std::optional<MacPattern> macPattern_;
   std::optional<L2Rib::Source> sourceValue_;
   std::optional<std::string> viaAddress_;
   std::optional<uint64_t> viaInterface_;
};

} // namespace Tools
