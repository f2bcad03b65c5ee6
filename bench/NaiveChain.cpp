#include <functional>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bench/Chain.h"

namespace KilnBench {
namespace {

struct ChainHash {
  std::size_t operator()(const ChainKey& key) const { return hashOf(key); }
};

template <std::size_t stage>
class Collection {
 public:
  using Value = ChainValue<stage>;

  [[nodiscard]] const Value* find(const ChainKey& key) const {
    const auto found = entries_.find(key);
    return found == entries_.end() ? nullptr : &found->second;
  }
  void is(const ChainKey& key, const Value& value) {
    const auto [at, inserted] = entries_.try_emplace(key, value);
    if (!inserted) {
      if (at->second == value) return;
      at->second = value;
    }
    notify(key);
  }
  void del(const ChainKey& key) {
    if (entries_.erase(key) != 0) notify(key);
  }
  void subscribe(std::function<void(const ChainKey&)> subscriber) {
    subscribers_.push_back(std::move(subscriber));
  }
  [[nodiscard]] const auto& entries() const { return entries_; }

 private:
  void notify(const ChainKey& key) {
    for (const auto& subscriber : subscribers_) subscriber(key);
  }

  std::unordered_map<ChainKey, Value, ChainHash> entries_;
  std::vector<std::function<void(const ChainKey&)>> subscribers_;
};

template <class Stages>
struct Collections;
template <std::size_t... stages>
struct Collections<std::index_sequence<stages...>> {
  using Type = std::tuple<Collection<stages>...>;
};

}  // namespace

struct NaiveContent {
  NaiveContent() {
    [this]<std::size_t... before>(std::index_sequence<before...>) {
      (connect<before + 1>(), ...);
    }
    (std::make_index_sequence<kStages - 1>());
  }
  template <std::size_t stage>
  void connect() {
    auto& source = std::get<stage - 1>(stages);
    auto& own = std::get<stage>(stages);
    source.subscribe([&source, &own](const ChainKey& key) {
      if (const auto* before = source.find(key)) {
        own.is(key, chainStep<stage>(*before));
      } else {
        own.del(key);
      }
    });
  }

  void publish(std::uint32_t n, std::uint32_t version) { requests.push_back(chainPublication(n, version)); }
  void withdraw(std::uint32_t n) { requests.push_back(chainWithdrawal(n)); }
  void handIn() {
    for (const ChainRequest& request : requests) {
      if (request.wanted) {
        std::get<0>(stages).is(request.key, request.value);
      } else {
        std::get<0>(stages).del(request.key);
      }
    }
    requests.clear();
  }
  void settle() {}
  [[nodiscard]] std::uint32_t settled(std::uint32_t version) const {
    std::uint32_t count = 0;
    for (const auto& [key, value] : std::get<kStages - 1>(stages).entries()) {
      if (value.words[0] == lastWordOf(version)) ++count;
    }
    return count;
  }

  Collections<std::make_index_sequence<kStages>>::Type stages;
  std::vector<ChainRequest> requests;
};

template class Chain<NaiveContent>;

}  // namespace KilnBench
