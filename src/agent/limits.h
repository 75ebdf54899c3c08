#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include <sys/time.h>

// Every bound and time-out of a request's way, each with its reason. All of them hold for one
// listener; sizes are in bytes. docs/security.md tells the same to those who run the daemon.

namespace tavlo {

// --- What a client sends

/// A head, its first line included. libevent answers a larger one 400. Real ones have some hundred
/// bytes; a browser's cookies make the rest.
constexpr size_t kMaxHead = size_t{64} * 1024;

/// The lines of a head. A larger number is answered 400: real heads have a dozen, other servers
/// take a hundred, and each line makes libevent allocate more than a hundred bytes.
constexpr size_t kMaxHeadLines = 1000;

/// A body that is taken in at all. libevent answers a larger one 413; up to here the daemon's own
/// order of checks holds, the access rule first.
constexpr size_t kMaxReceivedBody = size_t{4} * 1024 * 1024;

/// A body that is forwarded. A larger one is answered 400.
constexpr size_t kMaxRequestBody = 32768;

/// The line with the length of a chunk. A longer one is answered 400: nobody sends extensions
/// there, and libevent looks at the whole line again whenever more of it has come.
constexpr size_t kMaxChunkLine = 1024;

/// What libevent allocates for a header, however short its line.
constexpr size_t kHeaderOverhead = 100;

/// The block that libevent reads a piece of a request into. It keeps the whole of it where a chunk
/// of a body comes by itself, however small. Over TLS it reads into larger ones.
constexpr size_t kPlainBlock = size_t{1} * 1024;
constexpr size_t kTlsBlock = size_t{8} * 1024;

/// What all unfinished requests on the plain listener may take together: the largest single one, or
/// 128 of the largest that are forwarded.
constexpr size_t kMaxPlainUnfinished = size_t{5} * 1024 * 1024;

/// The same on the TLS listener, where each connection counts what OpenSSL may take for it: all
/// that there is room for may be in their handshake, or within a record, at a time.
constexpr size_t kMaxTlsUnfinished = size_t{21} * 512 * 1024;
constexpr size_t kTlsConnectionSize = size_t{41} * 1024;

/// The largest block that OpenSSL is given. It makes one for the whole of a client's first message
/// as soon as that announces its length, up to 128 KiB; a real one has 2. The server's certificates
/// need one too, of a third more than their size.
constexpr size_t kMaxTlsBlock = size_t{32} * 1024;

// --- Connections

/// Plain connections: some of each device of a large household.
constexpr size_t kMaxPlainClients = 512;

/// TLS connections, which take more memory.
constexpr size_t kMaxTlsClients = 256;

/// Connections that wait to be accepted, on one address; beyond it the kernel lets them try again.
constexpr int kListenBacklog = 128;

/// Connections that are accepted in one turn of the loop: those that must give way for them end
/// before more come, so that descriptors stay within the room above.
constexpr int kMaxAcceptsPerTurn = 16;

/// How long a listener rests when it was refused a connection, for want of descriptors mostly.
constexpr timeval kAcceptPause = {1, 0};

/// The silence, in seconds, after which a client's connection ends, or the destination has failed.
constexpr int kHttpTimeoutSecs = 61;

// --- The way to the destination and back

/// Requests that wait for the destination, the one under way included.
constexpr size_t kMaxWaiting = 100;

/// A reply's head. libevent searches an unfinished line from its beginning whenever more has come.
constexpr size_t kMaxReplyHead = size_t{64} * 1024;

/// A reply's body; it is held in memory until it has come whole.
constexpr size_t kMaxReplyBody = size_t{16} * 1024 * 1024;

/// What clients have not taken of their answers, apart from the largest of these. Beyond the half
/// of it unfinished requests may take a quarter of what they may otherwise.
constexpr size_t kMaxUntaken = size_t{8} * 1024 * 1024;

/// How long an answer must have made no progress before its client gives way.
constexpr std::chrono::seconds kStalled(10);

/// The most that one write takes. libevent's default, 16384, would be three turns of the loop for
/// the largest request.
constexpr size_t kMaxWrite = size_t{128} * 1024;

/// The largest answer that is made one piece before it goes out over TLS: each piece, 4 KiB as it
/// came in, would be a record and a write of its own. A larger one is not worth the copying.
constexpr size_t kMaxJoined = size_t{128} * 1024;

// --- Fairness and the log

/// What is left beyond the bounds above for addresses that do not hold the most, when the one that
/// does has nothing that could be ended: bytes and connections.
constexpr size_t kReservedBytes = size_t{1} * 1024 * 1024;
constexpr size_t kReservedClients = 16;

/// The shortest time between two lines about ended clients.
constexpr timeval kReportPeriod = {1, 0};

/// A head of less than this keeps its headers until its answer has been written.
constexpr size_t kWorthDropping = 2048;

static_assert(kMaxPlainUnfinished > kMaxHead + kMaxReceivedBody + kMaxHeadLines * kHeaderOverhead,
              "one request by itself must fit");
static_assert(kMaxPlainUnfinished > 128 * (kMaxRequestBody + 16 * kHeaderOverhead + 1024),
              "128 bodies of the largest size must fit");
static_assert(kMaxTlsUnfinished > kMaxTlsClients * kTlsConnectionSize,
              "as many connections as there may be must fit");

}  // namespace tavlo
