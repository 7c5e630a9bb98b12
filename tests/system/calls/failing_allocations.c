/* Has a chosen allocation fail, see control.c. None that the libraries make before main(): nothing of the service's runs
 * by then.
 */

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);

static volatile int in_main;

/* What main() does first. */
int mallopt(int parameter, int value) {
    in_main = 1;
    return NEXT(mallopt)(parameter, value);
}

static int has_none(void) {
    int error = in_main ? fails(ALLOCATION) : 0;
    if (error != 0) errno = error;
    return error != 0;
}

void* malloc(size_t size) { return has_none() ? NULL : __libc_malloc(size); }
void* calloc(size_t count, size_t size) { return has_none() ? NULL : __libc_calloc(count, size); }
void* realloc(void* data, size_t size) { return has_none() ? NULL : __libc_realloc(data, size); }
