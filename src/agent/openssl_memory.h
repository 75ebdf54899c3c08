#pragma once

namespace tavlo {

/// From now on OpenSSL gets no block larger than `kMaxTlsBlock`: a handshake that would need one
/// fails. Has no effect once OpenSSL has been used; call it before any other function of OpenSSL.
void LimitOpensslBlocks();

/// OpenSSL knows its errors by their numbers alone, and keeps no texts for them: the daemon shows
/// none, and they take 64 KiB. Has no effect once OpenSSL has been set up, which any use of TLS
/// does.
void LeaveOutOpensslErrorTexts();

}  // namespace tavlo
