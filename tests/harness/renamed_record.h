// renamed_record: another command line for a record of wex_chains, which is found by it.
#pragma once

#include <cstdio>
#include <string>

#include "chain_lock.h"
#include "wex_chain_names.h"

inline void rename_record(wex_pid* rec, const std::string& process) {
  chain_lock hold(wex_chains);
  snprintf(rec->process, sizeof rec->process, "%s", process.c_str());
  __wex_change_name(rec);
}
