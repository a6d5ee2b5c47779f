# Writes OUTPUT, a C++ source whose ClientScript() holds the bytes of INPUT
# (client/qs-client.js): the installed qs-host serves the one copy of the
# browser client that the package publishes.
file(READ "${INPUT}" hex HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
file(WRITE "${OUTPUT}.tmp" "// Generated from client/qs-client.js at build time.\n#include \"host/status_page.h\"\n\n"
  "namespace qs_host {\n\nnamespace {\nconstexpr unsigned char kScript[] = {${bytes}};\n}  // namespace\n\n"
  "std::string_view ClientScript() {\n  return std::string_view(reinterpret_cast<const char*>(kScript), sizeof(kScript));\n}\n\n"
  "}  // namespace qs_host\n")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
