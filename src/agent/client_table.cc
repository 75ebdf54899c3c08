// The round of a client, from its connection to its end. client_table_room.cc has what it may hold.

#include "agent/client_table.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/bufferevent_ssl.h>
#include <event2/event.h>
#include <event2/http.h>

#include "agent/callback_guard.h"
#include "agent/limits.h"
#include "agent/request_memory.h"
#include "util/log.h"

namespace tavlo {

namespace {

// What libevent takes for a line that it does not know; in whatever state of a request it meets it,
// it refuses the request and ends the connection.
constexpr char kNoHttp[] = "refused\r\n";

std::shared_ptr<event> MakeEvent(event_base* base, event_callback_fn callback, ClientTable* table) {
  event* const made = event_new(base, -1, 0, callback, table);
  if (made == nullptr) {
    throw std::runtime_error("Failed to init client event errno " + std::to_string(errno));
  }
  return {made, event_free};
}

evbuffer* InputOf(evhttp_connection* connection) {
  return bufferevent_get_input(evhttp_connection_get_bufferevent(connection));
}

evbuffer* OutputOf(evhttp_connection* connection) {
  return bufferevent_get_output(evhttp_connection_get_bufferevent(connection));
}

void StopReading(evhttp_connection* connection) {
  bufferevent_disable(evhttp_connection_get_bufferevent(connection), EV_READ);
}

// libevent would abort the process if it were told of input while a request is answered, as TLS
// may do, which has to read for a write. It sets the callback again for the next request.
void IgnoreInput(evhttp_connection* connection) {
  bufferevent* const stream = evhttp_connection_get_bufferevent(connection);
  bufferevent_data_cb onWritten = nullptr;
  bufferevent_event_cb onEvent = nullptr;
  void* argument = nullptr;
  bufferevent_getcb(stream, nullptr, &onWritten, &onEvent, &argument);
  bufferevent_setcb(stream, nullptr, onWritten, onEvent, argument);
}

// Shows the framing the last `added` bytes. Returns how many bytes of the buffer there are up to
// the end of what it has looked at.
size_t Show(RequestFraming* framing, evbuffer* input, size_t added) {
  size_t shown = evbuffer_get_length(input) - added;
  evbuffer_ptr place;
  evbuffer_iovec piece;
  if (added == 0 || evbuffer_ptr_set(input, &place, shown, EVBUFFER_PTR_SET) != 0) {
    return shown;
  }
  while (framing->Fault() == nullptr && evbuffer_peek(input, -1, &place, &piece, 1) > 0) {
    framing->Take(static_cast<const char*>(piece.iov_base), piece.iov_len);
    shown += piece.iov_len;
    if (evbuffer_ptr_set(input, &place, piece.iov_len, EVBUFFER_PTR_ADD) != 0) {
      break;
    }
  }
  return shown;
}

// The status in the first line of an answer; 0 when the bytes are none. They are looked at where
// they are: nothing can be copied from a bufferevent's output.
int StatusAt(evbuffer* output, size_t offset) {
  evbuffer_ptr place;
  evbuffer_iovec piece;
  if (evbuffer_ptr_set(output, &place, offset, EVBUFFER_PTR_SET) != 0 ||
      evbuffer_peek(output, -1, &place, &piece, 1) <= 0) {
    return 0;
  }
  constexpr size_t kLength = sizeof "HTTP/1.1 413 " - 1;
  const std::string line(static_cast<const char*>(piece.iov_base),
                         std::min(piece.iov_len, kLength));
  const size_t blank = line.find(' ');
  return line.rfind("HTTP/", 0) == 0 && blank != line.npos
             ? static_cast<int>(std::strtol(line.c_str() + blank, nullptr, 10))
             : 0;
}

}  // namespace

void ClientTable::OnLater(evutil_socket_t, short, void* table) {
  auto* const self = static_cast<ClientTable*>(table);
  for (bufferevent* const connection : self->newConnections_) {
    RunGuarded(__PRETTY_FUNCTION__, [&] { self->TakeIn(connection); });
    bufferevent_decref(connection);
  }
  self->newConnections_.clear();
  self->EndMarked();
}

void ClientTable::OnReportTime(evutil_socket_t, short, void* table) {
  static_cast<ClientTable*>(table)->Report();
}

void ClientTable::OnInput(evbuffer* input, const evbuffer_cb_info* change, void* client) {
  if (change->n_added > 0) {
    auto* const self = static_cast<Client*>(client);
    RunGuarded(__PRETTY_FUNCTION__, [&] { self->table->TakeInput(self, input, change->n_added); });
  }
}

void ClientTable::OnOutput(evbuffer* output, const evbuffer_cb_info* change, void* client) {
  auto* const self = static_cast<Client*>(client);
  if (self->isEnding) {
    return;
  }
  if (change->n_added > 0) {
    if (self->state == State::kReceiving) {
      RunGuarded(__PRETTY_FUNCTION__,
                 [&] { self->table->OnLibraryOutput(self, StatusAt(output, change->orig_size)); });
    }
  } else if (evbuffer_get_length(output) == 0) {
    self->table->OnWritten(self);
  }
}

void ClientTable::OnClose(evhttp_connection* connection, void* table) {
  static_cast<ClientTable*>(table)->Forget(connection);
}

ClientTable::ClientTable(event_base* base, size_t maxClients, size_t maxUnfinished)
    : maxClients_(maxClients),
      maxUnfinished_(maxUnfinished),
      laterEvent_(MakeEvent(base, OnLater, this)),
      reportEvent_(MakeEvent(base, OnReportTime, this)) {}

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
  auto* const served = static_cast<evhttp_connection*>(argument);
  char* peer = nullptr;
  uint16_t port = 0;
  evhttp_connection_get_peer(served, &peer, &port);
  ORX_LOG(Orx::Log::kDebug, "Accepted %s:%u", peer, port);

