// SPDX-License-Identifier: Apache-2.0
// What the library that counts needs from libc in another way than the library itself.
//
// Each scenario plays in a process that ends by _exit, which runs no destructor and would lose what
// was counted. And the memory for counting is not the library's: tests that make the library's
// calls fail must not find malloc among them.
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>

extern "C" {

// The compiler's and libc's own names.
void __gcov_dump();                 // NOLINT(bugprone-reserved-identifier)
void* __libc_malloc(size_t bytes);  // NOLINT(bugprone-reserved-identifier)

__attribute__((visibility("default"))) void _exit(int status) {
    __gcov_dump();
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}

void* __wrap_malloc(size_t bytes) {  // NOLINT(bugprone-reserved-identifier): the linker's name
    return __libc_malloc(bytes);
}
}
