// wex_domain_present: which domains have a directory. A domain without one has no marker and no flag files,
// so that nothing is asked for there.
#pragma once

#include <cstdint>

// The domains that may have a directory: bit n stands for domain n, 1 to kLastTakeDownDomain. Every bit is
// set when that cannot be told. One look at the directory of all domains as long as that does not change. Any
// thread, not between fork and exec.
uint32_t wex_domains_present();
