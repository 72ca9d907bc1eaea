// Commands that go through the library's stream layer: cat, lines and write.
// They work on simple items and, for cat and lines, on plain files too.
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

#include "cli.h"

namespace cli {
namespace {

// What a stream command reads: an item (whose container stays open around
// the stream, so the item's kind can be checked first) or a plain file.
struct Readable {
  std::unique_ptr<Container> container;
  sfl::Stream stream;

  Readable(const std::string& operand, const char* mode) {
    sfl_ItemRef ref{};
    if (TryParseItemRef(operand, &ref)) {
      container = std::make_unique<Container>(ref);
      if (container->UsedSlot(ItemNumber(ref)).Flags & BLOCKED_ITEM)
        throw Failure{"a blocked item has no byte stream (use 'sfl blocks read')"};
      stream = sfl::Stream::Open(sfl::Ref(ref), mode);
    } else {
      SetSubject(operand);
      ForgetSubjectRef();
      stream = sfl::Stream::OpenFile(operand, mode);
    }
  }
  void Close() {
    CloseOnce(stream);
    if (container) container->Close();
  }
};

int RunCat(const Args& a) {
  for (const std::string& operand : a.positional) {
    Readable r(operand, "r");
    std::byte buf[8192];
    for (;;) {
      const size_t n = r.stream.Read(buf);
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
  while (const std::optional<std::string> line = r.stream.GetLine(4095)) {
    const std::string& buf = *line;
    const size_t len = buf.size();
    if (len == 0) break;  // nothing more fits the item
    if (atLineStart) {
      ++lines;
      if (!countOnly) {
        char num[32];
        std::snprintf(num, sizeof num, "%6llu\t", static_cast<unsigned long long>(lines));
        out += num;
      }
    }
    if (!countOnly) out += buf;
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
  sfl::Stream s = sfl::Stream::Open(sfl::Ref(ref), "rw");
  s.Seek(static_cast<int32_t>(offset), SEEK_SET);
  if (!data.empty()) {
    const size_t n = s.Write(data);
    if (n != data.size())
      throw Failure{"wrote " + std::to_string(n) + " of " + std::to_string(data.size()) + " bytes"};
  }
  CloseOnce(s);
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
