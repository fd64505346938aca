#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "host/config_file.h"

// The settings in force under their names in the configuration file, where they came from, and when: now.
nlohmann::ordered_json DescribeConfig(const HostSettings& settings, const std::string& origin);
