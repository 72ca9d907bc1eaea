/* sfl: a storage library that keeps several items inside one container file.
 *
 * This header is the library's public interface, usable from C and C++.
 * Errors are raised as escapes (C++ exceptions of type er_Escape, see er.h);
 * C callers run their calls through er_CallC, which returns the escape's
 * group and reason instead.
 *
 * Item references (sfl_ItemRef) and their conversions come from im_ref.h.
 *
 * Handles: base handles (open container files) run from 7000, item handles
 * from 8000, stream handles from 9000.
 */
#ifndef SFL_H
#define SFL_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>

#include "er.h"
#include "im_ref.h" /* sfl_ItemRef and the conversions of references and names */

#define SFL_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* Per-process records behind the handles (opaque to callers). */
typedef struct sfl_BaseRec sfl_BaseRec; /* an open container file */
typedef struct sfl_ItemRec sfl_ItemRec; /* an open item */

enum { SFL_BASE_HANDLE_FIRST = 7000, SFL_ITEM_HANDLE_FIRST = 8000, SFL_STREAM_HANDLE_FIRST = 9000 };
enum { SFL_MAX_OPEN_FILES = 1024, SFL_MAX_OPEN_ITEMS = 3072, SFL_MAX_STREAMS = 16 };

/* Lock modes. */
enum { SFL_LOCK_SHARED = 1, SFL_LOCK_EXCL = 2, SFL_LOCK_RELEASE = 8 };

/* File header flags (and creation flags, where 0x04 means USER_ASYNC). */
enum sfl_FileFlag {
  SINGLE_FILE = 0x01,
  ASYNCHRONOUS = 0x02,
  BEEN_COMPACTED = 0x04,
  USER_ASYNC = 0x04,
  ITEM_PEND_DEL = 0x08,
  NEED_COMPACTION = 0x10,
  HAS_BEEN_COMPACTED = 0x20
};

/* Item header flags. */
enum sfl_ItemFlag {
  BLOCKED_ITEM = 0x01,
  HAS_INT_ITEM = 0x02,
  INT_ITEM = 0x04,
  DELETED = 0x08,
  OTHER_LOCKS = 0x10,
  MEM_FREEMAP = 0x20,
  /* On disk only: a simple item stored without a source, whose data its
     storer has not finished writing (cleared, once that data is flushed, by
     the close of the storing handle). */
  INCOMPLETE = 0x40
};

/* Result of sfl_GetSimpleDetails. */
typedef struct sfl_SimpleDetails {
  int32_t FileDes;
  uint32_t Offset;
  uint32_t Size;
  uint32_t CurrPos;
} sfl_SimpleDetails;

/* Filled by sfl_mapItem. */
typedef struct sfl_ItemMap {
  uint32_t MappedLength;
  void* Base;
  void* Data;
  uint32_t Size;
} sfl_ItemMap;

/* One slot of a container's item table, as sfl_ListItems reports it. */
typedef struct sfl_ItemInfo {
  uint32_t ItemNum;
  uint32_t InUse; /* the slot's bit in the file header's in-use map */
  uint32_t Valid; /* the header carries the right magic and type */
  uint32_t AccCount;
  uint32_t FileSize;
  uint32_t UsedBlocks;
  uint32_t ChangeDate;
  uint32_t FileOffset;
  uint32_t IndexDepth;
  uint32_t Flags;
} sfl_ItemInfo;

/* One block of a blocked item, as sfl_ListBlocks reports it. */
typedef struct sfl_BlockInfo {
  uint32_t Block;  /* block number */
  uint32_t Offset; /* file offset of its data */
  uint32_t Size;   /* its length in bytes */
} sfl_BlockInfo;

/* Exported globals. */
SFL_API extern uint8_t* MemFreeMap;
SFL_API extern uint32_t MemFreeMapSize;
SFL_API extern int32_t FilesInColdStore;
SFL_API extern uint32_t FrozenCount;

/* ---- files ---------------------------------------------------------------- */
SFL_API int32_t sfl_CreateSfl(uint32_t reserved, int32_t type, int32_t flags);
SFL_API int32_t sfl_CreateBaseSfl(const sfl_ItemRef* ref, int32_t fd, int32_t flags);
SFL_API int32_t sfl_OpenSfl(const sfl_ItemRef* ref, uint32_t implicitOpen);
SFL_API void sfl_CloseFile(int32_t baseHandle);
/* Reports the slots of an open container's item table (at most `max`);
   returns the number of slots (MaxItems). */
