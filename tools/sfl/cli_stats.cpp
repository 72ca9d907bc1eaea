// `sfl stats`: a summary of the whole store for operators: containers,
// items, bytes the items hold and bytes on disk, space in holes, and which
// containers the library's own rule would rebuild at their last close.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "cli.h"

namespace cli {
namespace {

struct Totals {
  uint64_t containers = 0;
  uint64_t items = 0;
  uint64_t pendingDeleted = 0;  // items marked DELETED, waiting for a last close
  uint64_t stored = 0;          // bytes the live items hold
  uint64_t onDisk = 0;          // bytes of the container files
  uint64_t holes = 0;
  std::vector<std::string> overThreshold;  // paths
  std::vector<std::string> unreadable;     // "<path>: <why>"
};

// Adds one container. Whether it is over the compaction thresholds is the
// library's own decision (sfl_AnalyseFreeMap, which the last close uses), or
// a mark an earlier close left because another process held it.
void AddContainer(const StoreEntry& e, Totals* t) {
  struct stat st;
  if (stat(e.path.c_str(), &st) != 0) throw SystemFailure{errno, e.path, "reading", true};
  Container c(e.ref);
  const std::vector<sfl_ItemInfo> slots = c.Slots();
  const bool over = sfl_AnalyseFreeMap(sfl_Handle2Record(c.handle())) != 0 ||
                    (c.Flags() & NEED_COMPACTION) != 0;
  c.Close();
  ++t->containers;
  for (size_t i = 1; i < slots.size(); ++i) {
    if (!slots[i].InUse) continue;
    if ((slots[i].Flags & DELETED) != 0) {
      ++t->pendingDeleted;
      continue;
    }
    ++t->items;
    t->stored += slots[i].FileSize;
  }
  t->onDisk += static_cast<uint64_t>(st.st_size);
  t->holes += HoleBytes(static_cast<uint64_t>(st.st_size), slots);
  if (over) t->overThreshold.push_back(e.path);
}

std::string JsonList(const std::vector<std::string>& v) {
  std::string s = "[";
  for (size_t i = 0; i < v.size(); ++i) s += (i ? ", " : "") + JsonString(v[i]);
  return s + "]";
}

int RunStats(const Args& a) {
  Totals t;
  for (const StoreEntry& e : StoreContainers()) {
    if (!e.unreadable.empty()) {
      t.unreadable.push_back(e.path + ": " + e.unreadable);
      continue;
    }
    try {
      AddContainer(e, &t);
    } catch (const er_Escape& x) {
      er_Clear();
      t.unreadable.push_back(e.path + ": error " + std::to_string(x.group()) + "/" +
                             std::to_string(x.reason()) + ": " + er_ReasonText(x.group(), x.reason()));
    } catch (const SystemFailure& f) {
      t.unreadable.push_back(e.path + ": " + ErrnoText(f.err, f.path, true));
    }
  }
  auto u = [](uint64_t v) { return static_cast<unsigned long long>(v); };
  if (a.Has("json")) {
    std::printf(
        "{\"store\": %s, \"containers\": %llu, \"items\": %llu, \"deleted_pending\": %llu, "
        "\"bytes_stored\": %llu, \"bytes_on_disk\": %llu, \"holes\": %llu, "
        "\"over_compaction_threshold\": %s, \"unreadable\": %s}\n",
        JsonString(StoreRootText()).c_str(), u(t.containers), u(t.items), u(t.pendingDeleted),
        u(t.stored), u(t.onDisk), u(t.holes), JsonList(t.overThreshold).c_str(),
        JsonList(t.unreadable).c_str());
  } else {
    std::printf("containers             %llu\n", u(t.containers));
    std::printf("items                  %llu\n", u(t.items));
    if (t.pendingDeleted != 0) std::printf("deleted, not yet freed %llu\n", u(t.pendingDeleted));
    std::printf("bytes stored           %llu\n", u(t.stored));
    std::printf("bytes on disk          %llu\n", u(t.onDisk));
    std::printf("free in holes          %llu\n", u(t.holes));
    std::printf("over compaction limits %zu\n", t.overThreshold.size());
    for (const std::string& p : t.overThreshold) std::printf("  %s\n", p.c_str());
    for (const std::string& p : t.unreadable) std::fprintf(stderr, "sfl stats: %s: cannot be read\n", p.c_str());
  }
  return t.unreadable.empty() ? kExitOk : kExitUnreadable;
}

}  // namespace

const std::vector<Command>& StatsCommands() {
  static const std::vector<Command> kCommands = {
      {"stats",
       "[--json]",
       "summarise the store: containers, items, bytes, holes",
       "Counts the containers under the store root, the items they hold (and items\n"
       "deleted while another process held their container, whose space its last close\n"
       "frees), the bytes the items hold, the bytes of the container files, and the\n"
       "bytes in holes (space no item holds, which compaction gives back).\n"
       "\n"
       "Lists the containers over the compaction thresholds: those the library would\n"
       "rebuild at their last close (holes past SFL_HOLES_SIZE_LIMIT KiB and past\n"
       "SFL_HOLES_RATIO percent of the file), and those marked NEED_COMPACTION.\n"
       "'sfl compact' rebuilds them now.\n"
       "\n"
       "A container that cannot be read is named on standard error (in --json, in\n"
       "\"unreadable\"), the rest is counted, and the exit status is 3.\n",
       {{"json", 0, false, "one JSON object: containers, items, deleted_pending, bytes_stored, "
                           "bytes_on_disk, holes, over_compaction_threshold (paths), unreadable"}},
       0,
       0,
       RunStats},
  };
  return kCommands;
}

}  // namespace cli
