// Reference designs for the whole server: chains of 14 stages, one that does the minimum work of such a chain
// and one that is written in the obvious way. Each stage owns one collection, reads the previous one, and
// notifies the next stage. Keys have 40 bytes, values from 8 to 96.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "bench/Measure.h"

namespace KilnBench {

struct ChainKey {
  std::array<std::uint64_t, 5> words;
  friend bool operator==(const ChainKey&, const ChainKey&) = default;
};

/// The n-th key; its words are mixed, as fields of real keys are not all equal.
constexpr ChainKey chainKey(std::uint32_t n) {
  return {{n, n * 3 + std::uint64_t{1}, n % 480U, n / 480U, 7}};
}

constexpr std::uint64_t hashOf(const ChainKey& key) {
  std::uint64_t hash = 0x9E3779B97F4A7C15U;
  for (const std::uint64_t word : key.words) hash = (hash ^ word) * 0xBF58476D1CE4E5B9U, hash ^= hash >> 31U;
  return hash;
}

inline constexpr std::size_t kStages = 14;
/// Bytes of a value in each stage's collection: 616 in all.
inline constexpr std::array<std::size_t, kStages> kValueBytes{96, 64, 8,  16, 40, 48, 64,
                                                              48, 40, 24, 32, 40, 32, 64};

template <std::size_t stage>
struct ChainValue {
  std::array<std::uint64_t, kValueBytes[stage] / 8> words;
  /// Avoids the call of memcmp to which a comparison of arrays compiles.
  friend bool operator==(const ChainValue& a, const ChainValue& b) {
    return [&]<std::size_t... at>(std::index_sequence<at...>) {
      return ((a.words[at] == b.words[at]) && ...);
    }
    (std::make_index_sequence<kValueBytes[stage] / 8>());
  }
};

/// The request of a version.
constexpr ChainValue<0> chainRequest(std::uint32_t n, std::uint32_t version) {
  ChainValue<0> value{};
  for (std::size_t i = 0; i < value.words.size(); ++i) value.words[i] = n + i;
  value.words[0] = version;
  return value;
}

/// A request that was created and is not submitted yet.
struct ChainRequest {
  ChainKey key;
  ChainValue<0> value;
  bool wanted;  ///< false if it is withdrawn
};
constexpr ChainRequest chainPublication(std::uint32_t n, std::uint32_t version) {
  return {chainKey(n), chainRequest(n, version), true};
}
constexpr ChainRequest chainWithdrawal(std::uint32_t n) {
  return {chainKey(n), {}, false};
}

/// A stage's value, computed from the value of the previous stage.
template <std::size_t stage>
constexpr ChainValue<stage> chainStep(const ChainValue<stage - 1>& before) {
  ChainValue<stage> value;
  [&]<std::size_t... at>(std::index_sequence<at...>) {
    ((value.words[at] = before.words[at % (kValueBytes[stage - 1] / 8)]), ...);
  }
  (std::make_index_sequence<kValueBytes[stage] / 8>());
  value.words[0] += stage;
  return value;
}

/// A chain of one design; `Content` has functions of the same names.
template <class Content>
class Chain {
 public:
  Chain();
  ~Chain();
  Chain(const Chain&) = delete;
  Chain& operator=(const Chain&) = delete;
  void publish(std::uint32_t n, std::uint32_t version);
  void withdraw(std::uint32_t n);
  /// Submits the created publications and withdrawals.
  void handIn();
  /// Handles everything that was submitted.
  void settle();
  /// Number of entries whose content in the last stage is derived from this version.
  [[nodiscard]] std::uint32_t settled(std::uint32_t version) const;

 private:
  std::unique_ptr<Content> content_;
};

template <class Content>
Chain<Content>::Chain() : content_(std::make_unique<Content>()) {}
template <class Content>
Chain<Content>::~Chain() = default;
template <class Content>
void Chain<Content>::publish(std::uint32_t n, std::uint32_t version) {
  content_->publish(n, version);
}
template <class Content>
void Chain<Content>::withdraw(std::uint32_t n) {
  content_->withdraw(n);
}
template <class Content>
void Chain<Content>::handIn() {
  content_->handIn();
}
template <class Content>
void Chain<Content>::settle() {
  content_->settle();
}
template <class Content>
std::uint32_t Chain<Content>::settled(std::uint32_t version) const {
  return content_->settled(version);
}

/// The first word of the last stage's value for a version of a request.
constexpr std::uint64_t lastWordOf(std::uint32_t version) {
  return version + kStages * (kStages - 1) / 2;
}

/// The least that a chain can cost: keys interned once, columns by 32-bit handle in pages, lists of changed
/// handles with a dirty bit, batches of 256 that pass through all stages, prefetching. Hand-written, without
/// a runtime: stages cannot be added, scanned, interrupted, restarted or traced.
struct FloorContent;
extern template class Chain<FloorContent>;
using FloorChain = Chain<FloorContent>;

/// The same chain as stages of the server's runtime. Shows how close to the floor separate stages are that
/// can be scanned, interrupted, restarted and traced.
struct StageContent;
extern template class Chain<StageContent>;
using StageChain = Chain<StageContent>;

/// A chain written in the obvious way: a map per stage, and a std::function per subscription, which is called
/// synchronously and reads the value by key.
struct NaiveContent;
extern template class Chain<NaiveContent>;
using NaiveChain = Chain<NaiveContent>;

}  // namespace KilnBench
