// The record of a source's directory entry: who the source is and where its tables are.
//
// An entry file is a shared table with this one record, under the source's name. It belongs to the
// source, or, for a source inside the agent, to the agent; others read it.
#pragma once

#include "L2Rib/Fault.h"
#include "L2Rib/L2Rib.h"
#include "runtime/SharedTable.h"

#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace L2Rib {

// A text of bounded length inside a record, filled up with zeros.
template<size_t Size>
class FixedText {
 public:
   FixedText() = default;
   // nullopt when the text is too long or holds a zero byte.
   static std::optional<FixedText> of( std::string_view text ) {
      if( text.size() >= Size || text.find( '\0' ) != text.npos )
         return std::nullopt;
      FixedText made;
      std::memcpy( made.bytes_.data(), text.data(), text.size() );
      return made;
   }
   std::string_view view() const {
      return { bytes_.data(), strnlen( bytes_.data(), bytes_.size() ) };
   }
   std::string str() const { return std::string( view() ); }
   uint64_t hash() const { return Vexil::hashBytes( bytes_.data(), bytes_.size() ); }
   friend bool operator==( const FixedText&, const FixedText& ) = default;
   friend auto operator<=>( const FixedText&, const FixedText& ) = default;

 private:
   std::array<char, Size> bytes_{};
};
using SourceName = FixedText<64>;
using TablePath = FixedText<128>;

// The record of an entry file.
struct SourceEntryRecord {
   SourceName name;
   Source source = sourceNone_;
   uint32_t initialized = 0;
   TablePath hostPath;
   TablePath lbPath;
   TablePath labelPath;
   TablePath destPath;
   TablePath floodPath; // where the source keeps its flood sets; empty: none
   uint32_t hostLen = 0;
   uint32_t lbLen = 0;
   uint32_t labelLen = 0;
   uint32_t destLen = 0;

   friend bool operator==( const SourceEntryRecord&, const SourceEntryRecord& ) = default;
};
static_assert( Vexil::WireRecord<SourceEntryRecord, 728> );
uint32_t layoutOf( const SourceEntryRecord& );
MaybeFault formatFaultIn( const SourceEntryRecord& entry );

// An entry file: holds exactly the record of its own name.
class SourceEntryTable : public Vexil::NamedTable<SourceEntryTable, SourceName, SourceEntryRecord> {
 public:
   using NamedTable::NamedTable;
   static constexpr const char* typeName = "L2Rib::SourceDirEntry";
   static constexpr const char* collection = "entry";
};

} // namespace L2Rib

VEXIL_TABLE( L2Rib::SourceName, L2Rib::SourceEntryRecord )
