#include "kiln/agent/service/Readiness.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "kiln/agent/report/Report.h"
#include "kiln/platform/DependencyStatus.h"
#include "kiln/server/KilnEmServer.h"

namespace KilnAgent {
namespace {

constexpr std::chrono::milliseconds kProgressInterval{500};

double milliseconds(Readiness::Clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

}  // namespace

Readiness::Readiness(const EmbeddedAgent& agent, Clock::time_point begin)
    : agent_(agent), begin_(begin), opened_(Clock::now()), lastProgress_(opened_), lastSign_(opened_) {
  const auto loaded = agent.durable() == nullptr ? 0 : agent.durable()->counters().loaded;
  manager_.tell(fmt::format("STATUS=Reconciling, {} records loaded", grouped(loaded)));
}

bool Readiness::update() {
  const Clock::time_point now = Clock::now();
  if (manager_.watchdog() && now - lastSign_ >= *manager_.watchdog() / 4) {
    manager_.tell("WATCHDOG=1");
    lastSign_ = now;
  }
  if (ready_) return false;
  if (now - lastProgress_ >= kProgressInterval) tellProgress();
  ready_ = agent_.server().ready();
  if (ready_) reconciled_ = now;
  return ready_;
}

void Readiness::tellProgress() {
  lastProgress_ = Clock::now();
  manager_.tell(fmt::format("STATUS=Reconciling, {} of {} stages complete, {} items in work",
                            agent_.server().dependencyStatus().completed().size(),
                            agent_.server().graph().nodes.size(), grouped(agent_.scheduler().workPending())));
}

void Readiness::readyAndCommitted() {
  manager_.tell("READY=1\nSTATUS=Ready");
  const Clock::time_point now = Clock::now();
  const auto loaded = agent_.durable() == nullptr ? 0 : agent_.durable()->counters().loaded;
  const std::string text =
      fmt::format("ready after {:.0f} ms: open {:.0f} ({} records), reconcile {:.0f}, commit {:.0f}\n",
                  milliseconds(now - begin_), milliseconds(opened_ - begin_), loaded,
                  milliseconds(reconciled_ - opened_), milliseconds(now - reconciled_));
  std::fputs(text.c_str(), stderr);  // a failure to write does not stop the agent
}

void Readiness::stopping() const {
  manager_.tell("STOPPING=1\nSTATUS=Stopping");
}

int Readiness::patience() const {
  if (!manager_.watchdog()) return -1;
  const auto patience = std::chrono::duration_cast<std::chrono::milliseconds>(*manager_.watchdog() / 4);
  return static_cast<int>(std::clamp<std::int64_t>(patience.count(), 1, 1000));
}

}  // namespace KilnAgent
