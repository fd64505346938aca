#pragma once

#include <string>
#include <vector>

#include "host/toml.h"

struct DropIns {
  std::string directory;
  std::vector<std::string> files;  // in the order in which they count
  std::string fault;               // why the directory cannot be read; empty also when there is none
};

// The files conf.d/*.toml beside a configuration, sorted by name; hidden ones do not count.
DropIns FindDropIns(const std::string& config);

// Lays one configuration over another: key by key within the tables, arrays as a whole. Every value keeps the place it
// was read from.
void Override(toml::table& base, toml::table&& over);
