// `sfl dump`: a container's on-disk records as text (file header, item
// headers, index records), or the block listing of one blocked item, for
// people investigating a file. Everything is read and printed by the
// library's dump routines; this file only picks what to show.
#include <cstdio>
#include <string>

#include "cli.h"

namespace cli {
namespace {

int RunDump(const Args& a) {
  const sfl_ItemRef ref = ParseContainerRef(a.positional[0]);
  SetSubjectRef(ref);
  if (a.Has("item") && a.Has("tree")) throw UsageError{"give --item or --tree, not both"};
  const int64_t item =
      a.Has("item") ? static_cast<int64_t>(ParseNumber(a.Get("item"), "item number", 7)) : -1;
  const int64_t tree =
      a.Has("tree") ? static_cast<int64_t>(ParseNumber(a.Get("tree"), "item number", 7)) : -1;
  if (tree == 0) throw UsageError{"item 0 is the free map, not a blocked item"};

  Container c(ref);
  if (tree > 0) {
    sfl_ItemRef itemRef = ref;
    itemRef.Flags = static_cast<uint16_t>((ref.Flags & ~SFL_ITEM_NUM_MASK) | tree);
    SetSubjectRef(itemRef);
    if ((c.UsedSlot(static_cast<uint32_t>(tree)).Flags & BLOCKED_ITEM) == 0)
      throw Failure{"not a blocked item; --tree lists the blocks of a blocked item"};
    sfl::BlockedItem it = OpenBlockedItem(itemRef);
    sfl_ListIndexTree(stdout, it.Handle());
    CloseOnce(it);
  } else {
    if (item >= 0) c.UsedSlot(static_cast<uint32_t>(item));
    sfl_DumpContainer(stdout, c.handle(), static_cast<int32_t>(item));
  }
  c.Close();
  return kExitOk;
}

}  // namespace

const std::vector<Command>& DumpCommands() {
  static const std::vector<Command> kCommands = {
      {"dump",
       "<container> [--item N | --tree N]",
       "print a container's headers and index records as text",
       "Prints the container's records as they lie in the file: the file header, the header\n"
       "of every item slot in use (slot 0 holds the free map) and, for each blocked item,\n"
       "every index record of its tree, parents before children. Offsets are shown in\n"
       "hexadecimal and decimal, times in UTC.\n"
       "\n"
       "  --item N   only item N's header (and its index records when it\n"
       "             is blocked); N is 0 to 7, and the slot must be in use.\n"
       "  --tree N   list blocked item N's blocks by number with their\n"
       "             lengths, each run of 32 under a 'BaseBlock' line; a\n"
       "             freed or missing block shows as UNUSED, and the\n"
       "             listing ends at the first number past a leaf's end.\n"
       "\n"
       "To look for damage (and mend it), use 'sfl check'.\n",
       {{"item", 0, true, "dump only this item (0-7)"},
        {"tree", 0, true, "list this blocked item's blocks (1-7)"}},
       1,
       1,
       RunDump},
  };
  return kCommands;
}

}  // namespace cli
