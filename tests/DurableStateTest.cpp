// State that outlives the process: what a new agent finds in the directory, and what it refuses.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kiln/agent/host/EmbeddedAgent.h"
#include "kiln/agent/io/InputError.h"
#include "kiln/agent/io/RecordCode.h"
#include "kiln/agent/report/Dump.h"
#include "kiln/agent/scenario/Scenario.h"
#include "kiln/agent/store/RecordStore.h"
#include "sim/Plan.h"
#include "sim/Recompute.h"
#include "tests/Golden.h"
#include "tests/Lines.h"
#include "tests/TempDirectory.h"

namespace KilnTest {
namespace {

using namespace KilnSim;

using KilnAgent::AgentOptions;
using KilnAgent::EmbeddedAgent;
using KilnAgent::InputError;
using KilnAgent::RecordStore;
using KilnAgent::Scenario;

/// An agent over a directory; its end can simulate a killed process.
class DurableState : public testing::Test {
 protected:
  DurableState() { open(); }

  /// Uncommitted changes are lost.
  void reopen() {
    scenario.reset();
    agent.reset();
    open();
  }
  void open() {
    AgentOptions options;
    options.state = directory / "state";
    options.durability = KilnAgent::Durability::process;
    agent = std::make_unique<EmbeddedAgent>(options);
    scenario = std::make_unique<Scenario>(*agent, false, 1, nullptr);
  }
  void run(const std::string& line) { scenario->runLine(line); }
  void settleAndCommit() {
    agent->settle();
    agent->commit();
  }
  std::string allotted() {
    std::string text;
    for (std::uint64_t intfId = 1; intfId < 10; ++intfId) {
      const auto* domain = agent->vlanDomains().status()->status().find({intfId, 0});
      text += domain == nullptr ? "-" : std::to_string(*domain);
    }
    return text;
  }
  static std::string untagged(int intfId, const char* op = "publish", int version = 1) {
    return untaggedLine(op, "mpls", intfId, intfId, version);
  }

