// Exclusive use of a container file (sfl_HoldAlone) and a file's identity
// by its inode (sfl_SameInode). See sfl_alone.h for the rule they keep.
#include "sfl_alone.h"

#include <cerrno>
#include <climits>
#include <sys/stat.h>

#include "im.h"
#include "os.h"

bool sfl_SameInode(int fd, const char* path) {
  struct stat held {};
  struct stat named {};
  if (os_fstat(fd, &held) != 0) ER_RAISE(ER_GROUP_OS, errno);
  if (held.st_nlink == 0) return false;
  if (os_stat(path, &named) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return false;
    ER_RAISE_MSG(ER_GROUP_OS, errno, path);
  }
  return held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

bool sfl_HoldsNamedFile(int fd, const sfl_ItemRef& ref) {
  char path[PATH_MAX];
  im_GetRealFileName(&ref, path, sizeof path);
  return sfl_SameInode(fd, path);
}

void sfl_HoldAlone::Lock(sfl_BaseRec* rec) {
  rec_ = rec;
  alone_ = false;
  header_.Header(rec, SFL_LOCK_EXCL);
}

bool sfl_HoldAlone::Decide(sfl_Interest how) {
  if (how == sfl_Interest::Record) {
    sfl_RecordBaseInterest(rec_);
    alone_ = rec_->ProcAccCount == 1 && rec_->OtherInterest == 0;
  } else {
    sfl_CheckBaseInterest(rec_);
    alone_ = rec_->ProcAccCount <= 1 && rec_->OtherInterest == 0;
  }
  return alone_;
}

bool sfl_HoldAlone::Named() const {
  return sfl_HoldsNamedFile(rec_->FileDes, sfl_RefOf(*rec_));
}
