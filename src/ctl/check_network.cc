// What the daemon listens on, and whom it forwards to.

#include <cerrno>
#include <fstream>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ctl/checks.h"
#include "ctl/destination.h"
#include "ctl/port_owner.h"
#include "util/descriptor.h"
#include "util/error_text.h"
#include "util/router_util.h"

namespace tavlo::ctl {

namespace {

constexpr const char* kLoopback = "127.0.0.1";
constexpr const char* kDaemon = "tavlo";
constexpr int kUsualUnprivilegedStart = 1024;

struct Listener {
  const char* key;
  uint16_t port;
};

std::string Endpoint(const std::string& address, uint16_t port) {
  return address + ":" + std::to_string(port);
}

// As the daemon finds it; `address` stays empty when there is none.
Orx::Status FindLanAddress(const CheckContext& context, std::string* address) {
  unsigned char prefixLength = 0;
  return Orx::RouterUtil::GetIpAddrAndPrefix(context.settings.LanInterface(), AF_INET, address,
                                             &prefixLength);
}

// Ports below it are for root.
int UnprivilegedStart() {
  int port = kUsualUnprivilegedStart;
  std::ifstream("/proc/sys/net/ipv4/ip_unprivileged_port_start") >> port;
  return port;
}

// Takes the port for a moment, without listening. Returns the error number, or 0.
int TryToBind(const std::string& address, uint16_t port) {
  const stdext::descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  sockaddr_in name = {};
  name.sin_family = AF_INET;
  name.sin_port = htons(port);
  ::inet_pton(AF_INET, address.c_str(), &name.sin_addr);
  ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  return ::bind(socket.get(), reinterpret_cast<sockaddr*>(&name), sizeof name) == 0 ? 0 : errno;
}

void AddTaken(const CheckContext& context, const Listener& listener, const std::string& address,
              const PortOwner& owner, const std::string& consequence) {
  const std::string where = Endpoint(address, listener.port);
  if (owner.name.empty() && ::geteuid() != 0) {
    context.findings->AddUnseen(
        where, "whether it is the daemon that has the port: run this as root to see it");
    return;
  }
  context.findings->Add(
      where, "the port is taken by " + owner.Text() + ": " + consequence,
      std::string("end that program, or choose another \"") + listener.key + "\"");
}

// Adds what keeps the daemon from listening there. Returns whether it can, or does already.
bool CheckAddress(const CheckContext& context, const Listener& listener, const std::string& address,
                  const std::string& consequence) {
  const int error = TryToBind(address, listener.port);
  if (error == 0) {
    return true;
  }
  if (error != EADDRINUSE) {
    context.findings->Add(
        Endpoint(address, listener.port),
        "the port cannot be taken: " + stdext::error_number_and_text(error) + ": " + consequence,
        std::string("choose another \"") + listener.key + "\", or start the daemon as root");
    return false;
  }
  const PortOwner owner = FindPortOwner(address, listener.port);
  if (owner.name == kDaemon) {  // the daemon itself, at work
    return true;
  }
  AddTaken(context, listener, address, owner, consequence);
  return false;
}

// As it may be although the port is root's: a service manager can give a capability.
bool IsServedByUser(const CheckContext& context, const std::string& address, uint16_t port) {
  const PortOwner owner = FindPortOwner(address, port);
  return owner.name == kDaemon && owner.uid == context.user.Id();
}

void CheckPort(const CheckContext& context, const Listener& listener) {
  if (!CheckAddress(context, listener, kLoopback, "the daemon does not start")) {
    return;
  }
  std::string lan;
  FindLanAddress(context, &lan);
  if (!context.user.IsRoot() && listener.port < UnprivilegedStart() &&
      !IsServedByUser(context, lan, listener.port)) {
    context.findings->Add(Endpoint(lan.empty() ? "LAN" : lan, listener.port),
                          "user '" + context.user.Name() + "' may not take a port below " +
                              std::to_string(UnprivilegedStart()) +
                              ", which happens after the start: no client in the LAN is served",
                          std::string("choose another \"") + listener.key +
                              "\", or give the daemon CAP_NET_BIND_SERVICE");
  } else if (!lan.empty()) {
    CheckAddress(context, listener, lan, "no client in the LAN is served");
  }
}

// One that the daemon listens on.
bool IsOwnAddress(const CheckContext& context, const std::string& address) {
  std::string lan;
  FindLanAddress(context, &lan);
  return address == kLoopback || address == "localhost" || (!lan.empty() && address == lan);
}

}  // namespace

void CheckLanInterface(const CheckContext& context) {
  std::string address;
  const Orx::Status status = FindLanAddress(context, &address);
  if (!status.IsOk()) {
    context.findings->Add(context.settings.LanInterface(),
                          status.Message() + ": no client in the LAN is served",
                          "give it an IPv4 address, or fix \"lanInterface\"");
  }
}

void CheckPorts(const CheckContext& context) {
  const Listener plain = {"agentHttpPort", context.settings.AgentHttpPort()};
  const Listener tls = {"agentHttpsPort", context.settings.AgentHttpsPort()};
  const uint16_t destination = context.settings.AgentDstPort();
  CheckPort(context, plain);
  if (IsOwnAddress(context, context.settings.AgentDstAddr()) &&
      (destination == plain.port || destination == tls.port)) {
    context.findings->Add(Endpoint(context.settings.AgentDstAddr(), destination),
                          "requests are forwarded to the daemon's own port: they never get out",
                          R"(set "agentDstPort" to the port of the SDK REST host)");
  }
  if (plain.port == tls.port) {
    context.findings->Add(Endpoint(kLoopback, tls.port),
                          "both listeners want the port: the daemon does not start",
                          R"(choose another "agentHttpsPort")");
    return;
  }
  CheckPort(context, tls);
}

void CheckDestination(const CheckContext& context) {
  const std::string address = context.settings.AgentDstAddr();
  const uint16_t port = context.settings.AgentDstPort();
  const Orx::Status status =
      AskDestination(address, port, context.settings.AgentPrefix() + "/api/version");
  if (!status.IsOk()) {
    context.findings->Add(Endpoint(address, port),
                          "the SDK REST host does not answer (" + status.Message() +
                              "): clients are answered with 500",
                          R"(start it, or fix "agentDstAddr" and "agentDstPort")");
  }
}

}  // namespace tavlo::ctl
