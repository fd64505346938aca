#include "host/access_section.h"

#include <pwd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>

#include "agent/host.h"
#include "platform/messaging/runtime_dir.h"

namespace {

constexpr std::size_t kMaxEntry = 1 << 16;  // bytes of a user's entry; far above any

// The number that a text consists of; the last one stands for no user at all.
std::optional<uid_t> AsNumber(const std::string& text) {
  uid_t uid = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), uid);
  if (error != std::errc() || end != text.data() + text.size() || uid == static_cast<uid_t>(-1)) {
    return std::nullopt;
  }
  return uid;
}

// Returns an empty text, or why there is no such user.
std::string FindUser(const std::string& name, uid_t& uid) {
  if (const std::optional<uid_t> number = AsNumber(name)) {
    uid = *number;
    return {};
  }
  if (name.find('\0') != std::string::npos) {
    return "a user's name has no NUL inside";
  }
  std::vector<char> buffer(1024);
  passwd entry{};
  passwd* found = nullptr;
  int error = 0;
  while ((error = ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
         buffer.size() < kMaxEntry) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr) {
    return error == 0 ? "\"" + name + "\" is not a user of this system"
                      : "\"" + name + "\" cannot be looked up: " + std::strerror(error);
  }
  uid = found->pw_uid;
  return {};
}

// What is wrong with a user that a configuration names; empty when nothing is.
std::string ReadUser(const toml::node& node, uid_t& uid) {
  const auto* name = node.as_string();
  return name != nullptr ? FindUser(name->get(), uid)
                         : "must be a string, is " + std::string(TomlTypeName(node.type()));
}

}  // namespace

void ReadAccess(ConfigSection& section, QueueAccess& access, ConfigErrors& errors) {
  for (const messaging::QueueInfo& queue : messaging::kQueues) {
    const std::string key = std::string(queue.party) + "_users";
    const toml::array* names = section.Array(key);
    if (names == nullptr) {
      continue;
    }
    std::vector<uid_t>& users = access[queue.number];
    for (const toml::node& node : *names) {
      uid_t uid = 0;
      if (const std::string fault = ReadUser(node, uid); !fault.empty()) {
        errors.Add(node.source().begin.line, "access." + key, fault);
      }
      users.push_back(uid);
    }
    if (users.size() > NAT_HOST_MAX_USERS) {
      section.Refuse(key, "names more than " + std::to_string(NAT_HOST_MAX_USERS) + " users");
    }
  }
  section.RefuseUnknown();
}
