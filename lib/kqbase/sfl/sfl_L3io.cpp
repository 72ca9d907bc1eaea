// Stdio-like streams over plain files and over simple items.
//
// A plain-file stream wraps an os_ stream and passes every call through. An
// item stream holds an open item handle and a second stream on the container
// file itself; it keeps its own position inside the item and confines every
// transfer to the item's bounds. Buffering is the wrapped stream's own.
//
// The container stream is a second descriptor of the file. Byte-range locks
// are open-file-description locks (see os.h), so opening and closing it never
// drops a lock taken through the base file's descriptor.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <sys/stat.h>

#include "im.h"
#include "os.h"
#include "sfl_int.h"

namespace {

constexpr uint32_t kOpNone = 0;
constexpr uint32_t kOpRead = 1;
constexpr uint32_t kOpWrite = 2;

[[noreturn]] void RaiseOs() { ER_RAISE(ER_GROUP_OS, errno != 0 ? errno : EIO); }

bool ItemMode(const char* mode) {
  return std::strcmp(mode, "r") == 0 || std::strcmp(mode, "w") == 0 ||
         std::strcmp(mode, "rw") == 0;
}

// What an open holds until the stream record owns it: released on an escape.
struct OpenHold {
  int32_t itemHandle = -1;
  FILE* stream = nullptr;
  ~OpenHold() {
    if (stream != nullptr) os_fclose(stream);
    if (itemHandle >= 0) {
      // The open's own escape is the one passed on: a failure of this
      // close is dropped and the error status kept as it was.
      er_StatusKeeper keep;
      try {
        sfl_CloseItem(itemHandle);
      } catch (const er_Escape&) {
      }
    }
  }
};

// Bytes from Position to the item's end (none when Position lies beyond it).
size_t Remaining(const sfl_StreamRec* s, const sfl_ItemRec* item) {
  return s->Position < item->Size ? item->Size - s->Position : 0;
}

// Puts the container stream at `want` unless it stands there already. A
// stream that last wrote needs a flush before it reads, and one that last
// read needs a seek before it writes, even when the position agrees.
void PlaceStream(sfl_StreamRec* s, long want, uint32_t nextOp) {
  long at = os_ftell(s->Stream);
  if (at != want || (nextOp == kOpWrite && s->LastOp == kOpRead)) {
    if (os_fseek(s->Stream, want, SEEK_SET) != 0) RaiseOs();
  } else if (nextOp == kOpRead && s->LastOp == kOpWrite) {
    if (os_fflush(s->Stream) != 0) RaiseOs();
  }
}

// Whether a plain open of `name` would open a container of the store: the
// reference given for it names the file itself, or the name is a
// container's path. Parse failures mean a plain file; the caller's error
// status is left as it was.
bool NamesContainer(const char* name, const sfl_ItemRef* ref) {
  if (ref != nullptr) return true;
  er_StatusKeeper keep;
  try {
    sfl_ItemRef found{};
    im_FName2ItemRef(name, &found);
    return true;
  } catch (const er_Escape&) {
    return false;
  }
}

// The common open: an item stream when the reference names an item (item
// number not 0), else the name itself as a plain file with the caller's mode.
int32_t OpenStream(const char* name, const sfl_ItemRef* ref, const char* mode) {
  OpenHold hold;
  const bool isItem = ref != nullptr && sfl_ItemNumOf(*ref) != 0;
  if (isItem) {
    if (!ItemMode(mode)) SFL_RAISE(SFL_R_STREAM_MODE);
    hold.itemHandle = sfl_OpenItem(ref, 1);
    // A stream moves bytes between Offset and Offset + Size. For a blocked
    // item that is its root index record, not its data: refused, as the
    // serial operations refuse such an item.
    if ((sfl_ItemHandle2Record(hold.itemHandle)->Flags & BLOCKED_ITEM) != 0) SFL_RAISE(SFL_R_BLOCKED);
    // The container's path is the name up to its first ':'.
    std::string path(name);
    path.erase(std::min(path.find(':'), path.size()));
    errno = 0;
    hold.stream = os_fopen(path.c_str(), "rb+");
    if (hold.stream == nullptr) RaiseOs();
    sfl_ItemRec* item = sfl_ItemHandle2Record(hold.itemHandle);
    // The stream must be on the file the item was opened in: a name made to
    // lead elsewhere in between is refused before any byte moves.
    struct stat onStream {}, onItem {};
    if (os_fstat(os_fileno(hold.stream), &onStream) != 0 ||
        os_fstat(item->BaseRecord->FileDes, &onItem) != 0)
      RaiseOs();
    if (onStream.st_dev != onItem.st_dev || onStream.st_ino != onItem.st_ino)
      ER_RAISE_MSG(ER_GROUP_OS, EPERM, (path + " no longer leads to the file the item is in").c_str());
    if (os_fseek(hold.stream, static_cast<long>(item->Offset), SEEK_SET) != 0) RaiseOs();
  } else {
    // Truncating a container would destroy every item in it.
    if (mode[0] == 'w' && NamesContainer(name, ref)) SFL_RAISE(SFL_R_STREAM_MODE);
    errno = 0;
    hold.stream = os_fopen(name, mode);
    if (hold.stream == nullptr) RaiseOs();
  }

  int32_t handle = -1;
  sfl_StreamRec* s = sfl_GetNewL3Entry(&handle);
  s->Stream = hold.stream;
  hold.stream = nullptr;
  if (isItem) {
    s->IsItem = 1;
    s->ItemHandle = hold.itemHandle;
    s->ReadOnly = std::strcmp(mode, "r") == 0 ? 1 : 0;
    s->Position = 0;
    hold.itemHandle = -1;
  }
  return handle;
}

// Closes a stream's item. The stream record goes whatever happens, and with
// it the caller's only way to close the item again: a close that escapes is
// tried once more, and a file it left open implicitly with none of its items
// open (a descriptor, and an interest the service counts) is closed as the
// item's last close would have. The first escape is the one passed on.
void CloseStreamItem(int32_t itemHandle) {
  sfl_ItemRec* item = sfl_ItemHandle2Record(itemHandle);
  sfl_BaseRec* rec = item->BaseRecord;
  const int32_t baseHandle = item->BaseHandle;
  try {
    sfl_CloseItem(itemHandle);
  } catch (const er_Escape&) {
    sfl_GiveBackQuietly([&] {
      if (item->InUse == 1) sfl_CloseItem(itemHandle);
    });
    sfl_GiveBackQuietly([&] {
      if (item->InUse != 1 && rec->InUse == 1 && rec->InColdStore == 0 && rec->OpenMode != 0 &&
          rec->IntItemsOpen <= 1)
        sfl_CloseFile(baseHandle);
    });
    throw;
  }
}

}  // namespace

