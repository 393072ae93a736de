// chain_lock: holds a chain's lock for a scope. Under clang a forgotten lock is a compile error.
#pragma once

#include "wex.h"

class WEX_TSA(scoped_lockable) chain_lock {
 public:
  explicit chain_lock(wex_chains_t& chain) noexcept WEX_TSA(acquire_capability(chain)) : chain_(chain) {
    pthread_mutex_lock(&chain_.mutex);
  }
  ~chain_lock() WEX_TSA(release_capability()) { pthread_mutex_unlock(&chain_.mutex); }
  chain_lock(const chain_lock&) = delete;
  chain_lock& operator=(const chain_lock&) = delete;

 private:
  wex_chains_t& chain_;
};
