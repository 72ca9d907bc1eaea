// im_: item references to paths and descriptors under the store root.
//
// Store root: the value of "SFL_STORE_ROOT" (default "./sfl-store", relative
// to the current directory), trailing slashes removed.
//
// Path layout. The container file a reference names lies at
//
//     <root>/<Domain>/<SubDomain>/<FileId>          (empty name tag)
//     <root>/<Domain>/<SubDomain>/<FileId>.<Name>   (non-empty name tag)
//
// with the three numbers in decimal. The item-number bits of Flags (Flags & 7)
// do not change the path: every item of a container shares the container's
// file. Flags bits above the item number are not part of the path or of the
// text form. An item name is the container path followed by ":" and the item
// number, when the item number is not zero ("<path>:3").
//
// Text form of a reference: "<Domain>.<SubDomain>.<FileId>.<Name>[:<item>]",
// numbers in decimal, the name part omitted together with its dot when the
// name tag is empty ("2.17.4113", "2.17.4113.abc:3"). Item numbers 1 to 7.
//
// Name tags. A name tag is at most three characters from [A-Za-z0-9_-],
// zero-terminated within its four bytes. Anything else could reach outside
// the store root ("..", "/") or be ambiguous in a path, and is refused with an
// escape in group ER_GROUP_CONFIG, reason IM_R_UNSAFE_NAME.
//
// New files. im_GetNewDataItem uses Domain 2 and im_CrNewTempItem Domain 4
// (files the close never compacts). Both choose a random FileId, take
// SubDomain = FileId % 256 (spreading files over directories and over the
// interest service's queue pairs), create the file with O_CREAT|O_EXCL and
// permissions 0660 and retry with another FileId on EEXIST, so that two
// processes can never be handed the same file. Before that, both take an
// emptied container from a pool when there is one (see im_RetireItem).
#ifndef KQ_IM_H
#define KQ_IM_H

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

#include "im_ref.h"  // sfl_ItemRef and the exported name conversions

// Reasons raised in group ER_GROUP_CONFIG.
enum im_Reason : int {
  IM_R_UNSAFE_NAME = 4401,  // name tag outside [A-Za-z0-9_-]{0,3} or not terminated
  IM_R_BAD_TEXT = 4402,     // text form malformed or a number out of range
  IM_R_NOT_IN_STORE = 4403, // a file name that is not a path of the layout under the root
  IM_R_BUFFER = 4404,       // the caller's buffer is too small for the name or text
  IM_R_NO_UNIQUE_ID = 4405, // no free FileId found after many attempts
};

// Creates a new, uniquely named data item (type 2) or temporary item
// (type 4) file with permissions 0660; fills its reference and returns an
// open read-write descriptor. Race-free across processes. Failures of the
// file system raise group ER_GROUP_OS with the errno as reason.
int im_GetNewDataItem(sfl_ItemRef* out);
int im_CrNewTempItem(sfl_ItemRef* out);
// Opens the file a reference names (item-number bits ignored) read-write;
// raises an escape (group ER_GROUP_OS, reason errno) when it cannot.
int im_OpenItem(const sfl_ItemRef* ref);
// Opens a container's path as im_OpenItem does: with `flags`, through no
// symbolic link (neither the file nor a directory below the store root), a
// regular file, owned by a trusted owner (im_OwnerTrusted). A refusal raises
// group ER_GROUP_OS (ELOOP or ENOTDIR for a link, EPERM for the file's type
// or owner) with a text naming the path and what was found.
int im_OpenContainer(const char* path, int flags);
// Whether a container of this owner and group may be used: this user's,
// root's, the service account's, or of a group this process is in (a store
// is shared by the members of its group).
bool im_OwnerTrusted(uid_t uid, gid_t gid);
// Removes the file a reference names; raises an escape on failure.
void im_UnlinkItem(const sfl_ItemRef* ref);
// Removes the container name of an emptied container file whose open
// descriptor is `fd`, keeping the file in its directory's pool for the next
// new file when it may (im_pool.cpp), else unlinking it. With `flush`, the
// removal is flushed into the directory. Raises an escape when the name
// cannot be removed; returns 0, or the errno of a flush that failed (the
// name is removed all the same).
int im_RetireItem(const sfl_ItemRef* ref, int fd, bool flush);
// Writes the container file's path into `out` and returns the reference's
// item number (Flags & 7).
int32_t im_GetRealFileName(const sfl_ItemRef* ref, char* out, size_t outLen);
// Writes the path a whole-file rebuild of the container builds its new file
// under: the container's path followed by "#.new". A name tag is at most
// three of [A-Za-z0-9_-], so no reference maps to this path (not even one
// tagged "new"), and the listing of a store never takes it for a container.
// Returns its length.
int32_t im_ScratchFName(const sfl_ItemRef* ref, char* out, size_t outLen);
// Whether `name` is an item name ("<container path>:<item number>"); if so,
// fills `ref` with the item's reference and returns 1, else returns 0. The
// stream layer asks this of every name it opens; it lives here, beside the
// parse it relies on, so the operating-system layer knows nothing of items.
int os_CheckFileName(const char* name, sfl_ItemRef* ref);

// The exported conversions (declared in im_ref.h) behave so:
//   im_FormItemRef(text, out)       parses the text form; returns 0.
//   im_ItemRef2Text(ref, out, len)  writes the text form; returns its length.
//   im_ItemRef2FName(ref, out, len) writes the item name (container path, and
//                                   ":<item>" for a non-zero item number);
//                                   returns its length.
//   im_FName2ItemRef(name, out)     parses a container path or item name in
//                                   exactly the form im_ItemRef2FName writes;
//                                   returns 0.
// Each raises an escape in group ER_GROUP_CONFIG on bad input.

#endif  // KQ_IM_H
