// wexrun: puts any program under the supervision of wex, without changing it.
//
// It registers its own process and becomes the program, so that the process that wex knows is the program.
// What wex starts again is the command line of wexrun, so that each life registers itself anew.
#include <unistd.h>

#include <cerrno>

#include "wexrun_limits.h"
#include "wexrun_minder.h"
#include "wexrun_options.h"
#include "wexrun_program.h"
#include "wexrun_registration.h"

namespace {

// Does not return when all went well.
int become(const run_options& options, registration& own) {
  own.keep_through_exec();
  execvp(options.program[0], options.program);
  const int cause = errno;
  const int status = tell_not_executed(options.program[0], cause);
  if (!failed_for_a_moment(cause)) {
    own.withdraw();  // no restart could do better
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  run_options options;
  const reading read = read_options(argc, argv, &options);
  if (read != reading::run) {
    return read == reading::answered ? 0 : kExitOwnFailure;
  }
  if (!can_be_repeated(argc, argv, options)) {
    return kExitOwnFailure;
  }
  if (const int missing = look_for_program(options.program[0])) {
    return missing;
  }
  registration own;
  own.make(options);
  return options.notify ? mind(options, own) : become(options, own);
}
