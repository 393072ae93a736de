// Database files that anybody may have written, and the names and contents made from hostile command lines.
#include "fuzz_support.h"
#include "wex_paths.h"
#include "wex_pidfile.h"

namespace {

constexpr char kFile[] = "/tmp/vsd/0/wex/db/fuzz.1";

void read_back(const std::string& content) {
  fuzz::write_file(kFile, content);
  auto* const rec = static_cast<wex_pid*>(calloc(1, sizeof(wex_pid)));
  rec->pid = -7;
  const int result = wex_read_pidfile(kFile, rec);
  fuzz::expect(result == 0 || result == -1, "a database file is read or refused");
  fuzz::expect(result == 0 || (rec->pid == -7 && rec->script[0] == '\0'), "a refused file changes nothing");
  fuzz::expect(result != 0 || rec->script[0] == '/', "a command begins with its directory");
  fuzz::expect(strnlen(rec->script, sizeof rec->script) < sizeof rec->script, "a script is terminated");
  free(rec);
}

void expect_inside(const std::string& command) {
  char name[kPathSize];
  const int length = wex_get_db_file_name(0, 1, command.c_str(), name, sizeof name);
  fuzz::expect(length > 0 && length < static_cast<int>(sizeof name), "every command has a file name");
  fuzz::expect(strncmp(name, "/tmp/vsd/0/wex/db/", 18) == 0 && strchr(name + 18, '/') == nullptr,
               "no command leads out of the directory");
  char small[24];
  wex_get_db_file_name(0, 1, command.c_str(), small, sizeof small);
}

// What one life of the daemon writes, its next life reads.
void register_one(const std::string& command) {
  wex_reg_info body = {};
  body.pid = fuzz::kNobody;
  memcpy(body.process, command.data(),
         command.size() < sizeof body.process ? command.size() : sizeof body.process);
  auto* const rec = static_cast<wex_pid*>(calloc(1, sizeof(wex_pid)));
  rec->pid = body.pid;
  snprintf(rec->process, sizeof rec->process, "%.*s", static_cast<int>(sizeof body.process), body.process);
  if (wex_mk_pidfile_held(&body, WEX_RESTART) == 0) {
    fuzz::expect(wex_proc_is_exit(rec) == 1, "our own lock keeps only others out");
    fuzz::expect(wex_db_destroy(rec) == 0, "the file of a registration is found again");
  }
  free(rec);
}

}  // namespace

int LLVMFuzzerInitialize(int*, char***) {
  fuzz::begin();
  for (const char* const path : {"/tmp/vsd", "/tmp/vsd/0", "/tmp/vsd/0/wex", "/tmp/vsd/0/wex/db"}) {
    fuzz::make_directory(path);
  }
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string content(reinterpret_cast<const char*>(data), size);
  read_back(content);
  expect_inside(content);
  register_one(content);
  return 0;
}
