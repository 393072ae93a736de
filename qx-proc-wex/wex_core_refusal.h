// wex_core_refusal: what users wanted and may not have, for the running log and the status table (strict
// mode).
#pragma once

#include <sys/types.h>

enum class refusal { not_his, too_many_connections, too_many_registrations, too_many_groups };

// Counts the refusal and notes it; never waits. Any thread.
void wex_refuse(uid_t user, refusal why);

// Writes what was noted to the running log, once a minute and user at most. Delay thread only.
void wex_log_refusals();
