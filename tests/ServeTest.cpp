// The agent as a service: its answers, misbehaving clients, its start and its end.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <list>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kiln/agent/io/InputError.h"
#include "kiln/agent/io/LineSocket.h"
#include "kiln/agent/report/Dump.h"
#include "kiln/agent/service/Service.h"
#include "tests/CommandLine.h"
#include "tests/Lines.h"

namespace KilnTest {
namespace {

using Json = nlohmann::json;
using KilnAgent::FileDescriptor;

const std::string kSettle = R"({"op":"settle"})";
const std::string kShowAgent = R"({"op":"show","what":"agent"})";
const std::string kShowDump = R"({"op":"show","what":"dump"})";

/// A client that sends and receives text.
class Client {
 public:
  explicit Client(const std::string& path) : socket_(KilnAgent::connectTo(path)) {}

  void send(const std::string& bytes) const {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t count = ::send(socket_.number(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (count < 0) return;
      sent += static_cast<std::size_t>(count);
    }
  }
  /// The next answer; null if the connection ended.
  Json answer() {
    std::size_t end = 0;
    while ((end = received_.find('\n')) == std::string::npos) {
      std::string buffer(65536, '\0');
      const ssize_t count = ::recv(socket_.number(), buffer.data(), buffer.size(), 0);
      if (count <= 0) return nullptr;
      received_.append(buffer, 0, static_cast<std::size_t>(count));
    }
    const Json answer = Json::parse(received_.substr(0, end));
    received_.erase(0, end + 1);
    return answer;
  }
  Json ask(const std::string& line) {
    send(line + "\n");
    return answer();
  }
  void endSending() const { ::shutdown(socket_.number(), SHUT_WR); }

 private:
  FileDescriptor socket_;
  std::string received_;
};

/// A process that serves a state directory of the test.
class Serve : public CommandLine {
 protected:
  ~Serve() override {
    if (process_ > 0) kill(SIGKILL);
  }

