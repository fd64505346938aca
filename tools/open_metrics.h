#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

// The numbers of a summary and of the counters' rows, for a scraper: OpenMetrics 1.0.
std::string OpenMetrics(const nlohmann::ordered_json& summary, const std::vector<nlohmann::ordered_json>& counters);
