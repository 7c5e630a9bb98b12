/* Has a chosen allocation fail, see control.c. None that the libraries make before main(): nothing of the service's runs
 * by then. Where all fail, a thread that gives a large block back, such as a reserve, has so much memory again.
 */
#include <malloc.h>

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);

enum { LARGE = 64 << 10 }; /* bytes */
static __thread size_t given_back __attribute__((tls_model("initial-exec"))); /* bytes, while all fail */

static volatile int in_main;

/* What main() does first. */
int mallopt(int parameter, int value) {
    in_main = 1;
    return NEXT(mallopt)(parameter, value);
}

/* A coverage build does at its end, before it writes its counts. */
void memory_comes_back(void) { in_main = 0; }

static int has_none(size_t size) {
    int error = in_main ? fails(ALLOCATION) : 0;
    if (error == 0) {
        given_back = 0;
        return 0;
    }
    if (size <= given_back) {
        given_back -= size;
        return 0;
    }
    errno = error;
    return 1;
}

void* malloc(size_t size) { return has_none(size) ? NULL : __libc_malloc(size); }
void* calloc(size_t count, size_t size) { return has_none(count * size) ? NULL : __libc_calloc(count, size); }
void* realloc(void* data, size_t size) { return has_none(size) ? NULL : __libc_realloc(data, size); }

void free(void* data) {
    size_t size = malloc_usable_size(data);
    if (size >= LARGE) given_back += size;
    __libc_free(data);
}
