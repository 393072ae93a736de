// wex_core: start-up.
#pragma once

// Compiles "/etc/wex/proc" into the third-part list.
extern "C" void wex_third_part_proc_init(void);
