// The code that a hooked slot leads to: begins the hooked call, runs the newest hook, ends the call.
// Behind it the function that begins the call for it.
//
// Registers by AAPCS64: arguments in x0-x7, x8 (indirect result) and q0-q7; results in x0, x1 and
// q0-q3. A copy reads its three words relative to itself, so it may lie anywhere. It has no unwind
// information: an unwinder stops there.
//
// The template has no landing pad (bti) either: it is data and never runs, and the copies run in memory
// without PROT_BTI, where an indirect branch may lead to any instruction.

        // The arguments, as the template keeps them in 208 bytes of stack.
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
        // The arguments are the hook's: kept while the call is noted.
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
        // begin(id, return address, frame pointer) gives the hook to run.
        ldr     x0, id
        mov     x1, x30
        mov     x2, x29
        ldr     x16, begin
        blr     x16
        mov     x16, x0
        // Arguments on the stack are again where the caller put them.
        restore_arguments
        blr     x16
        // The results are the caller's.
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
        // Where a copy holds its words: not multiples of 8, which ordinary memory does not ask for.
begin = .
end = . + 8
id = . + 16

        // arch_push_hook_stack(id, return address, frame pointer): for the template alone, whose
        // frame it knows. plthooks_begin_call gives in x0 the function to run, and in x1 whether
        // the call was noted.
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
        // Not noted, so the call must not come back to the trampoline: the original function
        // returns to the caller itself.
1:      .cfi_def_cfa_offset 208
        mov     x30, x1
        restore_arguments
        .cfi_def_cfa_offset 0
        br      x16
        .cfi_endproc
        .size   arch_push_hook_stack, . - arch_push_hook_stack

        .section .note.GNU-stack, "", %progbits

        // The linker marks the library as protected only when every object of it is marked. Code
        // that is added to this file starts with a landing pad and signs the x30 that it stores.
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
