// A second build of the whole server on naive collections: the same sources, compiled with the headers of
// bench/naive instead of the runtime's and with renamed namespaces. This header is used by both builds, so it
// names no type of either.
#pragma once

#include <cstdint>
#include <memory>

namespace KilnNaive {

/// A server over the embedded agent's chip, VLAN-domain service and in-memory store; mixed requests.
class Server {
 public:
  Server();
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  void publish(std::uint32_t n, std::uint32_t version);
  void withdraw(std::uint32_t n);
  void handIn();
  void settle();
  void stop();
  void start();
  [[nodiscard]] std::uint32_t settled(std::uint32_t version) const;

 private:
  struct Content;
  std::unique_ptr<Content> content_;
};

}  // namespace KilnNaive
