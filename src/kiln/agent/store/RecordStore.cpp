#include "kiln/agent/store/RecordStore.h"

#include <fmt/format.h>
#include <lmdb.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kiln/agent/io/InputError.h"
#include "kiln/agent/io/RecordCode.h"

namespace KilnAgent {
namespace {

/// Reserved address space; the file is only as long as its content.
constexpr std::size_t kMapBytes = std::size_t{64} << 30U;
constexpr std::string_view kFormatKey = "A";
constexpr std::string_view kFormat = "KilnEmServer agent store 3";
/// A disk with less free space than this counts as full.
constexpr std::size_t kFullBytes = std::size_t{1} << 20U;
/// A record's value in the file: checksum, order, value.
constexpr std::size_t kPrefixBytes = sizeof(std::uint32_t) + sizeof(std::uint64_t);

MDB_val bytesOf(std::string_view text) {
  return {text.size(), const_cast<char*>(text.data())};  // LMDB only reads it
}
std::string_view textOf(const MDB_val& bytes) {
  return {static_cast<const char*>(bytes.mv_data), bytes.mv_size};
}

std::uint32_t checksumOfRecord(std::string_view key, std::string_view orderAndValue) {
  return checksumOf(orderAndValue, checksumOf(key));
}

/// A view of one moment of the file. Must be short-lived: while it exists, freed pages of the file are not
/// reused.
class View {
 public:
  explicit View(MDB_env* env, unsigned table) {
    if (mdb_txn_begin(env, nullptr, MDB_RDONLY, &transaction_) == 0)
      mdb_cursor_open(transaction_, table, &cursor_);
  }
  ~View() {
    if (cursor_ != nullptr) mdb_cursor_close(cursor_);
    if (transaction_ != nullptr) mdb_txn_abort(transaction_);
  }
  View(const View&) = delete;
  View& operator=(const View&) = delete;
  [[nodiscard]] bool valid() const { return cursor_ != nullptr; }

  /// Moves to the first record whose key begins with `prefix`, or to the next one. False if there is none, or
  /// on a read error, which error() returns.
  bool next(std::string_view prefix, bool first) {
    key_ = bytesOf(prefix);
    error_ = mdb_cursor_get(cursor_, &key_, &value_, first ? MDB_SET_RANGE : MDB_NEXT);
    return error_ == 0 && key().starts_with(prefix);
  }
  [[nodiscard]] int error() const { return error_ == MDB_NOTFOUND ? 0 : error_; }
  [[nodiscard]] std::string_view key() const { return textOf(key_); }
  [[nodiscard]] std::string_view value() const { return textOf(value_); }

