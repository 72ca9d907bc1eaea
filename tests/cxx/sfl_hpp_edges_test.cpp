// The C++ interface at its edges: references that differ in one field only
// or fill the whole name, an owner moved onto itself, restoring the default
// close-failure handler, and a check asked to repair a sound file.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "sfl.hpp"
#include "test_env.h"
#include "test_util.h"

namespace {

using sfltest::EscapeOf;

sfl_ItemRef RawRef() {
  sfl_ItemRef r{};
  r.Domain = 2;
  r.Flags = 3;
  r.SubDomain = 17;
  r.FileId = 4096;
  std::memcpy(r.Name, "ab", 3);
  return r;
}

// Equality looks at every field: a difference in any one of them makes two
// references unequal.
TEST(HppEdges, ReferencesDifferingInOneFieldAreUnequal) {
  const sfl::Ref base(RawRef());
  EXPECT_TRUE(base == sfl::Ref(RawRef()));
  sfl_ItemRef r = RawRef();
  r.Domain = 4;
  EXPECT_FALSE(base == sfl::Ref(r));
  r = RawRef();
  r.Flags = 2;
  EXPECT_FALSE(base == sfl::Ref(r));
  r = RawRef();
  r.SubDomain = 18;
  EXPECT_FALSE(base == sfl::Ref(r));
  r = RawRef();
  r.FileId = 4097;
  EXPECT_FALSE(base == sfl::Ref(r));
  r = RawRef();
  std::memcpy(r.Name, "ac", 3);
  EXPECT_FALSE(base == sfl::Ref(r));
}

// A name filling the whole field has no terminator: only the field's own
// bytes are compared, and what follows a terminator is not.
TEST(HppEdges, ANameFillingItsFieldIsComparedWithinIt) {
  sfl_ItemRef a = RawRef();
  std::memcpy(a.Name, "wxyz", 4);
  sfl_ItemRef b = a;
  EXPECT_TRUE(sfl::Ref(a) == sfl::Ref(b));
  b.Name[3] = 'q';
  EXPECT_FALSE(sfl::Ref(a) == sfl::Ref(b));
  // Bytes after the terminator do not count.
  sfl_ItemRef c = RawRef();
  sfl_ItemRef d = RawRef();
  c.Name[3] = 'm';
  d.Name[3] = 'n';
  EXPECT_TRUE(sfl::Ref(c) == sfl::Ref(d));
}

TEST(HppEdges, MovingAnOwnerOntoItselfKeepsTheHandleOpen) {
  sfl::Container c = sfl::Container::Create();
  sfl::Item item = c.Store("self");
  const int32_t h = item.Handle();
  sfl::Item& same = item;
  item = std::move(same);
  EXPECT_TRUE(item.IsOpen());
  EXPECT_EQ(item.Handle(), h);
  EXPECT_EQ(EscapeOf([&] { sfl_ItemHandle2Record(h); }).reason, 0);
  EXPECT_EQ(item.ReadText(), "self");
}

int g_calls = 0;
void Count(const er_Escape&, const char*, int32_t) { ++g_calls; }

// Setting no handler brings the default back: a failed close is logged
// again and the handler set before is called no more.
TEST(HppEdges, ANullHandlerRestoresLogging) {
  const sfl::CloseFailureHandler first = sfl::SetCloseFailureHandler(Count);
  EXPECT_EQ(sfl::SetCloseFailureHandler(nullptr), &Count);
  g_calls = 0;
  sfl::Container c = sfl::Container::Create();
  sfltest::LogCapture log;
  {
    sfl::Item item = c.Store("x");
    sfl_CloseItem(item.Handle());  // the owner's own close will fail
  }
  EXPECT_EQ(g_calls, 0);
  EXPECT_TRUE(log.SawReason(28867));
  EXPECT_EQ(er_GetLive(), 0);
  sfl::SetCloseFailureHandler(first);
}

// A repairing check of a sound file finds nothing and changes nothing.
TEST(HppEdges, ARepairingCheckOfASoundFileFindsNothing) {
  sfl::Ref file, kept;
  {
    sfl::Container c = sfl::Container::Create();
    file = c.Reference();
    kept = c.Store("kept").Reference();
  }
  EXPECT_TRUE(sfl::Check(file, true));
  sfl::Item item = sfl::Item::Open(kept);
  EXPECT_EQ(item.ReadText(), "kept");
}

}  // namespace
