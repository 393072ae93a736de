// verify_chain: what must hold for a chain after every single step.
#pragma once

#include <gtest/gtest.h>

#include <set>

#include "chain_lock.h"
#include "wex_chain.h"
#include "wex_chain_names.h"

inline bool has_its_name(const wex_pid* rec) {
  chain_lock hold(wex_chains);
  return __wex_name_may_be_taken(rec->process, nullptr);
}

// Count, buckets, back links, no record twice, no poisoned link in use, all registrations found by their
// names.
inline ::testing::AssertionResult chain_is_sound(wex_chains_t& chain) {
  chain_lock hold(chain);
  std::set<const wex_pid*> seen;
  for (uint32_t bucket = 0; bucket < WEX_CHAIN_BUCKETS; ++bucket) {
    wex_hnode** link = &chain.heads[bucket];
    for (wex_hnode* node = *link; node != nullptr; node = node->next) {
      const wex_pid* const rec = wex_record_of(node);
      if (!seen.insert(rec).second) {
        return ::testing::AssertionFailure() << "pid " << rec->pid << " is linked twice, or in a circle";
      }
      if (node->pprev != link) {
        return ::testing::AssertionFailure() << "the back link of pid " << rec->pid << " is wrong";
      }
      if (wex_hash_pid(rec->pid) != bucket) {
        return ::testing::AssertionFailure() << "pid " << rec->pid << " is in bucket " << bucket;
      }
      if (rec->list.next != &rec->list || rec->list.prev != &rec->list) {
        return ::testing::AssertionFailure() << "the second link of pid " << rec->pid << " is on a list";
      }
      if (&chain == &wex_chains && !has_its_name(rec)) {
        return ::testing::AssertionFailure() << "pid " << rec->pid << " is not found by its name";
      }
      link = &node->next;
    }
  }
  if (chain.count != static_cast<int32_t>(seen.size())) {
    return ::testing::AssertionFailure()
           << "count is " << chain.count << " for " << seen.size() << " records";
  }
  return ::testing::AssertionSuccess();
}

inline void verify_chain(wex_chains_t& chain) {
  ASSERT_TRUE(chain_is_sound(chain));
}
