// `sfl compact`: rebuilds containers without the space of deleted items, now
// rather than at their last close, and reports their size before and after.
#include <cstdio>
#include <string>
#include <sys/stat.h>

#include "cli.h"

namespace cli {
namespace {

uint64_t FileSize(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) throw SystemFailure{errno, path, "finding the container file", true};
  return static_cast<uint64_t>(st.st_size);
}

// Compacts one container; returns whether it was rebuilt. The tool opens
// nothing of its own in the file, so its interest is the rebuild's only one.
bool CompactOne(const std::string& text) {
  SetSubject(text);
  ForgetSubjectRef();
  const sfl_ItemRef ref = ParseContainerRef(text);
  const std::string path = RefPath(ref);
  const uint64_t before = FileSize(path);
  switch (sfl::Compact(sfl::Ref(ref))) {
    case SFL_COMPACT_DONE: {
      const uint64_t after = FileSize(path);
      std::printf("%s  %llu -> %llu bytes (%lld freed)\n", RefText(ref).c_str(),
                  static_cast<unsigned long long>(before), static_cast<unsigned long long>(after),
                  static_cast<long long>(before) - static_cast<long long>(after));
      return true;
    }
    case SFL_COMPACT_HELD:
      std::fprintf(stderr,
                   "sfl compact: %s: another process holds the file; it is marked "
                   "NEED_COMPACTION and its last close will compact it\n",
                   text.c_str());
      return false;
    case SFL_COMPACT_REPLACED:
      std::fprintf(stderr, "sfl compact: %s: the file was replaced by an earlier compaction\n",
                   text.c_str());
      return false;
    default: {
      er_Status st;
      er_GetStatus(&st);
      std::fprintf(stderr,
                   "sfl compact: %s: compaction failed (error %d/%d: %s); the file is unchanged\n",
                   text.c_str(), st.group, st.reason, er_ReasonText(st.group, st.reason));
      return false;
    }
  }
}

// Every container is tried; one that cannot be compacted is reported on its
// own line and makes the exit status 1.
int RunCompact(const Args& a) {
  bool all = true;
  for (const std::string& text : a.positional) {
    std::string error;
    try {
      if (!CompactOne(text)) all = false;
      continue;
    } catch (const Failure& e) {
      error = e.message;
    } catch (const er_Escape& e) {
      error = "error " + std::to_string(e.group()) + "/" + std::to_string(e.reason()) + ": " +
              er_ReasonText(e.group(), e.reason());
    }
    std::fprintf(stderr, "sfl compact: %s: %s\n", text.c_str(), error.c_str());
    all = false;
  }
  return all ? kExitOk : kExitFailure;
}

}  // namespace

const std::vector<Command>& CompactCommands() {
  static const std::vector<Command> kCommands = {
      {"compact",
       "<container>...",
       "rebuild containers without the space of deleted items",
       "Rebuilds each container into a new file that holds the same items in the same\n"
       "slots without the holes deleted items left, and puts it in the old file's place.\n"
       "Prints the size before and after. A container is otherwise compacted by its last\n"
       "close when its holes pass SFL_HOLES_SIZE_LIMIT (KiB) and SFL_HOLES_RATIO (%).\n"
       "\n"
       "Fails (exit status 1) for a container another process holds: that container is\n"
       "marked NEED_COMPACTION, and the last close of the process holding it compacts it.\n",
       {},
       1,
       -1,
       RunCompact},
  };
  return kCommands;
}

}  // namespace cli
