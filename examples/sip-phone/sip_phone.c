/*
 * A SIP phone behind NAT: how a user agent uses the NAT agent. It asks under which address and port the outside sees
 * its own, registers with them, takes calls with them, and registers anew when the agent tells that they have changed.
 *
 *     sip_phone LOCAL_ADDRESS REGISTRAR_ADDRESS
 *
 * It takes one call at a time, sends silence and counts the RTP packets that it receives. What happens is told on
 * standard error. Everything runs in one thread, in the main loop of the SIP library.
 *
 *     cc sip_phone.c $(pkg-config --cflags --libs natclient sofia-sip-ua) -o sip_phone
 */
#include <arpa/inet.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#define NUA_MAGIC_T struct phone
#define SU_ROOT_MAGIC_T struct phone
#define SU_WAKEUP_ARG_T struct link
#define SU_TIMER_ARG_T struct phone
#include <sofia-sip/nua.h>
#include <sofia-sip/sdp.h>
#include <sofia-sip/sip_status.h>
#include <sofia-sip/su_log.h>
#include <sofia-sip/su_wait.h>

#include "natclient.h"

extern su_log_t tport_log[]; /* of the SIP library's transports */

enum {
  SIP_PORT = 5060,
  MEDIA_PORT = 10000,
  MAPPING_CHANGED = 92, /* the agent's notice */
  CALL_ID = 1,          /* one call at a time, one query id */
  ASK_AGAIN_MS = 200,
  WAIT_FOR_AGENT_MS = 5000,
  FRAME_MS = 20,
  FRAME_BYTES = 160,
  RTP_HEADER_BYTES = 12,
  PCMA = 8,
  PCMA_SILENCE = 0xD5
};

/* A connection to the agent, as the party of one of its queues. */
struct link {
  natclient* client;
  natclient_handlers handlers;
};

struct phone {
  const char* local;
  const char* registrar;
  su_root_t* root;
  nua_t* nua;
  nua_handle_t* registration;
  struct link sip; /* for the signalling port, and to be told of changes */
  struct link cm;  /* for the media port */
  su_timer_t* ask_again;
  char contact[64]; /* as registered; empty before */
  /* The call; null without one. */
  nua_handle_t* call;
  struct sockaddr_in far_media;
  su_timer_t* frame_timer;
  int media_socket;
  uint16_t sent;
  unsigned received;
};

static void fail(const char* what, const char* why) {
  fprintf(stderr, "sip_phone: %s: %s\n", what, why);
  exit(1);
}

static void check(int error, const char* what) {
  if (error < 0) {
    fail(what, natclient_strerror(error));
  }
}

static natclient_item local_endpoint(const struct phone* phone, uint16_t port) {
  natclient_item item = {.ip = inet_addr(phone->local), .port = port};
  return item;
}

/* The endpoint to put into a message: the public one, or the local one when no translation is needed. */
static struct sockaddr_in endpoint_to_tell(const struct phone* phone, uint32_t flag, uint32_t ip, uint16_t port,
                                           uint16_t local_port) {
  struct sockaddr_in told = {.sin_family = AF_INET, .sin_addr.s_addr = ip, .sin_port = htons(port)};
  if (flag == NATCLIENT_NO_NEED_NAT) {
    told.sin_addr.s_addr = inet_addr(phone->local);
    told.sin_port = htons(local_port);
  }
  return told;
}

/* --- Registering --- */

static void ask_for_signalling(struct phone* phone) {
  natclient_item item = local_endpoint(phone, SIP_PORT);
  check(natclient_request_cs(phone->sip.client, 0, phone->registrar, &item, NATCLIENT_UDP, 0), "asking the agent");
}

static void on_time_to_ask(struct phone* phone, su_timer_t* timer, struct phone* same) {
  (void)timer, (void)same;
  ask_for_signalling(phone);
}

static void on_signalling(void* context, uint64_t id, const natclient_item* mapped, uint32_t flag, uint32_t value) {
  struct phone* phone = context;
  (void)id, (void)value;
  if (flag == NATCLIENT_NO_MAPPING) { /* nothing is known yet, or no longer */
    su_timer_set(phone->ask_again, on_time_to_ask, phone);
    return;
  }
  struct sockaddr_in told = endpoint_to_tell(phone, flag, mapped->ip, mapped->port, SIP_PORT);
  char contact[sizeof(phone->contact)];
  snprintf(contact, sizeof(contact), "<sip:phone@%s:%u>", inet_ntoa(told.sin_addr), ntohs(told.sin_port));
  if (strcmp(contact, phone->contact) == 0) {
    return;
  }
  /* Calls to the old contact come no longer: the same message takes it back. */
  char contacts[2 * sizeof(contact) + 16];
  snprintf(contacts, sizeof(contacts), phone->contact[0] ? "%s, %s;expires=0" : "%s", contact, phone->contact);
  strcpy(phone->contact, contact);
  nua_register(phone->registration, SIPTAG_CONTACT_STR(contacts), TAG_END());
}

