// SPDX-License-Identifier: Apache-2.0
// The trampoline template: begins a hooked call, runs the newest hook, ends the call. The function
// that begins the call follows it.
//
// Registers (System V ABI): arguments in rdi, rsi, rdx, rcx, r8, r9, r10 (static chain), al (number
// of vector registers) and xmm0-xmm7; results in rax, rdx, xmm0, xmm1, st0 and st1. Only the low
// 128 bits of vector registers are preserved. The hook sees the caller's stack unchanged except for
// the return address, which points back here. The code is position-independent: a copy reads its
// three data words rip-relative. It has no unwind information, so an unwinder stops there.

        // Restores the arguments from the 200 bytes of stack where the template saved them.
        .macro  restore_arguments
        movq    184(%rsp), %r10
        movq    176(%rsp), %rax
        movq    168(%rsp), %r9
        movq    160(%rsp), %r8
        movq    152(%rsp), %rcx
        movq    144(%rsp), %rdx
        movq    136(%rsp), %rsi
        movq    128(%rsp), %rdi
        movaps  112(%rsp), %xmm7
        movaps  96(%rsp), %xmm6
        movaps  80(%rsp), %xmm5
        movaps  64(%rsp), %xmm4
        movaps  48(%rsp), %xmm3
        movaps  32(%rsp), %xmm2
        movaps  16(%rsp), %xmm1
        movaps  (%rsp), %xmm0
        addq    $200, %rsp
        .endm

        .section .rodata.arch_trampoline_code, "a", @progbits
        .p2align 4
        .global arch_trampoline_code
        .hidden arch_trampoline_code
        .type   arch_trampoline_code, @object
arch_trampoline_code:
        // Save the arguments for the hook. 200 bytes plus the return address keep the stack
        // 16-byte aligned.
        subq    $200, %rsp
        movaps  %xmm0, (%rsp)
        movaps  %xmm1, 16(%rsp)
        movaps  %xmm2, 32(%rsp)
        movaps  %xmm3, 48(%rsp)
        movaps  %xmm4, 64(%rsp)
        movaps  %xmm5, 80(%rsp)
        movaps  %xmm6, 96(%rsp)
        movaps  %xmm7, 112(%rsp)
        movq    %rdi, 128(%rsp)
        movq    %rsi, 136(%rsp)
        movq    %rdx, 144(%rsp)
        movq    %rcx, 152(%rsp)
        movq    %r8, 160(%rsp)
        movq    %r9, 168(%rsp)
        movq    %rax, 176(%rsp)
        movq    %r10, 184(%rsp)
        // rax = begin(id, return address, frame pointer): the hook to run.
        movq    id(%rip), %rdi
        movq    200(%rsp), %rsi
        movq    %rbp, %rdx
        callq   *begin(%rip)
        movq    %rax, %r11
        leaq    returned(%rip), %rax
        movq    %rax, 200(%rsp)
        restore_arguments
        jmpq    *%r11
returned:
        // Save the results for the caller.
        subq    $112, %rsp
        movq    %rax, (%rsp)
        movq    %rdx, 8(%rsp)
        movaps  %xmm0, 16(%rsp)
        movaps  %xmm1, 32(%rsp)
        // A called function expects empty x87 registers. Bits 11 to 13 of the status word (top of
        // stack) show how many are in use: 0 none, 7 one, 6 two.
        fnstsw  %ax
        shrl    $11, %eax
        andl    $7, %eax
        movl    %eax, 96(%rsp)
        jz      1f
        fstpt   48(%rsp)
        cmpl    $7, %eax
        je      1f
        fstpt   64(%rsp)
1:      callq   *end(%rip)
        movq    %rax, %r11
        movl    96(%rsp), %eax
        testl   %eax, %eax
        jz      3f
        cmpl    $7, %eax
        je      2f
        fldt    64(%rsp)
2:      fldt    48(%rsp)
3:      movaps  32(%rsp), %xmm1
        movaps  16(%rsp), %xmm0
        movq    8(%rsp), %rdx
        movq    (%rsp), %rax
        addq    $112, %rsp
        // A jump, not a ret: the hook's return has used the caller's entry in the return predictor.
        jmpq    *%r11
        // Pad to kTrampolineCodeBytes; longer code is an assembly error.
        .org    arch_trampoline_code + 376, 0x90
        .size   arch_trampoline_code, . - arch_trampoline_code
        // Data words of a copy.
begin = .
end = . + 8
id = . + 16

        // arch_push_hook_stack(id, return address, frame pointer). Called by the template only: it
        // depends on the template's stack layout. plthooks_begin_call returns the function to run
        // in rax, and in rdx whether the call was pushed on the hook stack.
        .section .text.arch_push_hook_stack, "ax", @progbits
        .p2align 4
        .global arch_push_hook_stack
        .hidden arch_push_hook_stack
        .hidden plthooks_begin_call
        .type   arch_push_hook_stack, @function
arch_push_hook_stack:
        .cfi_startproc
        subq    $8, %rsp
        .cfi_adjust_cfa_offset 8
        callq   plthooks_begin_call
        addq    $8, %rsp
        .cfi_adjust_cfa_offset -8
        testq   %rdx, %rdx
        jz      1f
        retq
        // Not pushed: the call must not return to the trampoline. Jump to the original function,
        // which returns to the caller.
1:      addq    $8, %rsp
        .cfi_def_cfa_offset 208
        movq    %rax, %r11
        restore_arguments
        .cfi_def_cfa_offset 8
        jmpq    *%r11
        .cfi_endproc
        .size   arch_push_hook_stack, . - arch_push_hook_stack

        .section .note.GNU-stack, "", @progbits
