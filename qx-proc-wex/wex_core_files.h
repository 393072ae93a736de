// wex_core_files: database files that do not fit the registry.
#pragma once

// Compares the database files with the registry. A process that died before its registration was read gets a
// record, so that the sweep restarts it; living processes without a file get one. Delay thread only, with
// nothing held.
void wex_look_at_files();
