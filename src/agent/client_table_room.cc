// What clients hold, and who gives way when there is no room for more of it.

#include <algorithm>
#include <cstddef>
#include <string>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/http.h>
#include <sys/ioctl.h>

#include "agent/client_table.h"
#include "agent/limits.h"
#include "util/log.h"

namespace tavlo {

namespace {

constexpr const char* kTooManyConnections = "too many connections";
constexpr const char* kTooMuchUnfinished = "unfinished requests take too much memory";
constexpr const char* kTooMuchUntaken = "unread answers take too much memory";

// What the client has not acknowledged of what was written. The kernel takes in a large piece at
// once, and then no more until much of that has been read.
size_t HeldByKernel(int fd) {
  int bytes = 0;
  return ::ioctl(fd, TIOCOUTQ, &bytes) == 0 ? static_cast<size_t>(bytes) : 0;
}

}  // namespace

void ClientTable::Recount(Client* client) {
  if (client->isEnding) {
    return;
  }
  const size_t bytes = client->stream + client->request + client->incoming + client->spare +
                       client->framing.Lines() * kHeaderOverhead;
  const size_t change = bytes - client->unfinished;  // wraps around where it is less
  client->unfinished = bytes;
  client->address->second.unfinished += change;
  unfinished_ += change;
}

void ClientTable::SetUntaken(Client* client, size_t bytes) {
  const size_t change = bytes - client->untaken;
  client->untaken = bytes;
  client->address->second.untaken += change;
  untaken_ += change;
}

// It is gone, or will be in a moment.
void ClientTable::CountNoMore(Client* client) {
  Address& address = client->address->second;
  address.unfinished -= client->unfinished;
  address.untaken -= client->untaken;
  unfinished_ -= client->unfinished;
  untaken_ -= client->untaken;
  client->unfinished = 0;
  client->untaken = 0;
  if (--address.connections == 0) {
    addresses_.erase(client->address->first);
  }
  client->address = nullptr;
}

// Where answers take much, requests may take less.
size_t ClientTable::UnfinishedBound() const {
  return untaken_ > kMaxUntaken / 2 ? maxUnfinished_ / 4 : maxUnfinished_;
}

void ClientTable::LookAtAnswers() {
  for (Client& client : clients_) {
    LookAtAnswer(&client);
  }
}

void ClientTable::LookAtAnswer(Client* client) {
  if (client->state != State::kWriting || client->isEnding) {
    return;
  }
  bufferevent* const stream = evhttp_connection_get_bufferevent(client->connection);
  const size_t left = evbuffer_get_length(bufferevent_get_output(stream));
  SetUntaken(client, left);
  const size_t backlog = left + HeldByKernel(bufferevent_getfd(stream));
  if (backlog != client->backlog) {
    client->backlog = backlog;
    client->progressTime = Clock::now();
  }
}

size_t ClientTable::RoomForAnswer(const std::string& address) {
  if (untaken_ > kMaxUntaken) {
    MakeRoomForAnswers();
  }
  if (untaken_ <= kMaxUntaken) {
    return kMaxReplyBody;
  }
  const size_t largest =
      std::max_element(clients_.begin(), clients_.end(), [](const Client& a, const Client& b) {
        return a.untaken < b.untaken;
      })->untaken;
  const bool holdsMost = LargestAddress(&Address::untaken).first == address;
  const size_t bound = kMaxUntaken + largest + (holdsMost ? 0 : kReservedBytes);
  return bound > untaken_ ? std::min(bound - untaken_, kMaxReplyBody) : 0;
}

void ClientTable::MakeRoomForConnection(Client* latest) {
  while (clients_.size() - ending_ > maxClients_ && !latest->isEnding) {
    const AddressEntry* const most = &LargestAddress(&Address::connections);
    Client* victim = LongestWaiting(most, nullptr);
    if (victim == nullptr) {
      if (most != latest->address && clients_.size() - ending_ <= maxClients_ + kReservedClients) {
        return;
      }
      victim = latest;
    }
    EndForRoom(victim, kTooManyConnections);
  }
}

void ClientTable::MakeRoomForInput(Client* reading) {
  if (unfinished_ > UnfinishedBound()) {
    LookAtAnswers();
  }
  const size_t bound = UnfinishedBound();
  while (unfinished_ > bound && !reading->isEnding) {
    const AddressEntry* const most = &LargestAddress(&Address::unfinished);
    Client* victim = LongestWaiting(most, &Client::unfinished);
    if (victim == nullptr) {
      const bool mayUseReserve = most != reading->address && unfinished_ <= bound + kReservedBytes;
      if (mayUseReserve || !MayEnd(reading)) {
        return;
      }
      victim = reading;
    }
    EndForRoom(victim, kTooMuchUnfinished);
  }
}

void ClientTable::MakeRoomForAnswers() {
  LookAtAnswers();
  while (untaken_ > kMaxUntaken) {
    Client* const victim = LongestWaiting(&LargestAddress(&Address::untaken), &Client::untaken);
    if (victim == nullptr) {
      return;
    }
    EndForRoom(victim, kTooMuchUntaken);
  }
}

// There is one: something is held.
ClientTable::AddressEntry& ClientTable::LargestAddress(size_t Address::*measure) {
  AddressEntry* largest = &*addresses_.begin();
  for (AddressEntry& entry : addresses_) {
    if (entry.second.*measure > largest->second.*measure) {
      largest = &entry;
    }
  }
  return *largest;
}

ClientTable::Client* ClientTable::LongestWaiting(const AddressEntry* address,
                                                 size_t Client::*measure) {
  const auto found = std::find_if(clients_.begin(), clients_.end(), [&](Client& client) {
    return client.address == address && (measure == nullptr || client.*measure > 0) &&
           MayEnd(&client);
  });
  return found == clients_.end() ? nullptr : &*found;
}

bool ClientTable::MayEnd(Client* client) {
  LookAtAnswer(client);
  const bool isStalled =
      client->state == State::kWriting && Clock::now() - client->progressTime >= kStalled;
  return !client->isEnding && (client->state == State::kReceiving || isStalled);
}

void ClientTable::EndForRoom(Client* client, const char* reason) {
  lastEnded_ = client->address->first;
  lastReason_ = reason;
  ++unreported_;
  End(client);
  Report();
}

void ClientTable::Report() {
  if (unreported_ == 0 || event_pending(reportEvent_.get(), EV_TIMEOUT, nullptr) != 0) {
    return;
  }
  ORX_LOG(Orx::Log::kInfo, "Ended %zu clients to make room, the last of %s: %s", unreported_,
          lastEnded_.c_str(), lastReason_);
  unreported_ = 0;
  event_add(reportEvent_.get(), &kReportPeriod);
}

}  // namespace tavlo
