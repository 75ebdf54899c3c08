#include "ctl/port_owner.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <list>
#include <set>
#include <sstream>

#include <unistd.h>

#include "util/directory.h"

namespace tavlo::ctl {

namespace {

constexpr const char* kListening = "0A";  // the kernel's number of the state

// The inodes of the sockets in a table of the kernel's that listen on the port.
void AddListeners(const char* table, uint16_t port, std::set<std::string>* inodes) {
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

PortOwner FindPortOwner(uint16_t port) {
  std::set<std::string> sockets;
  AddListeners("/proc/net/tcp", port, &sockets);
  AddListeners("/proc/net/tcp6", port, &sockets);
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