int32_t sfl_fOpen(const char* name, const char* mode) {
  ER_TRACE_PROC("sfl_fOpen");
  SFL_NEED_ARG(name);
  SFL_NEED_ARG(mode);
  sfl_ItemRef ref{};
  const bool named = os_CheckFileName(name, &ref) != 0;
  return OpenStream(name, named ? &ref : nullptr, mode);
}

int32_t sfl_fOpenItem(const sfl_ItemRef* ref, const char* mode) {
  ER_TRACE_PROC("sfl_fOpenItem");
  SFL_NEED_ARG(ref);
  SFL_NEED_ARG(mode);
  char name[PATH_MAX];
  name[0] = '\0';
  im_ItemRef2FName(ref, name, sizeof name);
  return OpenStream(name, ref, mode);
}

void sfl_fClose(int32_t streamHandle) {
  ER_TRACE_PROC("sfl_fClose");
  sfl_StreamRec* s = sfl_L3Handle2Record(streamHandle);
  // Whatever happens below, the record and the stream are given up.
  struct Release {
    sfl_StreamRec* rec;
    FILE* stream;
    ~Release() {
      if (stream != nullptr) os_fclose(stream);
      sfl_DeleteOL3Item(rec);
    }
  } release{s, s->Stream};

  int flushErr = 0;
  if (s->IsItem) {
    // Written bytes reach the file before the item (and maybe the file)
    // is given back.
    if (os_fflush(release.stream) != 0) flushErr = errno != 0 ? errno : EIO;
    CloseStreamItem(s->ItemHandle);
  }
  FILE* f = release.stream;
  release.stream = nullptr;
  errno = 0;
  if (os_fclose(f) != 0 && flushErr == 0) flushErr = errno != 0 ? errno : EIO;
  if (flushErr != 0) ER_RAISE(ER_GROUP_OS, flushErr);
}

size_t sfl_fRead(void* buffer, size_t size, size_t count, int32_t streamHandle) {
  sfl_StreamRec* s = sfl_L3Handle2Record(streamHandle);
  if (!s->IsItem) return os_fread(buffer, size, count, s->Stream);

  if (size != 1) SFL_RAISE(SFL_R_STREAM_ELEMENT);
  sfl_ItemRec* item = sfl_ItemHandle2Record(s->ItemHandle);
  if (count > Remaining(s, item)) count = Remaining(s, item);
  PlaceStream(s, static_cast<long>(item->Offset) + s->Position, kOpRead);
  size_t got = os_fread(buffer, 1, count, s->Stream);
  s->Position += static_cast<uint32_t>(got);
  s->LastOp = kOpRead;
  return got;
}

