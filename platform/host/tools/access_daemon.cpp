// access_daemon: answers ValidateAuthToken in the place of the camera's access daemon.
//
//   --accept TOKEN   a valid token; may be given many times. Any other is refused.
//   --delay MS       answers that much later
//   --nonsense       answers with a text that is no reply
//   --close          closes the connection in the place of an answer
//   --print          prints the requests as JSON, one a line, their tokens too
//   --name NAME      is not at "vexo_avclient" but at this address
//
// Statuses: 0 accepted, 1 refused, 2 not a request that it knows. Prints "ready" once it can be
// reached; runs until a signal ends it.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <getopt.h>
#include <poll.h>

#include "../src/packets.h"

namespace {

using vexo::host::PacketSocket;
using vexo::host::Transfer;
using vexo::variant::Variant;

enum Status : unsigned { kAccepted = 0, kRefused = 1, kUnknownRequest = 2 };

struct Options {
  std::string name = "vexo_avclient";
  std::set<std::string> accepted;
  int delayMs = 0;
  bool nonsense = false;
  bool close = false;
  bool print = false;
};

// False: there is one that it does not know, which getopt_long(3) has reported.
bool parse(int argc, char** argv, Options& options) {
  const option known[] = {{"name", required_argument, nullptr, 'n'},
                          {"accept", required_argument, nullptr, 'a'},
                          {"delay", required_argument, nullptr, 'd'},
                          {"nonsense", no_argument, nullptr, 'x'},
                          {"close", no_argument, nullptr, 'c'},
                          {"print", no_argument, nullptr, 'p'},
                          {}};
  for (int letter = 0; (letter = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
    if (letter == '?') return false;
    if (letter == 'n') options.name = optarg;
    if (letter == 'a') options.accepted.insert(optarg);
    if (letter == 'd') options.delayMs = std::atoi(optarg);
    if (letter == 'x') options.nonsense = true;
    if (letter == 'c') options.close = true;
    if (letter == 'p') options.print = true;
  }
  return optind == argc;
}

void printLine(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

Status judge(const Options& options, const Variant& request) {
  std::string function;
  std::string token;
  request["functionName"].read(function);
  if (function != "ValidateAuthToken" || !request["authToken"].read(token)) return kUnknownRequest;
  return options.accepted.count(token) != 0 ? kAccepted : kRefused;
}

// False: the connection is to be closed.
bool answer(const Options& options, const PacketSocket& client, const Variant& request) {
  std::uint64_t id = 0;
  if (!request["id"].read(id)) return false;
  if (options.print) printLine(request.toJson());
  poll(nullptr, 0, options.delayMs);  // the others wait meanwhile
  bool expected = false;
  request["responseExpected"].read(expected);
  if (!expected) return true;
  if (options.close) return false;
  std::string packet = "{\"id\":";
  if (!options.nonsense) {
    const Variant::Map reply = {{"id", id}, {"status", unsigned{judge(options, request)}}};
    vexo::host::encode(reply, packet);
  }
  return client.send(packet) == Transfer::kDone;
}

// False: the connection is to be closed.
bool serve(const Options& options, const PacketSocket& client) {
  std::string packet;
  Variant request;
  const Transfer result = client.receive(packet);
  if (result == Transfer::kNotYet) return true;
  return result == Transfer::kDone && vexo::host::decode(packet, request) &&
         answer(options, client, std::as_const(request));
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) return 2;
  const PacketSocket listener = PacketSocket::named(options.name);
  if (!listener.valid() || !listener.listen()) {
    std::perror(("access_daemon: " + options.name).c_str());
    return 1;
  }
  printLine("ready");
  for (std::vector<PacketSocket> clients;;) {
    std::vector<pollfd> polled = {{listener.fd(), POLLIN, 0}};
    for (const PacketSocket& client : clients) polled.push_back({client.fd(), POLLIN, 0});
    poll(polled.data(), polled.size(), -1);
    std::vector<PacketSocket> staying;
    for (std::size_t i = 0; i < clients.size(); ++i) {
      if (polled[i + 1].revents == 0 || serve(options, clients[i])) {
        staying.push_back(std::move(clients[i]));
      }
    }
    if (polled[0].revents != 0) {
      PacketSocket client = listener.accept();
      if (client.valid()) staying.push_back(std::move(client));
    }
    clients = std::move(staying);
  }
}
