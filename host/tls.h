// TLS for the secure port pair: the module's certificate folder holds the
// server certificate ("server.pem") and its key ("server_key.pem").
#pragma once

#include <boost/asio/ssl/context.hpp>
#include <string>

namespace qs_host {

// Loads the certificate and key from `certFolder` (ending in "/") into
// `context`, TLS 1.2 and later only. False, with the reason in *why, when the
// files are missing or unusable.
bool ConfigureTls(boost::asio::ssl::context& context, const std::string& certFolder, std::string* why);

}  // namespace qs_host
