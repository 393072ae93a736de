// close_on_exec: descriptors that no program we start is to have.
#pragma once

// Marks the descriptor close-on-exec, also where the kernel was too old to open it so. 0, or -1.
int set_close_on_exec(int fd);

// The same for a descriptor that was opened with O_CLOEXEC: no more than a test until one such descriptor has
// shown that the kernel knows the flag.
void confirm_close_on_exec(int fd);
