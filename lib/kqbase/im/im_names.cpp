// os_CheckFileName: tells item names ("<container path>:<item number>")
// from plain file names. It sits with the item-reference code, which owns the
// name layout: a name is an item name exactly when it parses to a reference
// whose item number is not zero.
#include <cstring>

#include "er.h"
#include "im.h"

int os_CheckFileName(const char* name, sfl_ItemRef* ref) {
  sfl_ItemRef found{};
  if (ref != nullptr) *ref = found;
  // Without a ':' it cannot be an item name; spare the parse.
  if (name == nullptr || std::strchr(name, ':') == nullptr) return 0;
  {
    // A name the parse refuses is a plain name: its escape is dropped and
    // the caller's error status left as it was.
    er_StatusKeeper keep;
    try {
      im_FName2ItemRef(name, &found);
    } catch (const er_Escape&) {
      return 0;
    }
  }
  if ((found.Flags & SFL_ITEM_NUM_MASK) == 0) return 0;
  if (ref != nullptr) *ref = found;
  return 1;
}
