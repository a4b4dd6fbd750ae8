// SPDX-License-Identifier: Apache-2.0
// The trampoline template: begins a hooked call, runs the newest hook, ends the call. The function
// that begins the call follows it.
//
// Registers (AAPCS64): arguments in x0-x7, x8 (indirect result) and q0-q7; results in x0, x1 and
// q0-q3. The code is position-independent: a copy reads its three data words pc-relative. It has no
// unwind information, so an unwinder stops there.
//
// The template needs no landing pad (bti). It is data and never runs itself; its copies run in
// memory without PROT_BTI, where an indirect branch may reach any instruction.

        // Restores the arguments from the 208 bytes of stack where the template saved them.
        .macro  restore_arguments
        ldr     x8, [sp, #192]
        ldp     x6, x7, [sp, #176]
        ldp     x4, x5, [sp, #160]
        ldp     x2, x3, [sp, #144]
        ldp     x0, x1, [sp, #128]
        ldp     q6, q7, [sp, #96]
        ldp     q4, q5, [sp, #64]
        ldp     q2, q3, [sp, #32]
        ldp     q0, q1, [sp]
        add     sp, sp, #208
        .endm

        .section .rodata.arch_trampoline_code, "a", %progbits
        .p2align 3
        .global arch_trampoline_code
        .hidden arch_trampoline_code
        .type   arch_trampoline_code, %object
arch_trampoline_code:
        // Save the arguments for the hook.
        sub     sp, sp, #208
        stp     q0, q1, [sp]
        stp     q2, q3, [sp, #32]
        stp     q4, q5, [sp, #64]
        stp     q6, q7, [sp, #96]
        stp     x0, x1, [sp, #128]
        stp     x2, x3, [sp, #144]
        stp     x4, x5, [sp, #160]
        stp     x6, x7, [sp, #176]
        str     x8, [sp, #192]
        // x0 = begin(id, return address, frame pointer): the hook to run.
        ldr     x0, id
        mov     x1, x30
        mov     x2, x29
        ldr     x16, begin
        blr     x16
        mov     x16, x0
        // Also restores sp, so the hook finds its stack arguments where the caller put them.
        restore_arguments
        blr     x16
        // Save the results for the caller.
        sub     sp, sp, #80
        stp     x0, x1, [sp]
        stp     q0, q1, [sp, #16]
        stp     q2, q3, [sp, #48]
        ldr     x16, end
        blr     x16
        mov     x30, x0
        ldp     q2, q3, [sp, #48]
        ldp     q0, q1, [sp, #16]
        ldp     x0, x1, [sp]
        add     sp, sp, #80
        ret
        .size   arch_trampoline_code, . - arch_trampoline_code
        .if     . - arch_trampoline_code - 156
        .error  "the trampoline has 39 instructions"
        .endif
        // Data words of a copy. They need no 8-byte alignment: loads from normal memory may be
        // unaligned.
begin = .
end = . + 8
id = . + 16

        // arch_push_hook_stack(id, return address, frame pointer). Called by the template only: it
        // depends on the template's stack layout. plthooks_begin_call returns the function to run
        // in x0, and in x1 whether the call was pushed on the hook stack.
        .section .text.arch_push_hook_stack, "ax", %progbits
        .p2align 2
        .global arch_push_hook_stack
        .hidden arch_push_hook_stack
        .hidden plthooks_begin_call
        .type   arch_push_hook_stack, %function
arch_push_hook_stack:
        .cfi_startproc
        hint    #25                     // paciasp: signs x30, and is a landing pad
        .cfi_negate_ra_state
        stp     x29, x30, [sp, #-32]!
        .cfi_def_cfa_offset 32
        .cfi_offset x29, -32
        .cfi_offset x30, -24
        mov     x29, sp
        str     x1, [sp, #16]
        bl      plthooks_begin_call
        mov     x16, x0
        mov     x17, x1
        ldr     x1, [sp, #16]
        ldp     x29, x30, [sp], #32
        .cfi_restore x29
        .cfi_restore x30
        .cfi_def_cfa_offset 0
        hint    #29                     // autiasp
        .cfi_negate_ra_state
        cbz     x17, 1f
        ret
        // Not pushed: the call must not return to the trampoline. Jump to the original function,
        // which returns to the caller.
1:      .cfi_def_cfa_offset 208
        mov     x30, x1
        restore_arguments
        .cfi_def_cfa_offset 0
        br      x16
        .cfi_endproc
        .size   arch_push_hook_stack, . - arch_push_hook_stack

        .section .note.GNU-stack, "", %progbits

        // The linker marks the library as BTI/PAC-protected only if every object is marked. New
        // code in this file must start with a landing pad and sign the x30 that it stores.
#ifdef __ARM_FEATURE_BTI_DEFAULT
#define FEATURE_BTI 1
#else
#define FEATURE_BTI 0
#endif
#ifdef __ARM_FEATURE_PAC_DEFAULT
#define FEATURE_PAC 2
#else
#define FEATURE_PAC 0
#endif
#if FEATURE_BTI || FEATURE_PAC
        .section .note.gnu.property, "a", %note
        .p2align 3
        .word   4, 16, 5                // sizes of name and content; NT_GNU_PROPERTY_TYPE_0
        .asciz  "GNU"
        .word   0xc0000000, 4           // GNU_PROPERTY_AARCH64_FEATURE_1_AND, of four bytes
        .word   FEATURE_BTI | FEATURE_PAC, 0
#endif
