/* sfl_c.h: the library from C without escapes.
 *
 * Every function of sfl.h (and the conversions of im_ref.h, and er_RaiseC)
 * has a form here, sflc_<Name>, that runs it and returns 0 when it
 * completed, or the reason of the escape it raised. A result is passed
 * through a last out-parameter `result` (which may be null); the other
 * parameters are the function's own. So
 *
 *     int32_t sfl_OpenSfl(const sfl_ItemRef* ref, uint32_t implicitOpen);
 *
 * has the form
 *
 *     int sflc_OpenSfl(const sfl_ItemRef* ref, uint32_t implicitOpen, int32_t* result);
 *
 * The forms are listed in sfl_c_api.h, the one table they are made from.
 *
 * When a form fails, the escape is also kept in a per-thread last-error
 * record (group, reason, text, file and line), which stays until the next
 * failure on that thread or sflc_ClearError; a success leaves it alone, as
 * errno does. An out-parameter is left as it was when the call fails. A
 * failure that is not an escape (memory exhausted inside the library) is
 * reported as group 2 (an operating-system failure) with reason ENOMEM,
 * or reason EFAULT for anything else.
 */
#ifndef SFL_C_H
#define SFL_C_H

#include "sfl.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct sflc_Error {
  int group;        /* error group (ER_GROUP_*); 0 while no failure was seen */
  int reason;       /* reason code, as the form returned */
  const char* text; /* "escape G/R (what it means)[: detail] at file:line" */
  const char* file; /* source file that raised it */
  int line;
} sflc_Error;

/* This thread's last failure; never null. Its strings stay valid until the
   next failure on this thread. */
SFL_API const sflc_Error* sflc_LastError(void);
SFL_API void sflc_ClearError(void);

#define SFLC_PARAMS(...) __VA_ARGS__
#define SFLC_RET(prefix, name, type, params, args) \
  SFL_API int sflc_##name(SFLC_PARAMS params, type* result);
#define SFLC_RET0(prefix, name, type) SFL_API int sflc_##name(type* result);
#define SFLC_VOID(prefix, name, params, args) SFL_API int sflc_##name params;
#define SFLC_VOID0(prefix, name) SFL_API int sflc_##name(void);
#include "sfl_c_api.h"

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SFL_C_H */
