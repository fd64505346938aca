#include "host/access_section.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>

#include "agent/host.h"
#include "platform/messaging/runtime_dir.h"

namespace {

constexpr std::size_t kMaxEntry = 1 << 16;  // bytes of a user's or group's entry; far above any

// The number that a text consists of; the last one stands for no user at all.
std::optional<uid_t> AsNumber(const std::string& text) {
  uid_t uid = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), uid);
  if (error != std::errc() || end != text.data() + text.size() || uid == static_cast<uid_t>(-1)) {
    return std::nullopt;
  }
  return uid;
}

// The number of a user or group by its name or its number, found by getpwnam_r or getgrnam_r. Returns an empty text, or
// why there is none.
template <class Entry>
std::string Find(const std::string& name, const char* what,
                 int (*find)(const char*, Entry*, char*, std::size_t, Entry**), unsigned Entry::*id, unsigned& number) {
  if (const std::optional<uid_t> given = AsNumber(name)) {
    number = *given;
    return {};
  }
  if (name.find('\0') != std::string::npos) {
    return std::string("a ") + what + "'s name has no NUL inside";
  }
  std::vector<char> buffer(1024);
  Entry entry{};
  Entry* found = nullptr;
  int error = 0;
  while ((error = find(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) == ERANGE &&
         buffer.size() < kMaxEntry) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr) {
    return error == 0 ? "\"" + name + "\" is not a " + what + " of this system"
                      : "\"" + name + "\" cannot be looked up: " + std::strerror(error);
  }
  number = found->*id;
  return {};
}

// What is wrong with a user that a configuration names; empty when nothing is.
std::string ReadUser(const toml::node& node, uid_t& uid) {
  const auto* name = node.as_string();
  return name != nullptr ? Find(name->get(), "user", ::getpwnam_r, &passwd::pw_uid, uid)
                         : "must be a string, is " + std::string(TomlTypeName(node.type()));
}

}  // namespace

void ReadStatusGroup(ConfigSection& section, std::optional<gid_t>& group) {
  if (!section.Has("status_group")) {
    return;
  }
  std::string name;
  section.Text("status_group", name);
  gid_t gid = 0;
  const std::string fault = name.empty() ? "" : Find(name, "group", ::getgrnam_r, &::group::gr_gid, gid);
  if (!fault.empty()) {
    return section.Refuse("status_group", fault);
  }
  if (!name.empty()) {
    group = gid;
  }
}

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
