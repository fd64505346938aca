/*
 * A SIP user agent's side of the agent, within an event loop of its own: asks how its signalling port is seen from
 * outside, asks again whenever the agent says that this has changed, and connects again when the agent has gone.
 *
 *   cc -std=c11 -o epoll_client epoll_client.c $(pkg-config --cflags --libs natclient)
 *   ./epoll_client DESTINATION IP PORT [RUNTIME_DIR]
 *
 * It prints a line for each event, and ends with SIGINT or SIGTERM.
 */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <errno.h>
#include <natclient.h>
#include <signal.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

enum { FIRST_PAUSE_MS = 50, LONGEST_PAUSE_MS = 5000, PATIENCE_MS = 15000 };

struct user_agent {
  natclient* client; /* null while there is no connection */
  const char* runtime_dir;
  const char* destination;
  natclient_item endpoint;
  uint64_t asked;  /* the id of the last request */
  bool must_ask;   /* a request is due, or found no room */
  bool must_leave; /* the connection has ended, or is of no use */
  int pause_ms;    /* until the next attempt to connect */
  int epoll;
  int timer; /* one thing at a time: the next attempt, or the end of our patience with an answer */
};

static void die(const char* what) {
  perror(what);
  exit(1);
}

static void set_timer(const struct user_agent* agent, int milliseconds) {
  const struct itimerspec once = {{0, 0}, {milliseconds / 1000, milliseconds % 1000 * 1000000L}};
  if (timerfd_settime(agent->timer, 0, &once, NULL) != 0) {
    die("timerfd_settime");
  }
}

static void watch(const struct user_agent* agent, int fd, int operation, uint32_t events) {
  struct epoll_event event = {.events = events, .data = {.fd = fd}};
  if (epoll_ctl(agent->epoll, operation, fd, &event) != 0) {
    die("epoll_ctl");
  }
}

/* Sends the request that is due. A socket without room is watched until there is some. */
static void ask(struct user_agent* agent) {
  const int result =
      natclient_request_cs(agent->client, agent->asked + 1, agent->destination, &agent->endpoint, NATCLIENT_UDP, 0);
  const int fd = natclient_fd(agent->client);
  set_timer(agent, PATIENCE_MS);
  if (result == -EAGAIN) {
    watch(agent, fd, EPOLL_CTL_MOD, EPOLLIN | EPOLLOUT);
    return;
  }
  watch(agent, fd, EPOLL_CTL_MOD, EPOLLIN);
  agent->must_ask = false;
  if (result == -EINVAL) {
    fprintf(stderr, "the destination cannot be asked for\n");
    exit(1);
  }
  if (result != 0) {
    agent->must_leave = true;
    return;
  }
  ++agent->asked;
}

static void on_welcome(void* context) {
  struct user_agent* agent = context;
  agent->pause_ms = FIRST_PAUSE_MS;
  agent->must_ask = true;
  puts("connected");
}

static void on_cs(void* context, uint64_t id, const natclient_item* mapped, uint32_t flag, uint32_t value) {
  struct user_agent* agent = context;
  const struct in_addr ip = {mapped->ip};
  char text[INET_ADDRSTRLEN];
  (void)value;
  if (id != agent->asked) {
    return; /* another one has been sent since */
  }
  set_timer(agent, 0);
  if (flag == NATCLIENT_MAPPED) {
    printf("mapped %s:%d\n", inet_ntop(AF_INET, &ip, text, sizeof text), mapped->port);
  } else {
    puts(flag == NATCLIENT_NO_NEED_NAT ? "no translation needed" : "no mapping known");
  }
}

static void on_notice(void* context, uint32_t type, const char* const* texts, size_t count) {
  struct user_agent* agent = context;
  (void)texts;
  (void)count;
  agent->must_ask = true;
  printf("notice %u\n", (unsigned)type);
}

static void on_refused(void* context, uint64_t id, uint32_t reason, const char* text) {
  struct user_agent* agent = context;
  printf("refused %u %s\n", (unsigned)reason, text);
  if (id == agent->asked) {
    set_timer(agent, 0);
  }
}

