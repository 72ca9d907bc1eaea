/* Store an item, read it back in another process, delete it: from C
   through the status forms of sfl_c.h, against the installed tree
   (pkg-config). Runs on the embedded defaults, so the interest service is
   started on demand from the installed tree. */
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sfl_c.h>

static const char kText[] = "stored through the installed C library";

static int fail(const char* what) {
  const sflc_Error* e = sflc_LastError();
  fprintf(stderr, "consumer.c: %s: %s (group %d, reason %d)\n", what, e->text, e->group, e->reason);
  return 1;
}

int main(void) {
  int32_t base, item, n, exists;
  sfl_ItemRef ref;

  if (sflc_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0, &base) != 0) return fail("create");
  if (sflc_StoreBasicItem(base, NULL, sizeof kText, &ref, 0, &item) != 0) return fail("store");
  if (sflc_WriteSimpleData(item, 0, sizeof kText, kText, &n) != 0) return fail("write");
  if (sflc_CloseItem(item) != 0 || sflc_CloseFile(base) != 0) return fail("close");

  /* Another process opens the item by its reference and reads it. */
  fflush(NULL);
  pid_t pid = fork();
  if (pid == 0) {
    char back[sizeof kText];
    if (sflc_OpenItem(&ref, 0, &item) != 0) _exit(fail("open in the child"));
    if (sflc_ReadSimpleData(item, 0, sizeof back, back, &n) != 0) _exit(fail("read in the child"));
    sflc_CloseItem(item);
    _exit(memcmp(back, kText, sizeof kText) == 0 ? 0 : 2);
  }
  int status = -1;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fprintf(stderr, "consumer.c: the other process did not read the item back\n");
    return 1;
  }

  if (sflc_OpenItem(&ref, 0, &item) != 0) return fail("open");
  if (sflc_DeleteItem(item) != 0 || sflc_CloseItem(item) != 0) return fail("delete");
  if (sflc_ItemExists(&ref, &exists) != 0 || exists) return fail("still there after the delete");
  printf("consumer.c: item stored, read back in another process, deleted\n");
  return 0;
}