SFL_API int32_t sfl_ListItems(int32_t baseHandle, sfl_ItemInfo* out, int32_t max);

/* ---- open-files table, cold store, activation ------------------------------- */
SFL_API sfl_BaseRec* sfl_GetNewOFilesEntry(int32_t* baseHandle);
SFL_API sfl_BaseRec* sfl_Handle2Record(int32_t baseHandle);
SFL_API void sfl_DeleteOSerFile(sfl_BaseRec* rec);
SFL_API void sfl_GetSerFileItem(int32_t baseHandle, sfl_ItemRef* out);
SFL_API int32_t sfl_IncIntItems(int32_t baseHandle);
SFL_API int32_t sfl_DecIntItems(int32_t baseHandle);
SFL_API int32_t sfl_CheckFileAccessed(const sfl_ItemRef* ref, sfl_BaseRec** rec, int32_t* baseHandle,
                                      int32_t revive, int32_t* revived);
SFL_API void sfl_ReturnToColdStore(int32_t baseHandle);
SFL_API void sfl_MakeRoomInColdStore(void);
SFL_API void sfl_ShutDownBaseFile(int32_t baseHandle);
SFL_API void sfl_EnsureBaseFileOpen(int32_t baseHandle);
SFL_API void sfl_PtrEnsureBaseFileOpen(sfl_BaseRec* rec);
SFL_API void sfl_Activate(int32_t itemHandle);
SFL_API void sfl_DeActivate(int32_t itemHandle);

/* ---- locks and sync --------------------------------------------------------- */
SFL_API int32_t sfl_LockHeader(sfl_BaseRec* rec, int32_t mode);
SFL_API int32_t sfl_UnlockHeader(sfl_BaseRec* rec);
SFL_API int32_t sfl_LockItemHeader(sfl_ItemRec* item, int32_t mode);
SFL_API int32_t sfl_UnLockItemHeader(sfl_ItemRec* item);
SFL_API int32_t sfl_LockAnIntHeader(sfl_BaseRec* rec, uint32_t offset, int32_t mode);
SFL_API int32_t sfl_UnLockAnIntHeader(sfl_BaseRec* rec, uint32_t offset);
SFL_API int32_t sfl_LockAnIndex(sfl_ItemRec* item, uint32_t offset, int32_t mode);
SFL_API int32_t sfl_UnLockAnIndex(sfl_ItemRec* item, uint32_t offset);
SFL_API int32_t sfl_LockSflItem(int32_t itemHandle, int32_t mode, int16_t whence, int64_t offset,
                                int64_t length);
SFL_API int32_t sfl_flock(int32_t itemHandle, int32_t mode);
SFL_API void sfl_ConsiderSync(sfl_BaseRec* rec, sfl_ItemRec* item, int32_t event);
SFL_API uint32_t sfl_SetAllAsync(uint32_t value);
SFL_API void sfl_SyncData(int32_t itemHandle);
SFL_API void sfl_SyncBaseFile(int32_t baseHandle);
SFL_API uint32_t sfl_SetFileUserNoSync(int32_t itemHandle, uint32_t value);
SFL_API uint32_t sfl_SetItemUserNoSync(int32_t itemHandle, uint32_t value);
SFL_API uint32_t sfl_SetlibItmNoSync(int32_t itemHandle, uint32_t value);