  Clients entry(1);
  Client& client = entry.front();
  client.address = &*addresses_.try_emplace(peer).first;
  byConnection_.emplace(served, entry.begin());
  // From here on nothing throws.
  client.table = this;
  client.connection = served;
  client.stream = bufferevent_openssl_get_ssl(connection) != nullptr ? kTlsConnectionSize : 0;
  ++client.address->second.connections;
  clients_.splice(clients_.end(), entry);
  evhttp_connection_set_closecb(served, OnClose, this);
  evbuffer_add_cb(bufferevent_get_input(connection), OnInput, &client);
  evbuffer_add_cb(bufferevent_get_output(connection), OnOutput, &client);
  MakeRoomForConnection(&client);
  Recount(&client);
  MakeRoomForInput(&client);
}

void ClientTable::Forget(evhttp_connection* connection) {
  const auto found = byConnection_.find(connection);
  if (found == byConnection_.end()) {
    return;
  }
  const auto client = found->second;
  evbuffer_remove_cb(InputOf(connection), OnInput, &*client);
  evbuffer_remove_cb(OutputOf(connection), OnOutput, &*client);
  if (client->isEnding) {
    --ending_;
  } else {
    CountNoMore(&*client);
  }
  byConnection_.erase(found);
  clients_.erase(client);
}

ClientTable::Client* ClientTable::Find(evhttp_connection* connection) {
  const auto found = byConnection_.find(connection);
  return found == byConnection_.end() ? nullptr : &*found->second;
}

void ClientTable::TakeInput(Client* client, evbuffer* input, size_t added) {
  if (client->isEnding) {
    evbuffer_drain(input, evbuffer_get_length(input));
    return;
  }
  if (client->state != State::kReceiving) {
    StopReading(client->connection);  // what is here already is bounded by what one read takes
  }
  client->incoming += added;
  const size_t chunks = client->framing.Chunks();
  if (!client->isRefused) {
    const size_t shown = Show(&client->framing, input, added);
    if (client->framing.Fault() != nullptr) {
      Refuse(client, input, shown - client->framing.Unsound());
    }
  }
  if (client->framing.Chunks() > chunks) {
    const size_t block = client->stream > 0 ? kTlsBlock : kPlainBlock;
    client->spare += block - std::min(added, block);
  }
  Recount(client);
  MakeRoomForInput(client);
}

// What is sound of the input is left to libevent, which has not read what follows.
void ClientTable::Refuse(Client* client, evbuffer* input, size_t sound) {
  ORX_LOG(Orx::Log::kInfo, "A request of %s is refused: %s", client->address->first.c_str(),
          client->framing.Fault());
  client->isRefused = true;
  const std::unique_ptr<evbuffer, decltype(&evbuffer_free)> rest(evbuffer_new(), evbuffer_free);
  evbuffer_remove_buffer(input, rest.get(), sound);
  evbuffer_add(rest.get(), kNoHttp, sizeof kNoHttp - 1);
  evbuffer_drain(input, evbuffer_get_length(input));
  evbuffer_prepend_buffer(input, rest.get());
}

