// fuzz_support: what the fuzz targets share. Each of them works on true absolute paths and on the shipped
// modules, so none starts outside the sandbox.
#pragma once

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "wex.h"

namespace fuzz {

constexpr int kNobody = 0x40000000;  // above every pid a kernel hands out

[[noreturn]] inline void refuse(const char* why) {
  fprintf(stderr, "fuzz: %s\n", why);
  _exit(125);
}

// A finding that no sanitizer sees: the fuzzer keeps the input.
inline void expect(bool holds, const char* sentence) {
  if (!holds) {
    fprintf(stderr, "fuzz: does not hold: %s\n", sentence);
    abort();
  }
}

inline void say(int32_t level) {
  g_wex_dbg_level[WEX_DBG_PUB] = level;
  g_wex_dbg_level[WEX_DBG_ALIVE] = level;
  g_wex_dbg_level[WEX_DBG_LIB] = level;
}

// To be called first. Diagnostics are formatted, for hostile text goes through them too, but not shown.
inline void begin() {
  const char* const mark = getenv("WEX_SANDBOX");
  if (mark == nullptr || strcmp(mark, "1") != 0) {
    refuse("this writes to absolute paths: start me through tools/sandbox (tests/fuzz/run does)");
  }
  if (prctl(PR_CAPBSET_READ, CAP_SYS_BOOT) != 0) {
    refuse("a restart from here would take the machine down");
  }
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0) {
    refuse("no /dev/null");
  }
  close(nowhere);
  say(0);
}

// An empty directory in memory at `path`, for this process only.
inline void private_directory(const char* path) {
  if (unshare(CLONE_NEWNS) != 0 || mount("fuzz", path, "tmpfs", 0, "mode=755") != 0) {
    refuse(strerror(errno));
  }
}

inline void make_directory(const char* path) {
  if (mkdir(path, 0777) != 0 && errno != EEXIST) {
    refuse(strerror(errno));
  }
}

// A new file each time: nothing may be known about it from before.
inline void write_file(const char* path, const std::string& content) {
  unlink(path);
  const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0 || write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    refuse(strerror(errno));
  }
  close(fd);
}

// Hands out the input piece by piece; short inputs end in zeros and empty texts.
class input {
 public:
  input(const uint8_t* data, size_t size) : at_(data), left_(size) {}

  template <typename T>
  T number() {
    T value{};
    const size_t take = sizeof value < left_ ? sizeof value : left_;
    memcpy(&value, at_, take);
    skip(take);
    return value;
  }
  // At most `most` bytes, zeros included.
  std::string bytes(size_t most) {
    std::string piece(reinterpret_cast<const char*>(at_), most < left_ ? most : left_);
    skip(piece.size());
    return piece;
  }
  // Up to the next newline, which is taken and left out.
  std::string line() {
    const void* const end = left_ > 0 ? memchr(at_, '\n', left_) : nullptr;
    std::string piece =
        bytes(end != nullptr ? static_cast<size_t>(static_cast<const uint8_t*>(end) - at_) : left_);
    skip(left_ > 0 ? 1 : 0);
    return piece;
  }
  std::string rest() { return bytes(left_); }
  bool empty() const { return left_ == 0; }

 private:
  void skip(size_t count) {
    at_ += count;
    left_ -= count;
  }
  const uint8_t* at_;
  size_t left_;
};

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
