// wex_core_filter_program: the instructions of the packet filter on the socket of process events.
//
// The filter machine of older kernels has no tables, so the set of processes is in the program itself: a
// binary search for the word that a process id falls in, then a test of the id's bit. Among 512 words that is
// some 20 instructions.
#include "wex_core_filter_program.h"

#include <arpa/inet.h>

#include "wex_core_process_event.h"

namespace {

// The machine loads words in network order, the message is in host order.
constexpr bool kLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
constexpr uint32_t kLowByte = kLittleEndian ? 0 : 3;  // of a field, from its beginning
constexpr uint32_t kBitNumber = 31;

constexpr uint32_t kDrop = 0;
constexpr uint32_t kPass = 0xffffffff;

// Writes a program from its last instruction to its first, so that the target of a jump is written before the
// jump. Each instruction is followed by the one written just before it. Targets are indexes into the space of
// instructions.
class program_writer {
 public:
  explicit program_writer(sock_filter (&space)[kFilterProgramMax]) noexcept : space_(space) {}

  size_t step(unsigned code, uint32_t operand) noexcept {
    space_[--at_] = BPF_STMT(static_cast<uint16_t>(code), operand);
    return at_;
  }

  // Jumps count from the next instruction.
  size_t jump(size_t target) noexcept {
    const auto distance = static_cast<uint32_t>(target - at_);
    return step(BPF_JMP | BPF_JA, distance);
  }

  size_t branch(unsigned comparison, uint32_t operand, size_t if_true, size_t if_false) noexcept {
    if_false = near(if_false);
    if_true = near(if_true);
    const auto over_true = static_cast<uint8_t>(if_true - at_);
    const auto over_false = static_cast<uint8_t>(if_false - at_);
    space_[--at_] = BPF_JUMP(static_cast<uint16_t>(BPF_JMP | comparison), operand, over_true, over_false);
    return at_;
  }

  // The target itself, or a jump to it, near enough for a branch that is written next.
  size_t near(size_t target) noexcept {
    constexpr size_t kReach = 255 - 1;  // less a jump that is written for the branch's other target
    return target - at_ <= kReach ? target : jump(target);
  }

  filter_program whole() const noexcept {
    return {space_ + at_, static_cast<uint16_t>(kFilterProgramMax - at_)};
  }

 private:
  sock_filter* space_;
  size_t at_ = kFilterProgramMax;
};

struct outcomes {
  size_t pass;
  size_t drop;
};

// The search among [first, first + count) for the word that A belongs to. Goes on at `test` with its bits in
// A.
size_t write_search(program_writer* out, const pid_set::word* first, size_t count, size_t test,
                    size_t* drop) {
  if (count == 1) {
    out->jump(test);
    const size_t found = out->step(BPF_LD | BPF_IMM, first->bits);
    *drop = out->near(*drop);
    return out->branch(BPF_JEQ | BPF_K, first->common, found, *drop);
  }
  const size_t half = count / 2;
  const size_t upper = write_search(out, first + half, count - half, test, drop);
  const size_t lower = write_search(out, first, half, test, drop);
  return out->branch(BPF_JGE | BPF_K, first[half].common, upper, lower);
}

// Passes the events of the set's processes, whose ids write_test() has loaded. Without a set those of all
// pass.
size_t write_set(program_writer* out, const pid_set* set, outcomes to) {
  if (set == nullptr || set->begin() == set->end()) {
    return set == nullptr ? to.pass : to.drop;
  }
  out->branch(BPF_JSET | BPF_K, 1, to.pass, to.drop);
  const size_t test = out->step(BPF_ALU | BPF_RSH | BPF_X, 0);
  write_search(out, set->begin(), static_cast<size_t>(set->end() - set->begin()), test, &to.drop);
  return out->step(BPF_ALU | BPF_AND | BPF_K, htonl(~kBitNumber));
}

// Asks the set about the process whose id stands there.
size_t write_test(program_writer* out, uint32_t at, size_t set) {
  out->jump(set);
  out->step(BPF_LD | BPF_W | BPF_ABS, at);
  out->step(BPF_MISC | BPF_TAX, 0);
  out->step(BPF_ALU | BPF_AND | BPF_K, kBitNumber);
  return out->step(BPF_LD | BPF_B | BPF_ABS, at + kLowByte);
}

// A thread's process is its thread group.
size_t write_exit(program_writer* out, const filter_rules& rules, size_t set, const outcomes& to) {
  const size_t by_process = write_test(out, kTgidAt, set);
  size_t thread = rules.threads == thread_ends::all ? to.pass : by_process;
  if (rules.threads == thread_ends::none) {
    out->branch(BPF_JSET | BPF_K, htonl(kCoreDumped), by_process, to.drop);
    thread = out->step(BPF_LD | BPF_W | BPF_ABS, kCodeAt);
  }
  out->branch(BPF_JEQ | BPF_X, 0, by_process, thread);
  out->step(BPF_LD | BPF_W | BPF_ABS, kTgidAt);
  out->step(BPF_MISC | BPF_TAX, 0);
  return out->step(BPF_LD | BPF_W | BPF_ABS, kPidAt);
}

// A process that gets an id of the set. The daemon's children are not left out: by CLONE_PARENT anything that
// it has started makes processes that the kernel reports as the daemon's.
size_t write_birth(program_writer* out, size_t set, const outcomes& to) {
  const size_t process = write_test(out, kChildTgidAt, set);
  out->branch(BPF_JEQ | BPF_X, 0, process, to.drop);  // else it is a thread
  out->step(BPF_LD | BPF_W | BPF_ABS, kChildTgidAt);
  out->step(BPF_MISC | BPF_TAX, 0);
  return out->step(BPF_LD | BPF_W | BPF_ABS, kChildPidAt);
}

}  // namespace

filter_program wex_build_filter(const filter_rules& rules, sock_filter (&space)[kFilterProgramMax]) {
  program_writer out(space);
  outcomes to = {};
  to.pass = out.step(BPF_RET | BPF_K, kPass);
  to.drop = out.step(BPF_RET | BPF_K, kDrop);
  const size_t set = write_set(&out, rules.exits, to);
  const size_t exit = write_exit(&out, rules, set, to);
  const size_t birth = write_birth(&out, set, to);
  const size_t no_exit = out.branch(BPF_JEQ | BPF_K, htonl(kEventFork), birth, to.drop);
  const size_t others = out.branch(BPF_JEQ | BPF_K, htonl(kEventExit), exit, no_exit);
  const size_t no_answer =
      out.branch(BPF_JEQ | BPF_K, htonl(kEventExec), rules.executions ? to.pass : to.drop, others);
  out.branch(BPF_JEQ | BPF_K, htonl(kEventAck), to.pass, no_answer);
  out.step(BPF_LD | BPF_W | BPF_ABS, kKindAt);
  return out.whole();
}
