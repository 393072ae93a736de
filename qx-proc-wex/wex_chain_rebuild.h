// wex_chain_rebuild: the registry from the database files, at start.
#pragma once

#include "wex.h"

// Restores the chain from the database files of all domains and restarts what died meanwhile. 0. Before any
// thread runs.
extern "C" int wex_rebuild_chains(wex_chains_t* chain);
