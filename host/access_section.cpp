#include "host/access_section.h"

#include "agent/host.h"
#include "platform/messaging/runtime_dir.h"

namespace {

// What is wrong with a user that a configuration names; empty when nothing is.
std::string ReadUser(const toml::node& node, AccountLookup& accounts, uid_t& uid) {
  const auto* name = node.as_string();
  return name != nullptr ? accounts.Find(AccountLookup::USER, name->get(), uid)
                         : "must be a string, is " + std::string(TomlTypeName(node.type()));
}

}  // namespace

void ReadStatusGroup(ConfigSection& section, AccountLookup& accounts, std::optional<gid_t>& group) {
  std::string name;
  section.Text("status_group", name);
  gid_t gid = 0;
  const std::string fault = name.empty() ? "" : accounts.Find(AccountLookup::GROUP, name, gid);
  if (!fault.empty()) {
    return section.Refuse("status_group", fault);
  }
  if (!name.empty()) {
    group = gid;
  }
}

void ReadAccess(ConfigSection& section, AccountLookup& accounts, QueueAccess& access, ConfigErrors& errors) {
  for (const messaging::QueueInfo& queue : messaging::kQueues) {
    const std::string key = std::string(queue.party) + "_users";
    const toml::array* names = section.Array(key);
    if (names == nullptr) {
      section.Note(key, "");  // not limited
      continue;
    }
    std::string text;
    std::vector<uid_t>& users = access[queue.number];
    for (const toml::node& node : *names) {
      uid_t uid = 0;
      if (const std::string fault = ReadUser(node, accounts, uid); !fault.empty()) {
        errors.Add(node.source(), "access." + key, fault);
      }
      users.push_back(uid);
      text.append(text.empty() ? "" : ", ").append(TomlText(node.value_or(std::string())));
    }
    section.Note(key, "[" + text + "]");
    if (users.size() > NAT_HOST_MAX_USERS) {
      section.Refuse(key, "names more than " + std::to_string(NAT_HOST_MAX_USERS) + " users");
    }
  }
  section.RefuseUnknown();
}