  /// Starts the agent, after calling `prepare` in its process, and waits until it listens.
  void start(
      const std::vector<std::string>& environment = {}, void (*prepare)() = [] {}) {
    process_ = fork();
    if (process_ == 0) {
      for (const std::string& variable : environment) putenv(strdup(variable.c_str()));
      freopen((directory / "err").c_str(), "w", stderr);
      prepare();
      execl(binary().c_str(), "kiln-agent", "serve", "--no-sync", "--state", (directory / "state").c_str(),
            nullptr);
      _exit(127);
    }
    while (true) {
      try {
        KilnAgent::connectTo(socketPath());
        return;
      } catch (const KilnAgent::InputError&) {
        ASSERT_EQ(0, waitpid(process_, nullptr, WNOHANG)) << readWhole(directory / "err");
        usleep(1000);
      }
    }
  }
  /// Sends a signal; returns the process's exit status, or minus the signal that ended it.
  int kill(int signal) {
    int status = 0;
    ::kill(process_, signal);
    waitpid(std::exchange(process_, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  std::string socketPath() const { return directory / "state/socket"; }

  pid_t process_ = 0;
};

TEST_F(Serve, AcknowledgedOperationsSurviveAKill) {
  start();
  {
    Client client(socketPath());
    EXPECT_EQ((Json{{"line", 1}, {"ok", true}, {"durable", true}}), client.ask(publishLine(1)));
    client.send("\n// a comment\n");
    EXPECT_EQ((Json{{"line", 4}, {"ok", true}, {"durable", false}}),
              client.ask(R"({"op":"table","table":"isemMpls","capacity":77})"));
    EXPECT_EQ((Json{{"line", 5}, {"ok", true}}), client.ask(kSettle));
  }
  EXPECT_EQ(-SIGKILL, kill(SIGKILL));
  start();
  Client client(socketPath());
  client.ask(kSettle);
  const Json agent = client.ask(kShowAgent)["agent"];
  EXPECT_EQ((Json{{"written", 0}, {"removed", 0}, {"unchanged", 1}}), agent["hardware"]["isemMpls"]);
  EXPECT_EQ("hwSuccess", client.ask(kShowDump)["dump"]["statuses"][0]["status"]);
}

TEST_F(Serve, InvalidLinesGetErrorsAndHaveNoEffect) {
  start();
  Client client(socketPath());
  const struct {
    std::string line;
    const char* told;
  } cases[] = {
      {"nonsense", "not a line of JSON"},
      {"[1]", "expected an object"},
      {"\xFF\xFE{}", "not a line of JSON"},
      {R"({"op":"explode"})", "unknown operation"},
      {R"({"op":"show"})", "\"what\" is missing"},
      {R"({"op":"show","what":"\udcff"})", "not a line of JSON"},
      {R"({"op":"show","what":"weather"})", "unknown name \"weather\""},
      {R"({"op":"allot","intfId":1,"systemTcamId":0,"vlanDomain":5})", "allotted automatically"},
      {R"({"op":"publish","feature":"mpls","database":"lem","requestVersion":1,)"
       R"("key":{"isemMplsEntryKey":{"label":1,"labelSpace":0}},"entry":{"isemMplsEntry":{"lif":7,"vsi":3}}})",
       "refused"},
      {R"({"op":"expect","feature":"mpls","database":"isem",)"
       R"("key":{"isemMplsEntryKey":{"label":1,"labelSpace":0}},"status":"hwSuccess"})",
       "expected"},
      {R"({"op":"crash","lost":true})", "does not discard what it acknowledged"},
      {kSettle + '\0' + "x", "NUL"},
      {std::string((1U << 20U) + 1, 'x'), "more than 1048576 bytes"},
      {std::string(5U << 20U, 'x'), "more than 1048576 bytes"}};
  std::uint64_t line = 0;
  for (const auto& wrong : cases) {
    const Json answer = client.ask(wrong.line);
    EXPECT_EQ(++line, answer["line"]);
    EXPECT_EQ(false, answer["ok"]);
    EXPECT_NE(std::string::npos, answer.value("error", "").find(wrong.told)) << answer;
  }
  EXPECT_EQ(true, client.ask(publishLine(1))["ok"]);
  client.send(
      R"({"op":"withdraw","feature":"mpls","database":"isem","key":{"isemMplsEntryKey":{"label":1,"la)");
  client.endSending();
  EXPECT_EQ("the line has no end", client.answer()["error"]);
  EXPECT_EQ(nullptr, client.answer());
  EXPECT_EQ(0, kill(SIGTERM));
}

TEST_F(Serve, VanishedAndUnresponsiveClientsDoNotBlockOthers) {
  start();
  std::string many;
  for (int label = 1; label <= 200; ++label) many += publishLine(label) + "\n";
  for (int round = 0; round < 10; ++round) Client(socketPath()).send(many);  // and closes before any answer
  Client active(socketPath());
  std::list<Client> idle;
  for (std::size_t count = 0; count <= KilnAgent::Service::kMostClients; ++count) {
    idle.emplace_back(socketPath());
    EXPECT_EQ(true, idle.back().ask(kShowAgent)["ok"]);
    EXPECT_EQ(true, active.ask(kShowAgent)["ok"]);
  }
  EXPECT_EQ(nullptr, idle.front().answer()) << "who was idle for longest makes room";
  Client unresponsive(socketPath());
  std::string questions;
  for (int i = 0; i < 2000; ++i) questions += kShowDump + "\n";
  unresponsive.send(questions);
  Client client(socketPath());
  Json dump;
  do {
    client.ask(kSettle);
    dump = client.ask(kShowDump)["dump"];
  } while (dump["statuses"].size() < 200);
  EXPECT_EQ(200U, dump["statuses"].size());
  EXPECT_EQ(200U, dump["tables"]["isemMpls"].size());
  EXPECT_EQ(0, kill(SIGTERM)) << "though one client does not take its answers";
}

TEST_F(Serve, SecondAgentIsRefusedAndStaleSocketIsReplaced) {
  start();
  const auto expectRefused = [this](const std::string& options, const char* told = "") {
    const Result result = run("serve --state " + options);
    EXPECT_EQ(2, result.code);
    EXPECT_NE(std::string::npos, result.err.find(told)) << result.err;
  };
  expectRefused(directory / "state", "in use by another agent");
  expectRefused(fmt::format("{} --socket {}", directory / "other", socketPath()),
                "another process listens there");
  kill(SIGKILL);
  ASSERT_TRUE(std::filesystem::exists(socketPath())) << "what a killed agent leaves";
  start();
  EXPECT_EQ(0, kill(SIGTERM));
  EXPECT_FALSE(std::filesystem::exists(socketPath()));
  start();
  std::filesystem::remove(socketPath());
  writeFile(socketPath(), "mine");
  EXPECT_EQ(0, kill(SIGTERM));
  expectRefused(directory / "state");
  EXPECT_EQ("mine", readWhole(socketPath()));
  expectRefused(fmt::format("{} --socket {}", directory / "state", std::string(200, 'x')));
}

TEST_F(Serve, ClosedOrFailingStandardDescriptorsAreHarmless) {
  void (*const troubles[])() = {[] {
                                  for (int number = 0; number <= 2; ++number) close(number);
                                },
                                [] { freopen("/dev/full", "w", stderr); },
                                [] {
                                  int ends[2];
                                  if (pipe(ends) == 0) dup2(ends[1], STDERR_FILENO);
                                  close(ends[0]);
                                }};
  int label = 0;
  for (const auto trouble : troubles) {
    start({}, trouble);
    Client client(socketPath());
    client.ask(kSettle);
    EXPECT_EQ(true, client.ask(kShowAgent)["agent"]["ready"]) << "and its message was written, or not";
    EXPECT_EQ(true, client.ask(publishLine(++label))["durable"]);
    client.ask(kSettle);
    EXPECT_EQ(label, client.ask(kShowDump)["dump"]["statuses"].size());
    EXPECT_EQ(0, kill(SIGTERM));
  }
}

TEST_F(Serve, ServiceManagerIsNotifiedOfStartWatchdogAndStop) {
  FileDescriptor manager(::socket(AF_UNIX, SOCK_DGRAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (directory / "notify").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(manager.number(), reinterpret_cast<sockaddr*>(&address), sizeof address));
  start({"NOTIFY_SOCKET=" + (directory / "notify"), "WATCHDOG_USEC=20000"});
  std::string told;
  const auto hear = [&](const std::string& awaited) {
    while (told.find(awaited) == std::string::npos) {
      char message[1024];
      const ssize_t count = recv(manager.number(), message, sizeof message, 0);
      ASSERT_GT(count, 0);
      told += std::string(message, static_cast<std::size_t>(count)) + "\n";
    }
  };
  hear("READY=1");
  EXPECT_TRUE(told.starts_with("STATUS=Reconciling")) << told;
  told.clear();
  hear("WATCHDOG=1");
  EXPECT_EQ(0, kill(SIGTERM));
  hear("STOPPING=1");
}

TEST_F(Serve, SendShowsAnswersAndReturnsTheirResult) {
  start();
  const auto sent = [this](const std::string& arguments) { return run("send " + arguments); };
  const std::string good =
      socketPath() + " " + write("good.jsonl", "// two\n" + publishLine(1) + "\n" + publishLine(2));
  const Result first = sent(good);
  EXPECT_EQ(0, first.code);
  EXPECT_EQ("{\"durable\":true,\"line\":2,\"ok\":true}\n{\"durable\":true,\"line\":3,\"ok\":true}\n",
            first.out);
  const Result bad =
      sent("--quiet " + socketPath() + " " + write("bad.jsonl", publishLine(3) + "\nnonsense\n"));
  EXPECT_EQ(1, bad.code);
  EXPECT_EQ(1, std::count(bad.out.begin(), bad.out.end(), '\n')) << bad.out;
  EXPECT_EQ(2, sent((directory / "nowhere") + " " + (directory / "good.jsonl")).code);
  kill(SIGTERM);
  EXPECT_EQ(2, sent(good).code);
}

/// A service in the test's process: it runs only in turns, which never wait.
class Turns : public testing::Test {
 protected:
  Turns() {
    int ends[2];
    EXPECT_EQ(0, pipe(ends));
    EXPECT_EQ(1, write(ends[1], "x", 1));
    close(ends[1]);
    KilnAgent::ServeOptions options;
    options.agent.state = directory / "state";
    options.agent.durability = KilnAgent::Durability::process;
    service.emplace(options, FileDescriptor(ends[0]));
    settle();
  }
  void settle() {
    do {
      service->turn();
    } while (!service->agent().scheduler().idle());
  }
  FileDescriptor connect() {
    int ends[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends));
    service->clientIs(KilnAgent::LineConnection(FileDescriptor(ends[0])));
    return FileDescriptor(ends[1]);
  }
  static void send(const FileDescriptor& client, const std::string& line) {
    EXPECT_EQ(std::ssize(line) + 1, ::send(client.number(), (line + "\n").data(), line.size() + 1, 0));
  }
  static std::string received(const FileDescriptor& client) {
    std::string text(std::size_t{1} << 20U, '\0');
    const ssize_t count = recv(client.number(), text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return text;
  }
  /// The next answer; to be called if nothing else is to be received.
  Json answer(const FileDescriptor& client) {
    std::string text;
    while (!text.ends_with('\n')) {
      service->turn();
      text += received(client);
    }
    return Json::parse(text);
  }

  TempDirectory directory;
  std::optional<KilnAgent::Service> service;
};

TEST_F(Turns, SettleAndRunOfAClientDoNotBlockOthers) {
  constexpr int kRequests = 50;  // more than any machine publishes and settles in one turn
  for (const std::string& wait : {kSettle, std::string(R"({"op":"run","tasks":18446744073709551615})")}) {
    const FileDescriptor waiting = connect();
    const FileDescriptor other = connect();
    std::string lines;
    for (int label = 1; label <= kRequests; ++label)
      lines += publishLine(label, wait == kSettle ? 1 : 2) + "\n";
    send(waiting, lines + wait);
    send(other, kShowAgent);
    EXPECT_EQ(false, answer(other)["agent"]["idle"]) << "it was answered before the work was done";
    std::string answers;
    while (std::count(answers.begin(), answers.end(), '\n') <= kRequests) {
      service->turn();
      answers += received(waiting);
    }
    EXPECT_TRUE(service->agent().scheduler().idle()) << answers;
  }
}

TEST_F(Turns, LongAnswersAreProducedOnDemandAndFlagOneMoment) {
  constexpr int kRequests = 3000;
  const FileDescriptor client = connect();
  for (int label = 1; label <= kRequests; ++label) {
    send(client, publishLine(label));
    EXPECT_EQ(true, answer(client)["ok"]);
  }
  settle();
  const auto rows = [](const Json& dump) {
    std::set<std::string> each;
    for (const auto& [name, part] : dump.items()) {
      if (!part.is_array()) {
        each.insert(name + (name == "tables" ? "" : part.dump()));
        continue;
      }
      for (const Json& row : part) each.insert(name + row.dump());
    }
    for (const auto& [stem, table] : dump["tables"].items()) {
      for (const Json& row : table) each.insert(stem + row.dump());
    }
    return each;
  };
  send(client, kShowDump);
  Json dump = answer(client)["dump"];
  EXPECT_EQ(true, dump["oneMoment"]);
  dump.erase("oneMoment");
  EXPECT_EQ(rows(Json::parse(KilnAgent::dumpText(service->agent()))), rows(dump));

  send(client, kShowDump);
  for (int turn = 0; turn < 1000; ++turn) service->turn();
  const FileDescriptor other = connect();
  send(other, publishLine(kRequests + 1));
  EXPECT_EQ(true, answer(other)["durable"]) << "though the first client takes nothing";
  dump = answer(client)["dump"];
  EXPECT_EQ(false, dump["oneMoment"]);
  EXPECT_LE(kRequests, dump["statuses"].size());

  send(client, R"({"op":"withdrawAll","feature":"mpls","database":"isem"})");
  EXPECT_EQ(true, answer(client)["durable"]);
  settle();
  send(client, kShowDump);
  dump = answer(client)["dump"];
  EXPECT_EQ(0U, dump["statuses"].size() + dump["tables"]["isemMpls"].size());
}

}  // namespace
}  // namespace KilnTest
