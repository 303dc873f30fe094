/* A host in C that loads the library at run time, so that nothing in it has its place in a thread before the
   first use. Each of its threads may hold a few blocks of memory, one more each time: none of them may end
   the process, and the last thread gets through. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void __libc_free(void* memory);

static _Thread_local long blocks_left = -1; /* -1: no limit */
static _Thread_local int refused;
static int (*set)(const char*, const char*);
static int (*begin)(void);

static int is_refused(void)
{
    if (blocks_left == 0) {
        refused = 1;
        errno = ENOMEM;
        return 1;
    }
    blocks_left -= blocks_left > 0;
    return 0;
}

void* malloc(size_t size)
{
    return is_refused() ? NULL : __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    return is_refused() ? NULL : __libc_calloc(count, size);
}

void free(void* memory)
{
    blocks_left += memory != NULL && blocks_left >= 0;
    __libc_free(memory);
}

static void* run(void* blocks)
{
    blocks_left = *(const long*)blocks;
    const int done = set("MailServer", "127.0.0.1") & set("MailSubject", "Hello") & begin();
    blocks_left = -1;
    return done && !refused ? blocks : NULL;
}

int main(void)
{
    void* const library = dlopen(VELMAIL_LIBRARY, RTLD_NOW);
    void* through = NULL;
    *(void**)&set = dlsym(library, "VelMailSetProperty");
    *(void**)&begin = dlsym(library, "VelMailConnect");
    for (long blocks = 0; through == NULL && blocks < 1000; ++blocks) {
        pthread_t thread;
        if (pthread_create(&thread, NULL, run, &blocks) != 0 || pthread_join(thread, &through) != 0) {
            return 1;
        }
    }
    return through == NULL;
}
