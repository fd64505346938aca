#include "tools/agent_mapping.h"

using Json = nlohmann::ordered_json;

std::optional<Json> FindLearntPort(const std::string& runtimeDir, u16 port,
                                   StatusConnection::Clock::time_point deadline, std::string& error) {
  StatusConnection connection;
  Json request{{"get", "mappings"}};
  for (bool isOpen = connection.Open(runtimeDir); isOpen;) {
    const std::optional<Json> answer =
        connection.Send(request, deadline) ? connection.Next(deadline) : std::optional<Json>();
    if (!answer) {
      break;
    }
    if (answer->contains("error")) {
      error = (*answer)["error"].get<std::string>();
      return std::nullopt;
    }
    for (const Json& row : (*answer)["rows"]) {
      if (row.value("port", 0) == port && row["mapped"].is_string()) {
        return row;
      }
    }
    if (!answer->contains("next")) {
      return std::nullopt;
    }
    request["next"] = (*answer)["next"];
  }
  error = connection.Error();
  return std::nullopt;
}
