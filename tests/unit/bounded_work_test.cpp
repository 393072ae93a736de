// bounded_work: waiting for work that may take long, but only so long.
#include "bounded_work.h"

#include <atomic>

#include "unit_support.h"

using namespace unit;

namespace {

std::atomic<bool> no_threads{false};
std::atomic<bool> stands_still{false};
std::atomic<int> done{0};
size_t stack_asked = 0;  // of the last thread

void count(void* by) {
  while (stands_still) {
    usleep(1000);
  }
  done += *static_cast<int*>(by);
}

}  // namespace

extern "C" int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*body)(void*), void* argument);
extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*body)(void*), void* argument) {
  pthread_attr_getstacksize(attributes, &stack_asked);
  return no_threads ? EAGAIN : __real_pthread_create(thread, attributes, body, argument);
}

TEST(BoundedWork, IsWaitedForWhileItMoves) {
  static bounded_work work;
  int by = 3;
  ASSERT_TRUE(work.begin());
  EXPECT_TRUE(work.run(count, &by, 60000));
  EXPECT_EQ(3, done.exchange(0));
  EXPECT_LE(stack_asked, size_t{256} * 1024) << "there must be a thread also when memory is short";
}

TEST(BoundedWork, IsLeftAloneWhenItStandsStillAndThereIsNoSecondPiece) {
  static bounded_work work;
  static int by = 4;
  stands_still = true;
  ASSERT_TRUE(work.begin());
  const milliseconds taken = time_of([] { EXPECT_TRUE(work.run(count, &by, 50)); });
  EXPECT_GE(taken, 49ms);  // its clock counts whole milliseconds
  EXPECT_EQ(0, done);
  EXPECT_FALSE(work.begin());
  stands_still = false;
  EXPECT_TRUE(eventually([] { return work.begin(); }, 20s)) << "it goes on, however late";
  EXPECT_EQ(4, done.exchange(0));
}

TEST(BoundedWork, IsNotDoneByTheCallerWhenThereIsNoThread) {
  static bounded_work work;
  int by = 5;
  no_threads = true;
  ASSERT_TRUE(work.begin());
  EXPECT_FALSE(work.run(count, &by, 60000));
  EXPECT_EQ(0, done);
  no_threads = false;
  ASSERT_TRUE(work.begin()) << "the next piece is not kept from being done";
  EXPECT_TRUE(work.run(count, &by, 60000));
  EXPECT_EQ(5, done.exchange(0));
}
