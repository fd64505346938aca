#pragma once

#include <libmnl/libmnl.h>

#include <cstddef>

#include "platform/types.h"

// A socket to the kernel's routing subsystem. One thread at a time. Opened by its owner; every failure that leaves it
// in doubt closes it, so that the next use begins afresh. Messages of other senders than the kernel are thrown away.
class NetlinkSocket {
 public:
  NetlinkSocket() = default;
  ~NetlinkSocket() { Close(); }
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  // 0, or the error number.
  int Open();
  void Close();
  bool IsOpen() const { return m_socket != nullptr; }
  int Descriptor() const { return mnl_socket_get_fd(m_socket); }
  // 0, or the error number; group is one of rtnetlink's numbers.
  int Join(int group);

  // Takes one message without waiting. Its bytes beyond `size` are dropped. 0, or the error number: EAGAIN when there
  // is none, ENOBUFS when the kernel had to drop some. `length` is the message's full length.
  int Receive(void* buffer, std::size_t size, std::size_t& length);

  // Sends a request, gives each message of the answer to `each` and returns 0, or the error number: the kernel's
  // refusal, EINTR for a listing that a change made useless, or the socket's own failure. `each` returns MNL_CB_STOP
  // when it has what it wants of a single answer, else MNL_CB_OK.
  int Ask(nlmsghdr* request, mnl_cb_t each, void* context);

 private:
  int ReadAnswer(mnl_cb_t each, void* context);

  mnl_socket* m_socket = nullptr;
  u32 m_sequence = 0;
  // What the kernel fills at most in one go of a listing.
  alignas(nlmsghdr) unsigned char m_answer[32768];
};
