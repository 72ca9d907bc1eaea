/* A program built against the installed tree through pkg-config: stores an
   item in a new container, closes everything, opens the item again by its
   reference and reads the bytes back. Runs on the embedded defaults, so the
   interest service is started on demand from the installed tree. */
#include <stdio.h>
#include <string.h>

#include <sfl.h>

static const char kText[] = "stored through the installed C library";

struct run {
  int ok;
};

static void store_and_read(void* ctx) {
  struct run* r = (struct run*)ctx;
  sfl_ItemRef ref;
  char back[sizeof kText];
  int32_t base = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  int32_t item = sfl_StoreBasicItem(base, NULL, sizeof kText, &ref, 0);
  if (item < SFL_ITEM_HANDLE_FIRST) return;
  if (sfl_WriteSimpleData(item, 0, sizeof kText, kText) != (int32_t)sizeof kText) return;
  sfl_CloseItem(item);
  sfl_CloseFile(base);

  item = sfl_OpenItem(&ref, 0);
  memset(back, 0, sizeof back);
  if (sfl_ReadSimpleData(item, 0, sizeof back, back) != (int32_t)sizeof back) return;
  sfl_CloseItem(item);
  r->ok = memcmp(back, kText, sizeof kText) == 0;
}

int main(void) {
  struct run r = {0};
  int group = 0, reason = 0;
  if (er_CallC(store_and_read, &r, &group, &reason) != 0) {
    fprintf(stderr, "consumer.c: escape group %d reason %d\n", group, reason);
    return 1;
  }
  if (!r.ok) {
    fprintf(stderr, "consumer.c: the item did not read back as written\n");
    return 1;
  }
  printf("consumer.c: item stored and read back\n");
  return 0;
}
