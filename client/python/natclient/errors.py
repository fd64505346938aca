"""What can go wrong between a party and the agent. Arguments that no frame can carry raise ValueError instead."""

from __future__ import annotations

from enum import IntEnum


class Reason(IntEnum):
    """Why a frame, or a connection, is refused. An agent may know further reasons."""

    QUEUE_TAKEN = 1
    BAD_HEADER = 2
    BAD_VERSION = 3
    BAD_KIND = 4
    BAD_COUNT = 5
    BAD_TEXT = 6
    BAD_VALUE = 7
    TOO_LONG = 8
    NOT_ALLOWED = 9


class Error(Exception):
    """The base of this module's exceptions."""


class FrameError(Error):
    """A packet is not a frame of the protocol. `id` is the query id in it, 0 when it is shorter than a header."""

    def __init__(self, reason: Reason, text: str, id: int = 0) -> None:
        super().__init__(text)
        self.reason = reason
        self.id = id


class RequestRefused(Error):
    """The agent refused a request, or the connection. `reason` is a Reason, or a number that is unknown here."""

    def __init__(self, reason: int, text: str) -> None:
        super().__init__(text or f"refused for reason {reason}")
        self.reason = reason


class QueueTaken(RequestRefused):
    """Another party is connected to the queue. The text names its process."""


class NotAllowed(RequestRefused):
    """The agent does not allow this user on the queue."""


class NoAgent(Error, ConnectionError):
    """No agent serves the runtime directory."""


class HungUp(Error, ConnectionError):
    """The agent closed the connection, or the client is not open."""


class Timeout(Error, TimeoutError):
    """Nothing came in time, or the agent did not read in time."""
