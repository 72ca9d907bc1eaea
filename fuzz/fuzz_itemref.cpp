// Fuzz target: the item-reference text parsers. The input is taken as the
// text form ("<Domain>.<SubDomain>.<FileId>.<Name>[:<item>]"), as a file or
// item name under the store root, and as a name the stream layer asks
// about. Whatever a parse accepts must print back to a text that parses to
// the same reference; a mismatch aborts.
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_env.h"
#include "im.h"

using sflfuzz::Quietly;

namespace {

bool Same(const sfl_ItemRef& a, const sfl_ItemRef& b) {
  return a.Domain == b.Domain && (a.Flags & SFL_ITEM_NUM_MASK) == (b.Flags & SFL_ITEM_NUM_MASK) &&
         a.SubDomain == b.SubDomain && a.FileId == b.FileId &&
         std::strncmp(a.Name, b.Name, sizeof a.Name) == 0;
}

// Prints `ref` in text form and as a file name and parses both back.
void RoundTrip(const sfl_ItemRef& ref) {
  char text[128];
  if (Quietly([&] { im_ItemRef2Text(&ref, text, sizeof text); })) abort();
  sfl_ItemRef back{};
  if (Quietly([&] { im_FormItemRef(text, &back); }) || !Same(ref, back)) abort();
  char name[4096];
  if (Quietly([&] { im_ItemRef2FName(&ref, name, sizeof name); })) abort();
  sfl_ItemRef fromName{};
  if (Quietly([&] { im_FName2ItemRef(name, &fromName); }) || !Same(ref, fromName)) abort();
  // A buffer one byte too short is refused, not overrun.
  const size_t len = std::strlen(text);
  char small[128];
  if (!Quietly([&] { im_ItemRef2Text(&ref, small, len); })) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  sflfuzz::Init();
  const std::string text(reinterpret_cast<const char*>(data), size);  // cut at the first NUL
  sfl_ItemRef ref{};
  if (!Quietly([&] { im_FormItemRef(text.c_str(), &ref); })) RoundTrip(ref);
  // The same text as a path below the store root.
  char root[4096] = "";
  sfl_ItemRef probe{};
  probe.Domain = 2;
  probe.FileId = 1;
  Quietly([&] { im_ItemRef2FName(&probe, root, sizeof root); });
  std::string name(root);
  name = name.substr(0, name.rfind("/2/0/1")) + "/" + text.c_str();
  sfl_ItemRef fromName{};
  if (!Quietly([&] { im_FName2ItemRef(name.c_str(), &fromName); })) RoundTrip(fromName);
  if (!Quietly([&] { im_FName2ItemRef(text.c_str(), &fromName); })) RoundTrip(fromName);
  sfl_ItemRef streamRef{};
  int isItem = 0;
  if (!Quietly([&] { isItem = os_CheckFileName(name.c_str(), &streamRef); }) && isItem == 1)
    RoundTrip(streamRef);
  Quietly([&] { os_CheckFileName(text.c_str(), &streamRef); });
  return 0;
}