  TempDirectory directory;
  std::unique_ptr<EmbeddedAgent> agent;
  std::unique_ptr<Scenario> scenario;
};

/// Whether the effect of the operation survives the process.
bool survives(const KilnAgent::Operation& operation) {
  return std::visit(
      []<class T>(const T& /*operation*/) {
        return !std::is_same_v<T, KilnAgent::TableOperation> &&
               !std::is_same_v<T, KilnAgent::AnswerOperation> &&
               !std::is_same_v<T, KilnAgent::ExternalUserOperation> &&
               !std::is_same_v<T, KilnAgent::AddFapOperation> &&
               !std::is_same_v<T, KilnAgent::RemoveFapOperation> &&
               !std::is_same_v<T, KilnAgent::ProfileOperation>;
      },
      operation);
}

TEST_F(DurableState, RestartAfterRandomOperationsRestoresTheStateAndTouchesNothing) {
  for (std::uint64_t seed = 1; seed <= 6; ++seed) {
    std::mt19937 random(static_cast<std::uint32_t>(seed));
    const Plan plan = drawPlan(seed, 120);
    for (std::size_t i = 0; i < plan.withdrawnFrom; ++i) {
      if (!survives(plan.operations[i])) continue;
      try {
        scenario->execute(plan.operations[i]);
      } catch (const InputError&) {  // an allotment by hand while the service allots
      }
      if (random() % 4 == 0) agent->commit();
    }
    settleAndCommit();
    const Outcome before = outcomeOf(*agent);
    const std::string dump = dumpWithoutHardware(*agent);
    reopen();
    agent->settle();
    EXPECT_EQ("", difference(before, outcomeOf(*agent)));
    EXPECT_EQ(dump, dumpWithoutHardware(*agent)) << "seed " << seed;
    EXPECT_EQ(0U, agent->chip().counters().written);
    EXPECT_EQ(0U, agent->chip().counters().removed);
    EXPECT_EQ(0U, agent->durable()->pending()) << "a record changed";
  }
}

TEST_F(DurableState, RestartAfterAKillRestoresTheLastCommitAndTouchesOnlyDifferences) {
  for (const int intfId : {1, 2, 3}) run(untagged(intfId));
  settleAndCommit();
  run(untagged(4));
  run(untagged(2, "withdraw"));
  agent->settle();
  ASSERT_EQ("1-34-----", allotted());
  reopen();
  agent->settle();
  EXPECT_EQ("123------", allotted());
  EXPECT_EQ(1U, agent->chip().counters().written) << "the entry that was removed without a commit";
  EXPECT_EQ(1U, agent->chip().counters().removed) << "the entry that was written without one";
  EXPECT_EQ("", difference(recompute(wantedOf(*agent)), outcomeOf(*agent)));
}

TEST_F(DurableState, OrderSettingsAndRemovedFeaturesSurviveARestart) {
  run(R"({"op":"vlanDomains","mode":"auto","first":1,"last":2})");
  run(R"({"op":"share","intfId":9,"withIntfId":1,"systemTcamId":0})");
  run(R"({"op":"removeFeature","feature":"srv6"})");
  for (const int intfId : {2, 1, 8, 5, 7, 9}) run(untagged(intfId));
  settleAndCommit();
  run(untagged(8, "withdraw"));
  agent->settle();
  run(untagged(8));  // is requested again, and so is after the others
  settleAndCommit();
  ASSERT_EQ("21------2", allotted());
  reopen();
  EXPECT_FALSE(agent->store().features().has(KilnEmServer::FeatureType::srv6));
  agent->settle();
  EXPECT_EQ("21------2", allotted());
  std::vector<std::string> served;
  for (const int intfId : {2, 1}) {
    run(untagged(intfId, "withdraw"));
    agent->settle();
    served.push_back(allotted());
  }
  run(untagged(9, "withdraw"));
  agent->settle();
  served.push_back(allotted());
  EXPECT_EQ((std::vector<std::string>{"2---1---2", "----1---2", "----1-2--"}), served)
      << "who waits longest is served first, also after the death of the agent";
  run(R"({"op":"addFeature","feature":"srv6"})");
  run(R"({"op":"vlanDomains","mode":"manual"})");
  settleAndCommit();
  reopen();
  EXPECT_TRUE(agent->store().features().has(KilnEmServer::FeatureType::srv6));
  EXPECT_EQ(KilnAgent::VlanDomainService::Mode::manual, agent->vlanDomains().mode());
}

TEST_F(DurableState, FeatureRemovedAndAddedBetweenCommitsHasOnlyNewRequests) {
  for (int intfId = 1; intfId <= 300; ++intfId) run(untagged(intfId));
  for (const char* other : {"subinterface", "srv6"}) {
    std::string line = untagged(1000 + other[1]);
    run(line.replace(line.find("mpls"), 4, other));
  }
  settleAndCommit();
  run(untagged(3, "publish", 2));
  run(R"({"op":"removeFeature","feature":"mpls"})");
  EXPECT_EQ(1U, agent->durable()->pending()) << "its records are not looked at one by one";
  run(R"({"op":"addFeature","feature":"mpls"})");
  run(untagged(2));
  settleAndCommit();
  const std::string dump = dumpWithoutHardware(*agent);
  reopen();
  agent->settle();
  EXPECT_EQ(dump, dumpWithoutHardware(*agent));
  EXPECT_EQ(1U,
            agent->store().requests<KilnTunnelNiLib::Isem>(KilnEmServer::FeatureType::mpls)->config().size());
}

TEST_F(DurableState, StatusWithoutRequestIsWithdrawnAfterARestart) {
  const auto statuses = [this] {
    return agent->store().statuses<KilnTunnelNiLib::Isem>(KilnEmServer::FeatureType::mpls)->status().size();
  };
  for (const int intfId : {1, 2}) run(untagged(intfId));
  settleAndCommit();
  run(untagged(1, "withdraw"));
  agent->commit();
  reopen();
  EXPECT_EQ(2U, statuses()) << "before the server has run";
  agent->settle();
  EXPECT_EQ(1U, statuses());
  EXPECT_EQ("-2-------", allotted());
}

TEST_F(DurableState, RequestsAreLoadedInTheOrderOfTheirLastPublication) {
  const auto loaded = [this] {
    agent->commit();
    reopen();
    std::string order;
    KilnPlatform::forEachIn(
        agent->store().requests<KilnTunnelNiLib::Isem>(KilnEmServer::FeatureType::mpls)->config(),
        [&](const auto& key, const auto&) {
          order += std::to_string(
              key.emComposerKey.template get<KilnTunnelNiLib::IsemUntaggedComposerKey>().intfId);
        });
    return order;
  };
  for (const int intfId : {3, 1}) run(untagged(intfId));
  settleAndCommit();
  run(untagged(3, "withdraw"));
  run(untagged(2));
  run(untagged(3));
  EXPECT_EQ("123", loaded()) << "it came back before it was committed that it had gone";
  agent->settle();
  run(untagged(1, "withdraw"));
  agent->commit();  // its status is in the file
  run(untagged(4));
  run(untagged(1));
  EXPECT_EQ("2341", loaded());
  agent->settle();
  run(untagged(2, "withdraw"));
  run(untagged(2));
  run(untagged(5));
  run(untagged(2, "publish", 2));
  EXPECT_EQ("34125", loaded()) << "another version keeps the place";
}

TEST_F(DurableState, RecordChangedOftenBetweenCommitsIsWrittenOnce) {
  settleAndCommit();
  const std::uint64_t before = agent->durable()->counters().records;
  for (int i = 0; i < 100; ++i) run(untagged(1, i % 2 == 0 ? "publish" : "withdraw"));
  EXPECT_EQ(1U, agent->durable()->pending());
  agent->commit();
  EXPECT_EQ(before + 1, agent->durable()->counters().records);
}

TEST_F(DurableState, DirectoryHasOneAgentAndForeignDirectoriesAreUnchanged) {
  const auto openAt = [](const std::string& path) {
    return errorOf([&] {
      AgentOptions options;
      options.state = path;
      const EmbeddedAgent other(options);
    });
  };
  EXPECT_NE(std::string::npos, openAt(directory / "state").find("in use by another agent"));
  std::filesystem::create_directory(directory / "photos");
  writeFile(directory / "photos/cat.jpg", "meow");
  EXPECT_NE(std::string::npos, openAt(directory / "photos").find("it holds cat.jpg"));
  EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(directory / "photos"), {}));
  EXPECT_NE("no error", openAt(directory / "photos/cat.jpg"));
  EXPECT_NE("no error", openAt(directory / "nowhere/state"));
  std::filesystem::create_directory(directory / "linked");
  ASSERT_EQ("no error", openAt(directory / "linked"));
  std::filesystem::copy(directory / "linked", directory / "emptied",
                        std::filesystem::copy_options::recursive);
  std::filesystem::remove(directory / "emptied/socket");
  writeFile(directory / "emptied/store", "");
  EXPECT_NE(std::string::npos, openAt(directory / "emptied").find("store: is cut short"));
  EXPECT_EQ(0U, std::filesystem::file_size(directory / "emptied/store"));
  for (const char* file : {"store", "chip/isemMpls", "kiln-state"}) {
    std::filesystem::rename(directory / ("linked/" + std::string(file)), directory / "elsewhere");
    std::filesystem::create_symlink(directory / "elsewhere", directory / ("linked/" + std::string(file)));
    EXPECT_NE(std::string::npos, openAt(directory / "linked").find("is a symbolic link")) << file;
    std::filesystem::rename(directory / "elsewhere", directory / ("linked/" + std::string(file)));
  }
}

