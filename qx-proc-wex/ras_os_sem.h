// ras_os_sem: creation of the system semaphore; programs that only read or raise it need wex.h alone.
#pragma once

extern "C" {

// Creates the system semaphore with the value 0, or leaves an existing one as it is (g_wex_semid then stays
// -1 until the first wex_get_semval()). 0, or -1 (printed). Before any thread runs.
int wex_sem_init(void);
}