 private:
  MDB_txn* transaction_ = nullptr;
  MDB_cursor* cursor_ = nullptr;
  MDB_val key_{};
  MDB_val value_{};
  int error_ = 0;
};

}  // namespace

void RecordStore::Close::operator()(MDB_env* env) const {
  mdb_env_close(env);
}

RecordStore::RecordStore(std::string path, Durability durability) : path_(std::move(path)) {
  open(durability == Durability::process ? MDB_NOSYNC : 0);
  checkLength();
  int stale = 0;
  mdb_reader_check(env_.get(), &stale);  // views of killed processes
  claim();
}

RecordStore::~RecordStore() {
  mdb_env_sync(env_.get(), 1);
}

void RecordStore::refuse(std::string_view why) const {
  throw InputError(fmt::format("{}: {}; it is left as it is", path_, why));
}

void RecordStore::require(int error) const {
  if (error == 0) return;
  struct statvfs disk {};
  // LMDB reports a short write as an input/output error.
  const bool full =
      error == EIO && ::statvfs(path_.c_str(), &disk) == 0 && disk.f_bavail * disk.f_frsize < kFullBytes;
  throw std::runtime_error(fmt::format("{}: {}", path_, mdb_strerror(full ? ENOSPC : error)));
}

void RecordStore::open(unsigned flags) {
  MDB_env* env = nullptr;
  require(mdb_env_create(&env));
  env_.reset(env);
  require(mdb_env_set_mapsize(env, kMapBytes));
  const int error = mdb_env_open(env, path_.c_str(), MDB_NOSUBDIR | flags, 0600);
  if (error == MDB_INVALID || error == MDB_VERSION_MISMATCH) refuse("is not an agent's state store");
  if (error != 0) refuse(fmt::format("cannot be opened: {}", mdb_strerror(error)));
}

/// LMDB assumes that its file contains all pages to which it refers.
void RecordStore::checkLength() const {
  MDB_envinfo info{};
  MDB_stat pages{};
  struct stat status {};
  require(mdb_env_info(env_.get(), &info));
  require(mdb_env_stat(env_.get(), &pages));
  if (::stat(path_.c_str(), &status) != 0) refuse("cannot be looked at");
  const std::size_t expected = (info.me_last_pgno + 1) * pages.ms_psize;
  if (static_cast<std::size_t>(status.st_size) < expected) {
    refuse(fmt::format("is cut short: {} of {} bytes", status.st_size, expected));
  }
}

/// Checks whose store the file is; marks an empty one as the agent's.
void RecordStore::claim() {
  MDB_txn* transaction = nullptr;
  require(mdb_txn_begin(env_.get(), nullptr, MDB_RDONLY, &transaction));
  MDB_stat content{};
  const int error = mdb_dbi_open(transaction, nullptr, 0, &table_);
  if (error == 0) mdb_stat(transaction, table_, &content);
  require(error == 0 ? mdb_txn_commit(transaction) : (mdb_txn_abort(transaction), error));
  if (content.ms_entries == 0) {
    Batch batch(*this);
    batch.put(kFormatKey, 0, kFormat);
    return batch.commit();
  }
  bool claimed = false;
  visit(kFormatKey, [&](const Record& record) { claimed = claimed || record.value == kFormat; });
  if (!claimed) refuse("is not an agent's state store, or one of another version");
}

RecordStore::Record RecordStore::recordOf(std::string_view key, std::string_view bytes) const {
  if (bytes.size() >= kPrefixBytes) {
    Decoder decoder(bytes.substr(0, kPrefixBytes));
    const auto checksum = decoder.take<std::uint32_t>();
    const auto order = decoder.take<std::uint64_t>();
    if (checksum == checksumOfRecord(key, bytes.substr(sizeof checksum))) {
      return {key, order, bytes.substr(kPrefixBytes)};
    }
  }
  refuse("is damaged, or not an agent's state store");
}

void RecordStore::give(const Record& record, const Visitor& visitor) const {
  try {
    visitor(record);
  } catch (const std::range_error& error) {
    refuse(fmt::format("holds what is no record of this version: {}", error.what()));
  }
}

void RecordStore::visit(std::string_view prefix, const Visitor& visitor) const {
  View view(env_.get(), table_);
  if (!view.valid()) refuse("cannot be read");
  for (bool more = view.next(prefix, true); more; more = view.next(prefix, false)) {
    give(recordOf(view.key(), view.value()), visitor);
  }
  if (view.error() != 0) refuse(mdb_strerror(view.error()));
}

void RecordStore::visitInOrder(std::string_view prefix, const Visitor& visitor) const {
  View view(env_.get(), table_);
  if (!view.valid()) refuse("cannot be read");
  std::vector<Record> records;
  for (bool more = view.next(prefix, true); more; more = view.next(prefix, false)) {
    records.push_back(recordOf(view.key(), view.value()));
  }
  if (view.error() != 0) refuse(mdb_strerror(view.error()));
  std::sort(records.begin(), records.end(),
            [](const Record& a, const Record& b) { return a.order < b.order; });
  for (const Record& record : records) give(record, visitor);
}

RecordStore::Batch::Batch(RecordStore& store) : store_(store) {
  store_.require(mdb_txn_begin(store_.env_.get(), nullptr, 0, &transaction_));
  store_.require(mdb_cursor_open(transaction_, store_.table_, &cursor_));
}

RecordStore::Batch::~Batch() {
  if (transaction_ != nullptr) mdb_txn_abort(transaction_);  // closes the cursor, too
}

void RecordStore::Batch::putInPlace(std::string_view key, std::uint64_t order, std::string_view value) {
  MDB_val keyBytes = bytesOf(key);
  MDB_val found{};
  const int error = mdb_cursor_get(cursor_, &keyBytes, &found, MDB_SET);
  if (error == MDB_NOTFOUND) return put(key, order, value);
  store_.require(error);
  const std::uint64_t standing = store_.recordOf(key, textOf(found)).order;
  write(key, standing == 0 ? order : standing, value, MDB_CURRENT);
}

void RecordStore::Batch::put(std::string_view key, std::uint64_t order, std::string_view value) {
  write(key, order, value, 0);
}

void RecordStore::Batch::write(std::string_view key, std::uint64_t order, std::string_view value,
                               unsigned flags) {
  bytes_.assign(sizeof(std::uint32_t), '\0');
  encodeNumber(bytes_, order);
  bytes_ += value;
  const std::string_view whole = bytes_;
  const std::string checksum = encoded(checksumOfRecord(key, whole.substr(sizeof(std::uint32_t))));
  checksum.copy(bytes_.data(), checksum.size());
  MDB_val keyBytes = bytesOf(key);
  MDB_val valueBytes = bytesOf(bytes_);
  store_.require(mdb_cursor_put(cursor_, &keyBytes, &valueBytes, flags));
}

void RecordStore::Batch::del(std::string_view key) {
  MDB_val keyBytes = bytesOf(key);
  const int error = mdb_cursor_get(cursor_, &keyBytes, nullptr, MDB_SET);
  if (error == MDB_NOTFOUND) return;
  store_.require(error);
  store_.require(mdb_cursor_del(cursor_, 0));
}

std::size_t RecordStore::Batch::delAll(std::string_view prefix) {
  MDB_val key = bytesOf(prefix);
  MDB_val value{};
  std::size_t deleted = 0;
  int error = mdb_cursor_get(cursor_, &key, &value, MDB_SET_RANGE);
  for (; error == 0 && textOf(key).starts_with(prefix); ++deleted) {
    store_.require(mdb_cursor_del(cursor_, 0));
    error = mdb_cursor_get(cursor_, &key, &value, MDB_NEXT);
  }
  if (error != MDB_NOTFOUND) store_.require(error);
  return deleted;
}

void RecordStore::Batch::commit() {
  store_.require(mdb_txn_commit(std::exchange(transaction_, nullptr)));
}

}  // namespace KilnAgent
