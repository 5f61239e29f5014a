// Reads an EVPN route from the bytes that BGP itself has for it: an NLRI (RFC 7432, section 7) and
// path attributes (RFC 4271, section 4.3).
//
// The whole table of the BGP speaker is read in this form. In the other one (GobgpMessages.h) each
// path bears, spelled out, all NLRIs of the update that it came with; of a hundred routes in an
// update, that is a hundred times the size.
//
// Nothing of it is trusted to be there, or to be what it should. Nothing here throws.
#pragma once

#include "evpn/Import.h"

namespace Evpn {

// taken, type or unreadable. Attributes that are not known are passed over.
NotTaken readPath( std::string_view nlri, const std::vector<std::string_view>& attributes,
                   Route& route );

} // namespace Evpn