TEST_F(DurableState, OnlyTheOwnerCanReadTheState) {
  namespace fs = std::filesystem;
  const auto others = [this](bool allow) {
    std::size_t allowed = 0;
    const auto look = [&](const fs::path& path) {
      if (fs::is_symlink(path)) return;
      const auto rights = fs::perms::group_all | fs::perms::others_all;
      if ((fs::status(path).permissions() & rights) != fs::perms::none) ++allowed;
      if (allow) fs::permissions(path, rights, fs::perm_options::add);
    };
    look(directory / "state");
    for (const auto& file : fs::recursive_directory_iterator(directory / "state")) look(file.path());
    return allowed;
  };
  settleAndCommit();
  EXPECT_EQ(0U, others(true)) << "of what the agent created";
  reopen();
  EXPECT_EQ(0U, others(false)) << "of what an earlier agent left";
}

TEST(RecordStoreFile, TruncatedAndForeignFilesAreRefusedUnchanged) {
  const TempDirectory directory;
  const std::string path = directory / "store";
  {
    RecordStore store(path, KilnAgent::Durability::process);
    RecordStore::Batch batch(store);
    for (int i = 0; i < 500; ++i) batch.put(fmt::format("R{:04}", i), static_cast<std::uint64_t>(i), "value");
    batch.commit();
  }
  const auto openAndRead = [&] {
    return errorOf([&] {
      const RecordStore store(path, KilnAgent::Durability::process);
      store.visit("R", [](const RecordStore::Record&) {});
    });
  };
  const std::string whole = readWhole(path);
  ASSERT_EQ("no error", openAndRead());
  std::string flipped = whole;
  for (std::size_t at = flipped.find("value"); at != std::string::npos; at = flipped.find("value", at)) {
    flipped[at] = 'V';
  }
  const struct {
    std::string content;
    const char* told;
  } cases[] = {{"not a store", "not an agent's state store"},
               {std::string(20000, 'x'), "not an agent's state store"},
               {whole.substr(0, whole.size() - 4096), "is cut short"},
               {whole.substr(0, 8192), "is cut short"},
               {flipped, "is damaged"}};
  for (const auto& wrong : cases) {
    writeFile(path, wrong.content);
    EXPECT_NE(std::string::npos, openAndRead().find(wrong.told)) << openAndRead();
    EXPECT_EQ(wrong.content, readWhole(path));
  }
}

