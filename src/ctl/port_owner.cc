#include "ctl/port_owner.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <list>
#include <set>
#include <sstream>
#include <vector>

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include "util/directory.h"

namespace tavlo::ctl {

namespace {

constexpr const char* kListening = "0A";  // the kernel's number of the state

// As the kernel's tables have it: a word as the machine reads it.
std::string Hexadecimal(uint32_t word) {
  std::array<char, 9> text = {};
  std::snprintf(text.data(), text.size(), "%08X", word);
  return text.data();
}

// One kind of sockets that keep others off an address and port.
struct Kind {
  const char* table;
  std::string address;
  bool listensOnly;
};

// The likelier one first: whether a socket on all IPv6 addresses has the IPv4 ones too is not
// shown.
std::vector<Kind> Kinds(const std::string& address) {
  in_addr ip = {};
  ::inet_pton(AF_INET, address.c_str(), &ip);
  const std::string exact = Hexadecimal(ip.s_addr);
  const std::string any = Hexadecimal(INADDR_ANY);
  const std::string mapped = any + any + Hexadecimal(htonl(0xffff)) + exact;
  return {{"/proc/net/tcp", exact, true},
          {"/proc/net/tcp", any, true},
          {"/proc/net/tcp6", mapped, true},
          {"/proc/net/tcp6", any + any + any + any, true},
          {"/proc/net/tcp", exact, false}};  // a connection that goes out from there
}

std::set<std::string> FindSockets(const Kind& kind, uint16_t port) {
  std::set<std::string> sockets;
  const std::string endpoint = kind.address + ":" + Hexadecimal(port).substr(4);
  std::ifstream lines(kind.table);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.find(endpoint) == std::string::npos) {
      continue;  // of tens of thousands, on a busy router
    }
    std::istringstream fields(line);
    std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
    fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >>
        timeout >> inode;
    if (local == endpoint && (!kind.listensOnly || state == kListening)) {
      sockets.insert("socket:[" + inode + "]");
    }
  }
  return sockets;
}

bool HasOneOf(const std::string& process, const std::set<std::string>& sockets) {
  const std::string directory = process + "/fd";
  std::list<std::string> descriptors;
  stdext::list_directory(directory, &descriptors);
  return std::any_of(descriptors.begin(), descriptors.end(), [&](const std::string& descriptor) {
    char target[64] = {};
    const ssize_t size = ::readlink((directory + "/" + descriptor).c_str(), target, sizeof target);
    return size > 0 && sockets.count(std::string(target, static_cast<size_t>(size))) != 0;
  });
}

// Its name is empty when there is none.
PortOwner FindOwner(const std::set<std::string>& sockets) {
  std::list<std::string> processes;
  stdext::list_directory("/proc", &processes);
  for (const std::string& pid : processes) {
    const std::string process = "/proc/" + pid;
    struct stat info = {};
    if (std::isdigit(static_cast<unsigned char>(pid.front())) != 0 && HasOneOf(process, sockets) &&
        ::stat(process.c_str(), &info) == 0) {
      PortOwner owner = {std::string(), pid, info.st_uid};
      std::getline(std::ifstream(process + "/comm"), owner.name);
      return owner;
    }
  }
  return {};
}

}  // namespace

PortOwner FindPortOwner(const std::string& address, uint16_t port) {
  for (const Kind& kind : Kinds(address)) {
    const std::set<std::string> sockets = FindSockets(kind, port);
    PortOwner owner = sockets.empty() ? PortOwner() : FindOwner(sockets);
    if (!owner.name.empty()) {
      return owner;
    }
  }
  return {};
}

}  // namespace tavlo::ctl
