#pragma once

#include "platform/stunutils/steps.h"
#include "platform/types.h"

namespace stun {

// How the server that is asked stands. While it is not HEARD, single ports ask it, the canaries, and all other requests
// under way wait.
enum class ServerState : u8 {
  UNHEARD,   // nothing is known of it yet
  HEARD,     // it answers: all ports ask
  DOUBTED,   // it answered before, but not what was sent since
  SILENT,    // the canaries are not answered either
  REFUSING,  // it answers with nothing usable
};

enum class ServerEvent : u8 {
  MAPPED,      // a usable answer came
  REFUSED,     // another answer came; of a HEARD server: the third such in a row
  UNANSWERED,  // a request was sent twice, the canary's three times, and nothing was heard meanwhile
  GIVEN_UP,    // a transaction is over and nothing was heard meanwhile
  SWITCHED,    // another server is asked from now on
};

enum class ServerAction : u8 {
  NOTHING,
  ASK_ALL,       // ports that asked for nothing are due again
  ASK_THE_REST,  // such ports wait for their turn: they are silent, not the server
  ASK_KNOWN,     // a port that was answered before is the canary: it tells the server's silence from the others' own
  ASK_ONE,       // requests under way are put back; a canary after a short pause
  TELL,          // the owner reports the silence, and asks a server that has not been tried
  GIVE_UP,       // a canary after a pause; the owner reports the silence, and asks the next server
  LEAVE,         // a canary after a longer pause; the owner asks the next server
  BEGIN,         // requests under way are put back; a canary
};

struct ServerStep {
  ServerState from;
  ServerEvent event;
  ServerState to;
  ServerAction action;
};

// Every step there is; of a HEARD server a mapping is no news.
inline constexpr ServerStep kServerSteps[] = {
    {ServerState::UNHEARD, ServerEvent::MAPPED, ServerState::HEARD, ServerAction::ASK_ALL},
    {ServerState::UNHEARD, ServerEvent::REFUSED, ServerState::REFUSING, ServerAction::LEAVE},
    {ServerState::UNHEARD, ServerEvent::UNANSWERED, ServerState::SILENT, ServerAction::TELL},
    {ServerState::UNHEARD, ServerEvent::GIVEN_UP, ServerState::SILENT, ServerAction::GIVE_UP},
    {ServerState::UNHEARD, ServerEvent::SWITCHED, ServerState::UNHEARD, ServerAction::BEGIN},

    {ServerState::HEARD, ServerEvent::REFUSED, ServerState::REFUSING, ServerAction::ASK_ONE},
    {ServerState::HEARD, ServerEvent::UNANSWERED, ServerState::DOUBTED, ServerAction::ASK_KNOWN},
    {ServerState::HEARD, ServerEvent::GIVEN_UP, ServerState::DOUBTED, ServerAction::ASK_KNOWN},
    {ServerState::HEARD, ServerEvent::SWITCHED, ServerState::UNHEARD, ServerAction::BEGIN},

    {ServerState::DOUBTED, ServerEvent::MAPPED, ServerState::HEARD, ServerAction::ASK_THE_REST},
    {ServerState::DOUBTED, ServerEvent::REFUSED, ServerState::REFUSING, ServerAction::LEAVE},
    {ServerState::DOUBTED, ServerEvent::UNANSWERED, ServerState::SILENT, ServerAction::TELL},
    {ServerState::DOUBTED, ServerEvent::GIVEN_UP, ServerState::SILENT, ServerAction::GIVE_UP},
    {ServerState::DOUBTED, ServerEvent::SWITCHED, ServerState::UNHEARD, ServerAction::BEGIN},

    {ServerState::SILENT, ServerEvent::MAPPED, ServerState::HEARD, ServerAction::ASK_ALL},
    {ServerState::SILENT, ServerEvent::REFUSED, ServerState::REFUSING, ServerAction::LEAVE},
    {ServerState::SILENT, ServerEvent::UNANSWERED, ServerState::SILENT, ServerAction::NOTHING},
    {ServerState::SILENT, ServerEvent::GIVEN_UP, ServerState::SILENT, ServerAction::GIVE_UP},
    {ServerState::SILENT, ServerEvent::SWITCHED, ServerState::UNHEARD, ServerAction::BEGIN},

    {ServerState::REFUSING, ServerEvent::MAPPED, ServerState::HEARD, ServerAction::ASK_ALL},
    {ServerState::REFUSING, ServerEvent::REFUSED, ServerState::REFUSING, ServerAction::LEAVE},
    {ServerState::REFUSING, ServerEvent::UNANSWERED, ServerState::SILENT, ServerAction::TELL},
    {ServerState::REFUSING, ServerEvent::GIVEN_UP, ServerState::SILENT, ServerAction::GIVE_UP},
    {ServerState::REFUSING, ServerEvent::SWITCHED, ServerState::UNHEARD, ServerAction::BEGIN},
};

static_assert(IsUnambiguous(kServerSteps));

}  // namespace stun
