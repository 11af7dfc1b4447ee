/*
 * Start-up of the firmware on a Cortex-M4F: vector table, reset handler and
 * a fault handler that reports instead of hanging.
 *
 * Output goes through semihosting (newlib's librdimon): the debugger, or
 * QEMU with -semihosting, prints what the firmware writes to stdout and
 * stderr, and exit() ends the session with the program's status.
 */
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern uint32_t __data_load[], __data_start[], __data_end[];
extern uint32_t __bss_start[], __bss_end[];
extern uint32_t __stack_top[], __stack_limit[];

extern void initialise_monitor_handles(void);
extern void __libc_init_array(void);
extern int main(void);

void reset_handler(void);
void fault_handler(void);
void _init(void);
void _fini(void);

/* Where the C library's sbrk stops the heap (librdimon defines it). */
extern uint32_t __heap_limit;

typedef void (*handler_t)(void);

/* Initial stack pointer, then the exception handlers by number. Interrupts
 * stay disabled; every fault ends the program. */
__attribute__((section(".vectors"), used)) static const handler_t vectors[16] = {
    (handler_t)(uintptr_t)__stack_top,
    reset_handler,
    fault_handler, /* NMI */
    fault_handler, /* HardFault */
    fault_handler, /* MemManage */
    fault_handler, /* BusFault */
    fault_handler, /* UsageFault */
};

#define CPACR (*(volatile uint32_t *)0xE000ED88u)

void reset_handler(void)
{
    /* The hard-float ABI uses the FPU from the first float on: grant full
     * access to coprocessors 10 and 11 before any C library code runs. */
    CPACR |= 0xFu << 20;
    __asm volatile("dsb\n\tisb" ::: "memory");

    memcpy(__data_start, __data_load, (size_t)((char *)__data_end - (char *)__data_start));
    memset(__bss_start, 0, (size_t)((char *)__bss_end - (char *)__bss_start));
    __heap_limit = (uint32_t)(uintptr_t)__stack_limit; /* the stack region lies above */

    initialise_monitor_handles();
    __libc_init_array();
    exit(main());
}

/* The C library runs _init before the constructors and _fini after the
 * destructors; without the compiler's crti.o there is nothing to do there. */
void _init(void) {}
void _fini(void) {}

void fault_handler(void)
{
    static const char msg[] = "firmware: processor fault\n";
    write(2, msg, sizeof msg - 1);
    _exit(3);
}