size_t sfl_fWrite(const void* buffer, size_t size, size_t count, int32_t streamHandle) {
  sfl_StreamRec* s = sfl_L3Handle2Record(streamHandle);
  if (s->ReadOnly) SFL_RAISE(SFL_R_READ_ONLY);
  if (!s->IsItem) return os_fwrite(buffer, size, count, s->Stream);

  if (size != 1) SFL_RAISE(SFL_R_STREAM_ELEMENT);
  sfl_ItemRec* item = sfl_ItemHandle2Record(s->ItemHandle);
  // A stream never grows an item.
  if (count > Remaining(s, item)) SFL_RAISE(SFL_R_RANGE);
  PlaceStream(s, static_cast<long>(item->Offset) + s->Position, kOpWrite);
  // The bytes go to the file by the stream's own descriptor: the base file
  // is marked so that its next flush takes them too.
  if (item->BaseRecord != nullptr) item->BaseRecord->Unflushed = 1;
  size_t put = os_fwrite(buffer, 1, count, s->Stream);
  s->Position += static_cast<uint32_t>(put);
  s->LastOp = kOpWrite;
  return put;
}

// The checks move Position inside the item; the container stream is then
// seeked to Offset + Position with the caller's whence unchanged, so after
// whence 1 or 2 it stands elsewhere. Reads and writes re-seek before they
// transfer; line reads do not (see sfl_fgets).
int32_t sfl_fSeek(int32_t streamHandle, int32_t offset, int32_t whence) {
  sfl_StreamRec* s = sfl_L3Handle2Record(streamHandle);
  if (!s->IsItem) return os_fseek(s->Stream, offset, whence);

  sfl_ItemRec* item = sfl_ItemHandle2Record(s->ItemHandle);
  const int64_t size = item->Size;
  const int64_t pos = s->Position;
  switch (whence) {
    case SEEK_SET:
      if (offset < 0 || offset > size) SFL_RAISE(SFL_R_RANGE);
      s->Position = static_cast<uint32_t>(offset);
      break;
    case SEEK_CUR:
      // A relative seek back to exactly 0 is refused as well.
      if (offset < 0 && -static_cast<int64_t>(offset) >= pos) SFL_RAISE(SFL_R_RANGE);
      if (pos + offset > size) SFL_RAISE(SFL_R_RANGE);
      s->Position = static_cast<uint32_t>(pos + offset);
      break;
    case SEEK_END:
      if (offset != 0) SFL_RAISE(SFL_R_RANGE);
      s->Position = item->Size;
      break;
    default:
      break;
  }
  s->LastOp = kOpNone;
  return os_fseek(s->Stream, static_cast<long>(item->Offset) + s->Position, whence);
}

long sfl_fTell(int32_t streamHandle) {
  sfl_StreamRec* s = sfl_L3Handle2Record(streamHandle);
  if (!s->IsItem) return os_ftell(s->Stream);
  return static_cast<long>(s->Position);
}

// Reads a line from wherever the container stream stands: there is no
// re-seek first, so a caller that moved with sfl_fSeek whence 1 or 2 reads
// from the stream's own position, and Position follows the stream. The
// length is cut so that the line never runs past the item's end.
char* sfl_fgets(char* buffer, int32_t length, int32_t streamHandle) {
  sfl_StreamRec* s = sfl_L3Handle2Record(streamHandle);
  if (!s->IsItem) return os_fgets(buffer, length, s->Stream);

  if (length < 1) return nullptr;
  sfl_ItemRec* item = sfl_ItemHandle2Record(s->ItemHandle);
  const int64_t size = item->Size;
  const int64_t pos = s->Position;
  int64_t len = length;
  if (pos + len - 1 > size) len = size - pos + 1;
  // The line is read from where the container stream stands, which after a
  // relative seek is not where Position says. It must still lie inside the
  // item: a stream standing outside it is refused (28874), and the line is
  // cut at the item's end as seen from where the stream stands.
  const long here = os_ftell(s->Stream);
  if (here < 0) RaiseOs();
  const int64_t streamPos = static_cast<int64_t>(here) - static_cast<int64_t>(item->Offset);
  if (streamPos < 0 || streamPos > size) SFL_RAISE(SFL_R_RANGE);
  if (streamPos + len - 1 > size) len = size - streamPos + 1;

  char* result;
  if (len >= 2) {
    // A stream that last wrote must be flushed before it reads; the flush
    // leaves its position where it is.
    if (s->LastOp == kOpWrite && os_fflush(s->Stream) != 0) RaiseOs();
    result = os_fgets(buffer, static_cast<int>(len), s->Stream);
    s->LastOp = kOpRead;
  } else if (pos < size) {
    buffer[0] = '\0';
    result = buffer;
  } else {
    result = nullptr;
  }
  long at = os_ftell(s->Stream);
  if (at < 0) RaiseOs();
  s->Position = static_cast<uint32_t>(at - static_cast<long>(item->Offset));
  return result;
}

int32_t sfl_fileno(int32_t streamHandle) {
  sfl_StreamRec* s = sfl_L3Handle2Record(streamHandle);
  if (s->IsItem) return s->ItemHandle;
  return os_fileno(s->Stream);
}
