// SPDX-License-Identifier: Apache-2.0
#include "tv/clock/FiberSwitch.h"

#ifdef __x86_64__
// jump_fcontext takes the address that it is to come back to from the stack, as a call leaves it,
// and hands on the arguments in the registers in which they came. The stack is aligned as at a
// call, for what a report of a hang runs on top of this; the nop stands where its unwinder looks
// for the call.
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
