// sfl_c: the C status forms of the API (sfl_c.h), made from the table in
// sfl_c_api.h. Each form runs its function inside one catch frame, which
// turns an escape into a returned reason and this thread's last-error
// record; nothing unwinds into the C caller.
#include "sfl_c.h"

#include <cerrno>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>

namespace {

struct LastError {
  sflc_Error rec{0, 0, "", "", 0};
  std::string text;
  std::string file;
};

thread_local LastError t_last;

int keep(int group, int reason, const char* text, const char* file, int line) {
  t_last.text = text;
  t_last.file = file != nullptr ? file : "";
  t_last.rec = {group, reason, t_last.text.c_str(), t_last.file.c_str(), line};
  return reason;
}

// Runs `fn`; 0 when it completed, else the reason of what it raised. The
// process-wide error status is cleared as well: the escape ends here.
template <typename Fn>
int guarded(Fn&& fn) noexcept {
  try {
    fn();
    return 0;
  } catch (const er_Escape& e) {
    er_Clear();
    return keep(e.group(), e.reason(), e.what(), e.file(), e.line());
  } catch (const std::bad_alloc&) {
    er_Clear();
    return keep(ER_GROUP_OS, ENOMEM, "out of memory", __FILE__, __LINE__);
  } catch (...) {
    er_Clear();
    return keep(ER_GROUP_OS, EFAULT, "unexpected failure inside the library", __FILE__, __LINE__);
  }
}

// Hands a result to the caller when it asked for it (`out` may be null).
void Put(void* out, const void* value, size_t size) {
  if (out != nullptr) std::memcpy(out, value, size);
}

}  // namespace

extern "C" {

const sflc_Error* sflc_LastError(void) { return &t_last.rec; }

void sflc_ClearError(void) { t_last = LastError{}; }

// Each row's signature must be exactly its function's, so that the header
// cannot drift from sfl.h, im_ref.h or er.h.
#define SFLC_RET(prefix, name, type, params, args)                                  \
  static_assert(std::is_same_v<decltype(&prefix##name), type(*) params>, #name);    \
  int sflc_##name(SFLC_PARAMS params, type* result) {                               \
    return guarded([&] {                                                            \
      const type r = prefix##name args;                                             \
      Put(result, &r, sizeof r);                                                    \
    });                                                                             \
  }
#define SFLC_RET0(prefix, name, type)                                               \
  static_assert(std::is_same_v<decltype(&prefix##name), type (*)(void)>, #name);    \
  int sflc_##name(type* result) {                                                   \
    return guarded([&] {                                                            \
      const type r = prefix##name();                                                \
      Put(result, &r, sizeof r);                                                    \
    });                                                                             \
  }
#define SFLC_VOID(prefix, name, params, args)                                       \
  static_assert(std::is_same_v<decltype(&prefix##name), void(*) params>, #name);    \
  int sflc_##name params {                                                          \
    return guarded([&] { prefix##name args; });                                     \
  }
#define SFLC_VOID0(prefix, name)                                                    \
  static_assert(std::is_same_v<decltype(&prefix##name), void (*)(void)>, #name);    \
  int sflc_##name(void) {                                                           \
    return guarded([&] { prefix##name(); });                                        \
  }
#include "sfl_c_api.h"

}  // extern "C"
