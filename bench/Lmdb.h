#pragma once

// LMDB as the tables' benchmark compares with it. Owns its environment; used on one thread.

#include <lmdb.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace Bench {

// LMDB with the options that make it fastest: nothing is flushed, pages are written in place.
class Lmdb {
 public:
  explicit Lmdb(const std::string& directory) {
    std::filesystem::create_directories(directory);
    must(mdb_env_create(&environment_));
    must(mdb_env_set_mapsize(environment_, size_t{1} << 28));
    must(mdb_env_open(environment_, directory.c_str(), MDB_NOSYNC | MDB_WRITEMAP, 0600));
    inTransaction(0, [this](MDB_txn* t) { must(mdb_dbi_open(t, nullptr, 0, &table_)); });
  }
  ~Lmdb() {
    if (reading_) mdb_txn_abort(reading_);
    mdb_env_close(environment_);
  }
  Lmdb(const Lmdb&) = delete;
  Lmdb& operator=(const Lmdb&) = delete;

  // A put is a transaction of its own, as a change that others are to see has to be.
  void put(uint64_t key, uint32_t value) {
    inTransaction(0, [&](MDB_txn* t) { putIn(t, key, value); });
  }
  // Many of them in one transaction.
  template <class Key>
  void fill(size_t count, Key keyOf) {
    inTransaction(0, [&](MDB_txn* t) {
      for (size_t i = 0; i < count; ++i) putIn(t, keyOf(i), 1);
    });
  }
  // The transaction is renewed, so that a get sees the latest value, as everybody else's does.
  uint32_t get(uint64_t key) {
    if (!reading_) {
      must(mdb_txn_begin(environment_, nullptr, MDB_RDONLY, &reading_));
    } else {
      must(mdb_txn_renew(reading_));
    }
    const uint32_t value = getIn(reading_, key);
    mdb_txn_reset(reading_);
    return value;
  }
  // Gets of one snapshot share a transaction.
  template <class Use>
  void reading(Use use) {
    inTransaction(MDB_RDONLY, use);
  }
  uint32_t getIn(MDB_txn* transaction, uint64_t key) {
    MDB_val k{sizeof key, &key};
    MDB_val v;
    must(mdb_get(transaction, table_, &k, &v));
    return *static_cast<const uint32_t*>(v.mv_data);
  }

 private:
  static void must(int result) {
    if (result != 0) throw std::runtime_error(mdb_strerror(result));
  }
  void putIn(MDB_txn* transaction, uint64_t key, uint32_t value) {
    MDB_val k{sizeof key, &key};
    MDB_val v{sizeof value, &value};
    must(mdb_put(transaction, table_, &k, &v, 0));
  }
  template <class Use>
  void inTransaction(unsigned flags, Use use) {
    MDB_txn* transaction;
    must(mdb_txn_begin(environment_, nullptr, flags, &transaction));
    use(transaction);
    must(mdb_txn_commit(transaction));
  }

  MDB_env* environment_ = nullptr;
  MDB_txn* reading_ = nullptr;
  MDB_dbi table_ = 0;
};

}  // namespace Bench
