// __chkstk, the x64 stack probe: what Visual Studio links statically into
// every module (from its runtime's chkstk.obj). Windows x64 exports it from no
// DLL an image may import (mingw-w64's kernel32 list has it for 32-bit ARM
// only; Wine's kernel32 forwards it, Windows' does not), so an image that
// imported it would load here and fail on Windows with ERROR_PROC_NOT_FOUND.
//
// A prologue that allocates more than a page calls it with the size in rax
// before it moves rsp ("x64 prolog and epilog", "__chkstk Routine"). Windows
// commits a thread's stack one page at a time through the guard page below
// the committed part, whose top is the TEB's StackLimit (NT_TIB, gs:[0x10]):
// each page from that limit down to the page of the new stack bottom is
// touched in turn, so that the guard page is met before any page below it.
// The routine keeps every register but r10, r11 and the flags, rax included,
// and leaves rsp as it was: the caller moves rsp itself ("Stack allocation":
// "It doesn't modify any registers other than R10, R11, and the condition
// codes", Microsoft Learn). A size past the stack's lowest address probes
// down to address 0: the fault is then the stack overflow it is.
__asm__(
    ".text\n"
    ".globl __chkstk\n"
    ".p2align 4\n"
    "__chkstk:\n"
    "  leaq 8(%rsp), %r10\n"  // the caller's rsp
    "  subq %rax, %r10\n"     // its new bottom
    "  jae 1f\n"
    "  xorl %r10d, %r10d\n"  // below address 0: probe to the end
    "1:\n"
    "  movq %gs:0x10, %r11\n"  // StackLimit: the lowest committed byte
    "  cmpq %r11, %r10\n"
    "  jae 3f\n"               // within the committed stack
    "  andq $-0x1000, %r10\n"  // the page of the new bottom
    "2:\n"
    "  subq $0x1000, %r11\n"
    "  movb $0, (%r11)\n"  // touch the next page down
    "  cmpq %r10, %r11\n"
    "  jne 2b\n"
    "3:\n"
    "  ret\n");
