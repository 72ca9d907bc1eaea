// Private to im_: the path helpers im.cpp owns and the container pool
// (im_pool.cpp) uses.
#ifndef KQ_IM_INT_H
#define KQ_IM_INT_H

#include <cstdint>
#include <string>

#include "im.h"

// The directory of a reference's container file ("<root>/<Domain>/<SubDomain>").
std::string im_DirPath(const sfl_ItemRef& ref);
// The container file's path; refuses an unsafe name tag.
std::string im_ContainerPath(const sfl_ItemRef& ref);
// A fresh FileId candidate (never 0, below 2^31).
uint32_t im_NextFileId();
// Takes a pooled file for a new reference of `domain`: on success fills
// `out` (FileId fresh, SubDomain = FileId % 256) and returns the open,
// emptied descriptor; returns -1 when no pool it looked at had a file.
int im_TakePooled(uint16_t domain, sfl_ItemRef* out);

#endif  // KQ_IM_INT_H
