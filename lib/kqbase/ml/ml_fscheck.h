// ml_fscheck: whether the file system under a store root gives what hosts
// sharing the store need of it: locks, reads after another client's locked
// write and names that every client sees at once, with no cache of its own
// in between. The service in cluster mode refuses to start when it does not.
//
// A local file system is accepted (hosts that see it are processes of one
// kernel). GlusterFS (FUSE with the client's .meta directory at its mount
// root) is examined: its translator graph must load none of the caching
// translators, and its mount must bypass the kernel's page cache and its
// caches of names and attributes. Any other shared file system (NFS, CIFS,
// other FUSE, a type not known here) cannot be examined and is refused
// unless the operator vouches for it.
//
// Every byte read from .meta is the client's, not ours: files are read with
// a bound and parsed without trusting their shape.
#ifndef KQ_ML_FSCHECK_H
#define KQ_ML_FSCHECK_H

#include <string>
#include <vector>

enum class ml_FsKind { Local, Fuse, Shared, Unknown };

// The kind of file system of statfs's f_type, and its name.
ml_FsKind ml_FsKindOf(unsigned long fType, std::string* name);

// What the client's translator graph (.meta/graphs/active/volfile) loads
// that sfl cannot have: "performance.write-behind is on", ...; a graph
// that names no translator is itself missing.
void ml_GlusterGraphMissing(const std::string& volfile, std::vector<std::string>* missing);
// What the client's command line (.meta/cmdline) lacks: "mount lacks
// direct-io-mode=enable", ...
void ml_GlusterMountMissing(const std::string& cmdline, std::vector<std::string>* missing);

// The largest .meta file read; a longer one is not trusted.
constexpr size_t ML_META_MAX = 256 * 1024;

struct ml_FsVerdict {
  bool Refused = false;
  std::string Root;                  // the store root as given
  std::string FsName;                // "GlusterFS", "ext2/ext3/ext4", "NFS", ...
  std::vector<std::string> Missing;  // what it lacks (or why it cannot be known)
  // One line naming the root, the file system and each thing missing.
  std::string Line() const;
};

// Judges a root whose file system has type `fType` and whose mount root is
// `mountRoot` (where GlusterFS keeps .meta). `trustUnverified`: the
// operator vouches for a file system that cannot be examined.
ml_FsVerdict ml_JudgeStoreFs(const std::string& root, unsigned long fType, const std::string& mountRoot,
                             bool trustUnverified);
// Examines `root` (or, while it does not exist yet, the nearest directory
// above it, where it will be made) and judges it.
ml_FsVerdict ml_CheckStoreFs(const std::string& root, bool trustUnverified);

#endif  // KQ_ML_FSCHECK_H
