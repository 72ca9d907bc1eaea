// monitor_etcd: the etcd client of the service (see monitor_etcd.h).
#include "monitor_etcd.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>
#include <unistd.h>

#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include "cust.h"

namespace {

using nlohmann::json;

constexpr long kConnectMs = 500;   // a member that does not take the connection by then is down
constexpr long kRequestMs = 1500;  // one without a quorum does not answer by then
constexpr int kRecoverEveryMs = 1000;  // between tries to come back, while lost

int64_t nowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void logLine(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void logLine(const char* fmt, ...) {
  char text[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(text, sizeof text, fmt, ap);
  va_end(ap);
  char stamp[32];
  std::time_t t = std::time(nullptr);
  std::tm tmv;
  gmtime_r(&t, &tmv);
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &tmv);
  std::fprintf(stderr, "%s sfl-monitor[%d] %s\n", stamp, static_cast<int>(getpid()), text);
  std::fflush(stderr);
}

std::string base64(const std::string& in) {
  static const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  size_t i = 0;
  for (; i + 2 < in.size(); i += 3) {
    const uint32_t v = (uint8_t(in[i]) << 16) | (uint8_t(in[i + 1]) << 8) | uint8_t(in[i + 2]);
    for (int s = 18; s >= 0; s -= 6) out += digits[(v >> s) & 63];
  }
  if (i + 1 == in.size()) {
    const uint32_t v = uint8_t(in[i]) << 16;
    out += digits[(v >> 18) & 63];
    out += digits[(v >> 12) & 63];
    out += "==";
  } else if (i + 2 == in.size()) {
    const uint32_t v = (uint8_t(in[i]) << 16) | (uint8_t(in[i + 1]) << 8);
    out += digits[(v >> 18) & 63];
    out += digits[(v >> 12) & 63];
    out += digits[(v >> 6) & 63];
    out += '=';
  }
  return out;
}

size_t collect(char* data, size_t size, size_t n, void* to) {
  static_cast<std::string*>(to)->append(data, size * n);
  return size * n;
}

std::vector<std::string> splitUrls(const std::string& text) {
  std::vector<std::string> urls;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    std::string u = text.substr(start, comma - start);
    while (!u.empty() && u.back() == '/') u.pop_back();
    if (!u.empty()) urls.push_back(u);
    start = comma + 1;
  }
  return urls;
}

}  // namespace

bool ReadClusterConfig(ClusterConfig* out, std::string* why) {
  ClusterConfig c;
  const char* urls = cust_GetCustomiseInfo("SFL_CLUSTER_ETCD");
  if (urls == nullptr || *urls == '\0') {
    *out = c;
    return true;
  }
  c.Urls = splitUrls(urls);
  if (c.Urls.empty()) {
    *why = "SFL_CLUSTER_ETCD names no URL";
    return false;
  }
  if (const char* v = cust_GetCustomiseInfo("SFL_CLUSTER_NAME"); v != nullptr && *v != '\0') c.Name = v;
  if (const char* v = cust_GetCustomiseInfo("SFL_CLUSTER_HOST"); v != nullptr && *v != '\0') {
    c.Host = v;
  } else {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
      *why = "no SFL_CLUSTER_HOST and no host name";
      return false;
    }
    c.Host = name;
  }
  if (c.Host.find('/') != std::string::npos || c.Name.empty()) {
    *why = "SFL_CLUSTER_HOST may not hold '/', SFL_CLUSTER_NAME may not be empty";
    return false;
  }
  if (const char* v = cust_GetCustomiseInfo("SFL_CLUSTER_LEASE_SECONDS"); v != nullptr && *v != '\0') {
    char* end = nullptr;
    const long n = std::strtol(v, &end, 10);
    if (*end != '\0' || n < 2 || n > 3600) {
      *why = "SFL_CLUSTER_LEASE_SECONDS must be 2 to 3600";
      return false;
    }
    c.LeaseSeconds = static_cast<int>(n);
  }
  // A record waits at most a third of the lease: the keep-alive of the
  // same process must not be held up long enough to lose the lease.
  c.RecordWaitMs = c.LeaseSeconds * 1000 / 3;
  if (c.RecordWaitMs > 3000) c.RecordWaitMs = 3000;
  if (const char* v = cust_GetCustomiseInfo("SFL_CLUSTER_TRUST_FS"); v != nullptr && *v != '\0') {
    if (std::strcmp(v, "0") != 0 && std::strcmp(v, "1") != 0) {
      *why = "SFL_CLUSTER_TRUST_FS must be 0 or 1";
      return false;
    }
    c.TrustFs = *v == '1';
  }
  if (const char* v = cust_GetCustomiseInfo("SFL_STORE_ROOT"); v != nullptr && *v != '\0') c.StoreRoot = v;
  *out = c;
  return true;
}

