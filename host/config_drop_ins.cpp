#include "host/config_drop_ins.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace {

namespace fs = std::filesystem;

void Replace(toml::table& table, const toml::key& key, toml::node& node) {
  table.erase(key.str());
  node.visit([&](auto& value) { table.insert(key, std::move(value)); });  // a copy would not know its place
}

}  // namespace

DropIns FindDropIns(const std::string& config) {
  const fs::path directory = fs::path(config).parent_path() / "conf.d";
  DropIns found{directory.string(), {}, {}};
  std::error_code error;
  fs::directory_iterator entry(directory, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    const fs::path& path = entry->path();
    if (path.extension() == ".toml" && path.filename().string().front() != '.') {
      found.files.push_back(path.string());
    }
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    found.fault = error.message();
  }
  std::sort(found.files.begin(), found.files.end());
  return found;
}

void Override(toml::table& base, toml::table&& over) {
  for (auto&& [key, node] : over) {
    toml::table* const section = node.as_table();
    toml::table* const known = base.get_as<toml::table>(key.str());
    if (section == nullptr || known == nullptr) {
      Replace(base, key, node);
      continue;
    }
    for (auto&& [name, value] : *section) {
      Replace(*known, name, value);
    }
  }
}
