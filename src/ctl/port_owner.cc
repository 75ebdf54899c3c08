#include "ctl/port_owner.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <list>
#include <set>
#include <sstream>

#include <arpa/inet.h>
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

// What a listener that gets the connections to an IPv4 address may be bound to.
std::set<std::string> LocalAddresses(const std::string& address) {
  in_addr ip = {};
  ::inet_pton(AF_INET, address.c_str(), &ip);
  const std::string any = Hexadecimal(INADDR_ANY);
  const std::string mapped = any + any + Hexadecimal(htonl(0xffff)) + Hexadecimal(ip.s_addr);
  return {Hexadecimal(ip.s_addr), mapped, any, any + any + any + any};
}

// The inodes of the sockets in a table of the kernel's that listen there.
void AddListeners(const char* table, const std::set<std::string>& addresses, uint16_t port,
                  std::set<std::string>* inodes) {
  std::ifstream lines(table);
  std::string line;
  std::getline(lines, line);  // the head
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string slot, local, remote, state, queues, timer, retransmits, uid, timeout, inode;
    fields >> slot >> local >> remote >> state >> queues >> timer >> retransmits >> uid >>
        timeout >> inode;
    const size_t colon = local.find(':');
    if (state == kListening && colon != std::string::npos &&
        addresses.count(local.substr(0, colon)) != 0 &&
        std::stoul(local.substr(colon + 1), nullptr, 16) == port) {
      inodes->insert("socket:[" + inode + "]");
    }
  }
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

}  // namespace

PortOwner FindPortOwner(const std::string& address, uint16_t port) {
  const std::set<std::string> addresses = LocalAddresses(address);
  std::set<std::string> sockets;
  AddListeners("/proc/net/tcp", addresses, port, &sockets);
  AddListeners("/proc/net/tcp6", addresses, port, &sockets);
  std::list<std::string> processes;
  stdext::list_directory("/proc", &processes);
  for (const std::string& pid : processes) {
    if (std::isdigit(static_cast<unsigned char>(pid.front())) != 0 &&
        HasOneOf("/proc/" + pid, sockets)) {
      PortOwner owner = {std::string(), pid};
      std::getline(std::ifstream("/proc/" + pid + "/comm"), owner.name);
      return owner;
    }
  }
  return {};
}

}  // namespace tavlo::ctl
