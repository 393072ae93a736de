// wex_opt: the command line, a small tool for domains.
#pragma once

extern "C" {

// Without arguments returns at once. A domain command ends the process, but for the ones that return to
// start-up.
void wex_handle_options(int argc, char** argv);
}