static void on_notice(void* context, uint32_t type, const char* const* texts, size_t count) {
  (void)texts, (void)count;
  if (type == MAPPING_CHANGED) {
    ask_for_signalling(context);
  }
}

/* --- Taking a call --- */

static void ask_for_media(struct phone* phone) {
  natclient_item item = local_endpoint(phone, MEDIA_PORT);
  check(natclient_request_rtp(phone->cm.client, CALL_ID, inet_ntoa(phone->far_media.sin_addr), &item, 1,
                              NATCLIENT_SERVER_SIP),
        "asking the agent");
}

static void send_frame(struct phone* phone, su_timer_t* timer, struct phone* same) {
  (void)timer, (void)same;
  uint8_t packet[RTP_HEADER_BYTES + FRAME_BYTES] = {0x80, PCMA};
  uint16_t number = htons(phone->sent);
  uint32_t timestamp = htonl((uint32_t)phone->sent * FRAME_BYTES);
  memcpy(packet + 2, &number, sizeof(number));
  memcpy(packet + 4, &timestamp, sizeof(timestamp));
  memset(packet + RTP_HEADER_BYTES, PCMA_SILENCE, FRAME_BYTES);
  /* A packet that is lost here is a packet lost on the way. */
  (void)sendto(phone->media_socket, packet, sizeof(packet), 0, (struct sockaddr*)&phone->far_media,
               sizeof(phone->far_media));
  phone->sent++;
}

static void on_media(void* context, uint64_t id, const natclient_answer_item* items, size_t count, uint32_t server) {
  struct phone* phone = context;
  (void)id, (void)server;
  if (!phone->call) { /* the caller has given up meanwhile */
    return;
  }
  if (count != 1 || items[0].flag == NATCLIENT_NO_MAPPING) {
    nua_respond(phone->call, SIP_480_TEMPORARILY_UNAVAILABLE, TAG_END());
    return;
  }
  struct sockaddr_in told =
      endpoint_to_tell(phone, items[0].flag, items[0].mapped_ip, items[0].mapped_port, MEDIA_PORT);
  char sdp[200];
  const char* address = inet_ntoa(told.sin_addr);
  snprintf(sdp, sizeof(sdp),
           "v=0\r\no=phone 1 1 IN IP4 %s\r\ns=call\r\nc=IN IP4 %s\r\nt=0 0\r\nm=audio %u RTP/AVP %d\r\n", address,
           address, ntohs(told.sin_port), PCMA);
  nua_respond(phone->call, SIP_200_OK, SIPTAG_CONTACT_STR(phone->contact), SIPTAG_CONTENT_TYPE_STR("application/sdp"),
              SIPTAG_PAYLOAD_STR(sdp), TAG_END());
  fprintf(stderr, "call, media at %s:%u\n", address, ntohs(told.sin_port));
  phone->sent = 0;
  phone->received = 0;
  su_timer_set_for_ever(phone->frame_timer, send_frame, phone);
}

/* Where the caller wants its media: the first stream of its offer. */
static bool read_offer(const sip_t* sip, struct sockaddr_in* media) {
  if (!sip->sip_payload) {
    return false;
  }
  sdp_parser_t* parser = sdp_parse(NULL, sip->sip_payload->pl_data, (issize_t)sip->sip_payload->pl_len, 0);
  const sdp_session_t* session = sdp_session(parser);
  const sdp_media_t* stream = session ? session->sdp_media : NULL;
  const sdp_connection_t* connection = stream ? sdp_media_connections(stream) : NULL;
  media->sin_family = AF_INET;
  media->sin_port = htons((uint16_t)(stream ? stream->m_port : 0));
  bool is_good = connection && inet_pton(AF_INET, connection->c_address, &media->sin_addr) == 1 && media->sin_port != 0;
  sdp_parser_free(parser);
  return is_good;
}

static void on_invite(struct phone* phone, nua_handle_t* handle, const sip_t* sip) {
  if (phone->call) {
    nua_respond(handle, SIP_486_BUSY_HERE, TAG_END());
  } else if (!read_offer(sip, &phone->far_media)) {
    nua_respond(handle, SIP_488_NOT_ACCEPTABLE, TAG_END());
  } else {
    phone->call = handle;
    ask_for_media(phone);
  }
}

static void on_call_ended(struct phone* phone) {
  su_timer_reset(phone->frame_timer);
  check(natclient_request_close(phone->cm.client, CALL_ID), "asking the agent");
  fprintf(stderr, "call ended, %u packets received\n", phone->received);
  phone->call = NULL;
}

