/* A program of the device: it uses the client library, and the device's system log. */
#include <wex.h>
#include <wex_platform.h>

int main(void) {
  if (wex_is_open_pub_dbg() != 0) {
    return 1;
  }
  printk_syslog_ext(5, "HA", "HA_TEST", 1, "text %d\n", 7);
  return 0;
}
