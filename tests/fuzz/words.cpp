// Command lines on their way to an argument vector, and to a script of the command map.
#include <time.h>

#include "fuzz_support.h"
#include "text_buffer.h"
#include "wex_chain.h"
#include "wex_child.h"
#include "wex_proc.h"

// The vector is made, the program it names is not: these bytes might name anything.
extern "C" pid_t fork() noexcept {
  return fuzz::kNobody;
}
extern "C" pid_t vfork() noexcept {
  return fuzz::kNobody;
}
// The pause before a child counts as killed would be most of the time.
extern "C" int clock_nanosleep(clockid_t, int, const timespec*, timespec*) {
  return 0;
}

namespace {

// `text` in a block of exactly its size, so that the sanitizer sees one byte too many.
char* exact_copy(const std::string& text) {
  return strdup(text.c_str());
}

void split(const std::string& text) {
  char* const command = exact_copy(text);
  child_words words;
  split_words(command, &words);
  fuzz::expect(words.count >= 0 && words.count <= kMaxWords, "a program gets at most 13 arguments");
  fuzz::expect(words.argv[words.count] == nullptr, "the vector ends");
  for (int word = 0; word < words.count; ++word) {
    fuzz::expect(words.argv[word][0] != '\0' && strpbrk(words.argv[word], " \t") == nullptr,
                 "a word is not empty and holds no blank");
  }
  free(command);
}

void trim(const std::string& text) {
  char* const command = exact_copy(text);
  rtrim(command);
  const size_t length = strlen(command);
  fuzz::expect(length == 0 || (command[length - 1] != ' ' && command[length - 1] != '\t'),
               "no blank is left behind");
  free(command);
}

void spawn(const std::string& process, const std::string& script, bool by_script) {
  wex_pid* const rec = wex_new_record();
  snprintf(rec->process, sizeof rec->process, "%s", process.c_str());
  snprintf(rec->script, sizeof rec->script, "%s", script.c_str());
  rec->action = by_script ? SHELL_RESTART : RESPAWN;
  int32_t pid = 0;
  const int32_t result = by_script ? wex_shell_spawn(rec, &pid) : wex_spawn(rec, &pid);
  fuzz::expect(result == fuzz::kNobody && pid == fuzz::kNobody, "a started program has its pid");
  wex_program_name(rec);
  wex_free_record(rec);
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  const bool by_script = in.number<uint8_t>() % 2 != 0;
  const std::string script = in.line();
  const std::string process = in.rest();
  split(process);
  trim(process);
  spawn(process, script, by_script);
  return 0;
}
