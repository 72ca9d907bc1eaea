// os_CheckFileName: item names ("<container path>:<item>") are recognised
// and yield their reference; everything else is a plain name.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "er.h"
#include "im.h"
#include "sfl.h"
#include "test_env.h"

namespace {

sfl_ItemRef Ref(const char* text) {
  sfl_ItemRef ref{};
  EXPECT_EQ(im_FormItemRef(text, &ref), 0);
  return ref;
}

std::string NameOf(const sfl_ItemRef& ref) {
  char name[4096];
  EXPECT_GT(im_ItemRef2FName(&ref, name, sizeof name), 0);
  return name;
}

bool SameRef(const sfl_ItemRef& a, const sfl_ItemRef& b) {
  return a.Domain == b.Domain && a.Flags == b.Flags && a.SubDomain == b.SubDomain &&
         a.FileId == b.FileId && std::strncmp(a.Name, b.Name, sizeof a.Name) == 0;
}

sfl_ItemRef Garbage() {
  sfl_ItemRef g;
  std::memset(&g, 0x5a, sizeof g);
  return g;
}

bool IsZero(const sfl_ItemRef& r) {
  sfl_ItemRef z{};
  return std::memcmp(&r, &z, sizeof r) == 0;
}

TEST(CheckFileName, ItemNameYieldsItsReference) {
  for (const char* text : {"2.17.4113:3", "2.17.4113.abc:1", "4.0.0:7", "65535.4294967295.99.x_-:5"}) {
    sfl_ItemRef want = Ref(text);
    std::string name = NameOf(want);
    sfl_ItemRef got = Garbage();
    EXPECT_EQ(os_CheckFileName(name.c_str(), &got), 1) << name;
    EXPECT_TRUE(SameRef(got, want)) << name;
  }
}

// The name need not exist yet: recognition is by form alone.
TEST(CheckFileName, RecognitionDoesNotNeedTheFile) {
  std::string name = NameOf(Ref("9.9.123456:2"));
  sfl_ItemRef got{};
  EXPECT_EQ(os_CheckFileName(name.c_str(), &got), 1);
  EXPECT_EQ(got.Flags & SFL_ITEM_NUM_MASK, 2);
  EXPECT_EQ(got.FileId, 123456u);
}

TEST(CheckFileName, PlainNamesAreNotItemNames) {
  sfl_ItemRef container = Ref("2.17.4113.abc");
  std::string containerPath = NameOf(container);
  std::string root = sfltest::StoreRoot();
  const std::string plain[] = {
      "",
      "/etc/hostname",
      sfltest::TestDir() + "/notes.txt",
      containerPath,                           // the container itself (item 0)
      containerPath + ":0",                    // item numbers run from 1
      containerPath + ":8",
      containerPath + ":12",
      containerPath + ":",
      containerPath + ":3x",
      "/elsewhere/2/17/4113:3",                // the right shape outside the store
      root + "/2/17/notanumber:3",
      root + "/2/17/4113.toolong:3",
      "relative:3",
  };
  for (const std::string& name : plain) {
    sfl_ItemRef got = Garbage();
    EXPECT_EQ(os_CheckFileName(name.c_str(), &got), 0) << name;
    EXPECT_TRUE(IsZero(got)) << name;
  }
  EXPECT_EQ(os_CheckFileName(nullptr, nullptr), 0);
}

// A refused parse leaves no live escape and keeps the caller's status.
TEST(CheckFileName, RefusalLeavesErrorStatusAlone) {
  er_Clear();
  std::string name = sfltest::StoreRoot() + "/2/17/bad:3";
  sfl_ItemRef got{};
  EXPECT_EQ(os_CheckFileName(name.c_str(), &got), 0);
  EXPECT_EQ(er_GetLive(), 0);

  // An escape the caller is handling stays as it was.
  er_Status before{};
  try {
    ER_RAISE(ER_GROUP_SFL, 28874);
  } catch (const er_Escape&) {
  }
  er_GetStatus(&before);
  ASSERT_EQ(before.live, 1);
  EXPECT_EQ(os_CheckFileName(name.c_str(), &got), 0);
  er_Status after{};
  er_GetStatus(&after);
  EXPECT_EQ(after.live, before.live);
  EXPECT_EQ(after.group, before.group);
  EXPECT_EQ(after.reason, before.reason);
  er_Clear();
}

}  // namespace
