// kept_connection: for programs that make requests. Their leak gate lets one socket pass.
#pragma once

#include "leak_gate.h"

namespace wex_test {

inline const leaves_behind kKeptConnection(kDescriptors, "socket:", 1,
                                           "the library keeps its connection for the next request");

}  // namespace wex_test
