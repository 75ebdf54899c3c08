#include "agent/client_table.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/http.h>

#include "agent/callback_guard.h"
#include "util/log.h"

namespace tavlo {

namespace {

// What libevent allocates for a header, however short its line, in bytes.
constexpr size_t kHeaderOverhead = 100;

static_assert(kMaxUnfinished > kMaxHeadSize + kMaxReceivedBody + kMaxLines * kHeaderOverhead,
              "one request by itself must fit");

size_t CountLines(const char* text, size_t length) {
  size_t lines = 0;
  const char* const end = text + length;
  // Faster than looking at each character by far: most of what comes is a body of long lines.
  while (const void* const found = std::memchr(text, '\n', static_cast<size_t>(end - text))) {
    text = static_cast<const char*>(found) + 1;
    ++lines;
  }
  return lines;
}

// Counts the line feeds in the last `added` bytes. Any line may be a header: libevent does not tell
// how far it has parsed.
size_t CountLines(evbuffer* input, size_t length, size_t added) {
  evbuffer_ptr start;
  if (evbuffer_ptr_set(input, &start, length - added, EVBUFFER_PTR_SET) != 0) {
    return 0;
  }
  size_t lines = 0;
  evbuffer_iovec piece;
  while (evbuffer_peek(input, -1, &start, &piece, 1) > 0) {
    lines += CountLines(static_cast<const char*>(piece.iov_base), piece.iov_len);
    if (evbuffer_ptr_set(input, &start, piece.iov_len, EVBUFFER_PTR_ADD) != 0) {
      break;
    }
  }
  return lines;
}

}  // namespace

void ClientTable::OnLater(evutil_socket_t, short, void* table) {
  auto* const self = static_cast<ClientTable*>(table);
  self->EndCut();
  for (bufferevent* const connection : self->newConnections_) {
    RunGuarded(__PRETTY_FUNCTION__, [&] { self->TakeIn(connection); });
    bufferevent_decref(connection);
  }
  self->newConnections_.clear();
}

void ClientTable::OnInput(evbuffer* input, const evbuffer_cb_info* change, void* client) {
  if (change->n_added > 0) {
    auto* const self = static_cast<Client*>(client);
    self->table->Count(self, input, change->n_added);
  }
}

void ClientTable::OnClose(evhttp_connection* connection, void* table) {
  auto* const self = static_cast<ClientTable*>(table);
  const auto found = self->clients_.find(connection);
  if (found == self->clients_.end()) {
    return;
  }
  Client& client = found->second;
  evbuffer_remove_cb(bufferevent_get_input(evhttp_connection_get_bufferevent(connection)), OnInput,
                     &client);
  self->SetUnfinished(&client, 0);
  self->clients_.erase(found);
}

ClientTable::ClientTable(event_base* base) {
  event* const made = event_new(base, -1, 0, OnLater, this);
  if (made == nullptr) {
    throw std::runtime_error("Failed to init client event errno " + std::to_string(errno));
  }
  laterEvent_.reset(made, event_free);
}

// libevent sets the connection up only when this has returned, so the rest waits until then. The
// reference keeps the connection in memory even if that fails.
void ClientTable::Add(bufferevent* connection) {
  newConnections_.push_back(connection);
  bufferevent_incref(connection);
  event_active(laterEvent_.get(), 0, 0);
}

// Only the callbacks' argument leads from here to libevent's connection, which tells when it ends.
void ClientTable::TakeIn(bufferevent* connection) {
  void* argument = nullptr;
  bufferevent_getcb(connection, nullptr, nullptr, nullptr, &argument);
  if (argument == nullptr) {
    return;  // it has ended
  }
  if (clients_.size() >= kMaxClients) {
    EndLongestWaiting();
  }
  auto* const served = static_cast<evhttp_connection*>(argument);
  Client& client = clients_[served];
  client.table = this;
  client.connection = served;
  client.turn = ++turns_;
  evhttp_connection_set_closecb(served, OnClose, this);
  evbuffer_add_cb(bufferevent_get_input(connection), OnInput, &client);
}

void ClientTable::Count(Client* client, evbuffer* input, size_t added) {
  const size_t length = evbuffer_get_length(input);
  if (client->isCut) {
    evbuffer_drain(input, length);
    return;
  }
  if (client->isHeld) {
    return;  // a little that TLS had to read for a write
  }
  const size_t lines = CountLines(input, length, added);
  SetUnfinished(client, client->unfinished + added + lines * kHeaderOverhead);
  if (unfinished_ > kMaxUnfinished) {
    EndLargest(client);
  }
}

// What has come behind a request is of the next one.
void ClientTable::CountRest(Client* client) {
  evbuffer* const input =
      bufferevent_get_input(evhttp_connection_get_bufferevent(client->connection));
  SetUnfinished(client, 0);
  Count(client, input, evbuffer_get_length(input));
}

void ClientTable::SetUnfinished(Client* client, size_t bytes) {
  unfinished_ += bytes - client->unfinished;
  client->unfinished = bytes;
}

void ClientTable::OnRequest(evhttp_connection* connection) {
  const auto found = clients_.find(connection);
  if (found != clients_.end()) {
    found->second.turn = ++turns_;
    CountRest(&found->second);
  }
}

void ClientTable::Hold(evhttp_connection* connection) {
  const auto found = clients_.find(connection);
  if (found == clients_.end()) {
    return;
  }
  found->second.isHeld = true;
  SetUnfinished(&found->second, 0);
  // libevent would abort the process if it were told of input now, as TLS may do.
  bufferevent* const stream = evhttp_connection_get_bufferevent(connection);
  bufferevent_data_cb onWritten = nullptr;
  bufferevent_event_cb onEvent = nullptr;
  void* argument = nullptr;
  bufferevent_getcb(stream, nullptr, &onWritten, &onEvent, &argument);
  bufferevent_setcb(stream, nullptr, onWritten, onEvent, argument);
}

void ClientTable::Release(evhttp_connection* connection) {
  const auto found = clients_.find(connection);
  if (found != clients_.end()) {
    Client& client = found->second;
    client.isHeld = false;
    client.turn = ++turns_;
    CountRest(&client);
    if (client.isCut) {
      event_active(laterEvent_.get(), 0, 0);
    }
  }
}

void ClientTable::StopReading(evhttp_connection* connection) {
  if (clients_.count(connection) != 0) {
    bufferevent_disable(evhttp_connection_get_bufferevent(connection), EV_READ);
  }
}

void ClientTable::EndLongestWaiting() {
  Client* longest = nullptr;
  for (auto& entry : clients_) {
    Client& client = entry.second;
    if (!client.isHeld && (longest == nullptr || client.turn < longest->turn)) {
      longest = &client;
    }
  }
  if (longest != nullptr) {
    ORX_LOG(Orx::Log::kInfo, "Too many connections: the one that waited longest is ended");
    evhttp_connection_free(longest->connection);
  }
}

// `reading` is the client whose input is being read. One that is held is never the largest: nothing
// of it is counted.
void ClientTable::EndLargest(Client* reading) {
  Client& largest =
      std::max_element(clients_.begin(), clients_.end(), [](const auto& a, const auto& b) {
        return a.second.unfinished < b.second.unfinished;
      })->second;
  ORX_LOG(Orx::Log::kInfo, "Unfinished requests take too much memory: the largest is ended");
  if (&largest == reading) {
    Cut(reading);
  } else {
    evhttp_connection_free(largest.connection);
  }
}

// libevent cannot cope with the freeing of a connection that it is reading from.
void ClientTable::Cut(Client* client) {
  client->isCut = true;
  SetUnfinished(client, 0);
  evbuffer* const input =
      bufferevent_get_input(evhttp_connection_get_bufferevent(client->connection));
  evbuffer_drain(input, evbuffer_get_length(input));
  event_active(laterEvent_.get(), 0, 0);
}

// One whose request waits stays until that has its answer: libevent would free the request as well.
void ClientTable::EndCut() {
  for (auto next = clients_.begin(); next != clients_.end();) {
    const auto entry = next++;  // the end of a connection takes it out of the table
    if (entry->second.isCut && !entry->second.isHeld) {
      evhttp_connection_free(entry->first);
    }
  }
}

}  // namespace tavlo
