// The whole server once more, on naive collections: the same sources are compiled a second time, with the
// headers of bench/naive in the place of the runtime's and with namespaces of another name. This is where the
// two meet, so no type of either is named here.
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
