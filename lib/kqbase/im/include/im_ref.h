/* im_ref.h: the item reference, the caller's 16-byte identity of a file or
 * an item, and the exported conversions between references, their text
 * form and file names. Usable from C and C++; part of the installed
 * interface (sfl.h includes it).
 */
#ifndef KQ_IM_REF_H
#define KQ_IM_REF_H

#include <stddef.h>
#include <stdint.h>

#define IM_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* The low three bits of Flags hold the item number inside the file (1 to
   7), 0 for the file itself. */
typedef struct sfl_ItemRef {
  uint16_t Domain;
  uint16_t Flags;
  uint32_t SubDomain;
  uint32_t FileId;
  char Name[4]; /* zero-terminated, compared as a string */
} sfl_ItemRef;

enum { SFL_ITEM_NUM_MASK = 0x07 };

/* Item-reference types (Domain) of new files, as given to sfl_CreateSfl. */
enum { SFL_TYPE_DATA_ITEM = 2, SFL_TYPE_TEMP_ITEM = 4 };

/* The text form of a reference is "Domain.SubDomain.FileId.Name[:item]"
   (see README); these convert between it, references and file names. */
IM_API int32_t im_FormItemRef(const char* text, sfl_ItemRef* out);
IM_API int32_t im_ItemRef2Text(const sfl_ItemRef* ref, char* out, size_t outLen);
IM_API int32_t im_ItemRef2FName(const sfl_ItemRef* ref, char* out, size_t outLen);
IM_API int32_t im_FName2ItemRef(const char* name, sfl_ItemRef* out);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KQ_IM_REF_H */
