// Commands that go through the library's stream layer: cat, lines and write.
// They work on simple items and, for cat and lines, on plain files too.
#include <cstdio>
#include <cstring>
#include <memory>

#include "cli.h"

namespace cli {
namespace {

// An open stream, closed on every path.
class Stream {
 public:
  explicit Stream(int32_t handle) : handle_(handle) {}
  ~Stream() {
    if (handle_ < 0) return;
    try {
      sfl_fClose(handle_);
    } catch (const er_Escape&) {
      er_Clear();
    }
  }
  Stream(const Stream&) = delete;
  Stream& operator=(const Stream&) = delete;
  int32_t handle() const { return handle_; }
  void Close() {
    int32_t h = handle_;
    handle_ = -1;
    if (h >= 0) sfl_fClose(h);
  }

 private:
  int32_t handle_;
};

// What a stream command reads: an item (whose container stays open around
// the stream, so the item's kind can be checked first) or a plain file.
struct Readable {
  std::unique_ptr<Container> container;
  std::unique_ptr<Stream> stream;

  Readable(const std::string& operand, const char* mode) {
    sfl_ItemRef ref{};
    if (TryParseItemRef(operand, &ref)) {
      container = std::make_unique<Container>(ref);
      if (container->UsedSlot(ItemNumber(ref)).Flags & BLOCKED_ITEM)
        throw Failure{"a blocked item has no byte stream (use 'sfl blocks read')"};
      stream = std::make_unique<Stream>(sfl_fOpenItem(&ref, mode));
    } else {
      SetSubject(operand);
      ForgetSubjectRef();
      stream = std::make_unique<Stream>(sfl_fOpen(operand.c_str(), mode));
    }
  }
  void Close() {
    stream->Close();
    if (container) container->Close();
  }
};

int RunCat(const Args& a) {
  for (const std::string& operand : a.positional) {
    Readable r(operand, "r");
    char buf[8192];
    for (;;) {
      size_t n = sfl_fRead(buf, 1, sizeof buf, r.stream->handle());
      if (n == 0) break;
      WriteAll(1, buf, n);
    }
    r.Close();
  }
  return kExitOk;
}

int RunLines(const Args& a) {
  Readable r(a.positional[0], "r");
  const bool countOnly = a.Has("count");
  uint64_t lines = 0;
  bool atLineStart = true;
  std::string out;
  char buf[4096];
  while (sfl_fgets(buf, sizeof buf, r.stream->handle()) != nullptr) {
    const size_t len = std::strlen(buf);
    if (len == 0) break;  // nothing more fits the item
    if (atLineStart) {
      ++lines;
      if (!countOnly) {
        char num[32];
        std::snprintf(num, sizeof num, "%6llu\t", static_cast<unsigned long long>(lines));
        out += num;
      }
    }
    if (!countOnly) out.append(buf, len);
    atLineStart = buf[len - 1] == '\n';
    if (out.size() >= 65536) {
      WriteAll(1, out.data(), out.size());
      out.clear();
    }
  }
  if (!countOnly && !atLineStart) out += '\n';
  r.Close();
  if (countOnly) out = std::to_string(lines) + "\n";
  WriteAll(1, out.data(), out.size());
  return kExitOk;
}

int RunWrite(const Args& a) {
  sfl_ItemRef ref = ParseItemRef(a.positional[0]);
  const uint64_t offset = ParseNumber(a.positional[1], "offset", INT32_MAX);
  // The whole input is read first: the write is then one request that the
  // stream refuses whole when it would pass the item's end.
  const std::string data = ReadAll(0);
  Container c(ref);
  const sfl_ItemInfo info = c.UsedSlot(ItemNumber(ref));
  if (info.Flags & BLOCKED_ITEM) throw Failure{"a blocked item has no byte stream"};
  Stream s(sfl_fOpenItem(&ref, "rw"));
  sfl_fSeek(s.handle(), static_cast<int32_t>(offset), SEEK_SET);
  if (!data.empty()) {
    size_t n = sfl_fWrite(data.data(), 1, data.size(), s.handle());
    if (n != data.size())
      throw Failure{"wrote " + std::to_string(n) + " of " + std::to_string(data.size()) + " bytes"};
  }
  s.Close();
  c.Close();
  return kExitOk;
}

}  // namespace

const std::vector<Command>& StreamCommands() {
  static const std::vector<Command> kCommands = {
      {"cat",
       "<item|file>...",
       "write items or plain files to standard output, as streams",
       "Reads each operand through the library's stream layer: an item (by reference or\n"
       "item name) within its bounds, anything else as a plain file.\n",
       {},
       1,
       -1,
       RunCat},
      {"lines",
       "<item|file> [--count]",
       "print the lines of an item or file, numbered",
       "Reads the operand line by line through the stream layer and prints each line\n"
       "with its number.\n",
       {{"count", 'c', false, "print only the number of lines"}},
       1,
       1,
       RunLines},
      {"write",
       "<item> <offset>",
       "overwrite part of a simple item with standard input",
       "Writes standard input into the item from the byte offset on, through an item\n"
       "stream. The item never grows: input that would pass its end is refused and\n"
       "nothing is written.\n",
       {},
       2,
       2,
       RunWrite},
  };
  return kCommands;
}

}  // namespace cli
