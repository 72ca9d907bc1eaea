/* The public API from C: calls run through er_CallC, which reports an
   escape's group and reason instead of unwinding into C code. */
#include <stdio.h>
#include <string.h>

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

int main(void) {
  int group = -1, reason = -1;
  struct create_args a = {SFL_TYPE_DATA_ITEM, -1};

  CHECK(er_CallC(create_and_close, &a, &group, &reason) == 0);
  CHECK(a.handle >= SFL_BASE_HANDLE_FIRST);

  a.type = 3; /* neither a data item nor a temporary item */
  CHECK(er_CallC(create_and_close, &a, &group, &reason) == 1);
  CHECK(group == 1 && reason == 22);

  CHECK(er_CallC(bad_handle, NULL, &group, &reason) == 1);
  CHECK(group == 3 && reason == 28867);

  CHECK(sfl_CalculateBlocks(0) == 0 && sfl_CalculateBlocks(129) == 2);
  if (failures == 0) printf("c_api_test: all checks passed\n");
  return failures == 0 ? 0 : 1;
}
