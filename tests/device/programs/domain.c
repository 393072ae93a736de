/* What another program of the device does with a domain's control groups:
 *   domain groups N KIB TENTHS   make the groups, move the domain's processes in, set limit and weight
 *   domain measure N             measure all domains, enforce the limits, print the domain's use and limit in
 * KiB */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "wex_vsd.h"

int main(int argc, char** argv) {
  int number = argc > 2 ? atoi(argv[2]) : 0;
  if (argc == 5 && strcmp(argv[1], "groups") == 0) {
    return set_cgroups_all(number) != 0 || set_mem_group(number, (uint64_t)atol(argv[3])) != 0 ||
           set_cpu_group(number, atoi(argv[4])) != 0;
  }
  if (argc == 3 && strcmp(argv[1], "measure") == 0) {
    set_vsd_mem();
    printf("%" PRIu64 " %" PRId64 "\n", vsd_use_mem(number), get_maxmem_set(number));
    return 0;
  }
  return 2;
}