/* ---- item handles ------------------------------------------------------------ */
SFL_API int32_t sfl_OpenItem(const sfl_ItemRef* ref, uint32_t allowSecondOpen);
SFL_API void sfl_CloseItem(int32_t itemHandle);
SFL_API uint32_t sfl_Attach2OpenItem(int32_t itemHandle);
SFL_API uint32_t sfl_DetachOpenItem(int32_t itemHandle);
SFL_API uint32_t sfl_AttachItem(const sfl_ItemRef* ref);
SFL_API uint32_t sfl_DetachItem(const sfl_ItemRef* ref);
SFL_API void sfl_FStatItem(int32_t itemHandle, struct stat* st);
SFL_API void sfl_StatItem(const sfl_ItemRef* ref, struct stat* st);
SFL_API int32_t sfl_ItemExists(const sfl_ItemRef* ref);
SFL_API void sfl_ChangeTime(int32_t itemHandle, uint32_t when);
SFL_API void sfl_DeleteItem(int32_t itemHandle);
SFL_API sfl_ItemRec* sfl_ItemWillNotChange(int32_t itemHandle);
SFL_API sfl_ItemRec* sfl_ItemMayChange(int32_t itemHandle);
SFL_API sfl_ItemRec* sfl_GetNewItemEntry(int32_t* itemHandle);
SFL_API sfl_ItemRec* sfl_ItemHandle2Record(int32_t itemHandle);
SFL_API void sfl_DeleteOSerItem(sfl_ItemRec* item);
SFL_API int32_t sfl_CheckItemAccessed(const sfl_ItemRef* ref, sfl_ItemRec** item,
                                      int32_t* itemHandle, int32_t baseHandle);
SFL_API int32_t sfl_FindFellowActiveItems(int32_t baseHandle);
SFL_API int32_t sfl_IntOpenItem(sfl_BaseRec* rec, int32_t baseHandle, uint32_t itemNum,
                                sfl_ItemRec** item);

/* ---- simple item data ----------------------------------------------------------- */
SFL_API int32_t sfl_StoreBasicItem(int32_t baseHandle, const sfl_ItemRef* source, uint32_t size,
                                   sfl_ItemRef* out, uint32_t noZeroFill);
SFL_API int32_t sfl_StoreItemAtPosition(int32_t baseHandle, const sfl_ItemRef* source,
                                        uint32_t size, sfl_ItemRef* out, uint32_t noZeroFill,
                                        int32_t wantedItem);
SFL_API int32_t sfl_AddItemToFile(const sfl_ItemRef* file, uint32_t size, uint32_t noZeroFill,
                                  const sfl_ItemRef* source, int32_t passOn, sfl_ItemRef* out);
SFL_API int32_t sfl_StoreItemWithOpenItem(int32_t itemHandle, uint32_t size, uint32_t noZeroFill,
                                          const sfl_ItemRef* source, int32_t passOn1,
                                          sfl_ItemRef* out, int32_t passOn2);
SFL_API void sfl_AssociateItemWithBase(int32_t itemHandle);
SFL_API int32_t sfl_CopySimpleItem(int32_t baseHandle, uint32_t headerOffset, int32_t sourceFd,
                                   uint32_t sourceOffset, uint32_t size, uint32_t noZeroFill);
SFL_API int32_t sfl_ReadSimpleData(int32_t itemHandle, uint32_t position, uint32_t length,
                                   void* buffer);
SFL_API int32_t sfl_WriteSimpleData(int32_t itemHandle, uint32_t position, uint32_t length,
                                    const void* buffer);
SFL_API int32_t sfl_ReadSerialData(int32_t itemHandle, void* buffer, uint32_t length);
SFL_API int32_t sfl_WriteSerialData(int32_t itemHandle, const void* buffer, uint32_t length);
SFL_API int64_t sfl_seek(int32_t itemHandle, int64_t offset, int32_t whence);
SFL_API void sfl_GetSimpleDetails(int32_t itemHandle, sfl_SimpleDetails* details);
SFL_API uint32_t sfl_FindOffsetChkSize(sfl_ItemRec* item, uint32_t position, uint32_t length);
SFL_API uint32_t sfl_BlckFindOffsetChkSize(sfl_ItemRec* item, uint32_t block, uint32_t position,
                                           uint32_t length);
SFL_API void sfl_TruncateSimItem(int32_t itemHandle, uint32_t newSize);
SFL_API void sfl_AppendToSimpleItem(sfl_ItemRec* item, uint32_t length, const void* buffer);
SFL_API sfl_ItemMap* sfl_mapItem(int32_t handleOrFd, sfl_ItemMap* map);
SFL_API int32_t sfl_unMapItem(sfl_ItemMap* map);
SFL_API uint32_t sfl_CalculateBlocks(uint32_t size);

/* ---- internal items ------------------------------------------------------------- */
SFL_API int32_t sfl_CreateIntBItem(int32_t parentHandle, uint32_t block, uint32_t position,
                                   uint32_t extraFlags);
