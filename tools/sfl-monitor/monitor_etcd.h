// monitor_etcd: the service's view of the other hosts of a store, kept in
// etcd (v3, through its JSON gateway over libcurl).
//
// Key `<name>/files/<reference in hex>/<host>` exists while a process on
// `host` holds the reference; every key of one serving process lives under
// one lease that the process keeps alive. When etcd cannot be reached (no
// member answers, or none with a quorum) the process counts as lost: Others
// answers -1 at once, Hold waits the bounded time for etcd to come back, and
// a thread of its own (so that no answer waits on etcd's timeouts) tries to
// come back with a fresh lease under which it puts every key the process
// should hold before anything is answered from etcd again.
#ifndef SFL_MONITOR_ETCD_H
#define SFL_MONITOR_ETCD_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ml_cluster.h"

struct ClusterConfig {
  std::vector<std::string> Urls;  // empty: this host alone
  std::string Name = "sfl";
  std::string Host;
  int LeaseSeconds = 10;
  int RecordWaitMs = 3000;  // how long a record waits for etcd before it is refused
  std::string StoreRoot = "./sfl-store";  // whose file system must suit a shared store
  bool TrustFs = false;  // the operator vouches for a file system that cannot be examined
};

// Reads SFL_CLUSTER_ETCD, SFL_CLUSTER_NAME, SFL_CLUSTER_HOST,
// SFL_CLUSTER_LEASE_SECONDS, SFL_CLUSTER_TRUST_FS and SFL_STORE_ROOT; false
// (with `why`) when one is unusable.
bool ReadClusterConfig(ClusterConfig* out, std::string* why);

class EtcdCluster : public ml_Cluster {
 public:
  explicit EtcdCluster(ClusterConfig config);
  ~EtcdCluster() override;

  void Begin(int pair) override;
  bool Hold(const ml_RefKey& ref) override;
  void Adopt(const ml_RefKey& ref) override;
  void Release(const ml_RefKey& ref) override;
  int Others(const ml_RefKey& ref) override;
  void Tick() override;

 // Whether etcd answers this process now (cheap: no call is made).
  bool Reachable() const override { return !lost_.load(); }

 private:
  struct Client {
    void* curl = nullptr;
    size_t url = 0;  // the member tried first
  };
  std::optional<std::string> Post(Client* via, const std::string& path, const std::string& body);
  bool Grant(Client* via, std::string* lease);
  bool Put(Client* via, const ml_RefKey& ref, const std::string& lease);
  bool Delete(Client* via, const ml_RefKey& ref);
  bool Recover(Client* via);
  void RecoverLoop();
  void Lose(const char* what);
  std::string KeyOf(const ml_RefKey& ref) const;
  std::string PrefixOf(const ml_RefKey& ref) const;

  ClusterConfig config_;
  int pair_ = 0;
  Client serving_, recovering_;  // one connection each: the answers' and the recovery's
  int64_t nextKeepMs_ = 0;

  // Shared with the recovery thread.
  std::mutex mu_;
  std::condition_variable changed_;
  std::string lease_;             // empty: none granted
  std::atomic<bool> lost_{true};
  bool stop_ = false;
  std::set<ml_RefKey> keys_;      // what this process should have in etcd
  std::thread recovery_;
};

#endif  // SFL_MONITOR_ETCD_H
