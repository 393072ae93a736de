// Bad neighbours at length: neighbours_test.cpp tries the same for some seconds.
#include "bad_neighbours.h"

using namespace bad_neighbours;

namespace {
struct ManyNeighbours : Neighbours {};
}  // namespace

TEST_F(ManyNeighbours, ThatFillAllPlacesButOne) {
  beside_idle_clients(200);
}
TEST_F(ManyNeighbours, ThatNeverRead) {
  beside_clients_that_never_read(100);
}
TEST_F(ManyNeighbours, ThatStopInTheMiddle) {
  beside_clients_that_stop_in_the_middle(100);
}
TEST_F(ManyNeighbours, ThatSendGarbage) {
  beside_garbage(100);
}
TEST_F(ManyNeighbours, ThatConnectAndLeave) {
  beside_a_flood_of_connections(100, 10000);
}
TEST_F(ManyNeighbours, ThatSendAMillionRandomRecords) {
  after_random_records(1000000);
}
