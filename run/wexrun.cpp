// wexrun: puts any program under the supervision of wex, without changing it.
//
// It registers its own process and becomes the program, so that the process that wex knows is the program.
// What wex starts again is the command line of wexrun, so that each life registers itself anew.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "wex_paths.h"
#include "wexrun_limits.h"
#include "wexrun_minder.h"
#include "wexrun_options.h"
#include "wexrun_program.h"
#include "wexrun_registration.h"

namespace {

// A file of ours that took one of these numbers would be lost to the program, which reads or prints there.
void fill_standard_descriptors() {
  int fd = -1;
  do {
    fd = open(kNullDevice, O_RDWR | O_NOCTTY);
  } while (fd >= 0 && fd < STDERR_FILENO);
  if (fd > STDERR_FILENO) {
    close(fd);
  }
}

// Does not return when all went well.
int become(const run_options& options, registration& own) {
  own.keep_through_exec(options.program[0]);
  execvp(options.program[0], options.program);
  return give_up(options.program[0], errno, own);
}

}  // namespace

int main(int argc, char** argv) {
  fill_standard_descriptors();
  run_options options;
  const reading read = read_options(argc, argv, &options);
  if (read != reading::run) {
    return read == reading::answered ? 0 : kExitOwnFailure;
  }
  if (!can_be_repeated(argc, argv, options)) {
    return kExitOwnFailure;
  }
  registration own;
  if (const int cause = find_program(&options.program[0])) {
    return give_up(options.program[0], cause, own);
  }
  own.make(options);
  return options.notify ? mind(options, own) : become(options, own);
}
