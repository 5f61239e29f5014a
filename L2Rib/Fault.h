// What a sound record is: the rules for everything that other processes write, in one place.
//
// formatFaultIn( record ) knows what breaks the wire format: a count past its slots, a value that
// an enumeration does not have, half an object's name, a row that is the copy of nothing. The
// tables ask it for every record that they read, and for every one that they recover.
// faultIn( record ) knows that and what is well-formed but invalid besides: a VLAN that does not
// exist, VTEPs out of order, a group without members. The client library asks it before it
// publishes, and 'l2ribctl check' for every row. Both look at the record alone: whether what it
// points to is there is another question.
//
// Not judged is what the engine only copies: the type of an entry, and the kind of a dest when it
// is the format that is asked for.
//
// The rules for records that have a header of their own are declared there, beside the record.
#pragma once

#include "L2Rib/L2Rib.h"
#include "runtime/Fault.h"

#include <optional>

namespace L2Rib {

using MaybeFault = std::optional<Vexil::Fault>;

// Whether formatFaultIn() finds nothing, for the records that are read a million times: inline, and
// without making a text.
inline bool isFormatSound( const Host& host ) {
   return isSound( host.next() ) && isSound( host.ciDest() );
}
inline bool isFormatSound( const HostAndSource& row ) {
   return row.host().key() == row.key() && isSingleBit( row.source() ) &&
          isFormatSound( row.host() );
}

MaybeFault formatFaultIn( const Host& host );
MaybeFault formatFaultIn( const Dest& dest );
MaybeFault formatFaultIn( const LoadBalance& lb );
MaybeFault formatFaultIn( const Label& label );
// Of the output's rows: an object's row is the copy of an object of its type and a source, under an
// id that may have been given.
MaybeFault formatFaultIn( const HostAndSource& row );
MaybeFault formatFaultIn( const DestAndSource& row );
MaybeFault formatFaultIn( const LoadBalanceAndSource& row );
MaybeFault formatFaultIn( const LabelAndSource& row );

// The key of a host.
MaybeFault faultIn( const Bridging::MacVlanPair& key );
// The name of an object: the invalid tuple is none.
MaybeFault faultIn( const ObjTuple& ot );
MaybeFault faultIn( const Host& host );
MaybeFault faultIn( const Dest& dest );
MaybeFault faultIn( const LoadBalance& lb );
MaybeFault faultIn( const Label& label );
MaybeFault faultIn( const HostAndSource& row );
MaybeFault faultIn( const DestAndSource& row );
MaybeFault faultIn( const LoadBalanceAndSource& row );
MaybeFault faultIn( const LabelAndSource& row );

} // namespace L2Rib
