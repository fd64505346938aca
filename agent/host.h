#pragma once

// What a host that loads the library may use beyond natagent.h; installed as <natagent/host.h>. C11 and C++11. Nothing
// throws; the strings that are handed over are copied. Each structure begins with its size, the caller's sizeof, so
// that a later library can tell an older host's: it fills no more than that. Addresses are in network byte order, ports
// in host order, times in milliseconds since 1970 (UTC); 0 is none of each.

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NAT_HOST_EXPORT __attribute__((visibility("default")))

// The queues' runtime directory; a null pointer or an empty text: $NATAGENT_RUNTIME_DIR, else /run/natagent, as without
// this call. With a `lock` of 0 and more the process holds the directory's lease already: `lock` is open on
// `agent.lock` in it and has an open file description lock on the whole file, for writing; it stays the host's and open
// until StopNatMain has returned. Otherwise the library takes the lease itself. Before NatMain. Returns 0 or an errno
// value.
NAT_HOST_EXPORT int NatHostUseRuntimeDir(const char* dir, int lock);

// The directory of natagent.log; a null pointer or an empty text: $NATAGENT_LOG_DIR, else the current directory, as
// without this call. From the next NatMain on. Returns 0 or an errno value.
NAT_HOST_EXPORT int NatHostUseLogDir(const char* dir);

enum { NAT_HOST_MAX_USERS = 64 };
#define NAT_HOST_EVERYONE ((size_t)-1)

// Limits a queue (102, 112 to 115) to `count` users, or to none, from the next connection on and on top of its socket's
// mode; the superuser is no exception. NAT_HOST_EVERYONE: no limit, as at first. Any thread. Returns 0 or an errno
// value.
NAT_HOST_EXPORT int NatHostLimitQueue(int queue, const uid_t* users, size_t count);

enum {
  NAT_HOST_QUEUES_OPENING = 0,  // not all are there yet, or the agent is not running
  NAT_HOST_QUEUES_OPEN = 1,
  NAT_HOST_QUEUES_LOST = 2  // one could not be opened, or its socket, the lock file or their directory was replaced
};

// Whether parties can reach the agent. `why`, of `size` bytes, gets a text when the queues are lost, else an empty one.
// Any thread; a few system calls.
NAT_HOST_EXPORT int NatHostCheckQueues(char* why, size_t size);

// The parties of the queues, as bits.
enum {
  NAT_PARTY_SIP = 1,
  NAT_PARTY_Q113 = 2,
  NAT_PARTY_CM = 4,
  NAT_PARTY_CC = 8,
  NAT_PARTY_CGI = 16,
};

struct NatHostHealth {
  size_t size;
  uint64_t answers;       // how often the agent thread has answered
  uint32_t parties;       // those connected: NAT_PARTY_...
  uint32_t ports;         // that STUN watches
  uint32_t ports_learnt;  // of these, how many have a known public side
  uint32_t uplink;        // its address in network byte order; 0: none
};

// Gives the agent thread's last answer and asks it again. It answers in its next turn; `answers` that stay the same
// from one call to the next mean a thread that is stuck. Never waits for the agent's work. 1; 0 when no agent runs.
NAT_HOST_EXPORT int NatHostReadHealth(struct NatHostHealth* health);

// --- the configuration of a host that is written in C ---

struct NatHostExclusion {
  size_t size;
  uint32_t ip;
  uint32_t mask;
};

// The fields mean what they mean in nat/host_config.h, under their names there.
struct NatHostConfig {
  size_t size;
  uint16_t rtp_port_start;
  uint16_t rtp_port_end;
  uint8_t rtcp_enabled;
  uint8_t sip_udp_use_stun;
  uint8_t gw_use_stun;
  const char* gw_interface;  // the texts and the exclusions stay until the next call; a null pointer: empty
  uint16_t sip_udp_port;
  uint16_t sip_tcp_port;
  uint32_t sip_udp_public_ip;
  uint32_t sip_tcp_public_ip;
  uint16_t sip_udp_public_port;
  uint16_t sip_tcp_public_port;
  uint32_t gw_public_ip;
  uint16_t gw_public_port_start;
  uint16_t gw_public_port_end;
  const struct NatHostExclusion* exclusions;
  size_t exclusion_count;
  const char* stun_server_host;
  uint16_t stun_server_port;
  uint32_t stun_settings[3];
};

