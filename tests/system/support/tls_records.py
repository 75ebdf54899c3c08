"""TLS over a connection whose records are in the test's hands."""

import ssl

from support.clients import tls_context


class TlsRecords:
    """Does the handshake at once. `received` is what has come since, as it came."""

    def __init__(self, connection, context=None):
        self.connection = connection
        self.received = b""
        self._incoming, self._outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        self._tls = (context or tls_context()).wrap_bio(self._incoming, self._outgoing)
        self._finish(self._tls.do_handshake)
        connection.sendall(self._outgoing.read())
        self.received = b""

    def _finish(self, step):
        """Carries bytes to and fro until `step` has all that it needs, or no more come."""
        while True:
            try:
                return step()
            except ssl.SSLWantReadError:
                self.connection.sendall(self._outgoing.read())
                part = self.connection.recv(65536)
                if not part:
                    return b""
                self.received += part
                self._incoming.write(part)
            except (ssl.SSLZeroReturnError, ssl.SSLEOFError):
                return b""

    def seal(self, *pieces):
        """A record for each piece, ready to be sent."""
        for piece in pieces:
            self._tls.write(piece)
        return self._outgoing.read()

    def seal_end(self):
        """The record that says that no more will come."""
        try:
            self._tls.unwrap()
        except ssl.SSLWantReadError:
            pass
        return self._outgoing.read()

    def read_to_end(self):
        data = b""
        while part := self._finish(lambda: self._tls.read(65536)):
            data += part
        return data
