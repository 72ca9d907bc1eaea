/* The public API from C: calls run through er_CallC, which reports an
   escape's group and reason instead of unwinding into C code. */
#define _XOPEN_SOURCE 700
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "sfl.h"

struct create_args {
  int32_t type;
  int32_t handle;
};

static void create_and_close(void* ctx) {
  struct create_args* a = (struct create_args*)ctx;
  a->handle = sfl_CreateSfl(0, a->type, 0);
  sfl_CloseFile(a->handle);
}

static void bad_handle(void* ctx) {
  (void)ctx;
  sfl_CloseItem(7999);
}

static int failures = 0;
#define CHECK(cond)                                              \
  do {                                                           \
    if (!(cond)) {                                               \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                \
    }                                                            \
  } while (0)

static int remove_entry(const char* path, const struct stat* st, int flag, struct FTW* ftw) {
  (void)st;
  (void)flag;
  (void)ftw;
  return remove(path);
}

/* Its own store and run directory (so its own interest service, which
   stops once the directory is gone). */
static char dir[] = "/tmp/sfl-ctest-XXXXXX";
static void use_private_dirs(void) {
  char path[64];
  if (mkdtemp(dir) == NULL) exit(2);
  snprintf(path, sizeof path, "%s/store", dir);
  setenv("SFL_STORE_ROOT", path, 1);
  snprintf(path, sizeof path, "%s/run", dir);
  setenv("SFL_RUN_DIR", path, 1);
  setenv("SFL_MONITOR_IDLE_SECONDS", "2", 1);
}

int main(void) {
  int group = -1, reason = -1;
  use_private_dirs();
  struct create_args a = {SFL_TYPE_DATA_ITEM, -1};

  CHECK(er_CallC(create_and_close, &a, &group, &reason) == 0);
  CHECK(a.handle >= SFL_BASE_HANDLE_FIRST);

  a.type = 3; /* neither a data item nor a temporary item */
  CHECK(er_CallC(create_and_close, &a, &group, &reason) == 1);
  CHECK(group == 1 && reason == 22);

  CHECK(er_CallC(bad_handle, NULL, &group, &reason) == 1);
  CHECK(group == 3 && reason == 28867);

  CHECK(sfl_CalculateBlocks(0) == 0 && sfl_CalculateBlocks(129) == 2);
  nftw(dir, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
  if (failures == 0) printf("c_api_test: all checks passed\n");
  return failures == 0 ? 0 : 1;
}
