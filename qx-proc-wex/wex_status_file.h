// wex_status_file: the status table that others read (wex_status.h).
//
// The table is never mapped: a mapping whose file is cut short, or for which there is no memory, would end
// the daemon with SIGBUS. The image is written with pwrite() by the main thread, which has nothing else to
// do, so no other thread makes a system call for it, and a table that was damaged is whole again a moment
// later.
#pragma once

// Makes the table, or takes over that of an earlier daemon with its events. What is in its way is moved
// aside. A failure stops nothing: it is logged, and tried again later. Once, with the lock of the daemon.
void wex_status_open();

// Shows what has changed. Any thread.
void wex_status_publish();

// Shows it a last time: the daemon ends by itself.
void wex_status_end();
