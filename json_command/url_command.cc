// Commands carried in the query of a URL, for clients that cannot send a JSON
// body (an image element's source, a plain link).
#include <cstdlib>

#include "environment/log.h"
#include "json_command/json_command.h"

namespace {

// A query value, "" when the key is absent.
std::string Lookup(const std::map<std::string, std::string>& parameters, const char* key) {
  std::map<std::string, std::string>::const_iterator found = parameters.find(key);
  return found != parameters.end() ? found->second : std::string();
}

// Base-10 strtol of a query value as a JSON integer.
Json::Value Number(const std::string& text) {
  return Json::Value(static_cast<Json::Int64>(strtol(text.c_str(), nullptr, 10)));
}

}  // namespace

std::map<std::string, std::string> JsonCommand::GetURLParamters(const std::string& query) {
  std::map<std::string, std::string> parameters;
  size_t start = 0;
  while (true) {
    size_t separator = query.find('&', start);
    std::string piece =
        query.substr(start, separator == std::string::npos ? std::string::npos : separator - start);
    size_t equals = piece.find('=');
    if (equals != std::string::npos) {
      // insert keeps the first occurrence of a key.
      parameters.insert(std::make_pair(piece.substr(0, equals), piece.substr(equals + 1)));
    }
    if (separator == std::string::npos) break;
    start = separator + 1;
  }
  return parameters;
}

std::string JsonCommand::EncodeURL(const std::string& query) {
  std::map<std::string, std::string> parameters = GetURLParamters(query);
  std::string id = Lookup(parameters, "id");
  std::string index = Lookup(parameters, "index");
  std::string thumbnail = Lookup(parameters, "thumbnail");
  if (id.empty() || index.empty() || thumbnail.empty()) {
    LogErr("Parsed id = [%s], index = [%s], thumbnail = [%s].", id.c_str(), index.c_str(), thumbnail.c_str());
    return std::string();
  }
  std::string text;
  try {
    Json::Value root(Json::objectValue);
    root["id"] = id;
    root["method"] = "GetImageByIndex";
    root["parameter"].append(Number(index));
    root["parameter"].append(Json::Value(thumbnail == "true"));
    text = StyledText(root);
  } catch (...) {
    text.clear();
  }
  LogDebug("Encode url succeed. cmd = [%s].", text.c_str());
  return text;
}

std::string JsonCommand::ParseURL(const std::string& query) {
  std::map<std::string, std::string> parameters = GetURLParamters(query);
  std::string id = Lookup(parameters, "id");
  std::string index = Lookup(parameters, "index");
  if (id.empty()) {
    LogErr("Invalid url: id = [%s], index = [%s].", id.c_str(), index.c_str());
    return std::string();
  }
  std::string text;
  try {
    Json::Value root(Json::objectValue);
    root["id"] = id;
    root["method"] = "GetImageByIndex";
    // Present values are packed in order; an absent one leaves no gap.
    for (const char* key : {"index", "width", "height", "act", "webcam"}) {
      std::string value = Lookup(parameters, key);
      if (!value.empty()) root["parameter"].append(Number(value));
    }
    text = StyledText(root);
  } catch (...) {
    text.clear();
  }
  LogDebug("Encode url succeed. cmd = [%s].", text.c_str());
  return text;
}

std::string JsonCommand::EncodeFun(const std::string& method, const std::string& query) {
  std::map<std::string, std::string> parameters = GetURLParamters(query);
  std::string id = Lookup(parameters, "id");
  if (id.empty()) {
    LogErr("Encode url failed. method=%s, params = [%s].", method.c_str(), query.c_str());
    return std::string();
  }
  // Built as text: "p" is passed on exactly as the client wrote it.
  std::string text = "{\"id\":";
  text += "\"";
  text += id;
  text += "\",\"method\":\"";
  text += method;
  text += "\"";
  std::string parameterList = Lookup(parameters, "p");
  if (!parameterList.empty()) {
    text += ",\"parameter\":";
    text += parameterList;
  }
  text += "}";
  LogDebug("Encode url succeed. cmd = [%s].", text.c_str());
  return text;
}
