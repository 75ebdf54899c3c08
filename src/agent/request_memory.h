#pragma once

#include <cstddef>

struct evhttp_request;

namespace tavlo {

/// libevent keeps all that a request has brought until its answer has been written, which is up to
/// the client. These let go of it as soon as nobody needs it any more.

/// What a request that has come whole takes by its body and its URI, headers left out, in bytes.
size_t SizeOf(evhttp_request* request);

/// Puts a body that came in pieces into one, which takes what its bytes take.
void JoinBody(evhttp_request* request);

/// Lets go of all headers but those that libevent or the dispatch still read.
void DropHeaders(evhttp_request* request);

/// Lets go of the body and the URI: the answer is about to be handed to libevent.
void DropBodyAndUri(evhttp_request* request);

}  // namespace tavlo
