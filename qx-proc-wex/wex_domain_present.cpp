// wex_domain_present: which domains have a directory.
//
// Each exit asks for the take-down markers of sixteen domains and for the flag files of fifteen, and most
// devices have few domains. What the directory of all domains held is remembered as long as its time stamps
// stay; g_mutex guards that.
#include "wex_domain_present.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "file_mark.h"
#include "mutex_lock.h"
#include "priority_mutex.h"
#include "raw_dir.h"
#include "text_number.h"
#include "unique_fd.h"
#include "wex_limits.h"
#include "wex_paths.h"

namespace {

constexpr uint32_t kEveryDomain = UINT32_MAX;
static_assert(kLastTakeDownDomain < 32, "a bit for each domain");

priority_mutex g_mutex;
bool g_known WEX_TSA(guarded_by(g_mutex)) = false;
file_mark g_mark WEX_TSA(guarded_by(g_mutex));
uint32_t g_present WEX_TSA(guarded_by(g_mutex));

// The bit of the domain whose directory has this name; 0 for other names.
uint32_t domain_bit(const char* name) {
  const int32_t vsd = text_to_number(name);
  return vsd >= 1 && vsd <= kLastTakeDownDomain ? uint32_t{1} << vsd : 0;
}

// Anybody may fill the directory, and the caller may hold the registry: after so many names the answer is
// that every domain may exist.
uint32_t list_domains(raw_dir* domains) {
  uint32_t present = 0;
  int names = 0;
  while (const char* const name = domains->next()) {
    present |= domain_bit(name);
    if (++names > kDomainNamesMax) {
      return kEveryDomain;
    }
  }
  return domains->failed() ? kEveryDomain : present;
}

// Looks through the directory, and remembers what was there unless it changes at present.
uint32_t look() WEX_TSA(requires_capability(g_mutex)) {
  unique_fd directory(open(kDomainsDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat before = {};
  if (!directory.valid() || fstat(directory.get(), &before) != 0) {
    return errno == ENOENT ? 0 : kEveryDomain;
  }
  raw_dir domains(std::move(directory));
  const uint32_t present = list_domains(&domains);
  struct stat after = {};
  g_known = fstat(domains.fd(), &after) == 0 && same_mark(mark_of(before), mark_of(after)) &&
            has_settled(mark_of(after));
  g_mark = mark_of(after);
  g_present = present;
  return present;
}

}  // namespace

uint32_t wex_domains_present() {
  const mutex_lock hold(g_mutex);
  struct stat now;
  if (g_known && stat(kDomainsDir, &now) == 0 && same_mark(g_mark, mark_of(now))) {
    return g_present;
  }
  return look();
}
