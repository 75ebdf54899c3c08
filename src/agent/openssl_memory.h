#pragma once

namespace tavlo {

/// From now on OpenSSL gets no block larger than `kMaxTlsBlock`: a handshake that would need one
/// fails. Has no effect once OpenSSL has been used; call it before any other function of OpenSSL.
void LimitOpensslBlocks();

}  // namespace tavlo
