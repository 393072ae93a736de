// wex_core_server: the control server.
#pragma once

// Its thread; the argument is ignored.
extern "C" void* wex_process_domain(void* unused);
