/* Preloaded into the service: counts what it does, call by call, and says which of them fails.
 *
 * The order, and the counts, are in /tmp/calls, see control.py; without that file nothing fails. The calls are counted
 * and made to fail in failing_calls.c and failing_allocations.c.
 */
#include <sys/prctl.h>

enum { MAIN, LOOP, OTHER, ROLES, CALLS = 512, ALLOCATION = 510, WRITE_LOG = 511, KILLS = -1 };

struct control {
    int role, call, number; /* which fails: the number-th such call of such a thread; number 0: none */
    int error;              /* an errno value, or KILLS */
    int lasts;              /* whether all such calls behind it fail, too, of whichever thread */
    int failed;             /* how many did */
    int counts[ROLES][CALLS];
};
static struct control* volatile control;
static __thread int role __attribute__((tls_model("initial-exec"))) = OTHER;

/* Counts a call. Returns 0, or how it fails. */
static int fails(long call) {
    struct control* order = control;
    if (order == NULL || call >= CALLS) return 0;
    int number = __atomic_add_fetch(&order->counts[role][call], 1, __ATOMIC_ACQ_REL);
    int chosen = __atomic_load_n(&order->number, __ATOMIC_ACQUIRE);
    if (chosen == 0 || call != order->call) return 0;
    if (number != chosen || role != order->role) {
        if (!order->lasts || __atomic_load_n(&order->failed, __ATOMIC_ACQUIRE) == 0) return 0;
    }
    __atomic_add_fetch(&order->failed, 1, __ATOMIC_ACQ_REL);
    return order->error;
}

/* Threads are told apart by their names. */
int prctl(int option, ...) {
    unsigned long rest[4];
    va_list arguments;
    va_start(arguments, option);
    for (int number = 0; number < 4; ++number) rest[number] = va_arg(arguments, unsigned long);
    va_end(arguments);
    if (option == PR_SET_NAME) role = strcmp((const char*)rest[0], "Json Msg Loop") == 0 ? LOOP : OTHER;
    return NEXT(prctl)(option, rest[0], rest[1], rest[2], rest[3]);
}

__attribute__((constructor(101))) static void begin(void) {
    int file = open("/tmp/calls", O_RDWR);
    if (file < 0) return;
    void* data = mmap(NULL, sizeof *control, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    close(file);
    if (data == MAP_FAILED) return;
    control = data;
    role = MAIN;
}
