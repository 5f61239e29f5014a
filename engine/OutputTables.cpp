#include "engine/OutputTables.h"

namespace L2Rib {

bool OutputTables::contains( const ObjTuple& ot ) const {
   if( ot.objId() == ObjId( Constants::objIdInvalid() ) )
      return false;
   switch( ot.tableType() ) {
   case tableTypeLoadBalance_:
      return lb->contains( ot.lbId() );
   case tableTypeLabel_:
      return label->contains( ot.labelId() );
   case tableTypeDest_:
      return dest->contains( ot.destId() );
   default:
      return false;
   }
}

std::vector<ObjTuple> OutputTables::nextsOf( const ObjTuple& ot ) const {
   std::vector<ObjTuple> nexts;
   if( !contains( ot ) )
      return nexts;
   if( ot.tableType() == tableTypeLabel_ )
      nexts.push_back( label->label( ot.labelId() ).label().next() );
   if( ot.tableType() == tableTypeLoadBalance_ ) {
      const LoadBalance row = lb->lb( ot.lbId() ).lb();
      for( uint32_t i = 0; i < row.nexts(); ++i )
         nexts.push_back( row.next( EcmpIndex( i ) ) );
   }
   return nexts;
}

void OutputTables::erase( const ObjTuple& ot ) const {
   switch( ot.tableType() ) {
   case tableTypeLoadBalance_:
      lb->lbDel( ot.lbId() );
      break;
   case tableTypeLabel_:
      label->labelDel( ot.labelId() );
      break;
   case tableTypeDest_:
      dest->destDel( ot.destId() );
      break;
   default: // a next of no known table type has no row
      break;
   }
}

OutputTable OutputTables::nameOf( TableType type ) {
   switch( type ) {
   case tableTypeLoadBalance_:
      return outputTableLoadBalance_;
   case tableTypeLabel_:
      return outputTableLabel_;
   case tableTypeDest_:
      return outputTableDest_;
   default:
      return outputTableNone_;
   }
}

std::array<uint64_t, outputTables> OutputTables::freeRows() const {
   const auto free = []( const Vexil::TableBase& table ) {
      return uint64_t( table.capacity() ) - table.count();
   };
   std::array<uint64_t, outputTables> rows{};
   rows[ outputTableHost_ ] = free( *host );
   rows[ outputTableLoadBalance_ ] = free( *lb );
   rows[ outputTableLabel_ ] = free( *label );
   rows[ outputTableDest_ ] = free( *dest );
   rows[ outputTableFlood_ ] = flood->freeMembers();
   return rows;
}

} // namespace L2Rib
