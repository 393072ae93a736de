/* ras_os: the small operating-system layer under hang detection, for every program of the device.
 *
 * Named shared memory, a System V semaphore used as a lock between processes, close-on-exec, a hex dump.
 * Results are 0 or a fixed negative number that names the failed step; where there is an `err` it is set to
 * 0 first and to the failed call's errno. Nothing here prints or locks; any thread may call anything. */
#ifndef RAS_OS_H
#define RAS_OS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A mapped named region. Filled by ras_os_init_record_memory(), owned by the caller. */
typedef struct ras_os_record_memory_t {
  char* name;    /* heap copy of the object's name */
  void* addr;    /* start of the shared, writable mapping */
  uint32_t size; /* length of object and mapping: the requested size in whole pages */
} ras_os_record_memory_t;

/* Creates the lock keyed on the existing file `path`, or finds it without touching its value. 0; -2 null
 * argument; -3 no key; -4 not created; -5 exists but not found; -6 initial value not set (set removed). */
int ras_os_init_mutex_sem(const char* path, int* semid);

/* Takes the lock; the kernel gives it back if the holder dies. Not recursive, no time limit. 0, or -7. */
int ras_os_lock_mutex_sem(int semid);

/* Gives the lock back. 0, or -8. */
int ras_os_unlock_mutex_sem(int semid);

/* Creates or opens the object `name` ("/..."), sizes it to whole pages and maps it. 0; -1 argument; -3 no
 * memory for the name; -4 not opened; -5 not sized; -6 not mapped. -5 and -6 remove the object for
 * everybody. The object's descriptor stays open for the life of the process. */
int ras_os_init_record_memory(const char* name, uint32_t size, ras_os_record_memory_t* handle, int* err);

/* Copies the first `length` bytes out of, or into, the region. 0, or -1 (argument, or longer than it). */
int ras_os_read_record_memory(const ras_os_record_memory_t* handle, void* buffer, uint32_t length);
int ras_os_write_record_memory(ras_os_record_memory_t* handle, const void* buffer, uint32_t length, int* err);

/* Unmaps the region and removes the object for every process. 0; -1 argument; -7 unmap; -8 unlink. */
int ras_os_close_record_memory(ras_os_record_memory_t* handle, int* err);

/* 0, or -1 for a negative descriptor or a failed call. */
int ras_os_set_fd_close_on_exec(int fd);

/* Prints `len` bytes at `msg` as a hex dump headed by `prefix`. The result of the last print, or -1. */
int ras_os_dump_msg(const char* prefix, const void* msg, uint32_t len);

#ifdef __cplusplus
}
#endif

#endif