static void on_hang_up(void* context) {
  struct user_agent* agent = context;
  agent->must_leave = true;
}

static const natclient_handlers handlers = {
    .welcome = on_welcome, .cs = on_cs, .notice = on_notice, .refused = on_refused, .hang_up = on_hang_up};

/* Hangs up and waits before the next attempt, longer each time until a welcome comes. */
static void leave(struct user_agent* agent) {
  if (agent->client != NULL) {
    puts("disconnected");
    natclient_close(agent->client); /* closes the descriptor, which takes it out of the epoll */
    agent->client = NULL;
  }
  agent->must_ask = false;
  agent->must_leave = false;
  set_timer(agent, agent->pause_ms);
  agent->pause_ms = agent->pause_ms * 2 < LONGEST_PAUSE_MS ? agent->pause_ms * 2 : LONGEST_PAUSE_MS;
}

/* Begins to connect; the welcome is one of the things that arrive. */
static void join(struct user_agent* agent) {
  const int result = natclient_open(&agent->client, agent->runtime_dir, NATCLIENT_SIP, 0);
  if (result != 0) {
    fprintf(stderr, "%s\n", natclient_strerror(result));
    leave(agent);
    return;
  }
  watch(agent, natclient_fd(agent->client), EPOLL_CTL_ADD, EPOLLIN);
  set_timer(agent, PATIENCE_MS);
}

static void on_timer(struct user_agent* agent) {
  uint64_t expirations;
  if (read(agent->timer, &expirations, sizeof expirations) < 0) {
    return; /* it was set anew meanwhile */
  }
  if (agent->client == NULL) {
    join(agent);
  } else {
    puts("no answer in time");
    leave(agent);
  }
}

static void on_socket(struct user_agent* agent) {
  const int result = natclient_dispatch(agent->client, &handlers, agent);
  if (result < 0 && result != -ECONNRESET) {
    fprintf(stderr, "%s\n", natclient_strerror(result));
    agent->must_leave = true;
  }
  if (agent->must_ask && !agent->must_leave) {
    ask(agent);
  }
  if (agent->must_leave) {
    leave(agent);
  }
}

static int make_signal_fd(void) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  if (sigprocmask(SIG_BLOCK, &signals, NULL) != 0) {
    die("sigprocmask");
  }
  return signalfd(-1, &signals, SFD_CLOEXEC);
}

int main(int argc, char** argv) {
  struct user_agent agent = {.pause_ms = FIRST_PAUSE_MS};
  struct in_addr ip;
  const long port = argc > 3 ? strtol(argv[3], NULL, 10) : 0;
  if (argc > 5 || port < 1 || port > UINT16_MAX || inet_pton(AF_INET, argv[2], &ip) != 1) {
    fprintf(stderr, "usage: %s DESTINATION IP PORT [RUNTIME_DIR]\n", argv[0]);
    return 2;
  }
  agent.destination = argv[1];
  agent.endpoint.ip = ip.s_addr;
  agent.endpoint.port = (uint16_t)port;
  agent.runtime_dir = argc == 5 ? argv[4] : NULL;
  setvbuf(stdout, NULL, _IOLBF, 0);

  agent.epoll = epoll_create1(EPOLL_CLOEXEC);
  agent.timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  const int signals = make_signal_fd();
  if (agent.epoll < 0 || agent.timer < 0 || signals < 0) {
    die("descriptors");
  }
  watch(&agent, agent.timer, EPOLL_CTL_ADD, EPOLLIN);
  watch(&agent, signals, EPOLL_CTL_ADD, EPOLLIN);

  join(&agent);
  for (;;) {
    struct epoll_event event;
    const int ready = epoll_wait(agent.epoll, &event, 1, -1);
    if (ready < 0 && errno != EINTR) {
      die("epoll_wait");
    }
    if (ready <= 0) {
      continue;
    }
    if (event.data.fd == signals) {
      break;
    }
    if (event.data.fd == agent.timer) {
      on_timer(&agent);
    } else {
      on_socket(&agent);
    }
  }
  natclient_close(agent.client);
  return 0;
}
