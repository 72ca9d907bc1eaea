// The file-per-part alternative: a directory per message under one of 100
// fan-out directories, one file per part, open/write/close and
// open/read/close for every part. The flushing mode calls fdatasync before
// each close.
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "bench.h"

namespace bench {
namespace {

constexpr int kFanOut = 100;

class FilesStore : public MessageStore {
 public:
  FilesStore(const std::string& dir, Durability d, bool create)
      : root_(dir + "/files"), sync_(d == Durability::Sync) {
    if (create) {
      for (int i = 0; i < kFanOut; ++i) MakeDirs(root_ + "/" + std::to_string(i));
    }
  }

  void Store(int msg, const uint8_t* const parts[kPartsPerMessage]) override {
    std::string mdir = MessageDir(msg);
    if (mkdir(mdir.c_str(), 0755) != 0 && errno != EEXIST) Fail("mkdir %s", mdir.c_str());
    for (int p = 0; p < kPartsPerMessage; ++p) {
      std::string path = PartPath(mdir, p);
      int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC | O_CLOEXEC, 0644);
      if (fd < 0) Fail("open %s", path.c_str());
      WriteAll(fd, parts[p], kPartSizes[p]);
      if (sync_ && fdatasync(fd) != 0) Fail("fdatasync");
      close(fd);
    }
  }

  void Read(int msg, uint8_t* const bufs[kPartsPerMessage]) override {
    std::string mdir = MessageDir(msg);
    for (int p = 0; p < kPartsPerMessage; ++p) ReadFile(PartPath(mdir, p), bufs[p], kPartSizes[p]);
  }

  uint32_t ReadPart(int msg, int part, uint8_t* buf) override {
    return ReadFile(PartPath(MessageDir(msg), part), buf, kPartSizes[part]);
  }

  void Delete(int msg) override {
    std::string mdir = MessageDir(msg);
    for (int p = 0; p < kPartsPerMessage; ++p) {
      if (unlink(PartPath(mdir, p).c_str()) != 0) Fail("unlink");
    }
    if (rmdir(mdir.c_str()) != 0) Fail("rmdir %s", mdir.c_str());
  }

  void DeleteParts(int msg, const std::vector<int>& parts) override {
    std::string mdir = MessageDir(msg);
    for (int p : parts)
      if (unlink(PartPath(mdir, p).c_str()) != 0) Fail("unlink");
  }

 private:
  std::string MessageDir(int msg) const {
    return root_ + "/" + std::to_string(msg % kFanOut) + "/" + std::to_string(msg);
  }
  static std::string PartPath(const std::string& mdir, int p) {
    return mdir + "/p" + std::to_string(p);
  }
  static void WriteAll(int fd, const uint8_t* data, uint32_t size) {
    uint32_t done = 0;
    while (done < size) {
      ssize_t n = write(fd, data + done, size - done);
      if (n <= 0) Fail("write");
      done += static_cast<uint32_t>(n);
    }
  }
  static uint32_t ReadFile(const std::string& path, uint8_t* buf, uint32_t size) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) Fail("open %s", path.c_str());
    uint32_t done = 0;
    while (done < size) {
      ssize_t n = read(fd, buf + done, size - done);
      if (n < 0) Fail("read");
      if (n == 0) break;
      done += static_cast<uint32_t>(n);
    }
    close(fd);
    return done;
  }

  std::string root_;
  bool sync_;
};

// W6: a file per item in one of 100 directories, as PostMark spreads its
// files over subdirectories; an append opens the file for appending.
class FilesPool : public ItemPool {
 public:
  FilesPool(const std::string& dir, Durability d) : root_(dir + "/items"), sync_(d == Durability::Sync) {
    for (int i = 0; i < kFanOut; ++i) MakeDirs(root_ + "/" + std::to_string(i));
  }

  void Create(uint32_t id, const uint8_t* data, uint32_t size) override {
    Write(Path(id), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, data, size);
  }
  void Read(uint32_t id, uint8_t* buf, uint32_t size) override {
    const std::string path = Path(id);
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) Fail("open %s", path.c_str());
    uint32_t done = 0;
    while (done < size) {
      ssize_t n = read(fd, buf + done, size - done);
      if (n <= 0) Fail("short read of %s", path.c_str());
      done += static_cast<uint32_t>(n);
    }
    close(fd);
  }
  void Append(uint32_t id, uint32_t, const uint8_t* data, uint32_t n) override {
    Write(Path(id), O_WRONLY | O_APPEND | O_CLOEXEC, data, n);
  }
  void Delete(uint32_t id) override {
    if (unlink(Path(id).c_str()) != 0) Fail("unlink");
  }

 private:
  std::string Path(uint32_t id) const {
    return root_ + "/" + std::to_string(id % kFanOut) + "/" + std::to_string(id);
  }
  void Write(const std::string& path, int flags, const uint8_t* data, uint32_t size) {
    int fd = open(path.c_str(), flags, 0644);
    if (fd < 0) Fail("open %s", path.c_str());
    uint32_t done = 0;
    while (done < size) {
      ssize_t n = write(fd, data + done, size - done);
      if (n <= 0) Fail("write");
      done += static_cast<uint32_t>(n);
    }
    if (sync_ && fdatasync(fd) != 0) Fail("fdatasync");
    close(fd);
  }

  std::string root_;
  bool sync_;
};

}  // namespace

std::unique_ptr<ItemPool> NewFilesPool(const std::string& dir, Durability d) {
  return std::make_unique<FilesPool>(dir, d);
}

std::unique_ptr<MessageStore> NewFilesStore(const std::string& dir, Durability d, bool create) {
  return std::make_unique<FilesStore>(dir, d, create);
}

}  // namespace bench
