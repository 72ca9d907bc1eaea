// sfl_cluster_bench: what counting interest across hosts costs one host.
// Against the interest service of SFL_RUN_DIR (started on demand, in the
// mode SFL_CLUSTER_ETCD gives it), it times for a while each:
//   check    check exchanges for a file this process holds (the service
//            answers from its table and, in cluster mode, a read of etcd)
//   record   a withdraw and a record of that file's interest, in turn: the
//            last local withdraw and first local record, which in cluster
//            mode delete and put this host's key in etcd
// and prints exchanges per second and the mean time of one exchange.
//
//   sfl_cluster_bench [SECONDS]      (default 3 per kind)
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "sfl.h"

namespace {

void Measure(const char* kind, int exchangesEach, double seconds, const std::function<void()>& once) {
  using clock = std::chrono::steady_clock;
  const auto start = clock::now();
  long n = 0;
  double elapsed = 0;
  do {
    for (int i = 0; i < 100; ++i) once();
    n += 100L * exchangesEach;
    elapsed = std::chrono::duration<double>(clock::now() - start).count();
  } while (elapsed < seconds);
  std::printf("%-7s %10.0f exchanges/s %10.1f us per exchange (%ld exchanges)\n", kind, n / elapsed,
              elapsed * 1e6 / static_cast<double>(n), n);
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 3.0;
  const char* etcd = std::getenv("SFL_CLUSTER_ETCD");
  std::printf("mode: %s\n", etcd != nullptr && *etcd != '\0' ? "cluster (etcd)" : "single host");
  const int32_t bh = sfl_CreateSfl(0, SFL_TYPE_DATA_ITEM, 0);
  sfl_ItemRef keep{};
  sfl_CloseItem(sfl_StoreBasicItem(bh, nullptr, 100, &keep, 0));
  sfl_BaseRec* rec = sfl_Handle2Record(bh);
  Measure("check", 1, seconds, [&] { sfl_CheckBaseInterest(rec); });
  Measure("record", 2, seconds, [&] {
    sfl_ReleaseBaseInterest(rec);
    sfl_RecordBaseInterest(rec);
  });
  sfl_CloseFile(bh);
  return 0;
}