SFL_API int32_t sfl_GenCreateIntBItem(sfl_ItemRec* parent, uint32_t headerOffset,
                                      uint32_t extraFlags);
SFL_API int32_t sfl_OpenIntItem(int32_t parentHandle, uint32_t block, uint32_t position);
SFL_API void sfl_CloseIntItem(int32_t itemHandle);
SFL_API void sfl_RemoveIntItem(int32_t itemHandle);

/* ---- streams ---------------------------------------------------------------------- */
SFL_API int32_t sfl_fOpen(const char* name, const char* mode);
SFL_API int32_t sfl_fOpenItem(const sfl_ItemRef* ref, const char* mode);
SFL_API void sfl_fClose(int32_t streamHandle);
SFL_API size_t sfl_fRead(void* buffer, size_t size, size_t count, int32_t streamHandle);
SFL_API size_t sfl_fWrite(const void* buffer, size_t size, size_t count, int32_t streamHandle);
SFL_API int32_t sfl_fSeek(int32_t streamHandle, int32_t offset, int32_t whence);
SFL_API long sfl_fTell(int32_t streamHandle);
SFL_API char* sfl_fgets(char* buffer, int32_t length, int32_t streamHandle);
SFL_API int32_t sfl_fileno(int32_t streamHandle);

/* ---- blocked items ------------------------------------------------------------------ */
SFL_API int32_t sfl_CreateBlockedItem(int32_t baseHandle, sfl_ItemRef* out);
/* sfl_CreateBlockedItem lays the new item's root down as zeros, which the
   index check refuses; this turns such a root into an empty leaf so that
   blocks can be placed. Returns 1 when it wrote the root, 0 when the root
   already was an index record. */
SFL_API int32_t sfl_FormatBlockedRoot(int32_t itemHandle);
/* Walks a blocked item's index under the item header's shared lock and
   reports its blocks numbered `first` to `last` in ascending order, at most
   `max` of them into `out` (which may be null). Returns how many there are
   in the range, so a caller can size its array. A root still all zeros
   holds no blocks. */
SFL_API uint32_t sfl_ListBlocks(int32_t itemHandle, uint32_t first, uint32_t last,
                                sfl_BlockInfo* out, uint32_t max);
SFL_API int32_t sfl_GetNewBlock(int32_t itemHandle, int32_t size, int32_t mode, const void* data);
SFL_API void sfl_FreeBlock(int32_t itemHandle, uint32_t block, int32_t unused);
SFL_API int32_t sfl_IntPower(uint32_t base, uint32_t exponent);
SFL_API uint32_t sfl_ReadBlockedData(int32_t itemHandle, uint32_t block, uint32_t length,
                                     void* buffer);
SFL_API int32_t sfl_WriteBlockedData(int32_t itemHandle, uint32_t block, uint32_t length,
                                     const void* buffer);
/* Renumbers a blocked item's blocks from 0 without gaps, in their old order,
   by building a dense index tree beside the old one and switching the item
   header to it; no block data moves. Returns the last block number (0 when
   the item holds no blocks). */
SFL_API uint32_t sfl_CompactBlockedItem(int32_t itemHandle);
/* Moves block `from` of a blocked item to position `to`, shifting the
   blocks in between by one place; only index entries move. */
SFL_API void sfl_ReorderIndex(int32_t itemHandle, uint32_t from, uint32_t to);

/* ---- diagnostic dumps ------------------------------------------------------------------ */
/* Text dumps for people investigating a container or this process's tables.
   The record dumps take a record's raw bytes as they lie in the file (128,
   64, 8 and 384 bytes) and the file offset (or entry number) to show; they
   check and change nothing. Output errors are ignored. */
SFL_API void sfl_DumpHeader(FILE* out, const uint8_t* header, uint32_t offset);
SFL_API void sfl_DumpItemHeader(FILE* out, const uint8_t* header, uint32_t offset);
/* One 8-byte index entry; prints nothing for an empty entry. */
SFL_API void sfl_DumpIndexRecord(FILE* out, const uint8_t* entry, int32_t entryNum);
SFL_API void sfl_DumpBlockedIndex(FILE* out, const uint8_t* record, uint32_t offset);
/* Lists the blocks of an open blocked item by number, with their lengths
   and holes, until the first number past the end of a leaf. */
