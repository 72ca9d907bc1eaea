// The SQLite alternative: one table with one row per part (W1, W3) or per
// block (W2), keyed by rowid; prepared statements for writes, the
// incremental blob API for reads. WAL journal in both modes; synchronous OFF
// for the non-flushing mode and FULL for the flushing one.
#include <sqlite3.h>
#include <string>

#include "bench.h"

namespace bench {
namespace {

class Db {
 public:
  Db(const std::string& path, Durability d, bool readOnly) {
    int flags = readOnly ? SQLITE_OPEN_READONLY : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
      Fail("sqlite open %s: %s", path.c_str(), sqlite3_errmsg(db_));
    }
    // Readers opening together may meet WAL recovery in progress: wait.
    sqlite3_busy_timeout(db_, 10000);
    if (!readOnly) Exec("PRAGMA journal_mode=WAL");
    Exec(d == Durability::Sync ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=OFF");
  }
  ~Db() {
    if (blob_ != nullptr) sqlite3_blob_close(blob_);
    for (sqlite3_stmt* s : stmts_) sqlite3_finalize(s);
    sqlite3_close(db_);
  }
  Db(const Db&) = delete;
  Db& operator=(const Db&) = delete;

  void Exec(const char* sql) {
    char* err = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &err) != SQLITE_OK) Fail("sqlite %s: %s", sql, err);
  }
  sqlite3_stmt* Prepare(const char* sql) {
    sqlite3_stmt* s = nullptr;
    if (sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr) != SQLITE_OK) {
      Fail("sqlite prepare %s: %s", sql, sqlite3_errmsg(db_));
    }
    stmts_.push_back(s);
    return s;
  }
  void Step(sqlite3_stmt* s) {
    int rc = sqlite3_step(s);
    if (rc != SQLITE_DONE) Fail("sqlite step: %s", sqlite3_errmsg(db_));
    sqlite3_reset(s);
  }
  // Reads a blob by rowid through one reusable blob handle.
  uint32_t ReadBlob(const char* table, int64_t rowid, uint8_t* buf, uint32_t size) {
    int rc = blob_ == nullptr ? sqlite3_blob_open(db_, "main", table, "data", rowid, 0, &blob_)
                              : sqlite3_blob_reopen(blob_, rowid);
    if (rc != SQLITE_OK) Fail("sqlite blob %lld: %s", static_cast<long long>(rowid), sqlite3_errmsg(db_));
    uint32_t n = static_cast<uint32_t>(sqlite3_blob_bytes(blob_));
    if (n > size) n = size;
    if (sqlite3_blob_read(blob_, buf, static_cast<int>(n), 0) != SQLITE_OK) Fail("sqlite blob read");
    return n;
  }
  // An open blob handle keeps a read transaction alive; writers end it first.
  void CloseBlob() {
    if (blob_ != nullptr) sqlite3_blob_close(blob_);
    blob_ = nullptr;
  }
  sqlite3* handle() { return db_; }

 private:
  sqlite3* db_ = nullptr;
  sqlite3_blob* blob_ = nullptr;
  std::vector<sqlite3_stmt*> stmts_;
};

int64_t PartRow(int msg, int part) { return static_cast<int64_t>(msg) * 8 + part; }

class SqliteStore : public MessageStore {
 public:
  SqliteStore(const std::string& dir, Durability d, bool create)
      : db_(dir + "/parts.db", d, !create) {
    if (create) {
      db_.Exec("CREATE TABLE IF NOT EXISTS parts(id INTEGER PRIMARY KEY, data BLOB)");
      insert_ = db_.Prepare("INSERT INTO parts(id, data) VALUES(?, ?)");
      delete_ = db_.Prepare("DELETE FROM parts WHERE id BETWEEN ? AND ?");
      deletePart_ = db_.Prepare("DELETE FROM parts WHERE id = ?");
      // Immediate: with several writing processes (W5) a deferred
      // transaction could not wait for the write lock.
      begin_ = db_.Prepare("BEGIN IMMEDIATE");
      commit_ = db_.Prepare("COMMIT");
    }
  }

  void Store(int msg, const uint8_t* const parts[kPartsPerMessage]) override {
    db_.CloseBlob();
    db_.Step(begin_);
    for (int p = 0; p < kPartsPerMessage; ++p) {
      sqlite3_bind_int64(insert_, 1, PartRow(msg, p));
      sqlite3_bind_blob(insert_, 2, parts[p], static_cast<int>(kPartSizes[p]), SQLITE_STATIC);
      db_.Step(insert_);
    }
    db_.Step(commit_);
  }

