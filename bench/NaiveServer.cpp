#include "bench/NaiveServer.h"

#include "bench/Subjects.h"

namespace KilnNaive {

struct Server::Content {
  KilnBench::ServerWithLists server;
};

Server::Server() : content_(std::make_unique<Content>()) {}
Server::~Server() = default;

void Server::publish(std::uint32_t n, std::uint32_t version) {
  content_->server.publish(n, version);
}
void Server::withdraw(std::uint32_t n) {
  content_->server.withdraw(n);
}
void Server::handIn() {
  content_->server.handIn();
}
void Server::settle() {
  content_->server.settle();
}
void Server::stop() {
  content_->server.stop();
}
void Server::start() {
  content_->server.start();
}
std::uint32_t Server::settled(std::uint32_t version) const {
  return content_->server.settled(version);
}

}  // namespace KilnNaive
