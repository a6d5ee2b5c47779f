// WebSocket sessions: one connection index for the socket's whole life; every
// text message is a command with the socket's path as URL, every binary
// message a body without one; each answer goes back as a text frame, followed
// by a binary frame when it carries data. A message over the route's body
// limit closes the socket with 1009; a peer that stops answering pings for
// the idle limit is closed.
#pragma once

#include "host/http_common.h"

namespace qs_host {

// Takes over a connection whose upgrade request passed the request checks.
template <class Stream>
void StartWebSocket(Stream&& stream, Request request, HostContext& host);

extern template void StartWebSocket<PlainStream>(PlainStream&&, Request, HostContext&);
extern template void StartWebSocket<TlsStream>(TlsStream&&, Request, HostContext&);

}  // namespace qs_host