// The agent needs the configuration: fills the structure, which comes zeroed but for its size, and returns nonzero, or
// returns 0 when there is none. Called several times in each load, on the agent's thread and on the one that is inside
// UpdateNatMain, never on both at once; all calls of a load have to give the same.
typedef int (*NatHostConfigNeeded)(void* context, struct NatHostConfig* config);

// Makes what NatMain is to be given, so that `needed` supplies the configuration; a null pointer without memory. One at
// a time; a further call replaces it. Not while the agent runs.
NAT_HOST_EXPORT void* NatHostMakeConfigSource(NatHostConfigNeeded needed, void* context);

// --- being told what happens ---

// The kinds of event, as bits.
enum {
  NAT_EVENT_READY = 1,      // the queues are open and the main loop runs
  NAT_EVENT_FAILED = 2,     // the agent cannot run; `text` says why
  NAT_EVENT_LOG = 4,        // `text` goes to natagent.log: a part of a line, or several lines
  NAT_EVENT_CONNECTED = 8,  // queue, pid, uid, text: the party's program
  NAT_EVENT_HUNG_UP = 16,   // the same
  NAT_EVENT_REFUSED = 32,   // queue, pid, uid, reason: as in a REFUSED frame, text: the same for people
  NAT_EVENT_LOADED = 64,    // settings were loaded: queue: the party's, or 0 after UpdateNatMain; reason: 1, or 0 for
                            // a load that failed
  NAT_EVENT_UPLINK = 128,   // before.ip, now.ip
  NAT_EVENT_MAPPING = 256,  // STUN saw a mapping change: local_port, before, now
  NAT_EVENT_NOTICE = 512,  // a configuration-update notice; queue: of the party that sent it, or 0 for the agent's own;
                           // reason: its type
  NAT_EVENT_STOPPED = 1024,  // the agent has stopped
};

struct NatHostEndpoint {
  uint32_t ip;
  uint16_t port;
};

struct NatHostEvent {
  size_t size;
  uint32_t kind;
  int32_t queue;
  int64_t pid;
  uint32_t uid;
  uint32_t reason;
  uint16_t local_port;
  struct NatHostEndpoint before;
  struct NatHostEndpoint now;
  const char* text;  // never null; until the listener returns
};

// Called on the thread on which it happens, one call at a time, often with the agent's locks held: it has to return at
// once, and may call nothing of the library.
typedef void (*NatHostListener)(void* context, const struct NatHostEvent* event);

// Tells `listener` the events of these kinds; it replaces the one before, which is not called any more once this has
// returned. A null pointer, or no kinds: nobody is told, and events cost nothing. Any thread but a listener's.
NAT_HOST_EXPORT void NatHostListen(uint32_t kinds, NatHostListener listener, void* context);

// --- reading what the agent knows ---
//
// Any thread but a listener's. Each call holds the agent's settings lock for a few microseconds at most, takes no queue
// and changes nothing. Results below 0 are negative errno values: -ESRCH no agent runs, -EBUSY the agent's thread has
// not given its lock up for a second, -EINVAL a size that is too small.

enum {
  NAT_HOST_STUN_OFF = 0,       // no mapping needs it, or it could not be started
  NAT_HOST_STUN_WAITING = 1,   // for an uplink, or for a server's address
  NAT_HOST_STUN_ASKING = 2,    // the server has not answered yet
  NAT_HOST_STUN_WORKS = 3,     // the server answers
  NAT_HOST_STUN_DOUBTED = 4,   // it answered before, and has not for some requests
  NAT_HOST_STUN_SILENT = 5,    // it does not answer
  NAT_HOST_STUN_REFUSING = 6,  // it answers with nothing usable
};

enum { NAT_HOST_NAT_UNKNOWN = 0, NAT_HOST_NAT_SAME = 1, NAT_HOST_NAT_DIFFERENT = 2 };

// Whether a call agent's settings are in force.
enum {
  NAT_HOST_NOT_LOADED = 0,  // its party has not connected, or there was no configuration
  NAT_HOST_LOADED = 1,
  NAT_HOST_DROPPED_BY_CM = 2,  // media settings: with the hang-up of that party
  NAT_HOST_DROPPED_BY_CC = 3,
  NAT_HOST_DROPPED_BY_SIP = 4,  // signalling settings
};

