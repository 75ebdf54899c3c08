/* Preloaded into the daemon by test_start_failures.py, which builds it: the thread that is made as
 * number FAILING_THREAD, counted from 1, is refused. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>

typedef int create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) {
  static int made;
  const char* const failing = getenv("FAILING_THREAD");
  create* const original = (create*)dlsym(RTLD_NEXT, "pthread_create");
  if (failing == NULL || original == NULL) {
    abort();
  }
  if (++made == atoi(failing)) {
    return EAGAIN;
  }
  return original(thread, attributes, start, argument);
}
