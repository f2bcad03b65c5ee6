// The records of a state store, under any keys and with any bytes: either the store is refused and not
// changed, or an agent accepts it, programs the requests, and the next agent finds the same state.
//
// The input is a sequence of records: a key and a value, each after the byte of its length.
#include "fuzz/Fuzz.h"
#include "fuzz/Scratch.h"
#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/report/Dump.h"
#include "kiln/agent/store/RecordStore.h"
#include "sim/Recompute.h"

namespace KilnFuzz {
namespace {

std::string_view takeBytes(std::string_view& input) {
  const std::size_t length = static_cast<unsigned char>(input.front());
  const std::string_view bytes = input.substr(1, length);
  input.remove_prefix(1 + bytes.size());
  return bytes;
}

void fill(const std::string& path, std::string_view input) {
  KilnAgent::RecordStore store(path, KilnAgent::Durability::process);
  KilnAgent::RecordStore::Batch batch(store);
  for (std::uint64_t order = 1; !input.empty(); ++order) {
    const std::string_view key = takeBytes(input);
    const std::string_view value = input.empty() ? input : takeBytes(input);
    if (!key.empty() && key.front() != 'A') batch.put(key, order, value);
  }
  batch.commit();
}

/// The differences from the outcome that the requests define. A status under a request that the server does
/// not accept is ignored.
std::string judged(KilnAgent::EmbeddedAgent& agent) {
  const KilnSim::Wanted wanted = KilnSim::wantedOf(agent);
  KilnSim::Outcome expected = KilnSim::recompute(wanted);
  KilnSim::Outcome found = KilnSim::outcomeOf(agent);
  const auto isNobodys = [&](const auto& status) {
    const auto request = wanted.requests.find(status.first);
    return request != wanted.requests.end() && !KilnSim::takenUp(request->first, request->second);
  };
  std::erase_if(expected.statuses, isNobodys);
  std::erase_if(found.statuses, isNobodys);
  return KilnSim::difference(expected, found);
}

/// The state after an agent has taken over the store and is quiet.
std::string outcomeOf(const KilnAgent::AgentOptions& options, bool again) {
  KilnAgent::EmbeddedAgent agent(options);
  agent.settle();
  const std::string differs = judged(agent);
  KILN_ASSERT_MESSAGE(differs.empty(), "{}", differs);
  KILN_ASSERT(!again || (agent.durable()->pending() == 0 && agent.chip().counters().written == 0));
  agent.commit();
  std::string dump = KilnAgent::dumpText(agent);
  const std::size_t hardware = dump.find("\"hardware\":");  // counts the writes of this agent
  return dump.erase(hardware, dump.find('\n', hardware) - hardware);
}

}  // namespace
}  // namespace KilnFuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace KilnFuzz;
  const ScratchDirectory directory;
  KilnAgent::AgentOptions options;
  options.state = directory / "state";
  options.durability = KilnAgent::Durability::process;
  { const KilnAgent::StateDirectory made(options.state); }
  const std::string path = options.state + "/store";
  fill(path, textIn(data, size));
  const std::string content = readWhole(path);
  std::string outcome;
  if (refusalOf([&] { outcome = outcomeOf(options, false); })) {
    KILN_ASSERT(readWhole(path) == content);
  } else {
    KILN_ASSERT(outcomeOf(options, true) == outcome);
  }
  return 0;
}
