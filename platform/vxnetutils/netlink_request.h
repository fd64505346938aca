#pragma once

#include <libmnl/libmnl.h>

#include "platform/types.h"

// A request to the kernel: a message's header, that of its family with every field 0, and a few attributes.
template <class Header>
class NetlinkRequest {
 public:
  explicit NetlinkRequest(u16 type, u16 flags = 0) : m_message(mnl_nlmsg_put_header(m_buffer)) {
    m_message->nlmsg_type = type;
    m_message->nlmsg_flags = static_cast<u16>(NLM_F_REQUEST | flags);
    m_header = static_cast<Header*>(mnl_nlmsg_put_extra_header(m_message, sizeof(Header)));
  }
  NetlinkRequest(const NetlinkRequest&) = delete;
  NetlinkRequest& operator=(const NetlinkRequest&) = delete;

  Header* operator->() { return m_header; }
  void Put(u16 attribute, u32 value) { mnl_attr_put_u32(m_message, attribute, value); }
  nlmsghdr* Message() { return m_message; }

 private:
  alignas(nlmsghdr) char m_buffer[128];
  nlmsghdr* m_message;
  Header* m_header = nullptr;
};
