// ml_Cluster: what the interest service asks of the other hosts that share
// its store, and ml_ClusterView, which folds their answer into the answers a
// serving process gives from its own table.
//
// A host is a holder of a reference while any of its processes holds it:
// only the first local record makes the host a holder and only the last
// local withdraw (or the sweep of the last holder that died) ends that. An
// answer to a record, withdraw or check adds the other hosts holding the
// reference to the count and sets the other-interest flag when there are
// any. When the other hosts cannot be asked, every answer says another
// process holds the reference, and a record that cannot make this host a
// holder in the bounded time is refused: its local entry goes again and the
// reply carries ML_R_NOT_AVAILABLE in its last word, which the client raises.
//
// The transport (which coordination service, how it is reached) is the
// implementer's of ml_Cluster; the library itself has none.
#ifndef KQ_ML_CLUSTER_H
#define KQ_ML_CLUSTER_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

#include "ml.h"
#include "ml_interest.h"

class ml_Cluster {
 public:
  virtual ~ml_Cluster() = default;
  // In each serving process, before it serves (after the fork).
  virtual void Begin(int pair) = 0;
  // Makes this host a holder of `ref`; false when that could not be done in
  // the bounded time (then this host is not a holder of it).
  virtual bool Hold(const ml_RefKey& ref) = 0;
  // This host is a holder of `ref` as taken over from an earlier service;
  // registered now or once the others can be reached again.
  virtual void Adopt(const ml_RefKey& ref) = 0;
  // This host no longer holds `ref`.
  virtual void Release(const ml_RefKey& ref) = 0;
  // How many other hosts hold `ref`, or -1 when that cannot be known now.
  virtual int Others(const ml_RefKey& ref) = 0;
  // Periodic work: keeping this host's entries alive, registering them again
  // after a loss.
  virtual void Tick() = 0;
  // Whether the other hosts can be asked now, answered from what is known
  // (no call is made): false from a loss until this host's entries are
  // registered again.
  virtual bool Reachable() const { return true; }
};

class ml_ClusterView {
 public:
  explicit ml_ClusterView(ml_Cluster* cluster) : cluster_(cluster) {}

  // As ml_AnswerRequest, with the other hosts folded in.
  size_t Answer(ml_InterestTable& table, const uint8_t* msg, size_t len, int32_t* pid,
                uint8_t reply[16]);
  // After the reply has gone: what only lowers the other hosts' view (a
  // release) need not delay the requester.
  void AfterReply();
  // References restored from an earlier service's keep.
  void Adopt(const std::vector<ml_Saved>& saved);
  // After a sweep of dead processes: releases what no local process holds
  // any more.
  void Sweep(ml_InterestTable& table);
  // Periodic: the cluster's own work.
  void Tick() { cluster_->Tick(); }
  // As ml_Cluster::Reachable.
  bool Reachable() const { return cluster_->Reachable(); }

  size_t Held() const { return held_.size(); }

 private:
  bool LocallyHeld(ml_InterestTable& table, const ml_RefKey& ref);
  void Fold(const ml_RefKey& ref, uint32_t* count, uint32_t* other);

  ml_Cluster* cluster_;
  std::set<ml_RefKey> held_;      // references this host is a holder of
  std::vector<ml_RefKey> later_;  // to release after the reply
};

// The service with its answers extended over the hosts of `cluster` (null:
// this host alone, as ml_RunService).
int ml_RunClusterService(const ml_ServiceOptions& opts, ml_Cluster* cluster);

#endif  // KQ_ML_CLUSTER_H
