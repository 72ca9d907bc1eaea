/* The library from a C program through its status forms (sfl_c.h): every
   family is used, each call's status is checked, failures come back as
   reasons with this thread's last-error record filled in, and nothing ends
   the program. A forked process reads what this one stored. */
#define _XOPEN_SOURCE 700
#include <errno.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "sfl_c.h"

static int failures = 0;
#define CHECK(cond)                                                              \
  do {                                                                           \
    if (!(cond)) {                                                               \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                                \
    }                                                                            \
  } while (0)
/* A call that must succeed; shows the last error when it does not. */
#define OK(call)                                                                           \
  do {                                                                                     \
    int rc_ = (call);                                                                      \
    if (rc_ != 0) {                                                                        \
      fprintf(stderr, "%s:%d: %s returned %d: %s\n", __FILE__, __LINE__, #call, rc_,      \
              sflc_LastError()->text);                                                     \
      ++failures;                                                                          \
    }                                                                                      \
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

static const char kText[] = "line one\nline two\n";

/* The forms called so far: C(Name) calls sflc_Name and notes it, so that
   the end of the test can tell a form of the table that nothing called. */
static const char* called[256];
static int ncalled = 0;
static void note(const char* name) {
  for (int i = 0; i < ncalled; ++i)
    if (strcmp(called[i], name) == 0) return;
  if (ncalled < 256) called[ncalled++] = name;
}
#define C(name) (note(#name), sflc_##name)

static void every_form_was_called(void) {
  static const char* const forms[] = {
#define SFLC_RET(prefix, name, type, params, args) #name,
#define SFLC_RET0(prefix, name, type) #name,
#define SFLC_VOID(prefix, name, params, args) #name,
#define SFLC_VOID0(prefix, name) #name,
#include "sfl_c_api.h"
  };
  for (size_t f = 0; f < sizeof forms / sizeof forms[0]; ++f) {
    int seen = 0;
    for (int i = 0; i < ncalled; ++i) seen |= strcmp(called[i], forms[f]) == 0;
    if (!seen) {
      fprintf(stderr, "the C form sflc_%s was never called\n", forms[f]);
      ++failures;
    }
  }
}

/* ---- failures ------------------------------------------------------------------------------ */
static void failures_are_returned(void) {
  int32_t h = -1;
  sflc_ClearError();
  CHECK(sflc_LastError()->group == 0 && sflc_LastError()->reason == 0);

  /* A bad handle: group 3. */
  CHECK(C(CloseItem)(7999) == 28867);
  const sflc_Error* e = sflc_LastError();
  CHECK(e->group == ER_GROUP_TABLE && e->reason == 28867);
  CHECK(strstr(e->text, "28867") != NULL);
  CHECK(e->file != NULL && e->file[0] != '\0' && e->line > 0);

  /* A bad argument: group 1; the out-parameter is left as it was. */
  CHECK(C(CreateSfl)(0, 3, 0, &h) == 22);
  CHECK(h == -1);
  CHECK(sflc_LastError()->group == ER_GROUP_CALL);

  /* A success leaves the record alone; clearing empties it. */
  uint32_t blocks = 0;
  OK(C(CalculateBlocks)(129, &blocks));
  CHECK(blocks == 2);
  CHECK(sflc_LastError()->reason == 22);
  sflc_ClearError();
  CHECK(sflc_LastError()->reason == 0 && sflc_LastError()->text[0] == '\0');

  /* A reference in text form that does not parse (im_FormItemRef raises). */
  sfl_ItemRef ref;
  CHECK(C(FormItemRef)("not a reference", &ref, NULL) != 0);
  CHECK(sflc_LastError()->group == ER_GROUP_CONFIG);

  /* er_RaiseC's form hands back what it raised. */
  CHECK(C(RaiseC)(ER_GROUP_SFL, 28899, "here.c", 7) == 28899);
  CHECK(sflc_LastError()->group == ER_GROUP_SFL && sflc_LastError()->line == 7);
  CHECK(strcmp(sflc_LastError()->file, "here.c") == 0);
  /* The escape ended in the form: the library's own status is not live. */
  CHECK(er_GetLive() == 0);
}

/* ---- files, items, references, and another process ----------------------------------------------- */
static void store_read_in_child(sfl_ItemRef* stored) {
  int32_t base = -1, item = -1, n = -1, exists = -1;
  sfl_ItemRef fileRef;
  char back[sizeof kText];
  char text[64];
  struct stat st;

  OK(C(CreateSfl)(0, SFL_TYPE_DATA_ITEM, 0, &base));
  CHECK(base >= SFL_BASE_HANDLE_FIRST);
  OK(C(StoreBasicItem)(base, NULL, sizeof kText, stored, 0, &item));
  CHECK(item >= SFL_ITEM_HANDLE_FIRST);
  OK(C(WriteSimpleData)(item, 0, sizeof kText, kText, &n));
  CHECK(n == (int32_t)sizeof kText);
  OK(C(FStatItem)(item, &st));
  CHECK(st.st_size == (off_t)sizeof kText);
  OK(C(SyncData)(item));
  OK(C(CloseItem)(item));

  /* The container's table shows the item. */
  sfl_ItemInfo slots[8];
  int32_t count = 0;
  OK(C(ListItems)(base, slots, 8, &count));
  CHECK(count == 8);
  CHECK(slots[stored->Flags & SFL_ITEM_NUM_MASK].InUse == 1);
  OK(C(GetSerFileItem)(base, &fileRef));
  OK(C(CloseFile)(base));

  /* References round-trip through their text form. */
  sfl_ItemRef parsed;
  OK(C(ItemRef2Text)(stored, text, sizeof text, NULL));
  OK(C(FormItemRef)(text, &parsed, NULL));
  CHECK(memcmp(&parsed, stored, sizeof parsed) == 0);
  OK(C(ItemExists)(stored, &exists));
  CHECK(exists != 0);

  /* Another process opens the item by its reference and reads it. */
  fflush(NULL);
  pid_t pid = fork();
  if (pid == 0) {
    int32_t h = -1, got = -1;
    memset(back, 0, sizeof back);
    if (C(OpenItem)(&parsed, 0, &h) != 0) _exit(1);
    if (C(ReadSimpleData)(h, 0, sizeof back, back, &got) != 0) _exit(2);
    if (C(CloseItem)(h) != 0) _exit(3);
    if (got != (int32_t)sizeof kText || memcmp(back, kText, sizeof kText) != 0) _exit(4);
    /* A closed handle in the child fails there as a reason, too. */
    if (C(CloseItem)(h) != 28867) _exit(5);
    _exit(0);
  }
  int status = -1;
  CHECK(pid > 0 && waitpid(pid, &status, 0) == pid);
  CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

static void item_changes(const sfl_ItemRef* stored) {
  int32_t item = -1, n = -1, exists = -1;
  char back[8];
  struct stat st;

  OK(C(OpenItem)(stored, 0, &item));
  OK(C(TruncateSimItem)(item, 4));
  OK(C(StatItem)(stored, &st));
  CHECK(st.st_size == 4);
  memset(back, 0, sizeof back);
  OK(C(ReadSimpleData)(item, 0, 4, back, &n));
  CHECK(n == 4 && memcmp(back, "line", 4) == 0);
  /* Reading past the end is refused with its reason, and the item stays open. */
  CHECK(C(ReadSimpleData)(item, 2, 8, back, &n) != 0);
  CHECK(sflc_LastError()->group == ER_GROUP_SFL);
  OK(C(DeleteItem)(item));
  OK(C(CloseItem)(item));
  OK(C(ItemExists)(stored, &exists));
  CHECK(exists == 0);
  CHECK(C(OpenItem)(stored, 0, &item) != 0);
}

/* ---- streams ---------------------------------------------------------------------------------- */
static void streams(void) {
  int32_t base = -1, item = -1, s = -1, rc = -1;
  sfl_ItemRef ref;
  char line[32];
  char* got = NULL;
  size_t n = 0;
  long pos = -1;

  OK(C(CreateSfl)(0, SFL_TYPE_DATA_ITEM, 0, &base));
  OK(C(StoreBasicItem)(base, NULL, sizeof kText - 1, &ref, 0, &item));
  OK(C(CloseItem)(item));
  OK(C(CloseFile)(base));

  OK(C(fOpenItem)(&ref, "w", &s));
  CHECK(s >= SFL_STREAM_HANDLE_FIRST);
  OK(C(fWrite)(kText, 1, sizeof kText - 1, s, &n));
  CHECK(n == sizeof kText - 1);
  OK(C(fClose)(s));

  OK(C(fOpenItem)(&ref, "r", &s));
  OK(C(fgets)(line, sizeof line, s, &got));
  CHECK(got == line && strcmp(line, "line one\n") == 0);
  OK(C(fTell)(s, &pos));
  CHECK(pos == 9);
  OK(C(fSeek)(s, 5, SEEK_SET, &rc));
  CHECK(rc == 0);
  memset(line, 0, sizeof line);
  OK(C(fRead)(line, 1, 3, s, &n));
  CHECK(n == 3 && strcmp(line, "one") == 0);
  OK(C(fClose)(s));
  /* A mode item streams do not take. */
  CHECK(C(fOpenItem)(&ref, "a", &s) == 28886);
  CHECK(C(fClose)(s) != 0); /* already closed */
}

/* ---- blocked and internal items ------------------------------------------------------------------ */
static void blocked_and_internal(void) {
  int32_t base = -1, blk = -1, formatted = -1, n = -1, parent = -1, inner = -1, w = -1;
  uint32_t got = 0, count = 0, last = 0;
  sfl_ItemRef ref, parentRef;
  sfl_BlockInfo blocks[4];
  char back[16];

  OK(C(CreateSfl)(0, SFL_TYPE_DATA_ITEM, 0, &base));
  OK(C(CreateBlockedItem)(base, &ref, &blk));
  OK(C(FormatBlockedRoot)(blk, &formatted));
  CHECK(formatted == 1);
  OK(C(WriteBlockedData)(blk, 0, 5, "zero.", &n));
  OK(C(WriteBlockedData)(blk, 3, 6, "three.", &n));
  CHECK(n == 6);
  OK(C(ListBlocks)(blk, 0, 10, blocks, 4, &count));
  CHECK(count == 2 && blocks[0].Block == 0 && blocks[1].Block == 3 && blocks[1].Size == 6);
  /* Blocks renumbered from 0: 0 and 3 become 0 and 1. */
  OK(C(CompactBlockedItem)(blk, &last));
  CHECK(last == 1);
  OK(C(ReorderIndex)(blk, 1, 0));
  memset(back, 0, sizeof back);
  OK(C(ReadBlockedData)(blk, 0, 6, back, &got));
  CHECK(got == 6 && memcmp(back, "three.", 6) == 0);
  CHECK(C(ReadBlockedData)(blk, 9, 6, back, &got) != 0); /* no such block */
  OK(C(CloseItem)(blk));

  /* An internal blocked item held inside a simple item. */
  OK(C(StoreBasicItem)(base, NULL, 512, &parentRef, 0, &parent));
  OK(C(CreateIntBItem)(parent, 0, 128, 0, &inner));
  OK(C(WriteBlockedData)(inner, 0, 5, "inner", &w));
  OK(C(CloseIntItem)(inner));
  OK(C(OpenIntItem)(parent, 0, 128, &inner));
  memset(back, 0, sizeof back);
  OK(C(ReadBlockedData)(inner, 0, 5, back, &got));
  CHECK(got == 5 && memcmp(back, "inner", 5) == 0);
  OK(C(RemoveIntItem)(inner));
  CHECK(C(OpenIntItem)(parent, 0, 128, &inner) != 0);
  OK(C(CloseItem)(parent));
  OK(C(CloseFile)(base));
}

/* ---- maintenance and interest ------------------------------------------------------------------- */
static void maintenance_and_interest(void) {
  int32_t base = -1, item = -1, result = -1, outcome = -1, req = -1, rep = -1, pairs = -1, pid = -1;
  sfl_ItemRef ref, fileRef;

  OK(C(CreateSfl)(0, SFL_TYPE_DATA_ITEM, 0, &base));
  OK(C(StoreBasicItem)(base, NULL, 300, &ref, 0, &item));
  OK(C(CloseItem)(item));
  OK(C(GetSerFileItem)(base, &fileRef));

  /* The interest service this process reports to. */
  OK(C(GetQueue)(&fileRef, &req, &rep, &pairs, &pid));
  CHECK(req >= 0 && rep >= 0 && pairs >= 1 && pid > 0);

  /* A dump of the open container, into a temporary stream. */
  FILE* out = tmpfile();
  CHECK(out != NULL);
  OK(C(DumpContainer)(out, base, -1));
  CHECK(ftell(out) > 0);
  fclose(out);
  CHECK(C(DumpContainer)(stderr, base, 8) == 28857); /* no such slot */
  OK(C(CloseFile)(base));

  /* The check finds nothing wrong, and refuses an item's reference. */
  fflush(stdout);
  OK(C(CheckSflIntegrity)(&fileRef, 0, &result));
  CHECK(result == 0);
  CHECK(C(CheckSflIntegrity)(&ref, 0, &result) == 1032);
  CHECK(sflc_LastError()->group == ER_GROUP_MAINT);

  OK(C(CompactContainer)(&fileRef, &outcome));
  CHECK(outcome == SFL_COMPACT_DONE);
  CHECK(C(CompactContainer)(&ref, &outcome) != 0);
}

/* ---- the rest of the table ---------------------------------------------------------------------- */
/* Each form not used above, once, on a container of its own: lower-level
   table, lock, sync, placement, serial, mapping, dump and interest calls.
   Given what their function refuses they return its reason; nothing of it
   unwinds into this program. */
static void remaining_forms(void) {
  int32_t base = -1, item = -1, blk = -1, h = -1, n = -1, r = -1, revived = -1;
  uint32_t u = 0;
  int64_t pos = -1;
  sfl_ItemRef fileRef, ref, blkRef, other, back;
  sfl_BaseRec* rec = NULL;
  sfl_ItemRec* irec = NULL;
  sfl_ItemRec* found = NULL;
  sfl_SimpleDetails details;
  sfl_ItemMap map;
  char path[4096], buf[64];
  uint8_t raw[384];
  FILE* out = tmpfile();
  CHECK(out != NULL);
  memset(raw, 0, sizeof raw);

  OK(C(CreateSfl)(0, SFL_TYPE_DATA_ITEM, 0, &base));
  OK(C(GetSerFileItem)(base, &fileRef));
  OK(C(Handle2Record)(base, &rec));
  CHECK(rec != NULL);
  OK(C(StoreBasicItem)(base, NULL, 64, &ref, 0, &item));
  OK(C(ItemHandle2Record)(item, &irec));
  CHECK(irec != NULL);

  /* references and file names */
  OK(C(ItemRef2FName)(&fileRef, path, sizeof path, NULL));
  OK(C(FName2ItemRef)(path, &back, NULL));
  CHECK(back.FileId == fileRef.FileId && back.Domain == fileRef.Domain);
  CHECK(C(FName2ItemRef)("/nowhere/x", &back, NULL) != 0);

  /* open-files table, cold store, activation */
  CHECK(C(OpenSfl)(&fileRef, 0, &h) == 28861); /* open already in this process */
  CHECK(C(CreateBaseSfl)(&fileRef, -1, 0, &h) != 0);
  OK(C(GetNewOFilesEntry)(&h, &rec));
  OK(C(DeleteOSerFile)(rec));
  OK(C(Handle2Record)(base, &rec));
  OK(C(IncIntItems)(base, &n));
  OK(C(DecIntItems)(base, &r));
  CHECK(r == n - 1);
  OK(C(CheckFileAccessed)(&fileRef, &rec, &h, 0, &revived, &r));
  CHECK(r != 0 && h == base);
  CHECK(C(ReturnToColdStore)(7999) != 0 && sflc_LastError()->group == ER_GROUP_TABLE);
  OK(C(MakeRoomInColdStore)());
  CHECK(C(ShutDownBaseFile)(7999) != 0 && sflc_LastError()->group == ER_GROUP_TABLE);
  OK(C(EnsureBaseFileOpen)(base));
  OK(C(PtrEnsureBaseFileOpen)(rec));
  CHECK(C(Activate)(8999) == 28867);
  CHECK(C(DeActivate)(8999) == 28867);

  /* locks and sync */
  OK(C(LockHeader)(rec, SFL_LOCK_SHARED, &r));
  OK(C(UnlockHeader)(rec, &r));
  OK(C(LockItemHeader)(irec, SFL_LOCK_EXCL, &r));
  OK(C(UnLockItemHeader)(irec, &r));
  OK(C(LockAnIntHeader)(rec, 192, SFL_LOCK_SHARED, &r));
  OK(C(UnLockAnIntHeader)(rec, 192, &r));
  OK(C(LockAnIndex)(irec, 640, SFL_LOCK_SHARED, &r));
  OK(C(UnLockAnIndex)(irec, 640, &r));
  OK(C(LockSflItem)(item, SFL_LOCK_EXCL, SEEK_SET, 0, 10, &r));
  OK(C(LockSflItem)(item, SFL_LOCK_RELEASE, SEEK_SET, 0, 10, &r));
  OK(C(flock)(item, SFL_LOCK_SHARED, &r));
  OK(C(flock)(item, SFL_LOCK_RELEASE, &r));
  OK(C(ConsiderSync)(rec, irec, 1));
  OK(C(SetAllAsync)(0, &u));
  OK(C(SetAllAsync)(u, NULL));
  OK(C(SyncBaseFile)(base));
  OK(C(SetFileUserNoSync)(item, 0, &u));
  OK(C(SetItemUserNoSync)(item, 0, &u));
  OK(C(SetlibItmNoSync)(item, 0, &u));

  /* item handles */
  OK(C(Attach2OpenItem)(item, &u));
  OK(C(DetachOpenItem)(item, &u));
  OK(C(AttachItem)(&ref, &u));
  OK(C(DetachItem)(&ref, &u));
  OK(C(ChangeTime)(item, 1000000));
  OK(C(ItemWillNotChange)(item, &found));
  OK(C(ItemMayChange)(item, &found));
  CHECK(found == irec);
  OK(C(GetNewItemEntry)(&h, &found));
  OK(C(DeleteOSerItem)(found));
  OK(C(CheckItemAccessed)(&ref, &found, &h, base, &r));
  CHECK(r != 0 && h == item);
  OK(C(FindFellowActiveItems)(base, &r));
  OK(C(IntOpenItem)(rec, base, (uint32_t)(ref.Flags & SFL_ITEM_NUM_MASK), &found, &h));
  OK(C(CloseItem)(h));

  /* simple data: placement, serial access, details, mapping */
  OK(C(StoreItemAtPosition)(base, NULL, 16, &other, 0, 5, &h));
  CHECK((other.Flags & SFL_ITEM_NUM_MASK) == 5);
  OK(C(CloseItem)(h));
  OK(C(AddItemToFile)(&fileRef, 16, 0, NULL, 0, &other, &h));
  OK(C(CloseItem)(h));
  OK(C(StoreItemWithOpenItem)(item, 16, 0, NULL, 0, &other, 0, &h));
  OK(C(CloseItem)(h));
  CHECK(C(AssociateItemWithBase)(8999) == 28867);
  CHECK(C(CopySimpleItem)(7999, 0, -1, 0, 0, 0, &r) != 0);
  OK(C(WriteSerialData)(item, "serial", 6, &n));
  OK(C(seek)(item, 0, SEEK_SET, &pos));
  CHECK(pos == 0);
  memset(buf, 0, sizeof buf);
  OK(C(ReadSerialData)(item, buf, 6, &n));
  CHECK(n == 6 && memcmp(buf, "serial", 6) == 0);
  OK(C(GetSimpleDetails)(item, &details));
  CHECK(details.Size == 64);
  OK(C(FindOffsetChkSize)(irec, 0, 8, &u));
  CHECK(u == details.Offset);
  CHECK(C(BlckFindOffsetChkSize)(irec, 0, 0, 8, &u) != 0); /* not a blocked item */
  CHECK(C(AppendToSimpleItem)(irec, 4, "more") == 0 || sflc_LastError()->group == ER_GROUP_SFL);
  OK(C(mapItem)(item, &map, NULL));
  CHECK(map.Size >= 64 && memcmp(map.Data, "serial", 6) == 0);
  OK(C(unMapItem)(&map, &r));

  /* internal and blocked items: an internal item whose header takes the
     whole of the 64-byte item */
  OK(C(GenCreateIntBItem)(irec, details.Offset, 0, &h));
  OK(C(CloseIntItem)(h));
  OK(C(CreateBlockedItem)(base, &blkRef, &blk));
  OK(C(FormatBlockedRoot)(blk, &r));
  OK(C(GetNewBlock)(blk, 5, 1, "block", &n));
  OK(C(ListIndexTree)(out, blk));
  OK(C(FreeBlock)(blk, (uint32_t)n, 0));
  OK(C(IntPower)(2, 10, &r));
  CHECK(r == 1024);

  /* a stream over a plain file */
  snprintf(path, sizeof path, "%s/plain.txt", dir);
  OK(C(fOpen)(path, "w", &h));
  OK(C(fileno)(h, &r));
  CHECK(r >= 0 && r < SFL_BASE_HANDLE_FIRST);
  OK(C(fClose)(h));

  /* dumps */
  OK(C(DumpHeader)(out, raw, 0));
  OK(C(DumpItemHeader)(out, raw, 128));
  OK(C(DumpIndexRecord)(out, raw, 0));
  OK(C(DumpBlockedIndex)(out, raw, 640));
  OK(C(DumpBaseItems)(&r));
  OK(C(DumpOpenItems)(&r));
  OK(C(DumpOpenL3Items)(&r));
  CHECK(ftell(out) > 0);

  /* maintenance */
  OK(C(AnalyseFreeMap)(rec, &u));
  OK(C(GetFileFlags)(base, &u));
  CHECK(C(CopyOutBlockedItem)(7999, 0, -1, 0, 0, &r) != 0);
  CHECK(C(CopyOutInternalContainer)(7999, 0, -1, 0, 0, &r) != 0);

  /* interest */
  OK(C(CheckBaseInterest)(rec));
  OK(C(CheckItemInterest)(irec));
  OK(C(RecordItemInterest)(irec));
  OK(C(ReleaseItemInterest)(irec));
  CHECK(C(DoSendMsg)(-1, buf, 8, 0) != 0);

  OK(C(CloseItem)(blk));
  OK(C(CloseItem)(item));
  OK(C(CheckSflIntegrity2)(&fileRef, 0, out, &r));
  OK(C(CompactSflFile)(rec, &u));
  OK(C(RecordBaseInterest)(rec));
  OK(C(ReleaseBaseInterest)(rec));
  OK(C(CloseFile)(base));
  OK(C(OpenSfl)(&fileRef, 0, &h));
  OK(C(CloseFile)(h));
  fclose(out);
}

int main(void) {
  sfl_ItemRef stored;
  use_private_dirs();
  failures_are_returned();
  store_read_in_child(&stored);
  item_changes(&stored);
  streams();
  blocked_and_internal();
  maintenance_and_interest();
  remaining_forms();
  every_form_was_called();
  nftw(dir, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
  if (failures == 0) printf("c_api_test: all checks passed\n");
  return failures == 0 ? 0 : 1;
}
