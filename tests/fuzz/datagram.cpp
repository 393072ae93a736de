// Datagrams of process events, as anything that can send to the connector socket might make them.
#include "fuzz_support.h"
#include "wex_core_netlink.h"
#include "wex_core_process_event.h"

namespace {

struct tally {
  size_t events;
};

void on_event(const process_event& event, void* context) {
  fuzz::expect(event.kind == kEventAck || event.kind == kEventExec || event.kind == kEventExit ||
                   event.kind == kEventFork,
               "only events of a known kind are handed on");
  ++static_cast<tally*>(context)->events;
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tally seen = {0};
  wex_walk_datagram(data, size, on_event, &seen);
  fuzz::expect(seen.events <= size / 40, "every event has a whole message of its own");
  return 0;
}
