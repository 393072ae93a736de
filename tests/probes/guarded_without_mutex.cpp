// expect: writing variable 'guarded' requires holding mutex 'guard'
#include "priority_mutex.h"

namespace {
priority_mutex guard;
int guarded WEX_TSA(guarded_by(guard)) = 0;
}  // namespace

int probe(bool with_lock);
int probe(bool with_lock) {
  if (with_lock) {
    const mutex_lock hold(guard);
    return ++guarded;
  }
  return guarded = 1;
}
