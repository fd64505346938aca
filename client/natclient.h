/*
 * natclient: the side of the agent's queues that a call agent links, for C and C++.
 *
 * One natclient is one party's connection. It has no threads and no globals, allocates only for itself, and never
 * blocks but in natclient_open with a time-out and in natclient_wait. A natclient belongs to one thread at a time;
 * different ones are independent.
 *
 * Addresses are IPv4 in network byte order, ports in host order, query ids the caller's own. Functions that return int
 * give 0 for success or a negative errno value; natclient_strerror puts it into words.
 */
#ifndef NATCLIENT_H
#define NATCLIENT_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define NATCLIENT_API __attribute__((visibility("default")))
#else
#define NATCLIENT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct natclient natclient;

/* The queue, by number, whose party the connection is. */
enum natclient_party {
  NATCLIENT_CGI = 102,
  NATCLIENT_SIP = 112,
  NATCLIENT_Q113 = 113, /* the agent has no channel for its answers: requests are decided and logged, not answered */
  NATCLIENT_CM = 114,
  NATCLIENT_CC = 115
};

enum natclient_port_type { NATCLIENT_UDP = 0, NATCLIENT_TCP = 1, NATCLIENT_TLS = 2 };

enum natclient_flag {
  NATCLIENT_NO_NEED_NAT = 0, /* reached without translation */
  NATCLIENT_MAPPED = 1,
  NATCLIENT_NO_MAPPING = 2 /* translation needed, none known */
};

/* The protocol of the call server that owns a call, for natclient_request_rtp. */
enum natclient_call_server { NATCLIENT_SERVER_CM = 0, NATCLIENT_SERVER_SIP = 1, NATCLIENT_SERVER_CC = 3 };

/* Why the agent refused a frame, or the connection; the values of docs/protocol.md. */
enum natclient_refusal {
  NATCLIENT_QUEUE_TAKEN = 1,
  NATCLIENT_BAD_HEADER = 2,
  NATCLIENT_BAD_VERSION = 3,
  NATCLIENT_BAD_KIND = 4,
  NATCLIENT_BAD_COUNT = 5,
  NATCLIENT_BAD_TEXT = 6,
  NATCLIENT_BAD_VALUE = 7,
  NATCLIENT_TOO_LONG = 8,
  NATCLIENT_NOT_ALLOWED = 9
};

enum { NATCLIENT_MAX_ITEMS = 1024, NATCLIENT_MAX_TEXTS = 64, NATCLIENT_MAX_TEXT_BYTES = 255 };

typedef struct natclient_item {
  uint32_t ip;
  uint16_t port;
  uint16_t reserved; /* 0 */
} natclient_item;

typedef struct natclient_answer_item {
  uint32_t ip; /* local address and port; of a reverse answer, those found, or 0 */
  uint16_t port;
  uint16_t reserved;
  uint32_t mapped_ip; /* public address and port */
  uint16_t mapped_port;
  uint16_t mapped_reserved;
  uint32_t flag; /* enum natclient_flag */
} natclient_answer_item;

/*
 * What arrives, by kind; a null member ignores its kind. The arguments live for the call only. A handler may send
 * requests, but may not close the natclient or dispatch on it.
 */
typedef struct natclient_handlers {
  void (*welcome)(void* context); /* the connection is the queue's party now */
  void (*cs)(void* context, uint64_t id, const natclient_item* mapped, uint32_t flag, uint32_t value);
  void (*cs_list)(void* context, uint64_t id, const natclient_answer_item* items, size_t count, uint32_t value);
  void (*rtp)(void* context, uint64_t id, const natclient_answer_item* items, size_t count, uint32_t server);
  void (*reverse)(void* context, uint64_t id, const natclient_answer_item* items, size_t count, uint32_t value);
  void (*update)(void* context, uint64_t id, uint32_t type, uint32_t value); /* acknowledgement */
  void (*notice)(void* context, uint32_t type, const char* const* texts, size_t count);
  void (*refused)(void* context, uint64_t id, uint32_t reason, const char* text); /* enum natclient_refusal */
  void (*hang_up)(void* context); /* the agent closed the connection; nothing follows */
} natclient_handlers;

/*
 * Connects a party. runtime_dir null: NATAGENT_RUNTIME_DIR, or /run/natagent. The agent then sends a welcome, or
 * refuses the connection when the queue has a party already, or is not for the caller's user. wait_ms 0 returns without
 * waiting for either; otherwise waits for it at most so long (negative: without limit): -EBUSY queue taken, -EPERM not
 * allowed, -ETIMEDOUT neither came, -ECONNRESET hung up. -ENOENT or -ECONNREFUSED: no agent there. -EACCES: the mode of
 * the socket or of its directory keeps the caller out. -EAGAIN, without waiting only: too many others are waiting to
 * connect. *client is null unless 0 is returned.
 */
NATCLIENT_API int natclient_open(natclient** client, const char* runtime_dir, enum natclient_party party, int wait_ms);

/* Hangs up and frees; null is fine. Requests already sent are still processed by the agent. */
NATCLIENT_API void natclient_close(natclient* client);

/* For the caller's own poll: readable means natclient_dispatch has something to do. */
NATCLIENT_API int natclient_fd(const natclient* client);

/*
 * Sending. -EAGAIN: the agent does not read as fast; nothing was sent, poll natclient_fd for writing and try again.
 * -EINVAL: more items or longer texts than allowed, or a kind that the party's queue does not take. -EPIPE: hung up.
 * destination: a dotted address or a host name, without blanks and control characters (else -EINVAL). After a look-up
 * the SIP agent is answered through the handler cs, for the first item, and CM and CC through rtp, whatever the
 * request's kind.
 */
NATCLIENT_API int natclient_request_cs(natclient* client, uint64_t id, const char* destination,
                                       const natclient_item* item, enum natclient_port_type port_type, uint32_t value);
NATCLIENT_API int natclient_request_cs_list(natclient* client, uint64_t id, const char* destination,
                                            const natclient_item* items, size_t count, uint32_t value);
NATCLIENT_API int natclient_request_rtp(natclient* client, uint64_t id, const char* destination,
                                        const natclient_item* items, size_t count, uint32_t server);
NATCLIENT_API int natclient_request_reverse(natclient* client, uint64_t id, const natclient_item* items, size_t count,
                                            uint32_t value);
NATCLIENT_API int natclient_request_close(natclient* client, uint64_t id); /* is not answered */
NATCLIENT_API int natclient_update(natclient* client, uint64_t id, uint32_t type, const char* const* texts,
                                   size_t count, uint32_t value); /* NATCLIENT_CGI only */

/*
 * Calls the handlers for what has arrived, without blocking: at most 256 frames, so that a busy agent does not keep the
 * caller; while more wait, natclient_fd stays readable. Returns how many frames there were, or
 * -ECONNRESET once the connection is gone (hang_up was called, once), or -EPROTO for a frame that is not the agent's.
 */
NATCLIENT_API int natclient_dispatch(natclient* client, const natclient_handlers* handlers, void* context);

/* Waits until something can be dispatched: 1, or 0 after timeout_ms (negative: no limit), or a negative errno. */
NATCLIENT_API int natclient_wait(natclient* client, int timeout_ms);

/* Waits until a request can be sent: as natclient_wait. */
NATCLIENT_API int natclient_wait_writable(natclient* client, int timeout_ms);

/* A constant text. */
NATCLIENT_API const char* natclient_strerror(int error);

/* The version of the library that runs, as "0.1.0"; a constant text. */
NATCLIENT_API const char* natclient_version(void);

#ifdef __cplusplus
}
#endif

#endif