/* --- Events --- */

static void on_event(nua_event_t event, int status, const char* phrase, nua_t* nua, struct phone* phone,
                     nua_handle_t* handle, nua_hmagic_t* magic, const sip_t* sip, tagi_t tags[]) {
  (void)nua, (void)magic, (void)tags;
  switch (event) {
    case nua_i_invite:
      on_invite(phone, handle, sip);
      break;
    case nua_i_terminated:
      if (handle == phone->call) {
        on_call_ended(phone);
      }
      nua_handle_destroy(handle);
      break;
    case nua_r_register:
      if (status == 200) {
        fprintf(stderr, "registered %s\n", phone->contact);
      } else if (status > 200) {
        fail("registering", phrase);
      }
      break;
    default:
      break;
  }
}

static int on_agent(struct phone* phone, su_wait_t* wait, struct link* link) {
  (void)wait;
  check(natclient_dispatch(link->client, &link->handlers, phone), "the agent");
  return 0;
}

static int on_packet(struct phone* phone, su_wait_t* wait, struct link* none) {
  (void)wait, (void)none;
  char packet[2048];
  while (recv(phone->media_socket, packet, sizeof(packet), MSG_DONTWAIT) >= 0) {
    phone->received++;
  }
  return 0;
}

static void watch(struct phone* phone, int descriptor, su_wakeup_f on_readable, struct link* link) {
  su_wait_t wait = SU_WAIT_INIT;
  if (su_wait_create(&wait, descriptor, SU_WAIT_IN) != 0 ||
      su_root_register(phone->root, &wait, on_readable, link, 0) < 0) {
    fail("the main loop", "a descriptor cannot be watched");
  }
}

static void connect_agent(struct phone* phone, struct link* link, enum natclient_party party) {
  check(natclient_open(&link->client, NULL, party, WAIT_FOR_AGENT_MS), "connecting to the agent");
  watch(phone, natclient_fd(link->client), on_agent, link);
}

static void open_media(struct phone* phone) {
  struct sockaddr_in here = {
      .sin_family = AF_INET, .sin_addr.s_addr = inet_addr(phone->local), .sin_port = htons(MEDIA_PORT)};
  phone->media_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (phone->media_socket < 0 || bind(phone->media_socket, (struct sockaddr*)&here, sizeof(here)) != 0) {
    perror("sip_phone: the media port");
    exit(1);
  }
  watch(phone, phone->media_socket, on_packet, NULL);
}

int main(int count, char** words) {
  struct in_addr address;
  if (count != 3 || inet_pton(AF_INET, words[1], &address) != 1 || inet_pton(AF_INET, words[2], &address) != 1) {
    fprintf(stderr, "usage: sip_phone LOCAL_ADDRESS REGISTRAR_ADDRESS\n");
    return 2;
  }
  struct phone phone = {.local = words[1],
                        .registrar = words[2],
                        .sip.handlers = {.cs = on_signalling, .notice = on_notice},
                        .cm.handlers = {.rtp = on_media}};
  su_init();
  su_log_set_level(tport_log, 0); /* it reports each of STUN's answers, which reach this port too */
  phone.root = su_root_create(&phone);
  su_root_threading(phone.root, 0);
  phone.ask_again = su_timer_create(su_root_task(phone.root), ASK_AGAIN_MS);
  phone.frame_timer = su_timer_create(su_root_task(phone.root), FRAME_MS);
  char bound[64];
  char self[64];
  char server[64];
  snprintf(bound, sizeof(bound), "sip:%s:%d;transport=udp", phone.local, SIP_PORT);
  snprintf(self, sizeof(self), "<sip:phone@%s>", phone.registrar);
  snprintf(server, sizeof(server), "sip:%s", phone.registrar);
  /* The library's own ways through NAT are off, and offers are made here. */
  phone.nua = nua_create(phone.root, on_event, &phone, NUTAG_URL(bound), NUTAG_MEDIA_ENABLE(0),
                         NUTAG_OUTBOUND("no-outbound no-validate no-options-keepalive no-natify"), TAG_END());
  if (!phone.nua) {
    fail(bound, "cannot be used");
  }
  phone.registration =
      nua_handle(phone.nua, NULL, NUTAG_REGISTRAR(server), SIPTAG_TO_STR(self), SIPTAG_FROM_STR(self), TAG_END());
  open_media(&phone);
  connect_agent(&phone, &phone.sip, NATCLIENT_SIP);
  connect_agent(&phone, &phone.cm, NATCLIENT_CM);
  ask_for_signalling(&phone);
  su_root_run(phone.root);
  return 0;
}
