// The trace handle that all source files of the engine share.
#pragma once

#include "runtime/Trace.h"

namespace L2Rib {

inline Vexil::TraceHandle& trace = Vexil::traceHandle( "L2RibPolicySm" );

} // namespace L2Rib
