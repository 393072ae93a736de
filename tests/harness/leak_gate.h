// The leak gate: under every case of every test program. Before a case it makes the device one that never ran
// wex; afterwards it reports what the case has left behind, and sweeps children and files away.
#pragma once

namespace wex_test {

enum leak : unsigned {
  kDescriptors = 1u << 0,
  kChildren = 1u << 1,      // living ones and zombies
  kHeldMutexes = 1u << 2,   // of the chains
  kSharedMemory = 1u << 3,  // objects in /dev/shm, and segments
  kSemaphores = 1u << 4,
  kMounts = 1u << 5,
  kFiles = 1u << 6,  // names that are no part of the product's own interface
};

// Declares what is left on purpose: at most `most` things of this kind whose description (a descriptor's
// target, a name) contains `what`. As a statement in a case it is about this case; as a constant of a test
// program it is about all of its cases.
struct leaves_behind {
  leaves_behind(leak kind, const char* what, int most, const char* why);
};

// Puts the gate under all cases of this program.
void install_leak_gate();

}  // namespace wex_test