EtcdCluster::EtcdCluster(ClusterConfig config) : config_(std::move(config)) {}

EtcdCluster::~EtcdCluster() {
  {
    std::lock_guard<std::mutex> g(mu_);
    stop_ = true;
  }
  changed_.notify_all();
  if (recovery_.joinable()) recovery_.join();
  for (Client* c : {&serving_, &recovering_})
    if (c->curl != nullptr) curl_easy_cleanup(static_cast<CURL*>(c->curl));
}

std::string EtcdCluster::KeyOf(const ml_RefKey& ref) const { return PrefixOf(ref) + config_.Host; }

std::string EtcdCluster::PrefixOf(const ml_RefKey& ref) const {
  static const char* hex = "0123456789abcdef";
  std::string key = config_.Name + "/files/";
  for (uint8_t b : ref) {
    key += hex[b >> 4];
    key += hex[b & 15];
  }
  return key + "/";
}

// Posts to the member that answered last, then to each other one; the
// answer of the first that gives one (HTTP 200), or nothing.
std::optional<std::string> EtcdCluster::Post(Client* via, const std::string& path, const std::string& body) {
  CURL* c = static_cast<CURL*>(via->curl);
  if (c == nullptr) return std::nullopt;
  for (size_t n = 0; n < config_.Urls.size(); ++n) {
    const size_t u = (via->url + n) % config_.Urls.size();
    const std::string url = config_.Urls[u] + path;
    std::string answer;
    curl_easy_reset(c);
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, kConnectMs);
    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, kRequestMs);
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, collect);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &answer);
    long status = 0;
    if (curl_easy_perform(c) == CURLE_OK && curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK &&
        status == 200) {
      via->url = u;
      return answer;
    }
  }
  return std::nullopt;
}

bool EtcdCluster::Grant(Client* via, std::string* lease) {
  auto answer = Post(via, "/v3/lease/grant", json{{"TTL", config_.LeaseSeconds}}.dump());
  if (!answer) return false;
  json j = json::parse(*answer, nullptr, false);
  if (j.is_discarded() || !j.contains("ID") || !j["ID"].is_string()) return false;
  *lease = j["ID"].get<std::string>();
  return true;
}

bool EtcdCluster::Put(Client* via, const ml_RefKey& ref, const std::string& lease) {
  const json body = {{"key", base64(KeyOf(ref))}, {"value", ""}, {"lease", lease}};
  return Post(via, "/v3/kv/put", body.dump()).has_value();
}

bool EtcdCluster::Delete(Client* via, const ml_RefKey& ref) {
  return Post(via, "/v3/kv/deleterange", json{{"key", base64(KeyOf(ref))}}.dump()).has_value();
}

// In the serving thread: from now on nothing is answered from etcd until the
// recovery thread has come back.
void EtcdCluster::Lose(const char* what) {
  std::lock_guard<std::mutex> g(mu_);
  if (!lost_)
    logLine("pair %d: etcd lost (%s): every file counts as held elsewhere, records wait then fail",
            pair_, what);
  lost_ = true;
  changed_.notify_all();
}

// A fresh lease, every key this process should hold put under it (and any
// put meanwhile that it no longer holds deleted again), and only then, in
// one step with the keys unchanged, the lease made current and the old one
// revoked (taking whatever it still held that we no longer hold).
bool EtcdCluster::Recover(Client* via) {
  std::string fresh;
  if (!Grant(via, &fresh)) return false;
  std::set<ml_RefKey> put;
  std::string old;
  for (;;) {
    std::set<ml_RefKey> want;
    {
      std::lock_guard<std::mutex> g(mu_);
      if (stop_) return false;
      if (want = keys_; want == put) {
        old = lease_;
        lease_ = fresh;
        lost_ = false;
        break;
      }
    }
    for (const ml_RefKey& ref : want)
      if (put.count(ref) == 0) {
        if (!Put(via, ref, fresh)) return false;
        put.insert(ref);
      }
    for (auto it = put.begin(); it != put.end();) {
      if (want.count(*it) != 0) {
        ++it;
        continue;
      }
      if (!Delete(via, *it)) return false;
      it = put.erase(it);
    }
  }
  if (!old.empty()) Post(via, "/v3/lease/revoke", json{{"ID", old}}.dump());
  logLine("pair %d: etcd reachable: host %s, lease %s, %zu reference(s) registered", pair_,
          config_.Host.c_str(), fresh.c_str(), put.size());
  return true;
}

