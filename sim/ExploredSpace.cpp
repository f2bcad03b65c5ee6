#include "sim/ExploredSpace.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "kiln/agent/io/InputError.h"
#include "kiln/platform/Assert.h"
#include "kiln/platform/EmKeys.h"
#include "kiln/platform/Value.h"

namespace KilnSim {
namespace {

constexpr std::uint64_t kMagic = 0x6b696c6e2d657870;
constexpr std::uint32_t kMostStates = 1U << 23;
constexpr std::uint32_t kMostBranches = 1U << 25;
constexpr std::uint32_t kMostSchedules = 1U << 25;
constexpr std::uint32_t kMostFailures = 1U << 10;
constexpr std::uint32_t kMostEnds = 1U << 12;
constexpr std::uint32_t kMostTasks = NumberSet::kMost - 64;
/// Address space; untouched pages cost nothing.
constexpr std::size_t kBytes = std::size_t{8} << 30;
constexpr std::size_t kPage = 4096;

}  // namespace

/// Held by one process at a time. It is taken over from a process that died while it held the lock.
class ExploredSpace::Lock {
 public:
  explicit Lock(Header& header) : header_(header) {
    const int own = getpid();
    int holder = 0;
    while (!header_.lockedBy.compare_exchange_strong(holder, own, std::memory_order_acquire)) {
      if (holder != 0 && kill(holder, 0) != 0 && errno == ESRCH) {
        header_.lockedBy.compare_exchange_strong(holder, 0);
      }
      holder = 0;
      sched_yield();
    }
  }
  ~Lock() { header_.lockedBy.store(0, std::memory_order_release); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  Header& header_;
};

ExploredSpace::ExploredSpace(const std::string& file, const StateValue& subject) {
  static_assert(sizeof(Header) <= kPage);
  static_assert(KilnEmServer::kKeyTypes < kMostTables);
  if (!file.empty()) open(file);
  const int flags = MAP_SHARED | MAP_NORESERVE | (file_ < 0 ? MAP_ANONYMOUS : 0);
  void* const memory = mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, flags, file_, 0);
  if (memory == MAP_FAILED) throw KilnAgent::InputError("no memory to share");
  memory_ = static_cast<char*>(memory);
  header_ = reinterpret_cast<Header*>(memory_);
  used_ = kPage;
  if (header_->magic == 0) {
    header_->magic = kMagic;
    header_->subject = subject;
  }
  if (header_->subject != subject) {
    throw KilnAgent::InputError(
        fmt::format("{}: the frontier of another scenario, of other options or of another build", file));
  }
  header_->lockedBy = 0;
  header_->stop = false;
  states_ = array<State>(kMostStates, 0);
  slots_ = array<std::uint32_t>(2 * kMostStates, 1);
  branches_ = array<Branch>(kMostBranches, 2);
  schedules_ = array<Schedule>(kMostSchedules, 3);
  failures_ = array<Failure>(kMostFailures, 4);
  ends_ = array<End>(kMostEnds, 5);
  tasks_ = array<Name>(kMostTasks, 6);
  parts_ = array<Name>(NumberSet::kMost, 7);
  footprints_ = array<Footprint>(NumberSet::kMost, 8);
}

void ExploredSpace::open(const std::string& file) {
  const auto fail = [&](std::string_view what) {
    throw KilnAgent::InputError(fmt::format("{}: {}", file, what));
  };
  file_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  struct stat status = {};
  if (file_ < 0 || fstat(file_, &status) != 0) fail(std::strerror(errno));
  if (flock(file_, LOCK_EX | LOCK_NB) != 0) fail("another process explores with this frontier");
  std::uint64_t magic = kMagic;
  if (status.st_size != 0 && (status.st_size != static_cast<off_t>(kBytes) ||
                              pread(file_, &magic, sizeof magic, 0) != sizeof magic || magic != kMagic)) {
    fail("not a frontier");
  }
  if (ftruncate(file_, static_cast<off_t>(kBytes)) != 0) fail(std::strerror(errno));
}

ExploredSpace::~ExploredSpace() {
  munmap(memory_, kBytes);
  if (file_ >= 0) close(file_);
}

template <class T>
SharedArray<T> ExploredSpace::array(std::uint32_t most, std::size_t sizeAt) {
  T* const items = reinterpret_cast<T*>(memory_ + used_);
  used_ += (most * sizeof(T) + kPage - 1) / kPage * kPage;
  KILN_ASSERT(used_ <= kBytes);
  return {items, &header_->sizes[sizeAt], most};
}

namespace {

template <class T>
std::uint32_t append(const SharedArray<T>& array, const T& item) {
  if (*array.size == array.most) throw KilnAgent::InputError("the scenario is too large to be explored");
  new (&array.items[*array.size]) T(item);
  return (*array.size)++;
}

}  // namespace

std::uint32_t* ExploredSpace::slotOf(const StateValue& value) const {
  const std::uint32_t mask = slots_.most - 1;
  auto at = static_cast<std::uint32_t>(value.low) & mask;
  while (slots_[at] != 0 && states_[slots_[at] - 1].value != value) at = (at + 1) & mask;
  return &slots_[at];
}

std::pair<std::uint32_t, bool> ExploredSpace::stateOf(const StateValue& value, std::uint32_t schedule,
                                                      std::uint32_t position) {
  const Lock lock(*header_);
  std::uint32_t* const slot = slotOf(value);
  if (*slot != 0) return {*slot - 1, false};
  State state;
  state.value = value;
  state.schedule = schedule;
  state.position = position;
  state.bound = schedules_[schedule].bound;
  *slot = append(states_, state) + 1;
  return {*slot - 1, true};
}

void ExploredSpace::addBranch(std::uint32_t state, const Choice& choice) {
  const Lock lock(*header_);
  append(branches_, Branch{state, choice, false});
}

void ExploredSpace::addFootprint(std::uint32_t step, const Footprint& footprint) {
  const Lock lock(*header_);
  footprints_[step].add(footprint);
}

std::uint32_t ExploredSpace::addSchedule(const Schedule& schedule) {
  const Lock lock(*header_);
  return append(schedules_, schedule);
}

void ExploredSpace::addFailure(std::uint32_t schedule, std::uint32_t position, std::string_view text) {
  const Lock lock(*header_);
  if (*failures_.size == failures_.most) return;
  Failure failure{schedule, position, {}};
  text.copy(failure.text, sizeof failure.text - 1);
  append(failures_, failure);
}

void ExploredSpace::addEnd(const StateValue& outcome, std::uint32_t schedule, std::uint32_t position) {
  const Lock lock(*header_);
  for (std::uint32_t i = 0; i < *ends_.size; ++i) {
    if (ends_[i].outcome == outcome) return;
  }
  append(ends_, End{outcome, schedule, position});
}

std::uint32_t ExploredSpace::numberOfName(const SharedArray<Name>& names, std::string_view a,
                                          std::string_view b) {
  const Name name{XXH3_64bits_withSeed(a.data(), a.size(), 1), XXH3_64bits_withSeed(b.data(), b.size(), 2)};
  const Lock lock(*header_);
  for (std::uint32_t i = 0; i < *names.size; ++i) {
    if (names[i].high == name.high && names[i].low == name.low) return i;
  }
  return append(names, name);
}

std::uint16_t ExploredSpace::numberOf(std::string_view name, std::string_view instance) {
  return static_cast<std::uint16_t>(numberOfName(tasks_, name, instance) + 1);
}

std::size_t ExploredSpace::partNumber(std::string_view name) {
  return numberOfName(parts_, name, "");
}

void ExploredSpace::beginBatch() {
  header_->firstFollowed = schedules();
  header_->statesBefore = states();
  header_->branchesBefore = branches();
  header_->followedBefore = header_->followed;
  header_->provedBefore = header_->proved;
}

void ExploredSpace::revertBatch() {
  *states_.size = header_->statesBefore;
  *branches_.size = header_->branchesBefore;
  *failures_.size = 0;
  header_->followed = header_->followedBefore;
  header_->proved = header_->provedBefore;
  header_->full = false;
  std::fill_n(slots_.items, slots_.most, 0U);
  for (std::uint32_t i = 0; i < states(); ++i) *slotOf(states_[i].value) = i + 1;
}

}  // namespace KilnSim
