// chain_check: what holds for a chain whatever was done to it.
#pragma once

#include "chain_lock.h"
#include "fuzz_support.h"
#include "wex_chain.h"

namespace fuzz {

inline void expect_sound(wex_chains_t& chain) {
  const chain_lock hold(chain);
  int32_t left = chain.count;
  for (uint32_t bucket = 0; bucket < WEX_CHAIN_BUCKETS; ++bucket) {
    wex_hnode** link = &chain.heads[bucket];
    for (wex_hnode* node = *link; node != nullptr; node = node->next) {
      const wex_pid* const rec = wex_record_of(node);
      expect(node->pprev == link, "every record points back to what points to it");
      expect(wex_hash_pid(rec->pid) == bucket, "every record is in the bucket of its pid");
      expect(strnlen(rec->process, sizeof rec->process) < sizeof rec->process &&
                 strnlen(rec->script, sizeof rec->script) < sizeof rec->script,
             "the texts of a record are terminated");
      expect(left-- > 0, "a chain holds as many records as it counts");
      link = &node->next;
    }
  }
  expect(left == 0, "a chain holds as many records as it counts");
}

}  // namespace fuzz
