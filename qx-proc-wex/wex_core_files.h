// wex_core_files: database files that do not fit the registry.
#pragma once

// Compares the database files with the registry: what died before its registration was read gets a record, of
// which the sweep finds the exit lost, and living processes without a file get one. Delay thread only, with
// nothing held.
void wex_look_at_files();