  void Read(int msg, uint8_t* const bufs[kPartsPerMessage]) override {
    for (int p = 0; p < kPartsPerMessage; ++p) db_.ReadBlob("parts", PartRow(msg, p), bufs[p], kPartSizes[p]);
  }

  uint32_t ReadPart(int msg, int part, uint8_t* buf) override {
    return db_.ReadBlob("parts", PartRow(msg, part), buf, kPartSizes[part]);
  }

  void Delete(int msg) override {
    db_.CloseBlob();
    db_.Step(begin_);
    sqlite3_bind_int64(delete_, 1, PartRow(msg, 0));
    sqlite3_bind_int64(delete_, 2, PartRow(msg, kPartsPerMessage - 1));
    db_.Step(delete_);
    db_.Step(commit_);
  }

  // One transaction per message; the freed pages stay in the file (no VACUUM).
  void DeleteParts(int msg, const std::vector<int>& parts) override {
    db_.CloseBlob();
    db_.Step(begin_);
    for (int p : parts) {
      sqlite3_bind_int64(deletePart_, 1, PartRow(msg, p));
      db_.Step(deletePart_);
    }
    db_.Step(commit_);
  }

 private:
  Db db_;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
  sqlite3_stmt* deletePart_ = nullptr;
  sqlite3_stmt* begin_ = nullptr;
  sqlite3_stmt* commit_ = nullptr;
};

// Every append and free is its own transaction, as each sfl call is.
class SqliteLog : public BlockLog {
 public:
  SqliteLog(const std::string& dir, Durability d) : db_(dir + "/log.db", d, false) {
    db_.Exec("CREATE TABLE IF NOT EXISTS log(id INTEGER PRIMARY KEY, data BLOB)");
    insert_ = db_.Prepare("INSERT INTO log(data) VALUES(?)");
    delete_ = db_.Prepare("DELETE FROM log WHERE id = ?");
  }

  int64_t Append(const uint8_t* data, uint32_t size) override {
    db_.CloseBlob();
    sqlite3_bind_blob(insert_, 1, data, static_cast<int>(size), SQLITE_STATIC);
    db_.Step(insert_);
    return sqlite3_last_insert_rowid(db_.handle());
  }
  uint32_t Read(int64_t id, uint8_t* buf, uint32_t size) override {
    return db_.ReadBlob("log", id, buf, size);
  }
  void Free(int64_t id) override {
    db_.CloseBlob();
    sqlite3_bind_int64(delete_, 1, id);
    db_.Step(delete_);
  }

 private:
  Db db_;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
};

// W6: one row per item; an append rewrites the row with the bytes added.
class SqlitePool : public ItemPool {
 public:
  SqlitePool(const std::string& dir, Durability d) : db_(dir + "/items.db", d, false) {
    db_.Exec("CREATE TABLE IF NOT EXISTS items(id INTEGER PRIMARY KEY, data BLOB)");
    insert_ = db_.Prepare("INSERT INTO items(id, data) VALUES(?, ?)");
    append_ = db_.Prepare("UPDATE items SET data = data || ? WHERE id = ?");
    delete_ = db_.Prepare("DELETE FROM items WHERE id = ?");
  }

  void Create(uint32_t id, const uint8_t* data, uint32_t size) override {
    db_.CloseBlob();
    sqlite3_bind_int64(insert_, 1, id);
    sqlite3_bind_blob(insert_, 2, data, static_cast<int>(size), SQLITE_STATIC);
    db_.Step(insert_);
  }
  void Read(uint32_t id, uint8_t* buf, uint32_t size) override {
    if (db_.ReadBlob("items", id, buf, size) != size) Fail("short read of item %u", id);
  }
  void Append(uint32_t id, uint32_t, const uint8_t* data, uint32_t n) override {
    db_.CloseBlob();
    sqlite3_bind_blob(append_, 1, data, static_cast<int>(n), SQLITE_STATIC);
    sqlite3_bind_int64(append_, 2, id);
    db_.Step(append_);
  }
  void Delete(uint32_t id) override {
    db_.CloseBlob();
    sqlite3_bind_int64(delete_, 1, id);
    db_.Step(delete_);
  }

 private:
  Db db_;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* append_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
};

}  // namespace

std::unique_ptr<ItemPool> NewSqlitePool(const std::string& dir, Durability d) {
  return std::make_unique<SqlitePool>(dir, d);
}

std::unique_ptr<MessageStore> NewSqliteStore(const std::string& dir, Durability d, bool create) {
  return std::make_unique<SqliteStore>(dir, d, create);
}

std::unique_ptr<BlockLog> NewSqliteLog(const std::string& dir, Durability d) {
  return std::make_unique<SqliteLog>(dir, d);
}

}  // namespace bench