SFL_API void sfl_ListIndexTree(FILE* out, int32_t itemHandle);
/* The open-files and open-items tables on standard error, the stream table
   on standard output; each returns its table's high-water mark. */
SFL_API int32_t sfl_DumpBaseItems(void);
SFL_API int32_t sfl_DumpOpenItems(void);
SFL_API int32_t sfl_DumpOpenL3Items(void);
/* Dumps an open container: its file header, then the header of every item
   slot in use and, for a blocked item, every index record of its tree
   (parents before children). With `item` 0 to 7 only that slot is dumped,
   in use or not, without the file header; -1 dumps the whole file. A slot
   the file does not have raises 28857. */
SFL_API void sfl_DumpContainer(FILE* out, int32_t baseHandle, int32_t item);

/* ---- integrity check ----------------------------------------------------------------- */
/* Checks a container file (the reference must name the file, not an item):
   prints a line on standard output for each fault found and, when `repair`
   is non-zero and no other process holds the file, repairs what it can.
   With a `dump` stream, the headers and index records read are dumped
   there. Returns 0 when no fault was found, 1 when faults were found or the
   check failed (the failure shown on standard error). */
SFL_API int32_t sfl_CheckSflIntegrity2(const sfl_ItemRef* ref, int32_t repair, FILE* dump);
SFL_API int32_t sfl_CheckSflIntegrity(const sfl_ItemRef* ref, int32_t repair);

/* ---- whole-file compaction ------------------------------------------------------------ */
/* Whether an open container has enough holes to be rebuilt (1) or not (0). */
SFL_API uint32_t sfl_AnalyseFreeMap(sfl_BaseRec* rec);
/* Rebuilds the container a record names (only its reference is used) without
   holes and puts it in place of the old file: 0 compacted or nothing to do,
   1 the rebuild failed and the old file was left as it was. */
SFL_API uint32_t sfl_CompactSflFile(sfl_BaseRec* rec);
/* The same by reference, saying which of the outcomes it was. */
typedef enum sfl_CompactOutcome {
  SFL_COMPACT_DONE = 0,     /* the file was rebuilt and replaced */
  SFL_COMPACT_FAILED = 1,   /* the rebuild failed; the old file is as it was */
  SFL_COMPACT_HELD = 2,     /* another process holds the file: marked NEED_COMPACTION */
  SFL_COMPACT_REPLACED = 3  /* the file had been replaced already */
} sfl_CompactOutcome;
SFL_API int32_t sfl_CompactContainer(const sfl_ItemRef* ref);
/* Copy routines of the rebuild (results: 255 copied, 9 empty slot, 8 not
   copied completely, 1/2/3 an index record short, without magic, of the
   wrong type; the container copy gives 1 all internal items copied, else 0). */
SFL_API int32_t sfl_CopyOutBlockedItem(int32_t newBase, uint32_t newHeaderOff, int32_t oldFd,
                                       uint32_t topIndexOff, uint32_t size);
SFL_API int32_t sfl_CopyOutInternalContainer(int32_t newBase, uint32_t newHeaderOff, int32_t oldFd,
                                             uint32_t dataOff, uint32_t size);
/* The file header's flags of an open container (NEED_COMPACTION, ...). */
SFL_API uint32_t sfl_GetFileFlags(int32_t baseHandle);

/* ---- interest records ------------------------------------------------------------------ */
SFL_API void sfl_GetQueue(const sfl_ItemRef* ref, int32_t* requestQueue, int32_t* replyQueue,
                          int32_t* pairCount, int32_t* servicePid);
SFL_API void sfl_DoSendMsg(int32_t queue, const void* message, size_t textLength, int32_t flags);
SFL_API void sfl_RecordBaseInterest(sfl_BaseRec* rec);
SFL_API void sfl_ReleaseBaseInterest(sfl_BaseRec* rec);
SFL_API void sfl_CheckBaseInterest(sfl_BaseRec* rec);
SFL_API void sfl_RecordItemInterest(sfl_ItemRec* item);
SFL_API void sfl_ReleaseItemInterest(sfl_ItemRec* item);
SFL_API void sfl_CheckItemInterest(sfl_ItemRec* item);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SFL_H */
