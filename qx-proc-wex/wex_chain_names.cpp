// wex_chain_names: a hash table of the command lines of all registrations.
#define WEX_MODULE "wex_chain"
#include "wex_chain_names.h"

#include <cstddef>
#include <cstring>

#include "hash_links.h"

namespace {

constexpr size_t kBuckets = 256;  // a power of two
constexpr uint32_t kHashStart = 2166136261U;
constexpr uint32_t kHashFactor = 16777619U;

wex_hnode* g_names[kBuckets] WEX_TSA(guarded_by(wex_chains));

// Blanks at the end do not count: they are removed from a registered command line before it is shown.
uint32_t hash_of(const char* command) {
  uint32_t hash = kHashStart;
  uint32_t up_to_last_word = hash;
  for (; *command != '\0'; ++command) {
    hash = (hash ^ static_cast<unsigned char>(*command)) * kHashFactor;
    if (*command != ' ' && *command != '\t') {
      up_to_last_word = hash;
    }
  }
  return up_to_last_word;
}

wex_hnode** bucket_of(uint32_t hash) WEX_TSA(requires_capability(wex_chains)) {
  return &g_names[hash & (kBuckets - 1)];
}

const wex_pid* record_of(const wex_hnode* node) {
  return reinterpret_cast<const wex_pid*>(reinterpret_cast<const char*>(node) - offsetof(wex_pid, name_node));
}

}  // namespace

void __wex_enter_name(wex_pid* rec) {
  rec->name_hash = hash_of(rec->process);
  link_at_head(bucket_of(rec->name_hash), &rec->name_node);
}

void __wex_remove_name(wex_pid* rec) {
  unlink_node(&rec->name_node);
  rec->name_node.pprev = nullptr;
}

void __wex_change_name(wex_pid* rec) {
  if (rec->name_node.pprev != nullptr) {
    __wex_remove_name(rec);
    __wex_enter_name(rec);
  }
}

void __wex_clear_names() {
  memset(g_names, 0, sizeof g_names);
}

bool __wex_name_may_be_taken(const char* command, const wex_pid* except) {
  const uint32_t hash = hash_of(command);
  for (const wex_hnode* node = *bucket_of(hash); node != nullptr; node = node->next) {
    const wex_pid* const other = record_of(node);
    if (other != except && other->name_hash == hash) {
      return true;
    }
  }
  return false;
}
