// The file system under a store shared between hosts: which kinds are
// accepted, refused, or accepted only on the operator's word; what the
// GlusterFS client's .meta files say is missing, read with a bound and
// parsed without trusting them. Runs without root: .meta is made here as
// plain files under a directory that stands for the mount's root.
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <vector>

#include "ml_fscheck.h"
#include "os.h"
#include "test_env.h"

namespace {

constexpr unsigned long kFuse = 0x65735546, kExt4 = 0xEF53, kNfs = 0x6969, kCifs = 0xFF534D42;

// The graph of a client with every cache off (as the client writes it,
// credentials left out).
const char* kGoodGraph =
    "volume v-client-0\n    type protocol/client\n    option remote-host h\nend-volume\n\n"
    "volume v-dht\n    type cluster/distribute\n    subvolumes v-client-0\nend-volume\n\n"
    "volume v-io-threads\n    type performance/io-threads\n    subvolumes v-dht\nend-volume\n\n"
    "volume v\n    type debug/io-stats\n    subvolumes v-io-threads\nend-volume\n";

const char* kGoodCmdline =
    "{ \n  \"Cmdlinestr\": \"/usr/sbin/glusterfs --direct-io-mode=enable --attribute-timeout=0 "
    "--entry-timeout=0 --negative-timeout=0 --process-name fuse --volfile-server=h --volfile-id=/v /s\"\n}";

std::string Cmdline(const std::string& args) { return "{ \"Cmdlinestr\": \"glusterfs " + args + " /s\" }"; }

std::string Graph(const std::string& type) {
  return std::string(kGoodGraph) + "volume v-x\n    type " + type + "\n    subvolumes v\nend-volume\n";
}

std::vector<std::string> GraphMissing(const std::string& volfile) {
  std::vector<std::string> m;
  ml_GlusterGraphMissing(volfile, &m);
  return m;
}

std::vector<std::string> MountMissing(const std::string& cmdline) {
  std::vector<std::string> m;
  ml_GlusterMountMissing(cmdline, &m);
  return m;
}

using Names = std::vector<std::string>;

void Write(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// A directory standing for a GlusterFS mount's root, with its .meta.
std::string FakeMount(const std::string& name, const std::string& volfile, const std::string& cmdline) {
  const std::string root = sfltest::TestDir() + "/" + name;
  for (const std::string& d : {root, root + "/.meta", root + "/.meta/graphs", root + "/.meta/graphs/active"})
    mkdir(d.c_str(), 0755);
  Write(root + "/.meta/graphs/active/volfile", volfile);
  Write(root + "/.meta/cmdline", cmdline);
  return root;
}

TEST(FsKind, LocalFuseSharedAndUnknownTypes) {
  std::string name;
  EXPECT_EQ(ml_FsKindOf(kExt4, &name), ml_FsKind::Local);
  EXPECT_EQ(name, "ext2/ext3/ext4");
  EXPECT_EQ(ml_FsKindOf(0x01021994, &name), ml_FsKind::Local);
  EXPECT_EQ(name, "tmpfs");
  EXPECT_EQ(ml_FsKindOf(kFuse, &name), ml_FsKind::Fuse);
  EXPECT_EQ(name, "FUSE");
  EXPECT_EQ(ml_FsKindOf(kNfs, &name), ml_FsKind::Shared);
  EXPECT_EQ(name, "NFS");
  EXPECT_EQ(ml_FsKindOf(kCifs, &name), ml_FsKind::Shared);
  EXPECT_EQ(name, "CIFS");
  EXPECT_EQ(ml_FsKindOf(0x1234, &name), ml_FsKind::Unknown);
  EXPECT_EQ(name, "type 0x1234");
}

TEST(GlusterGraph, AGraphWithoutCachesLacksNothing) { EXPECT_EQ(GraphMissing(kGoodGraph), Names{}); }

TEST(GlusterGraph, EachCachingTranslatorIsNamedByTheOptionThatTurnsItOff) {
  EXPECT_EQ(GraphMissing(Graph("performance/write-behind")), Names{"performance.write-behind is on"});
  EXPECT_EQ(GraphMissing(Graph("performance/read-ahead")), Names{"performance.read-ahead is on"});
  EXPECT_EQ(GraphMissing(Graph("performance/io-cache")), Names{"performance.io-cache is on"});
  EXPECT_EQ(GraphMissing(Graph("performance/quick-read")), Names{"performance.quick-read is on"});
  EXPECT_EQ(GraphMissing(Graph("performance/md-cache")), Names{"performance.stat-prefetch is on"});
  EXPECT_EQ(GraphMissing(Graph("performance/stat-prefetch")), Names{"performance.stat-prefetch is on"});
  EXPECT_EQ(GraphMissing(Graph("performance/open-behind")), Names{"performance.open-behind is on"});
  EXPECT_EQ(GraphMissing(Graph("performance/nl-cache")), Names{"performance.nl-cache is on"});
  // Other translators, and the words elsewhere in a line, are not caches.
  EXPECT_EQ(GraphMissing(Graph("performance/readdir-ahead-not-listed")), Names{});
  EXPECT_EQ(GraphMissing(Graph("features/write-behind")), Names{});
  EXPECT_EQ(GraphMissing(std::string(kGoodGraph) + "    option type performance/write-behind\n"), Names{});
}

TEST(GlusterGraph, TheDefaultGraphNamesEveryCacheOnceInItsOrder) {
  const std::string g = std::string(kGoodGraph) +
                        "volume a\r\n\ttype\tperformance/write-behind\r\nend-volume\n"
                        "volume b\n type performance/open-behind\nend-volume\n"
                        "volume c\n type performance/quick-read\nend-volume\n"
                        "volume d\n type performance/md-cache\nend-volume\n"
                        "volume e\n type performance/write-behind\nend-volume";  // twice, no final newline
  EXPECT_EQ(GraphMissing(g), (Names{"performance.write-behind is on", "performance.open-behind is on",
                                    "performance.quick-read is on", "performance.stat-prefetch is on"}));
}

TEST(GlusterGraph, GarbageNamesNoTranslatorAndIsRefused) {
  const Names none{"the client's translator graph names no translator"};
  EXPECT_EQ(GraphMissing(""), none);
  EXPECT_EQ(GraphMissing("type\n  type \n"), none);
  EXPECT_EQ(GraphMissing(std::string("\0\0\xff\xfe type", 9)), none);
  EXPECT_EQ(GraphMissing(std::string(100000, 'x')), none);
  // A NUL inside a line does not end the file.
  EXPECT_EQ(GraphMissing(std::string("x\0y\ntype performance/io-cache\n", 30)), Names{"performance.io-cache is on"});
}

TEST(GlusterMount, TheWorkingOptionsLackNothing) {
  EXPECT_EQ(MountMissing(kGoodCmdline), Names{});
  // Either spelling of an option; the last one given counts; a zero may be
  // written as a decimal.
  EXPECT_EQ(MountMissing(Cmdline("--direct-io-mode on --entry-timeout 0.0 --attribute-timeout=00 "
                                 "--negative-timeout=1 --negative-timeout=0.")),
            Names{});
}

TEST(GlusterMount, EachMissingOptionIsNamed) {
  EXPECT_EQ(MountMissing(Cmdline("--entry-timeout=0 --attribute-timeout=0 --negative-timeout=0")),
            Names{"mount lacks direct-io-mode=enable"});
  EXPECT_EQ(MountMissing(Cmdline("--direct-io-mode=disable --entry-timeout=0 --attribute-timeout=0 "
                                 "--negative-timeout=0")),
            Names{"mount lacks direct-io-mode=enable"});
  EXPECT_EQ(MountMissing(Cmdline("--direct-io-mode=enable --attribute-timeout=0 --negative-timeout=0")),
            Names{"mount lacks entry-timeout=0"});
  EXPECT_EQ(MountMissing(Cmdline("--direct-io-mode=enable --entry-timeout=0 --attribute-timeout=1 "
                                 "--negative-timeout=0")),
            Names{"mount lacks attribute-timeout=0"});
  EXPECT_EQ(MountMissing(Cmdline("--direct-io-mode=enable --entry-timeout=0 --attribute-timeout=0 "
                                 "--negative-timeout=0.5")),
            Names{"mount lacks negative-timeout=0"});
  // A value that is not a plain zero, and a flag with no value after it.
  EXPECT_EQ(MountMissing(Cmdline("--direct-io-mode=enable --entry-timeout=. --attribute-timeout=0.0.0 "
                                 "--negative-timeout")),
            (Names{"mount lacks entry-timeout=0", "mount lacks attribute-timeout=0",
                   "mount lacks negative-timeout=0"}));
  // A longer option that begins with the same name is another option.
  EXPECT_EQ(MountMissing(Cmdline("--direct-io-modes=enable --entry-timeout=0 --attribute-timeout=0 "
                                 "--negative-timeout=0")),
            Names{"mount lacks direct-io-mode=enable"});
  EXPECT_EQ(MountMissing(Cmdline("")),
            (Names{"mount lacks direct-io-mode=enable", "mount lacks entry-timeout=0",
                   "mount lacks attribute-timeout=0", "mount lacks negative-timeout=0"}));
}

TEST(GlusterMount, EveryWayOfSayingEnableIsTakenAndAFlagLastOnTheLineHasNoValue) {
  for (const char* on : {"enable", "on", "yes", "true"})
    EXPECT_EQ(MountMissing("{\"Cmdlinestr\": \"glusterfs --entry-timeout=0 --attribute-timeout=0 "
                           "--negative-timeout=0 --direct-io-mode=" + std::string(on) + "\"}"),
              Names{})
        << on;
  EXPECT_EQ(MountMissing("{\"Cmdlinestr\": \"glusterfs --entry-timeout=0 --attribute-timeout=0 "
                         "--negative-timeout=0\r\n--direct-io-mode\"}"),
            Names{"mount lacks direct-io-mode=enable"});
}

TEST(GlusterMount, AnEscapedQuoteStaysInsideTheLine) {
  EXPECT_EQ(MountMissing("{\"Cmdlinestr\":\"glusterfs \\\"--x\\\" --direct-io-mode=enable --entry-timeout=0 "
                         "--attribute-timeout=0 --negative-timeout=0\"}"),
            Names{});
}

TEST(GlusterMount, ACommandLineThatCannotBeReadIsRefused) {
  const Names unread{"the client's mount options cannot be read"};
  EXPECT_EQ(MountMissing(""), unread);
  EXPECT_EQ(MountMissing("glusterfs --direct-io-mode=enable"), unread);      // no key
  EXPECT_EQ(MountMissing("{\"Cmdlinestr\""), unread);                         // ends at the key
  EXPECT_EQ(MountMissing("{\"Cmdlinestr\" \"glusterfs\"}"), unread);          // no colon
  EXPECT_EQ(MountMissing("{\"Cmdlinestr\": "), unread);                       // ends at the colon
  EXPECT_EQ(MountMissing("{\"Cmdlinestr\": glusterfs}"), unread);             // not a string
  EXPECT_EQ(MountMissing("{\"Cmdlinestr\": \"glusterfs --direct-io"), unread);  // not closed
  EXPECT_EQ(MountMissing("{\"Cmdlinestr\": \"glusterfs\\"), unread);         // ends in an escape
}

TEST(StoreFs, ALocalFileSystemIsAccepted) {
  const ml_FsVerdict v = ml_JudgeStoreFs("/s", kExt4, "/nonexistent", false);
  EXPECT_FALSE(v.Refused);
  EXPECT_EQ(v.Line(), "store root /s (ext2/ext3/ext4)");
}

TEST(StoreFs, WhatCannotBeExaminedIsRefusedUnlessTheOperatorVouchesForIt) {
  const std::string notGluster = sfltest::TestDir() + "/plain";
  mkdir(notGluster.c_str(), 0755);
  for (unsigned long type : {kFuse, kNfs, kCifs, 0x1234ul}) {
    ml_FsVerdict v = ml_JudgeStoreFs("/s", type, notGluster, false);
    EXPECT_TRUE(v.Refused) << type;
    ASSERT_EQ(v.Missing.size(), 1u);
    EXPECT_EQ(v.Missing[0], "its caches cannot be examined (SFL_CLUSTER_TRUST_FS=1 vouches for it)");
    v = ml_JudgeStoreFs("/s", type, notGluster, true);
    EXPECT_FALSE(v.Refused) << type;
    EXPECT_TRUE(v.Missing.empty());
  }
  EXPECT_EQ(ml_JudgeStoreFs("/s", kNfs, notGluster, false).Line(),
            "store root /s (NFS): its caches cannot be examined (SFL_CLUSTER_TRUST_FS=1 vouches for it)");
  // A .meta on NFS is only a directory: NFS is never taken for GlusterFS.
  const std::string onNfs = FakeMount("nfs", kGoodGraph, kGoodCmdline);
  EXPECT_TRUE(ml_JudgeStoreFs("/s", kNfs, onNfs, false).Refused);
}

TEST(StoreFs, GlusterFSIsJudgedByItsClientsMeta) {
  const std::string good = FakeMount("good", kGoodGraph, kGoodCmdline);
  ml_FsVerdict v = ml_JudgeStoreFs("/s", kFuse, good, false);
  EXPECT_FALSE(v.Refused) << v.Line();
  EXPECT_EQ(v.Line(), "store root /s (GlusterFS)");

  const std::string bad = FakeMount("bad", Graph("performance/write-behind"), Cmdline("--entry-timeout=0"));
  // The operator's word does not cover what can be seen to be wrong.
  v = ml_JudgeStoreFs("/s", kFuse, bad, true);
  EXPECT_TRUE(v.Refused);
  EXPECT_EQ(v.Line(),
            "store root /s (GlusterFS): performance.write-behind is on; mount lacks direct-io-mode=enable; "
            "mount lacks attribute-timeout=0; mount lacks negative-timeout=0");
}

TEST(StoreFs, AMetaThatIsNoDirectoryIsNotGlusterFS) {
  const std::string root = sfltest::TestDir() + "/metafile";
  mkdir(root.c_str(), 0755);
  Write(root + "/.meta", kGoodCmdline);
  const ml_FsVerdict v = ml_JudgeStoreFs("/s", kFuse, root, false);
  EXPECT_TRUE(v.Refused);
  EXPECT_EQ(v.FsName, "FUSE");
}

TEST(StoreFs, MetaFilesThatCannotBeReadAreRefused) {
  const std::string root = FakeMount("unread", kGoodGraph, kGoodCmdline);
  unlink((root + "/.meta/graphs/active/volfile").c_str());
  unlink((root + "/.meta/cmdline").c_str());
  ml_FsVerdict v = ml_JudgeStoreFs("/s", kFuse, root, false);
  EXPECT_TRUE(v.Refused);
  EXPECT_EQ(v.Missing,
            (Names{"the client's translator graph cannot be read (.meta/graphs/active/volfile: No such file or "
                   "directory)",
                   "the client's mount options cannot be read (.meta/cmdline: No such file or directory)"}));

  // A directory and a FIFO in their places: not regular files, and the FIFO
  // does not hold the check up.
  mkdir((root + "/.meta/graphs/active/volfile").c_str(), 0755);
  ASSERT_EQ(mkfifo((root + "/.meta/cmdline").c_str(), 0644), 0);
  v = ml_JudgeStoreFs("/s", kFuse, root, false);
  EXPECT_EQ(v.Missing,
            (Names{"the client's translator graph cannot be read (.meta/graphs/active/volfile: not a regular file)",
                   "the client's mount options cannot be read (.meta/cmdline: not a regular file)"}));

  // A symbolic link is not followed.
  unlink((root + "/.meta/cmdline").c_str());
  Write(root + "/elsewhere", kGoodCmdline);
  ASSERT_EQ(symlink((root + "/elsewhere").c_str(), (root + "/.meta/cmdline").c_str()), 0);
  v = ml_JudgeStoreFs("/s", kFuse, root, false);
  ASSERT_EQ(v.Missing.size(), 2u);
  EXPECT_NE(v.Missing[1].find("cannot be read (.meta/cmdline: "), std::string::npos) << v.Missing[1];
}

TEST(StoreFs, MetaFilesAreReadOnlyUpToTheBound) {
  // At the bound: read whole (the graph's last line names a cache).
  std::string atBound = kGoodGraph;
  const std::string tail = "type performance/io-cache\n";
  atBound += std::string(ML_META_MAX - atBound.size() - tail.size(), '\n') + tail;
  ASSERT_EQ(atBound.size(), ML_META_MAX);
  const std::string root = FakeMount("bound", atBound, kGoodCmdline + std::string(ML_META_MAX, ' '));
  const ml_FsVerdict v = ml_JudgeStoreFs("/s", kFuse, root, false);
  EXPECT_EQ(v.Missing, (Names{"performance.io-cache is on",
                              "the client's mount options cannot be read (.meta/cmdline: longer than " +
                                  std::to_string(ML_META_MAX) + " bytes)"}));
}

TEST(StoreFs, AFailingReadOrStatusIsRefused) {
  const std::string root = FakeMount("faults", kGoodGraph, kGoodCmdline);
  os_FailNth(os_Op::Read, 1, EIO);
  ml_FsVerdict v = ml_JudgeStoreFs("/s", kFuse, root, false);
  ASSERT_EQ(v.Missing.size(), 1u);
  EXPECT_EQ(v.Missing[0],
            "the client's translator graph cannot be read (.meta/graphs/active/volfile: Input/output error)");
  os_FailNth(os_Op::Fstat, 2, EIO);
  v = ml_JudgeStoreFs("/s", kFuse, root, false);
  EXPECT_EQ(v.Missing, Names{"the client's mount options cannot be read (.meta/cmdline: not a regular file)"});
  EXPECT_FALSE(ml_JudgeStoreFs("/s", kFuse, root, false).Refused);
}

std::string FsNameOf(const std::string& path) {
  struct statfs fs {};
  EXPECT_EQ(statfs(path.c_str(), &fs), 0);
  std::string name;
  ml_FsKindOf(static_cast<unsigned long>(fs.f_type), &name);
  return name;
}

TEST(StoreFs, ARootNotMadeYetIsJudgedByTheDirectoryItWillBeMadeIn) {
  const std::string dir = sfltest::TestDir();
  const ml_FsVerdict here = ml_CheckStoreFs(dir, true);
  EXPECT_EQ(here.FsName, FsNameOf(dir));
  EXPECT_FALSE(here.Refused) << here.Line();
  const ml_FsVerdict later = ml_CheckStoreFs(dir + "/not/made/yet/", true);
  EXPECT_EQ(later.Root, dir + "/not/made/yet/");
  EXPECT_EQ(later.FsName, here.FsName);
  EXPECT_FALSE(later.Refused);
  // Relative names go up to the current directory.
  ASSERT_EQ(chdir(dir.c_str()), 0);
  EXPECT_EQ(ml_CheckStoreFs("not-made", true).FsName, here.FsName);
  EXPECT_EQ(ml_CheckStoreFs("", true).Root, ".");
  // Up to the root directory itself.
  const std::string top = "/sfl-not-made-" + std::to_string(getpid());
  EXPECT_EQ(ml_CheckStoreFs(top, true).FsName, FsNameOf("/"));
}

TEST(StoreFs, ARootThatCannotBeExaminedIsRefused) {
  const std::string dir = sfltest::TestDir();
  os_FailNth(os_Op::Stat, 1, EACCES);
  ml_FsVerdict v = ml_CheckStoreFs(dir, true);
  EXPECT_TRUE(v.Refused);
  EXPECT_EQ(v.Line(), "store root " + dir + " (?): " + dir + " cannot be examined: Permission denied");
  // The file system's status itself.
  os_FailNth(os_Op::Stat, 2, EIO);
  v = ml_CheckStoreFs(dir, true);
  EXPECT_TRUE(v.Refused);
  EXPECT_EQ(v.Missing, Names{dir + " cannot be examined: Input/output error"});
  // Looking for the mount's root may fail at its first or a later step:
  // the type alone then judges a local file system.
  for (unsigned nth : {3u, 4u}) {
    os_FailNth(os_Op::Stat, nth, EIO);
    v = ml_CheckStoreFs(dir, false);
    EXPECT_EQ(v.FsName, FsNameOf(dir)) << nth;
  }
}

}  // namespace
