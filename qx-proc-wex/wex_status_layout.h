// wex_status_layout: the fields by which a reader knows the table and finds its parts.
#pragma once

#include <cstring>

#include "wex_status.h"

inline void wex_fill_layout(wex_status_head* head) {
  memcpy(head->magic, WEX_STATUS_MAGIC, sizeof head->magic);
  head->byte_order = WEX_STATUS_BYTE_ORDER;
  head->version = WEX_STATUS_VERSION;
  head->head_size = WEX_STATUS_HEAD_SIZE;
  head->slot_size = sizeof(wex_status_slot);
  head->slots = WEX_STATUS_SLOTS;
  head->events_at = WEX_STATUS_EVENTS_AT;
  head->event_size = sizeof(wex_status_event);
  head->events = WEX_STATUS_EVENTS;
}