TEST_F(DurableState, InvalidRecordsAreRefusedUnchanged) {
  using KilnAgent::encoded;
  using KilnEmServer::FeatureType;
  using KilnTunnelNiLib::IsemEntryKey;
  scenario.reset();
  agent.reset();
  const IsemEntryKey requestKey{{}, {}, KilnTunnelNiLib::IsemMplsComposerKey{1, 0}};
  const std::string place =
      encoded(FeatureType::mpls) + encoded(KilnEmServer::EmType::isem) + encoded(requestKey);
  const std::string unknownStatus =
      encoded(std::uint64_t{0}) + encoded(std::uint32_t{1}) + encoded(std::uint32_t{1}) + "\x04\x01";
  const struct {
    std::string key;
    std::string value;
    const char* told;
  } cases[] = {{std::string("F") + '\x09', "", "no value 9"},
               {std::string("F") + '\x07' + "x", "", "bytes are left over"},
               {"R" + place, "\x04", "no part of a request"},
               {"R" + place, "\x02" + unknownStatus, "no value 4"},
               {"R" + place, "\x03", "it ends early"}};
  const std::string path = directory / "state/store";
  for (const auto& wrong : cases) {
    {
      RecordStore store(path, KilnAgent::Durability::process);
      RecordStore::Batch batch(store);
      batch.put(wrong.key, 1, wrong.value);
      batch.commit();
    }
    const std::string content = readWhole(path);
    const std::string told = errorOf([this] { open(); });
    EXPECT_NE(std::string::npos, told.find(wrong.told)) << told;
    EXPECT_EQ(content, readWhole(path));
    RecordStore store(path, KilnAgent::Durability::process);
    RecordStore::Batch batch(store);
    batch.del(wrong.key);
    batch.commit();
  }
}

TEST(RecordStoreFile, UncommittedBatchHasNoEffect) {
  const TempDirectory directory;
  std::string seen;
  {
    RecordStore store(directory / "store", KilnAgent::Durability::process);
    RecordStore::Batch(store).put("Rlost", 1, "x");
    RecordStore::Batch batch(store);
    batch.put("Rb", 1, "first");
    batch.put("Ra", 2, "second");
    batch.put("Rgone", 3, "x");
    batch.del("Rgone");
    batch.del("Rnever");
    batch.putInPlace("Ra", 0, "another");
    batch.put("Rc", 0, "first");
    batch.putInPlace("Rc", 3, "third");
    batch.commit();
  }
  const RecordStore store(directory / "store", KilnAgent::Durability::power);
  const auto add = [&](const RecordStore::Record& record) {
    seen += fmt::format("{}={} ", record.key, record.value);
  };
  store.visit("R", add);
  store.visitInOrder("R", add);
  EXPECT_EQ("Ra=another Rb=first Rc=third Rb=first Ra=another Rc=third ", seen);
}

}  // namespace
}  // namespace KilnTest
