// hash_links: a record's place in one bucket of a hash table.
#pragma once

#include "wex.h"

inline void link_at_head(wex_hnode** head, wex_hnode* node) noexcept {
  node->next = *head;
  node->pprev = head;
  if (*head != nullptr) {
    (*head)->pprev = &node->next;
  }
  *head = node;
}

inline void unlink_node(wex_hnode* node) noexcept {
  *node->pprev = node->next;
  if (node->next != nullptr) {
    node->next->pprev = node->pprev;
  }
}
