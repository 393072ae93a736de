// wex_core_pause: the pauses that users' programs want before their restarts (strict mode).
//
// A pause of root's program is slept with the registry locked, and all other restarts wait behind it. A user
// must not be able to do that: his program's record only notes since when it waits, in `delay_start`, and the
// delay thread comes back to it.
#pragma once

#include "wex_chain.h"

// Begins the pause of a user's program whose restart is due. False when it is to be slept: of root's program,
// without strict mode of everybody's, and while the daemon ends, when no sleep lasts and the delay thread may
// not come back any more.
bool wex_begin_pause(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// True, once, when the record's pause is over.
bool wex_pause_is_over(wex_pid* rec) WEX_TSA(requires_capability(wex_chains));

// Whether any record may be in a pause. Any thread. While the daemon ends always: another thread may be
// beginning one, and the look that follows, with the registry locked, is the last.
bool wex_any_pause();

// A record whose pause has lasted long enough, or null. While the daemon ends every pause has.
wex_pid* __wex_find_ended_pause() WEX_TSA(requires_capability(wex_chains));