// The recovery thread: while lost, tries to come back every so often;
// sleeps while etcd answers.
void EtcdCluster::RecoverLoop() {
  std::unique_lock<std::mutex> g(mu_);
  while (!stop_) {
    if (!lost_) {
      changed_.wait(g);
      continue;
    }
    g.unlock();
    const bool back = Recover(&recovering_);
    g.lock();
    if (back) {
      changed_.notify_all();
    } else if (!stop_) {
      changed_.wait_for(g, std::chrono::milliseconds(kRecoverEveryMs));
    }
  }
}

void EtcdCluster::Begin(int pair) {
  pair_ = pair;
  serving_.curl = curl_easy_init();
  recovering_.curl = curl_easy_init();
  lost_ = true;
  lease_.clear();
  // The first registration is made before the first answer: a service that
  // finds etcd at once answers from it at once.
  if (Recover(&serving_))
    nextKeepMs_ = nowMs() + config_.LeaseSeconds * 1000 / 3;
  else
    logLine("pair %d: etcd not reachable at start; records wait then fail until it is", pair_);
  recovery_ = std::thread([this] { RecoverLoop(); });
}

bool EtcdCluster::Hold(const ml_RefKey& ref) {
  std::string lease;
  {
    std::lock_guard<std::mutex> g(mu_);
    keys_.insert(ref);
    lease = lease_;
  }
  if (!lost_) {
    if (Put(&serving_, ref, lease)) return true;
    Lose("put failed");
  }
  // The recovery thread puts every key of keys_, this one among them,
  // before it says etcd is back.
  std::unique_lock<std::mutex> g(mu_);
  const bool back = changed_.wait_for(g, std::chrono::milliseconds(config_.RecordWaitMs), [&] { return !lost_; });
  if (back) {
    nextKeepMs_ = nowMs() + config_.LeaseSeconds * 1000 / 3;
    return true;
  }
  keys_.erase(ref);
  logLine("pair %d: record refused (reason 380): etcd not reachable within %d ms", pair_,
          config_.RecordWaitMs);
  return false;
}

void EtcdCluster::Adopt(const ml_RefKey& ref) {
  std::string lease;
  {
    std::lock_guard<std::mutex> g(mu_);
    keys_.insert(ref);
    lease = lease_;
  }
  if (!lost_ && !Put(&serving_, ref, lease)) Lose("put failed");
}

void EtcdCluster::Release(const ml_RefKey& ref) {
  {
    std::lock_guard<std::mutex> g(mu_);
    keys_.erase(ref);
  }
  if (lost_) return;  // the recovery deletes it, or the old lease, revoked, takes it
  if (!Delete(&serving_, ref)) Lose("delete failed");
}

int EtcdCluster::Others(const ml_RefKey& ref) {
  if (lost_) return -1;
  const std::string prefix = PrefixOf(ref);
  std::string end = prefix;
  end.back() = static_cast<char>(end.back() + 1);
  // Linearizable (the default): whatever any host put before this read began
  // is seen.
  const json body = {{"key", base64(prefix)}, {"range_end", base64(end)}, {"keys_only", true}};
  auto answer = Post(&serving_, "/v3/kv/range", body.dump());
  json j = answer ? json::parse(*answer, nullptr, false) : json();
  if (!answer || j.is_discarded() || !j.is_object() || !j.contains("header")) {
    Lose("read failed");
    return -1;
  }
  const std::string own = base64(KeyOf(ref));
  int others = 0;
  if (j.contains("kvs") && j["kvs"].is_array())
    for (const json& kv : j["kvs"])
      if (kv.contains("key") && kv["key"].is_string() && kv["key"].get<std::string>() != own) ++others;
  return others;
}

void EtcdCluster::Tick() {
  if (lost_) return;  // the recovery thread is at work
  const int64_t now = nowMs();
  if (now < nextKeepMs_) return;
  nextKeepMs_ = now + config_.LeaseSeconds * 1000 / 3;
  std::string lease;
  {
    std::lock_guard<std::mutex> g(mu_);
    lease = lease_;
  }
  auto answer = Post(&serving_, "/v3/lease/keepalive", json{{"ID", lease}}.dump());
  if (!answer) {
    Lose("keep-alive failed");
    return;
  }
  json j = json::parse(*answer, nullptr, false);
  const bool alive = !j.is_discarded() && j.contains("result") && j["result"].contains("TTL");
  if (!alive) Lose("lease expired");
}
