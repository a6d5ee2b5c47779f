#include "host/tls.h"

#include <unistd.h>

namespace qs_host {

namespace ssl = boost::asio::ssl;

bool ConfigureTls(ssl::context& context, const std::string& certFolder, std::string* why) {
  const std::string certFile = certFolder + "server.pem";
  const std::string keyFile = certFolder + "server_key.pem";
  if (access(certFile.c_str(), R_OK) != 0 || access(keyFile.c_str(), R_OK) != 0) {
    *why = "no server.pem and server_key.pem in " + certFolder;
    return false;
  }
  boost::system::error_code ec;
  context.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 | ssl::context::no_sslv3 |
                      ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1);
  context.use_certificate_chain_file(certFile, ec);
  if (!ec) context.use_private_key_file(keyFile, ssl::context::pem, ec);
  if (ec) {
    *why = "cannot use " + certFile + " with " + keyFile + ": " + ec.message();
    return false;
  }
  return true;
}

}  // namespace qs_host
