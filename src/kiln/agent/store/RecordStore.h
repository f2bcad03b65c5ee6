// A file of records, each a key and a value of bytes, that survives the death of its process.
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

/// What a commit survives.
enum class Durability : std::uint8_t {
  process,  ///< the death of the process, at any moment; a loss of power may cost the whole file
  power,    ///< a loss of power as well: each commit waits for the disk
};

/// The records, in one LMDB file. One thread of one process uses it.
class RecordStore {
 public:
  /// Opens the file, or creates it where there is none. Throws InputError where it cannot be used, belongs
  /// to something else or is cut short; it is then left as it is.
  RecordStore(std::string path, Durability durability);
  /// Waits for the disk, whatever the durability.
  ~RecordStore();
  RecordStore(const RecordStore&) = delete;
  RecordStore& operator=(const RecordStore&) = delete;

  /// A record as it lies in the file.
  struct Record {
    std::string_view key;
    std::uint64_t order;  ///< as its writer said
    std::string_view value;
  };
  using Visitor = std::function<void(const Record&)>;

  /// Visits the records whose keys begin with `prefix`, the least key first. Throws InputError at one that
  /// is damaged, or at which the visitor throws std::range_error.
  void visit(std::string_view prefix, const Visitor& visitor) const;
  /// The same, the least order first.
  void visitInOrder(std::string_view prefix, const Visitor& visitor) const;

  /// Changes that take effect as a whole at their commit, or not at all where there is none. Every operation
  /// throws std::runtime_error where the file cannot be written.
  class Batch {
   public:
    explicit Batch(RecordStore& store);
    ~Batch();
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    /// Writes a record. One that stands keeps its order, unless that is 0.
    void putInPlace(std::string_view key, std::uint64_t order, std::string_view value);
    /// Writes a record under an order of its own.
    void put(std::string_view key, std::uint64_t order, std::string_view value);
    /// Does nothing for a record that is not there.
    void del(std::string_view key);
    /// Deletes the records whose keys begin with `prefix`; returns how many.
    std::size_t delAll(std::string_view prefix);
    void commit();

   private:
    void write(std::string_view key, std::uint64_t order, std::string_view value, unsigned flags);

    RecordStore& store_;
    MDB_txn* transaction_ = nullptr;
    /// Finds a key near the one before without descending from the root: batches are best made in order.
    MDB_cursor* cursor_ = nullptr;
    std::string bytes_;  ///< a value with its order and checksum, kept for its memory
  };

 private:
  struct Close {
    void operator()(MDB_env* env) const;
  };

  void open(unsigned flags);
  void checkLength() const;
  void claim();
  /// The record of these bytes; throws where they are damaged.
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
