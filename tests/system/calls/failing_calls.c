/* Has a chosen system call fail, or kills the process in its place, see control.c.
 *
 * A filter turns each system call into a signal, except those made here, which are known by the address they come from.
 * The signal's handler makes the call itself, or does not. That reaches the calls that the C library makes within
 * itself, too, and costs some microseconds each. No call of ld.so's, which comes earlier, and none of a thread's making
 * and end.
 *
 * x86-64 only.
 */
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <ucontext.h>

extern char end_of_own_call[];
long own_call(long number, long a, long b, long c, long d, long e, long f);
__asm__(".text\n"
        "own_call:\n"
        "  mov %rdi, %rax\n  mov %rsi, %rdi\n  mov %rdx, %rsi\n  mov %rcx, %rdx\n  mov %r8, %r10\n  mov %r9, %r8\n"
        "  mov 8(%rsp), %r9\n  syscall\n"
        "end_of_own_call:\n"
        "  ret\n");

/* Of what a thread does with a futex, only waiting can fail, and be interrupted. */
static int waits(long operation) {
    long command = operation & 127;
    return command == 0 || command == 9;
}

/* How a system call fails, or 0. */
static int call_fails(long call) {
    int error = fails(call);
    if (error == KILLS) own_call(SYS_kill, own_call(SYS_getpid, 0, 0, 0, 0, 0, 0), SIGKILL, 0, 0, 0, 0);
    return error;
}

/* Here the mask is the one from before the signal; and the signal itself must never be held back. */
static long change_mask(ucontext_t* context, long how, const unsigned long* set, unsigned long* before) {
    unsigned long mask;
    memcpy(&mask, &context->uc_sigmask, sizeof mask);
    if (before != NULL) *before = mask;
    if (set != NULL) {
        mask = how == SIG_BLOCK ? mask | *set : how == SIG_UNBLOCK ? mask & ~*set : *set;
        mask &= ~(1UL << (SIGSYS - 1));
        memcpy(&context->uc_sigmask, &mask, sizeof mask);
    }
    return 0;
}

static void on_call(int signal, siginfo_t* info, void* data) {
    ucontext_t* context = data;
    greg_t* at = context->uc_mcontext.gregs;
    long call = at[REG_RAX];
    (void)signal, (void)info;
    if (call == SYS_rt_sigprocmask) {
        at[REG_RAX] = change_mask(context, at[REG_RDI], (void*)at[REG_RSI], (void*)at[REG_RDX]);
        return;
    }
    if (call == SYS_rt_sigaction && at[REG_RDI] == SIGSYS) { /* the framework would take it */
        at[REG_RAX] = 0;
        return;
    }
    /* A record of the log that cannot be written is no business of who logs: counted apart. */
    int error = call == SYS_futex && !waits(at[REG_RSI]) ? 0
              : call_fails(call == SYS_write && at[REG_RDI] == STDERR_FILENO ? WRITE_LOG : call);
    long result = -error;
    /* A descriptor is gone also when closing it fails. Memory that cannot be had leaves the break where it is. */
    if (error == 0 || call == SYS_close)
        result = own_call(call, at[REG_RDI], at[REG_RSI], at[REG_RDX], at[REG_R10], at[REG_R8], at[REG_R9]);
    else if (call == SYS_brk)
        result = own_call(SYS_brk, 0, 0, 0, 0, 0, 0);
    at[REG_RAX] = error != 0 && call == SYS_close ? -error : result;
}

/* struct sigaction as the kernel has it. */
struct kernel_action { void* handler; unsigned long flags; void* restorer; unsigned long mask; };
void return_from_signal(void);
__asm__(".text\nreturn_from_signal:\n  mov $15, %rax\n  syscall\n");

#define PASS(call) BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)

static void install(void) {
    unsigned long end = (unsigned long)end_of_own_call;
    struct kernel_action action = {on_call, SA_SIGINFO | SA_NODEFER | 0x04000000 /* SA_RESTORER */,
                                   return_from_signal, 0};
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        PASS(SYS_rt_sigreturn), PASS(SYS_clone), PASS(SYS_clone3), PASS(SYS_vfork), PASS(SYS_fork), PASS(SYS_exit),
        PASS(SYS_exit_group), PASS(SYS_execve),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, instruction_pointer)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (unsigned)end, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, instruction_pointer) + 4),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (unsigned)(end >> 32), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP)};
    struct sock_fprog program = {sizeof filter / sizeof *filter, filter};
    own_call(SYS_rt_sigaction, SIGSYS, (long)&action, 0, 8, 0, 0);
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) abort();
}

__attribute__((constructor(102))) static void filter_calls(void) {
    if (control != NULL) install();
}

/* A thread that cannot be made: the clone itself is not filtered. */
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument) {
    int error = call_fails(SYS_clone);
    return error != 0 ? error : NEXT(pthread_create)(thread, attributes, run, argument);
}
