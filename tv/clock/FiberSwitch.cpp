// SPDX-License-Identifier: Apache-2.0
#include "tv/clock/FiberSwitch.h"

#ifdef __x86_64__
// jump_fcontext expects its return address on the stack, as a call leaves it, and passes on its
// arguments in their registers. The stack is aligned as at a call, because the report of a hang
// runs its unwinder on top of it; the unwinder takes the nop for the call.
asm(R"(
    .text
    .globl korvane_switch_fiber
    .hidden korvane_switch_fiber
    .type korvane_switch_fiber, @function
korvane_switch_fiber:
    .cfi_startproc
    subq $8, %rsp
    .cfi_adjust_cfa_offset 8
    leaq 1f(%rip), %rax
    pushq %rax
    .cfi_adjust_cfa_offset 8
    jmp jump_fcontext@PLT
    .cfi_adjust_cfa_offset -8
    nop
1:
    addq $8, %rsp
    .cfi_adjust_cfa_offset -8
    ret
    .cfi_endproc
    .size korvane_switch_fiber, . - korvane_switch_fiber
)");
#endif