struct NatHostStatus {
  size_t size;
  int64_t started;
  uint32_t uplink_ip;
  uint32_t uplink_gateway;  // 0xFFFFFFFF: one without an IPv4 address
  uint32_t stun_state;
  uint32_t stun_nat;  // toward two servers: NAT_HOST_NAT_...
  struct NatHostEndpoint stun_server;
  uint32_t stun_ports;
  uint32_t stun_ports_learnt;
  uint32_t signalling;  // NAT_HOST_NOT_LOADED ...
  uint32_t media;
  int64_t signalling_since;
  int64_t media_since;
  int64_t exclusions_since;  // of the rules in force
  uint64_t calls;            // open RTP query ids
  uint64_t exclusions;       // rules
  uint64_t names;            // requests that wait for a name
};
NAT_HOST_EXPORT int NatHostReadStatus(struct NatHostStatus* status);

struct NatHostParty {
  size_t size;
  int32_t queue;
  uint32_t connected;
  int64_t pid;
  uint32_t uid;
  char program[64];
  int64_t since;
};
// Of a queue: 102, 112 to 115.
NAT_HOST_EXPORT int NatHostReadParty(int queue, struct NatHostParty* party);

// Where a listing goes on. All 0: at its beginning.
struct NatHostPlace {
  uint64_t at;
  uint64_t within;
};

// The listings fill at most `count` rows, of which the first one's size counts for all, move the place behind them and
// return their number; 0 at the end. They give fewer than they could, so that the lock is given up in between: rows
// that come or go meanwhile may be in the listing or not.

enum {
  NAT_HOST_SIP_UDP = 0,
  NAT_HOST_SIP_TCP = 1,
  NAT_HOST_SIP_TLS = 2,
  NAT_HOST_MEDIA = 3,  // of a gateway interface
};

enum { NAT_HOST_BY_NOTHING = 0, NAT_HOST_BY_CONFIGURATION = 1, NAT_HOST_BY_STUN = 2 };

// A translation in force.
struct NatHostMapping {
  size_t size;
  uint32_t what;
  uint32_t by;
  uint32_t local_ip;  // of a gateway interface
  uint16_t local_start;
  uint16_t local_end;
  uint32_t public_ip;  // by configuration
  uint16_t public_start;
  uint16_t public_end;
};
NAT_HOST_EXPORT int NatHostListMappings(struct NatHostPlace* place, struct NatHostMapping* rows, size_t count);

// A port that STUN watches. Ages and spans are in milliseconds.
struct NatHostPort {
  size_t size;
  uint16_t port;
  uint8_t is_media;
  uint8_t is_unsettled;           // the NAT answers with another mapping each time
  struct NatHostEndpoint mapped;  // what is answered; 0 when it is not known
  struct NatHostEndpoint server;  // that told it
  int64_t age;                    // since its last answer; -1 without one
  int64_t next;                   // until its next turn; 0: as soon as there is room; -1: it is asking
};
NAT_HOST_EXPORT int NatHostListPorts(struct NatHostPlace* place, struct NatHostPort* rows, size_t count);

// An RTP translation that was handed out. Several rows may have the same query id.
struct NatHostCall {
  size_t size;
  uint64_t id;
  struct NatHostEndpoint local;  // 0: already closed under another id
  struct NatHostEndpoint mapped;
};
NAT_HOST_EXPORT int NatHostListCalls(struct NatHostPlace* place, struct NatHostCall* rows, size_t count);

NAT_HOST_EXPORT int NatHostListExclusions(struct NatHostPlace* place, struct NatHostExclusion* rows, size_t count);

// A request that waits for its destination's name; the first 512 are listed.
struct NatHostName {
  size_t size;
  uint64_t id;
  int32_t queue;
  uint32_t items;
  uint32_t is_left;  // its party is gone
  char name[256];
};
NAT_HOST_EXPORT int NatHostListNames(struct NatHostPlace* place, struct NatHostName* rows, size_t count);

// Why an item is answered as it is.
enum {
  NAT_WHY_MAPPED_BY_CONFIGURATION = 1,
  NAT_WHY_MAPPED_BY_STUN = 2,
  NAT_WHY_FOUND = 3,  // reverse