// libevent answers by itself what it cannot read, or has no method for. A "100 Continue" is no
// answer.
void ClientTable::OnLibraryOutput(Client* client, int status) {
  if (status <= 100) {
    return;
  }
  ORX_LOG(Orx::Log::kInfo, "Answered %d to a request of %s that was not taken up", status,
          client->address->first.c_str());
  client->state = State::kWriting;
  client->backlog = 0;
  if (status == HTTP_NOTIMPLEMENTED) {
    BeginNextRequest(client);  // after a CONNECT others may follow
    return;
  }
  // Where the next request would begin nobody knows; libevent does not always end the connection.
  client->isRefused = true;
  client->isOver = true;
  evbuffer* const input = InputOf(client->connection);
  evbuffer_drain(input, evbuffer_get_length(input));
}

void ClientTable::OnRequest(evhttp_request* request) {
  evhttp_connection* const connection = evhttp_request_get_connection(request);
  Client* const client = Find(connection);
  if (client == nullptr) {
    return;
  }
  const bool isLarge = client->unfinished > client->stream + kWorthDropping;
  IgnoreInput(connection);
  client->state = State::kAnswering;
  if (Orx::Log::IsOn(Orx::Log::kDebug)) {
    client->requestTime = Clock::now();
  }
  if (client->spare > 0) {
    JoinBody(request);
  }
  client->request = SizeOf(request);
  BeginNextRequest(client);
  if (isLarge) {
    DropHeaders(request);
  }
}

void ClientTable::OnAnswer(evhttp_connection* connection, int status) {
  Client* const client = Find(connection);
  if (client == nullptr) {
    return;
  }
  // libevent goes on reading from a client that it writes to, to see it go. Requests that come
  // meanwhile would be held without a limit, and a client that has sent its last would lose the
  // answer.
  StopReading(connection);
  client->state = State::kWriting;
  client->backlog = 0;  // it is looked at when there is need
  client->request = 0;
  Recount(client);
  SetUntaken(client, evbuffer_get_length(OutputOf(connection)));
  clients_.splice(clients_.end(), clients_, byConnection_.at(connection));
  if (Orx::Log::IsOn(Orx::Log::kDebug)) {
    LogAnswer(*client, status);
  }
}

void ClientTable::LogAnswer(const Client& client, int status) {
  char* peer = nullptr;
  uint16_t port = 0;
  evhttp_connection_get_peer(client.connection, &peer, &port);
  const auto time =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - client.requestTime);
  ORX_LOG(Orx::Log::kDebug, "Answered %d to %s:%u: %zu bytes, %lld ms since its request", status,
          peer, port, client.untaken, static_cast<long long>(time.count()));
}

// All that there was to write has been written, if only a "100 Continue".
void ClientTable::OnWritten(Client* client) {
  if (client->isOver) {
    End(client);
  } else if (client->state == State::kWriting) {
    client->state = State::kReceiving;
    SetUntaken(client, 0);
  }
}

// What has come behind a request is of the next one.
void ClientTable::BeginNextRequest(Client* client) {
  evbuffer* const input = InputOf(client->connection);
  const size_t length = evbuffer_get_length(input);
  client->framing = RequestFraming();
  client->incoming = 0;
  client->spare = 0;
  if (length > 0) {
    TakeInput(client, input, length);
  } else {
    Recount(client);
  }
}

// At the end of this turn of the loop: libevent cannot cope with the freeing of a connection that
// it is reading from. What it holds of its request is let go at once.
void ClientTable::End(Client* client) {
  client->isEnding = true;
  ++ending_;
  CountNoMore(client);
  evbuffer* const input = InputOf(client->connection);
  evbuffer_drain(input, evbuffer_get_length(input));
  event_active(laterEvent_.get(), 0, 0);
}

void ClientTable::EndMarked() {
  for (auto next = clients_.begin(); ending_ > 0 && next != clients_.end();) {
    const Client& client = *next++;  // the end of a connection takes it out of the table
    if (client.isEnding) {
      evhttp_connection_free(client.connection);
    }
  }
}

}  // namespace tavlo
