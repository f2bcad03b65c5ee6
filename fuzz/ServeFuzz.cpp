// The operations of a socket: every line that is not blank is answered, in order and once, and the state is
// found again after a restart. The bytes are two clients' lines; those that begin with # are the second
// client's.
#include <algorithm>
#include <sstream>

#include "fuzz/Fuzz.h"
#include "fuzz/Scratch.h"
#include "kiln/agent/io/JsonValue.h"
#include "kiln/agent/report/Dump.h"
#include "kiln/agent/scenario/Operation.h"
#include "kiln/agent/service/Service.h"

namespace KilnFuzz {
namespace {

using KilnAgent::Json;

bool isOperation(const std::string& line) {
  return !refusalOf([&] { KilnAgent::parseOperation(line); });
}

/// Compares the answers with their lines.
void check(const std::string& lines, const std::string& answers) {
  std::istringstream sent(lines);
  std::istringstream said(answers);
  std::uint64_t number = 0;
  for (std::string line; std::getline(sent, line);) {
    ++number;
    if (KilnAgent::Scenario::isBlank(line) && !sent.eof()) continue;
    std::string text;
    KILN_ASSERT(static_cast<bool>(std::getline(said, text)));
    const Json answer = Json::parse(text);
    KILN_ASSERT(answer.at("line") == number);
    const bool ok = answer.at("ok").get<bool>();
    KILN_ASSERT(ok != answer.contains("error"));
    KILN_ASSERT(ok ||
                (!answer.contains("durable") && !answer.at("error").get_ref<const std::string&>().empty()));
    KILN_ASSERT(!ok || (!sent.eof() && (!answer.contains("durable") || isOperation(line))));
  }
  KILN_ASSERT(said.peek() == std::istringstream::traits_type::eof());
}

/// One client: the lines that it sends, and the answers that it received.
struct Client {
  explicit Client(KilnAgent::Service& service) {
    auto [own, other] = connection();
    end = std::move(own);
    service.clientIs(KilnAgent::LineConnection(std::move(other)));
  }
  void exchange() {
    const ssize_t count = ::send(end.number(), lines.data() + sent, lines.size() - sent, MSG_NOSIGNAL);
    if (count > 0) sent += static_cast<std::size_t>(count);
    if (sent == lines.size()) ::shutdown(end.number(), SHUT_WR);
    answers += received(end);
  }
  KilnAgent::FileDescriptor end;
  std::string lines;
  std::size_t sent = 0;
  std::string answers;
};

void serve(const KilnAgent::ServeOptions& options, std::string_view input) {
  KilnAgent::Service service(options, KilnAgent::FileDescriptor());
  Client clients[] = {Client(service), Client(service)};
  while (!input.empty()) {
    const std::string_view line = input.substr(0, std::min(input.find('\n'), input.size() - 1) + 1);
    input.remove_prefix(line.size());
    const bool second = line.front() == '#';
    clients[second ? 1 : 0].lines += line.substr(second ? 1 : 0);
  }
  while (service.clients() != 0) {
    for (Client& client : clients) client.exchange();
    service.turn();
  }
  for (Client& client : clients) {
    client.exchange();
    check(client.lines, client.answers);
  }
}

}  // namespace
}  // namespace KilnFuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const KilnFuzz::ScratchDirectory directory;
  KilnAgent::ServeOptions options;
  options.agent.state = directory / "state";
  options.agent.durability = KilnAgent::Durability::process;
  KilnFuzz::serve(options, KilnFuzz::textIn(data, size));
  KilnAgent::EmbeddedAgent successor(options.agent);
  successor.settle();
  KILN_ASSERT(KilnAgent::Json::accept(KilnAgent::dumpText(successor)));
  return 0;
}
