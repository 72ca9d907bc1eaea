// What a forked child does with the tables it inherited: it starts empty.
//
// The parent's records describe the parent's opens, locks and interests; a
// child that used them would release or change what the parent holds. The
// child therefore closes its copies of the containers' descriptors (the
// parent's byte-range locks belong to the shared open file descriptions and
// survive this, see os.h) and forgets every record without releasing
// anything the records refer to.
#include <mutex>
#include <pthread.h>

#include "os.h"
#include "sfl_int.h"

namespace {

void childAfterFork() {
  sfl_FilesTable& files = sfl_OpenFiles();
  for (size_t i = 0; i < files.Allocated(); ++i) {
    sfl_BaseRec* rec = files.At(i);
    if (rec->InUse == 1 && rec->FileDes >= 0) os_close(rec->FileDes);
  }
  files.ForgetAll();
  sfl_OpenItems().ForgetAll();
  // Stream records are forgotten, not closed: closing a FILE would flush
  // the parent's buffered bytes a second time.
  sfl_Streams().ForgetAll();
  sfl_ForgetRecordLocks();
  FilesInColdStore = 0;
}

struct Registrar {
  Registrar() { sfl_InstallForkHandler(); }
};
const Registrar g_registrar;

}  // namespace

void sfl_InstallForkHandler() {
  static std::once_flag once;
  std::call_once(once, [] { pthread_atfork(nullptr, nullptr, childAfterFork); });
}
