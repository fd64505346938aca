"""The blocking client."""

from __future__ import annotations

import select
import time
from types import TracebackType
from typing import Iterable, Optional, Sequence, Tuple, Type, TypeVar

from ._session import (BACKLOG_PAUSE, CS, CS_LIST, DEFAULT_TIMEOUT, REVERSE, UPDATE, CsAnswers, CsListAnswers, Kinds,
                       Session, pauses, to_items)
from .errors import HungUp, NoAgent, Timeout
from .records import (CloseRequest, CsListRequest, CsRequest, Item, Notice, Party, PortType, Record, Request,
                      ReverseAnswer, ReverseRequest, RtpRequest, Update, UpdateAnswer)

_Answer = TypeVar("_Answer")
_Self = TypeVar("_Self", bound="Client")


class _Deadline:
    def __init__(self, seconds: float) -> None:
        self._end = time.monotonic() + seconds

    def left(self) -> float:
        return max(self._end - time.monotonic(), 0.0)


class Client:
    """One party's connection. It belongs to one thread at a time.

    A `timeout` in seconds bounds each call; None is the client's own. Once the agent has hung up, each call raises
    HungUp until open() or reconnect() connects the client again.
    """

    def __init__(self, party: Party, runtime_dir: Optional[str] = None, timeout: float = DEFAULT_TIMEOUT) -> None:
        self._session = Session(party, runtime_dir, timeout)

    def open(self, timeout: Optional[float] = None) -> None:
        """Connects and waits for the welcome. NoAgent, QueueTaken, NotAllowed, HungUp, Timeout, or an OSError."""
        deadline = self._deadline(timeout)
        try:
            while not self._session.connect():  # nothing announces that there is room in the backlog
                if deadline.left() == 0:
                    raise Timeout("too many others wait to connect")
                time.sleep(min(BACKLOG_PAUSE, deadline.left()))
            self._session.greeted(self._receive(deadline))
        except BaseException:
            self.close()
            raise

    def reconnect(self, timeout: Optional[float] = None) -> None:
        """Like open, but tries again for as long as no agent is there."""
        deadline = self._deadline(timeout)
        for pause in pauses():
            try:
                return self.open(deadline.left())
            except (NoAgent, HungUp):
                if deadline.left() < pause:
                    raise
            time.sleep(pause)

    def close(self) -> None:
        """Hangs up. Requests already sent are still processed by the agent."""
        self._session.disconnect()

    def __enter__(self: _Self) -> _Self:
        self.open()
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def fileno(self) -> int:
        """For the caller's own select: readable means that next_notice(0) has something to do."""
        return self._session.connected().fileno()

    def request_cs(self, destination: str, item: Tuple[str, int], port_type: PortType = PortType.UDP, value: int = 0, *,
                   id: Optional[int] = None, timeout: Optional[float] = None) -> CsAnswers:
        """An RtpAnswer comes for a host name on the queues of CM and CC."""
        request = CsRequest(self._session.id(id), destination, Item(*item), port_type, value)
        return self._ask(request, CS, timeout)

    def request_cs_list(self, destination: str, items: Iterable[Tuple[str, int]], value: int = 0, *,
                        id: Optional[int] = None, timeout: Optional[float] = None) -> CsListAnswers:
        """For a host name a CsAnswer of the first item comes on the SIP queue, an RtpAnswer on those of CM and CC."""
        request = CsListRequest(self._session.id(id), destination, to_items(items), value)
        return self._ask(request, CS_LIST, timeout)

    def request_rtp(self, destination: str, items: Iterable[Tuple[str, int]], server: int, *,
                    id: Optional[int] = None, timeout: Optional[float] = None) -> CsAnswers:
        """A CsAnswer comes for a host name on the SIP queue. The answer's id closes what was handed out."""
        request = RtpRequest(self._session.id(id), destination, to_items(items), server)
        return self._ask(request, CS, timeout)

    def request_reverse(self, items: Iterable[Tuple[str, int]], value: int = 0, *, id: Optional[int] = None,
                        timeout: Optional[float] = None) -> ReverseAnswer:
        return self._ask(ReverseRequest(self._session.id(id), to_items(items), value), REVERSE, timeout)

    def request_close(self, id: int, *, timeout: Optional[float] = None) -> None:
        """It is not answered."""
        self.send(CloseRequest(id), timeout)

    def update(self, type: int, texts: Sequence[str] = (), value: int = 0, *, id: Optional[int] = None,
               timeout: Optional[float] = None) -> UpdateAnswer:
        """For the CGI party only."""
        return self._ask(Update(self._session.id(id), type, tuple(texts), value), UPDATE, timeout)

    def next_notice(self, timeout: Optional[float] = None) -> Notice:
        """The next one that came, or comes in time."""
        deadline = self._deadline(timeout)
        while not self._session.notices:
            self._session.put_aside(self._receive(deadline))
        return self._session.notices.popleft()

    def send(self, request: Request, timeout: Optional[float] = None) -> None:
        """Sends a request whose answer nobody waits for, as those of Q113, which are not answered."""
        self._send(request, self._deadline(timeout))

    def _deadline(self, timeout: Optional[float]) -> _Deadline:
        return _Deadline(self._session.timeout if timeout is None else timeout)

    def _ask(self, request: Request, kinds: Kinds[_Answer], timeout: Optional[float]) -> _Answer:
        deadline = self._deadline(timeout)
        self._send(request, deadline)
        while True:
            record = self._receive(deadline)
            answer = kinds.answer(record, request.id)
            if answer is not None:
                return answer
            self._session.put_aside(record)

    def _send(self, request: Request, deadline: _Deadline) -> None:
        packet = self._session.packet(request)
        while not self._session.send(packet):
            # The agent takes no request of a party that does not read its answers.
            record = self._session.receive()
            if record is not None:
                self._session.put_aside(record)
            elif not self._poll(select.POLLIN | select.POLLOUT, deadline):
                raise Timeout("the agent does not read as fast as requests are sent")

    def _receive(self, deadline: _Deadline) -> Record:
        while True:
            record = self._session.receive()
            if record is not None:
                return record
            if not self._poll(select.POLLIN, deadline):
                raise Timeout("the agent did not answer in time")

    def _poll(self, events: int, deadline: _Deadline) -> bool:
        poll = select.poll()
        poll.register(self._session.connected(), events)
        return bool(poll.poll(deadline.left() * 1000))
