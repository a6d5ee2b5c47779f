// HTTP sessions (plain or TLS): requests one after the other on a connection.
//
// Each request passes the request checks (Host, method, Origin) before its
// route is chosen, and its declared body the route's limit before the body is
// read. Malformed heads are answered 400 (431 when the header section is over
// its limit) and the connection is closed; a connection that takes longer than
// the head limit to send a request head, or stays idle for the idle limit, is
// closed. Each module request is an exchange with a connection index of its
// own, so a late answer can never be taken for the answer to a later request.
#pragma once

#include "host/http_common.h"

namespace qs_host {

// Serves one accepted connection; a TLS connection first does its handshake.
void StartPlainSession(tcp::socket&& socket, HostContext& host);
void StartTlsSession(tcp::socket&& socket, ssl::context& tls, HostContext& host);

}  // namespace qs_host
