#pragma once

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>

#include <array>
#include <cstddef>

#include "platform/types.h"

inline constexpr unsigned kDeadHop = RTNH_F_DEAD | RTNH_F_LINKDOWN;

// The attributes of one route, or of one next hop in it, by their numbers. Points into the message.
class RouteAttributes {
 public:
  RouteAttributes(const void* begin, std::size_t length) {
    const char* const end = static_cast<const char*>(begin) + length;
    const auto* attribute = static_cast<const nlattr*>(begin);
    while (mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char*>(attribute)))) {
      if (mnl_attr_type_valid(attribute, RTA_MAX) > 0) {
        m_found[mnl_attr_get_type(attribute)] = attribute;
      }
      attribute = mnl_attr_next(attribute);
    }
  }

  const nlattr* Find(int type) const { return m_found[static_cast<std::size_t>(type)]; }
  // 0 when it is missing or too short.
  u32 U32(int type) const {
    const nlattr* const attribute = Find(type);
    return attribute != nullptr && mnl_attr_get_payload_len(attribute) >= sizeof(u32) ? mnl_attr_get_u32(attribute) : 0;
  }
  // An IPv4 gateway's address, 0 when there is no gateway, `other` when it has an address of another family.
  u32 Gateway(u32 other) const { return Find(RTA_VIA) != nullptr ? other : U32(RTA_GATEWAY); }

 private:
  std::array<const nlattr*, RTA_MAX + 1> m_found{};
};

// The message's route header, or null when it is no route or too short for one.
inline const rtmsg* RouteHeader(const nlmsghdr* message) {
  if (message->nlmsg_type != RTM_NEWROUTE || mnl_nlmsg_get_payload_len(message) < sizeof(rtmsg)) {
    return nullptr;
  }
  return static_cast<const rtmsg*>(mnl_nlmsg_get_payload(message));
}

inline RouteAttributes AttributesOf(const nlmsghdr* message) {
  return {mnl_nlmsg_get_payload_offset(message, sizeof(rtmsg)), mnl_nlmsg_get_payload_len(message) - sizeof(rtmsg)};
}
