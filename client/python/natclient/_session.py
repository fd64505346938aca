"""What the blocking and the asyncio client have in common: everything but the waiting."""

from __future__ import annotations

import logging
import os
import secrets
import socket
from collections import deque
from typing import Deque, Dict, Generic, Iterable, Iterator, Optional, Tuple, Type, TypeVar, Union, cast

from . import codec
from .errors import FrameError, HungUp, NoAgent, NotAllowed, QueueTaken, Reason, RequestRefused
from .records import (CsAnswer, CsListAnswer, Item, Notice, Party, Record, Refused, Request, ReverseAnswer, RtpAnswer,
                      Update, UpdateAnswer, Welcome)

DEFAULT_TIMEOUT = 15.0  # seconds; a look-up that fails takes 10
MAX_NOTICES = 64  # as many as the agent keeps for a party that does not read
BACKLOG_PAUSE = 0.05  # seconds until the next attempt to connect when the backlog is full
FRAMES_PER_TURN = 256  # so that a busy agent does not keep the event loop from its other work

# A request for a host name is answered in the manner of its queue, whatever its kind.
CsAnswers = Union[CsAnswer, RtpAnswer]
CsListAnswers = Union[CsListAnswer, CsAnswer, RtpAnswer]
_Answer = TypeVar("_Answer")


class Kinds(Generic[_Answer]):
    """The records that can answer a request."""

    def __init__(self, *kinds: Type[Record]) -> None:
        self._kinds = kinds

    def answer(self, record: Record, id: int) -> Optional[_Answer]:
        """The record, when it answers the request with the id. RequestRefused when it refuses that."""
        if getattr(record, "id", None) != id:
            return None
        if isinstance(record, Refused):
            raise RequestRefused(record.reason, record.text)
        return cast(_Answer, record) if isinstance(record, self._kinds) else None


CS = Kinds[CsAnswers](CsAnswer, RtpAnswer)
CS_LIST = Kinds[CsListAnswers](CsListAnswer, CsAnswer, RtpAnswer)
REVERSE = Kinds[ReverseAnswer](ReverseAnswer)
UPDATE = Kinds[UpdateAnswer](UpdateAnswer)

log = logging.getLogger("natclient")


def to_items(items: Iterable[Tuple[str, int]]) -> Tuple[Item, ...]:
    return tuple(Item(*item) for item in items)


def pauses() -> Iterator[float]:
    """The seconds between two attempts to connect."""
    pause = 0.05
    while True:
        yield pause
        pause = min(2 * pause, 1.0)


class Session:
    """One party's side of its queue. The socket is there while it is connected."""

    def __init__(self, party: Party, runtime_dir: Optional[str], timeout: float) -> None:
        self.party = Party(party)
        directory = runtime_dir or os.environ.get("NATAGENT_RUNTIME_DIR") or "/run/natagent"
        self.path = os.path.join(directory, f"queue-{self.party.value}")
        self.timeout = timeout
        self.notices: Deque[Notice] = deque()
        self.socket: Optional[socket.socket] = None
        self._next_id = secrets.randbits(31) << 32  # parties that share a device keep to ids of their own

    def id(self, id: Optional[int]) -> int:
        """The caller's, or else the next one of our own."""
        if id is not None:
            return id
        self._next_id += 1
        return self._next_id

    def connect(self) -> bool:
        """False when so many others wait to be taken in that the kernel lets nobody else wait."""
        self.disconnect()
        made = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        try:
            made.setblocking(False)
            made.connect(self.path)
            self.socket = made
            return True
        except BlockingIOError:
            return False
        except (FileNotFoundError, ConnectionRefusedError) as error:
            raise NoAgent(f"no agent serves {self.path}") from error
        finally:
            if self.socket is not made:
                made.close()

    def disconnect(self) -> None:
        """Hangs up. What was sent is still processed by the agent."""
        if self.socket is not None:
            self.socket.close()
            self.socket = None

    def connected(self) -> socket.socket:
        if self.socket is None:
            raise HungUp("not connected")
        return self.socket

    def packet(self, request: Request) -> bytes:
        if isinstance(request, Update) != (self.party is Party.CGI):
            raise ValueError(f"the queue of {self.party.name} takes no {type(request).__name__}")
        return codec.encode(request)

    def send(self, packet: bytes) -> bool:
        """False when the agent does not read as fast; nothing was sent."""
        try:
            self.connected().send(packet)
            return True
        except BlockingIOError:
            return False
        except (BrokenPipeError, ConnectionResetError) as error:
            raise HungUp("the agent closed the connection") from error

    def receive(self) -> Optional[Record]:
        """The next record, or None when nothing is there."""
        while True:
            try:
                packet = self.connected().recv(codec.MAX_FRAME_BYTES + 1)
            except BlockingIOError:
                return None
            except ConnectionResetError:  # of an agent that died; what it had sent comes behind it
                continue
            if not packet:
                raise HungUp("the agent closed the connection")
            return codec.decode(packet)

    def greeted(self, record: Record) -> None:
        """The first record of a connection says whether the party has been taken in."""
        if isinstance(record, Welcome):
            return
        if not isinstance(record, Refused):
            raise FrameError(Reason.BAD_KIND, f"{type(record).__name__} instead of a welcome")
        kinds: Dict[int, Type[RequestRefused]] = {Reason.QUEUE_TAKEN: QueueTaken, Reason.NOT_ALLOWED: NotAllowed}
        raise kinds.get(record.reason, RequestRefused)(record.reason, record.text)

    def put_aside(self, record: Record) -> None:
        """What nobody waits for: a notice is kept until it is asked for, an equal one once, as the agent keeps them."""
        if not isinstance(record, Notice):
            log.log(logging.WARNING if isinstance(record, Refused) else logging.DEBUG, "nobody waits for %s", record)
        elif record not in self.notices:
            if len(self.notices) < MAX_NOTICES:
                self.notices.append(record)
            else:
                log.warning("too many notices wait, dropped: %s", record)
