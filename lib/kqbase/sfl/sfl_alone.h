// Exclusive use of a container file, and a file's identity.
//
// Some operations may only run while no other process uses the file: the
// immediate deletion of an item, the release of pending deletions and the
// removal of an emptied file at the last close, a whole-file rebuild and a
// repairing check. They all learn it the same way, with sfl_HoldAlone:
//
//   1. take the exclusive file-header lock through the descriptor that does
//      the work (waiting for it);
//   2. ask the interest service how many processes hold the file.
//
// Every open, create and revival records its process's interest while it
// holds the header lock (shared or exclusive), so while the exclusive lock
// is held no process can become a new holder: an answer of "this holder
// alone" stays true until the lock goes. The guard keeps the lock for as
// long as it lives, so the exclusive work is done inside it.
//
// Record locks belong to the open file description: a second descriptor of
// the same file in this process would wait for the first one's locks. The
// lock is therefore taken through the descriptor that does the work, and
// nothing done under the guard takes the header lock through another one.
//
// A file is the inode its descriptor holds, not its path: a rebuild renames
// a new file over the path, and a last close removes the path. Before an
// operation acts on the path (removes it, renames over it) or starts to use
// a file it opened by path, it makes sure that the path still names the
// file it holds (sfl_SameInode).
#ifndef SFL_ALONE_H
#define SFL_ALONE_H

#include "sfl_int.h"

// Whether `path` names the file open on `fd`, and that file still has a
// name at all (a link count of 0 means it was removed or replaced). A name
// that is gone is not the file; a status that cannot be read raises.
bool sfl_SameInode(int fd, const char* path);
// The same for the container file a reference names.
bool sfl_HoldsNamedFile(int fd, const sfl_ItemRef& ref);

// How the holder's interest is known to the service.
enum class sfl_Interest {
  Held,    // the record holds an interest already: it is checked
  Record,  // the holder has none yet (a check, a rebuild): one is recorded
};

class sfl_HoldAlone {
 public:
  sfl_HoldAlone() = default;
  sfl_HoldAlone(const sfl_HoldAlone&) = delete;
  sfl_HoldAlone& operator=(const sfl_HoldAlone&) = delete;

  // Takes the exclusive header lock through rec->FileDes.
  void Lock(sfl_BaseRec* rec);
  // Asks the service (under the lock Lock took); the answers land in the
  // record's ProcAccCount and OtherInterest. Returns Alone().
  bool Decide(sfl_Interest how);
  // Lock and Decide.
  bool Take(sfl_BaseRec* rec, sfl_Interest how) {
    Lock(rec);
    return Decide(how);
  }
  // Whether no other process holds the file. After a check: at most one
  // interest (none when the service no longer knows this holder's) and no
  // other-interest flag. After a record: exactly the one just recorded.
  bool Alone() const { return alone_; }
  // Whether the file held is still the one its reference names (after Lock).
  bool Named() const;
  // Ends the exclusive use now.
  void Release() {
    alone_ = false;
    header_.Unlock();
  }

 private:
  sfl_Held header_;
  sfl_BaseRec* rec_ = nullptr;
  bool alone_ = false;
};

#endif  // SFL_ALONE_H
