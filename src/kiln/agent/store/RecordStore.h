// A file of records, each with a key and a value of bytes, that survives the death of its process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct MDB_env;
struct MDB_txn;
struct MDB_cursor;

namespace KilnAgent {

/// The failures that a commit survives.
enum class Durability : std::uint8_t {
  process,  ///< the death of the process, at any moment; a loss of power may cost the whole file
  power,    ///< a loss of power as well: each commit waits for the disk
};

/// The records, in one LMDB file. One thread of one process uses it.
class RecordStore {
 public:
  /// Opens the file, or creates it if it does not exist. Throws InputError if the file cannot be used,
  /// belongs to another program or is truncated; the file is then not changed.
  RecordStore(std::string path, Durability durability);
  /// Waits for the disk, whatever the durability.
  ~RecordStore();
  RecordStore(const RecordStore&) = delete;
  RecordStore& operator=(const RecordStore&) = delete;

  /// A record as stored in the file.
  struct Record {
    std::string_view key;
    std::uint64_t order;  ///< as given by its writer
    std::string_view value;
  };
  using Visitor = std::function<void(const Record&)>;

  /// Visits the records whose keys begin with `prefix`, the least key first. Throws InputError at a damaged
  /// record, or if the visitor throws std::range_error.
  void visit(std::string_view prefix, const Visitor& visitor) const;
  /// The same, the least order first.
  void visitInOrder(std::string_view prefix, const Visitor& visitor) const;

  /// Changes that take effect together at their commit, or not at all without one. Every operation throws
  /// std::runtime_error if the file cannot be written.
  class Batch {
   public:
    explicit Batch(RecordStore& store);
    ~Batch();
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    /// Writes a record. An existing one keeps its order, unless that is 0.
    void putInPlace(std::string_view key, std::uint64_t order, std::string_view value);
    /// Writes a record with a new order.
    void put(std::string_view key, std::uint64_t order, std::string_view value);
    /// Does nothing for a record that does not exist.
    void del(std::string_view key);
    /// Deletes the records whose keys begin with `prefix`; returns their number.
    std::size_t delAll(std::string_view prefix);
    void commit();

   private:
    void write(std::string_view key, std::uint64_t order, std::string_view value, unsigned flags);

    RecordStore& store_;
    MDB_txn* transaction_ = nullptr;
    /// Finds a key near the previous one without descending from the root: keys should be written in order.
    MDB_cursor* cursor_ = nullptr;
    std::string bytes_;  ///< a value with its order and checksum; kept to reuse its memory
  };

 private:
  struct Close {
    void operator()(MDB_env* env) const;
  };

  void open(unsigned flags);
  void checkLength() const;
  void claim();
  /// The record of these bytes; throws if they are damaged.
  [[nodiscard]] Record recordOf(std::string_view key, std::string_view bytes) const;
  void give(const Record& record, const Visitor& visitor) const;
  [[noreturn]] void refuse(std::string_view why) const;
  /// Throws std::runtime_error for an error number of LMDB, unless it is 0.
  void require(int error) const;

  std::string path_;
  std::unique_ptr<MDB_env, Close> env_;
  unsigned table_ = 0;
};

}  // namespace KilnAgent
