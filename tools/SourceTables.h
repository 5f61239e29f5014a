// The tables of a published source, attached for reading.
#pragma once

#include "L2Rib/FloodRecords.h"
#include "L2Rib/L2RibTarn.h"
#include "L2Rib/SourceEntry.h"
#include "tools/Commands.h"

namespace Tools {

// The table in a file; null when there is none or it can't be read.
template<class Table>
Vexil::Ptr<Table> readable( const std::string& file ) {
   try {
      return Vexil::makeEntity<Table>( file, Table::Mode::read );
   } catch( const Vexil::TableError& ) {
      return nullptr;
   }
}

struct SourceTables {
   SourceTables( const Context& context, const L2Rib::SourceEntryRecord& entry ) {
      open( context, entry.hostPath, host );
      open( context, entry.lbPath, lb );
      open( context, entry.labelPath, label );
      open( context, entry.destPath, dest );
      open( context, entry.floodPath, flood );
   }

   // Null where the source has no such table, or none that can be read.
   Vexil::Ptr<L2Rib::HostInput> host;
   Vexil::Ptr<L2Rib::LoadBalanceTable> lb;
   Vexil::Ptr<L2Rib::LabelTable> label;
   Vexil::Ptr<L2Rib::DestTable> dest;
   Vexil::Ptr<L2Rib::FloodMemberTable> flood;

 private:
   template<class Table>
   static void open( const Context& context, const L2Rib::TablePath& path,
                     Vexil::Ptr<Table>& table ) {
      if( !path.view().empty() )
         table = readable<Table>( context.fileOf( path.str() ) );
   }
};

inline uint32_t countOf( const Vexil::Ptr<Vexil::TableBase>& table ) {
   return table ? table->count() : 0;
}

} // namespace Tools
