#pragma once

#include <nlohmann/json.hpp>
#include <string>

// What natagentd answers, in lines for people; control characters become question marks.
std::string PlainValue(const std::string& topic, const nlohmann::ordered_json& value);  // summary, uplink, stun, config
std::string PlainRow(const std::string& topic, const nlohmann::ordered_json& row);
std::string PlainEvent(const nlohmann::ordered_json& event);
std::string PlainExplanation(const nlohmann::ordered_json& explanation);