  // no translation is needed
  NAT_WHY_ATTACHED = 8,              // the destination is on an attached network
  NAT_WHY_EXCLUDED = 9,              // an exclusion matches it
  NAT_WHY_SERVER_NOT_THERE = 10,     // media: the call server's party is not connected
  NAT_WHY_MEDIA_NOT_LOADED = 11,     // media: cm, whose settings they are, has not connected or has hung up
  NAT_WHY_MEDIA_DROPPED = 12,        // media: cm is there, but cc has hung up since, which drops them
  NAT_WHY_NO_GATEWAY_ADDRESS = 13,   // media: the configured interface had no address when they were loaded
  NAT_WHY_OTHER_LOCAL_ADDRESS = 14,  // media: the local address is not one that was loaded
  NAT_WHY_OUTSIDE_RTP_RANGE = 15,    // media: the local port is not in the range
  NAT_WHY_NOT_HANDED_OUT = 16,       // reverse: nobody was given this public endpoint

  // no mapping is known
  NAT_WHY_NO_ROUTE = 20,
  NAT_WHY_NO_DESTINATION = 21,  // a signalling list toward 0.0.0.0
  NAT_WHY_PORT_0 = 22,          // signalling
  NAT_WHY_NOT_SIGNALLING = 23,  // signalling: only the party sip has signalling settings
  NAT_WHY_OTHER_PORT = 24,      // signalling: another local port than the configured one
  NAT_WHY_NO_PUBLIC_SIDE = 25,  // none is configured, or the settings are not loaded
  NAT_WHY_BEYOND_RANGE = 26,    // the port would come out above the last public one
  NAT_WHY_NOT_WATCHED = 27,     // STUN does not watch the port, or does not run
  NAT_WHY_NOT_LEARNT = 28,      // STUN has no answer for the port
  NAT_WHY_FAULT = 29,           // the request was not handled to its end

  NAT_HOST_MAX_WHY = 32
};

// What a counter counts.
enum {
  NAT_COUNT_REQUESTS = 0,     // of a queue by kind: frames of docs/protocol.md, 1 to 6
  NAT_COUNT_ITEMS = 1,        // of a queue by kind and reason: NAT_WHY_...
  NAT_COUNT_REFUSALS = 2,     // of a queue by reason: that of a REFUSED frame
  NAT_COUNT_UNDELIVERED = 3,  // of a queue: answers for parties that had gone
  NAT_COUNT_DROPPED = 4,      // of a queue: requests dropped that gone parties had left waiting for names
  NAT_COUNT_NAMES = 5,        // look-ups; reason 1: of a name that has an address, 0: of another
  NAT_COUNT_CHANGES = 6       // mappings that STUN saw change
};

// A counter that is not 0. They begin with the agent's start.
struct NatHostCounter {
  size_t size;
  uint32_t what;
  int32_t queue;
  uint32_t kind;
  uint32_t reason;
  uint64_t value;
};
NAT_HOST_EXPORT int NatHostListCounters(struct NatHostPlace* place, struct NatHostCounter* rows, size_t count);

// --- explaining an answer ---

enum { NAT_HOST_UDP = 0, NAT_HOST_TCP = 1, NAT_HOST_TLS = 2, NAT_HOST_RTP = 3 };

struct NatHostQuestion {
  size_t size;
  int32_t queue;         // 112 to 115
  uint32_t kind;         // a signalling port of this kind, or a media port
  uint32_t destination;  // its address; 0: of a name without an address
  struct NatHostEndpoint local;
  uint32_t server;  // a media port's call server: 0 cm, 1 sip, 3 cc
};

struct NatHostExplanation {
  size_t size;
  uint32_t why;           // NAT_WHY_...
  uint32_t flag;          // the answer: 0 no translation needed, 1 mapped, 2 no mapping known
  uint32_t has_route;     // the next two hold then
  uint32_t interface_ip;  // packets leave from it
  uint32_t gateway;       // 0: attached; 0xFFFFFFFF: one without an IPv4 address
  uint32_t is_excluded;   // the rule that matches is the next one
  struct NatHostExclusion rule;
  uint32_t is_server_there;       // media
  struct NatHostEndpoint local;   // of a media port, with the address that was filled in
  struct NatHostEndpoint mapped;  // flag 1
  uint32_t has_port;              // STUN watches the port, which the next one describes
  struct NatHostPort port;
};
// What the agent would answer now, by the very steps that answer a request. Nothing is logged, recorded or asked of
// STUN; the route is looked up.
NAT_HOST_EXPORT int NatHostExplain(const struct NatHostQuestion* question, struct NatHostExplanation* explanation);

#ifdef __cplusplus
}
#endif
