// ml_ClusterView: the answers of one serving process extended over the
// other hosts of the store.
#include "ml_cluster.h"

#include <cstring>

#include "le.h"

bool ml_ClusterView::LocallyHeld(ml_InterestTable& table, const ml_RefKey& ref) {
  // Asked as no process (pid 0): every live holder and mark counts.
  return table.Check(ref, 0).Count > 0;
}

void ml_ClusterView::Fold(const ml_RefKey& ref, uint32_t* count, uint32_t* other) {
  const int others = cluster_->Others(ref);
  if (others < 0) {
    // Not known: never let anyone think they are alone.
    *other = 1;
    if (*count < 2) *count = 2;
  } else if (others > 0) {
    *count += static_cast<uint32_t>(others);
    *other = 1;
  }
}

size_t ml_ClusterView::Answer(ml_InterestTable& table, const uint8_t* msg, size_t len, int32_t* pid,
                              uint8_t reply[16]) {
  const size_t replyLen = ml_AnswerRequest(table, msg, len, pid, reply);
  if (replyLen == 0) return 0;
  ml_RefKey ref;
  std::memcpy(ref.data(), msg + 4, 16);
  const int32_t type = static_cast<int32_t>(le_GetU32(msg));
  if (type == ML_MSG_RECORD) {
    if (held_.count(ref) == 0) {
      if (!cluster_->Hold(ref)) {
        // Refused: the local entry goes again, so nothing says this host
        // holds what no other host can know it holds.
        const uint32_t token = le_GetU32(reply);
        if (token != 0) table.Withdraw(ref, token, *pid);
        std::memset(reply, 0, 16);
        le_PutU32(reply + 4, 1);
        le_PutU32(reply + 8, 2);
        le_PutU32(reply + 12, ML_R_NOT_AVAILABLE);
        return replyLen;
      }
      held_.insert(ref);
    }
    uint32_t other = le_GetU32(reply + 4), count = le_GetU32(reply + 8);
    Fold(ref, &count, &other);
    le_PutU32(reply + 4, other);
    le_PutU32(reply + 8, count);
    return replyLen;
  }
  if (type == ML_MSG_WITHDRAW && held_.count(ref) != 0 && !LocallyHeld(table, ref)) {
    held_.erase(ref);
    later_.push_back(ref);
  }
  uint32_t count = le_GetU32(reply), other = le_GetU32(reply + 4);
  Fold(ref, &count, &other);
  le_PutU32(reply, count);
  le_PutU32(reply + 4, other);
  return replyLen;
}

void ml_ClusterView::AfterReply() {
  for (const ml_RefKey& ref : later_) cluster_->Release(ref);
  later_.clear();
}

void ml_ClusterView::Adopt(const std::vector<ml_Saved>& saved) {
  for (const ml_Saved& s : saved) {
    if (s.Kind != ML_SAVED_ENTRY && s.Kind != ML_SAVED_MARK) continue;
    if (held_.insert(s.Ref).second) cluster_->Adopt(s.Ref);
  }
}

void ml_ClusterView::Sweep(ml_InterestTable& table) {
  for (auto it = held_.begin(); it != held_.end();) {
    if (LocallyHeld(table, *it)) {
      ++it;
    } else {
      cluster_->Release(*it);
      it = held_.erase(it);
    }
  }
}
