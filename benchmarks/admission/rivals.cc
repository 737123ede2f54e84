#include "benchmarks/admission/rivals.h"

#include <fcntl.h>
#include <leveldb/db.h>
#include <leveldb/write_batch.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <utility>

#include "quenor_base/platform/base/file_path.h"
#include "quenor_base/platform/reliable_report_cache_file.h"

namespace quenor::bench {
namespace {

void Require(bool done, const char* what) {
  if (done) return;
  std::fprintf(stderr, "bench: %s failed\n", what);
  std::exit(1);
}

class LevelDb : public Rival {
 public:
  LevelDb(const std::string& folder, size_t count) : count_(count) {
    leveldb::Options options;
    options.create_if_missing = true;
    leveldb::DB* db = nullptr;
    Require(leveldb::DB::Open(options, folder + "/level", &db).ok(), "opening LevelDB");
    db_.reset(db);
  }

  void Replace(const Bytes& message) override {
    leveldb::WriteBatch batch;
    char key[8];
    batch.Put(Key(next_, key),
              leveldb::Slice(reinterpret_cast<const char*>(message.data()), message.size()));
    if (next_ >= count_) batch.Delete(Key(next_ - count_, key));
    ++next_;
    Require(db_->Write(leveldb::WriteOptions(), &batch).ok(), "a write of LevelDB");
  }

 private:
  // Big-endian: the order of the numbers.
  static leveldb::Slice Key(uint64_t number, char* key) {
    const uint64_t swapped = __builtin_bswap64(number);
    std::memcpy(key, &swapped, sizeof swapped);
    return leveldb::Slice(key, sizeof swapped);
  }

  const uint64_t count_;
  std::unique_ptr<leveldb::DB> db_;
  uint64_t next_ = 0;
};

class Sqlite : public Rival {
 public:
  Sqlite(const std::string& folder, size_t count, const char* synchronous)
      : count_(static_cast<int64_t>(count)) {
    Require(sqlite3_open((folder + "/messages.db").c_str(), &db_) == SQLITE_OK, "opening SQLite");
    Execute("PRAGMA journal_mode=WAL");
    Execute("PRAGMA synchronous=" + std::string(synchronous));
    Execute("CREATE TABLE messages(id INTEGER PRIMARY KEY, body BLOB)");
    begin_ = Prepare("BEGIN");
    insert_ = Prepare("INSERT INTO messages VALUES(?, ?)");
    delete_ = Prepare("DELETE FROM messages WHERE id = ?");
    commit_ = Prepare("COMMIT");
  }
  ~Sqlite() override {
    for (sqlite3_stmt* statement : {begin_, insert_, delete_, commit_}) sqlite3_finalize(statement);
    sqlite3_close(db_);
  }

  void Replace(const Bytes& message) override {
    Run(begin_);
    sqlite3_bind_int64(insert_, 1, next_);
    sqlite3_bind_blob(insert_, 2, message.data(), static_cast<int>(message.size()), SQLITE_STATIC);
    Run(insert_);
    if (next_ >= count_) {
      sqlite3_bind_int64(delete_, 1, next_ - count_);
      Run(delete_);
    }
    Run(commit_);
    ++next_;
  }

 private:
  void Execute(const std::string& sql) {
    Require(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, sql.c_str());
  }
  sqlite3_stmt* Prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    Require(sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) ==
                SQLITE_OK,
            sql);
    return statement;
  }
  static void Run(sqlite3_stmt* statement) {
    Require(sqlite3_step(statement) == SQLITE_DONE, "a statement of SQLite");
    sqlite3_reset(statement);
  }

  const int64_t count_;
  sqlite3* db_ = nullptr;
  sqlite3_stmt* begin_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* delete_ = nullptr;
  sqlite3_stmt* commit_ = nullptr;
  int64_t next_ = 0;
};

void WriteFile(const std::string& path, const void* bytes, size_t size) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  Require(fd >= 0 && write(fd, bytes, size) == static_cast<ssize_t>(size) && close(fd) == 0,
          path.c_str());
}

class Files : public Rival {
 public:
  Files(const std::string& folder, size_t count) : folder_(folder), count_(count) {}

  void Replace(const Bytes& message) override {
    const std::string written = folder_ + "/new";
    WriteFile(written, message.data(), message.size());
    Require(rename(written.c_str(), Name(next_).c_str()) == 0, "a rename");
    if (next_ >= count_) Require(unlink(Name(next_ - count_).c_str()) == 0, "an unlink");
    ++next_;
  }

 private:
  std::string Name(size_t number) const { return folder_ + "/" + std::to_string(number); }

  const std::string folder_;
  const size_t count_;
  size_t next_ = 0;
};

class WholeFile : public Rival {
 public:
  WholeFile(const std::string& folder, size_t count) : path_(folder + "/messages"), count_(count) {}

  void Replace(const Bytes& message) override {
    messages_.push_back(message);
    if (messages_.size() > count_) messages_.pop_front();
    content_.clear();
    for (const Bytes& kept : messages_) {
      const uint32_t size = static_cast<uint32_t>(kept.size());
      const uint8_t* const head = reinterpret_cast<const uint8_t*>(&size);
      content_.insert(content_.end(), head, head + sizeof size);
      content_.insert(content_.end(), kept.begin(), kept.end());
    }
    WriteFile(path_ + ".new", content_.data(), content_.size());
    Require(rename((path_ + ".new").c_str(), path_.c_str()) == 0, "a rename");
  }

 private:
  const std::string path_;
  const size_t count_;
  std::deque<Bytes> messages_;
  Bytes content_;
};

class PlainCacheFile : public Rival {
 public:
  PlainCacheFile(const std::string& folder, size_t count) : count_(count) {
    Require(file_.Open(base::FilePath(folder + "/messages.cache")), "opening the plain cache file");
  }

  void Replace(const Bytes& message) override {
    messages_.push_back(message);
    if (messages_.size() > count_) messages_.pop_front();
    bool saved = file_.Clear();
    for (const Bytes& kept : messages_) {
      saved = file_.AppendDataPacket({kept.data(), static_cast<uint32_t>(kept.size())}) && saved;
    }
    Require(saved && file_.IsSaveComplete(), "a save in the plain cache file");
  }

 private:
  const size_t count_;
  std::deque<Bytes> messages_;
  ReliableReportCacheFile file_;
};

}  // namespace

std::unique_ptr<Rival> MakeLevelDb(const std::string& folder, size_t count) {
  return std::make_unique<LevelDb>(folder, count);
}
std::unique_ptr<Rival> MakeSqlite(const std::string& folder, size_t count,
                                  const char* synchronous) {
  return std::make_unique<Sqlite>(folder, count, synchronous);
}
std::unique_ptr<Rival> MakeFiles(const std::string& folder, size_t count) {
  return std::make_unique<Files>(folder, count);
}
std::unique_ptr<Rival> MakeWholeFile(const std::string& folder, size_t count) {
  return std::make_unique<WholeFile>(folder, count);
}
std::unique_ptr<Rival> MakePlainCacheFile(const std::string& folder, size_t count) {
  return std::make_unique<PlainCacheFile>(folder, count);
}

}  // namespace quenor::bench
