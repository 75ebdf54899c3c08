/* Preloaded into the daemon by test_faults_memory.py, which builds it: memory that is refused at
 * chosen calls. The file named in FAILING_MALLOC is shared with the test, which may change it at
 * any time. */

#include <errno.h>
#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

struct control {
  int64_t first; /* calls are refused from this number... */
  int64_t last;  /* ...to this one; 0 and 0 for none */
  int64_t calls; /* made so far; the first call has the number 1 */
  int64_t refused;
  int64_t live; /* blocks that were allocated and not freed */
};

static struct control nobodys;
static struct control* shared = &nobodys;

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void __libc_free(void* block);

__attribute__((constructor)) static void find_control(void) {
  const char* const path = getenv("FAILING_MALLOC");
  const int fd = path != NULL ? open(path, O_RDWR | O_CLOEXEC) : -1;
  if (fd < 0) {
    abort();
  }
  void* const place = mmap(NULL, sizeof(struct control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (place == MAP_FAILED) {
    abort();
  }
  close(fd);
  shared = place;
}

static int is_refused(void) {
  const int64_t call = __atomic_add_fetch(&shared->calls, 1, __ATOMIC_SEQ_CST);
  if (call < shared->first || call > shared->last) {
    return 0;
  }
  __atomic_add_fetch(&shared->refused, 1, __ATOMIC_SEQ_CST);
  errno = ENOMEM;
  return 1;
}

static void* count(void* block) {
  if (block != NULL) {
    __atomic_add_fetch(&shared->live, 1, __ATOMIC_SEQ_CST);
  }
  return block;
}

void* malloc(size_t size) {
  return is_refused() ? NULL : count(__libc_malloc(size));
}

void* calloc(size_t number, size_t size) {
  return is_refused() ? NULL : count(__libc_calloc(number, size));
}

void free(void* block) {
  if (block != NULL) {
    __atomic_sub_fetch(&shared->live, 1, __ATOMIC_SEQ_CST);
  }
  __libc_free(block);
}

void* realloc(void* block, size_t size) {
  if (block == NULL) {
    return malloc(size);
  }
  if (size == 0) {
    free(block);
    return NULL;
  }
  return is_refused() ? NULL : __libc_realloc(block, size);
}
