"""The asyncio client."""

from __future__ import annotations

import asyncio
from types import TracebackType
from typing import Any, Awaitable, Dict, Iterable, NamedTuple, Optional, Sequence, Set, Tuple, Type, TypeVar

from ._session import (BACKLOG_PAUSE, CS, CS_LIST, DEFAULT_TIMEOUT, FRAMES_PER_TURN, REVERSE, UPDATE, CsAnswers,
                       CsListAnswers, Kinds, Session, log, pauses, to_items)
from .errors import FrameError, HungUp, NoAgent, RequestRefused, Timeout
from .records import (CloseRequest, CsListRequest, CsRequest, Item, Notice, Party, PortType, Record, Request,
                      ReverseAnswer, ReverseRequest, RtpRequest, Update, UpdateAnswer)

_Result = TypeVar("_Result")
_Self = TypeVar("_Self", bound="AsyncClient")


class _Waiting(NamedTuple):
    kinds: Kinds[Any]
    answer: asyncio.Future[Any]


class AsyncClient:
    """One party's connection. It belongs to one event loop; any number of its tasks may ask at once.

    A `timeout` in seconds bounds each call; None is the client's own. When the agent hangs up, who waits gets HungUp,
    and so does each call until open() or reconnect() connects the client again. When a malformed frame comes, who waits
    gets FrameError.
    """

    def __init__(self, party: Party, runtime_dir: Optional[str] = None, timeout: float = DEFAULT_TIMEOUT) -> None:
        self._session = Session(party, runtime_dir, timeout)
        self._fd = -1  # while the event loop watches it
        self._sending: Optional[asyncio.Lock] = None
        self._greeting: Optional[asyncio.Future[Record]] = None
        self._requests: Dict[int, _Waiting] = {}
        self._others: Set[asyncio.Future[None]] = set()  # who waits for a notice, or for room to send

    async def open(self, timeout: Optional[float] = None) -> None:
        """Connects and waits for the welcome. NoAgent, QueueTaken, NotAllowed, HungUp, Timeout, or an OSError."""
        self.close()
        try:
            await self._within(self._open(), timeout)
        except BaseException:
            self.close()
            raise

    async def reconnect(self, timeout: Optional[float] = None) -> None:
        """Like open, but tries again for as long as no agent is there."""
        loop = asyncio.get_running_loop()
        end = loop.time() + (self._session.timeout if timeout is None else timeout)
        for pause in pauses():
            try:
                return await self.open(end - loop.time())
            except (NoAgent, HungUp):
                if end - loop.time() < pause:
                    raise
            await asyncio.sleep(pause)

    def close(self) -> None:
        """Hangs up. Requests already sent are still processed by the agent."""
        self._gone(HungUp("the client was closed"))

    async def __aenter__(self: _Self) -> _Self:
        await self.open()
        return self

    async def __aexit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                        trace: Optional[TracebackType]) -> None:
        self.close()

    async def request_cs(self, destination: str, item: Tuple[str, int], port_type: PortType = PortType.UDP,
                         value: int = 0, *, id: Optional[int] = None, timeout: Optional[float] = None) -> CsAnswers:
        """An RtpAnswer comes for a host name on the queues of CM and CC."""
        request = CsRequest(self._session.id(id), destination, Item(*item), port_type, value)
        return await self._ask(request, CS, timeout)

    async def request_cs_list(self, destination: str, items: Iterable[Tuple[str, int]], value: int = 0, *,
                              id: Optional[int] = None, timeout: Optional[float] = None) -> CsListAnswers:
        """For a host name a CsAnswer of the first item comes on the SIP queue, an RtpAnswer on those of CM and CC."""
        request = CsListRequest(self._session.id(id), destination, to_items(items), value)
        return await self._ask(request, CS_LIST, timeout)

    async def request_rtp(self, destination: str, items: Iterable[Tuple[str, int]], server: int, *,
                          id: Optional[int] = None, timeout: Optional[float] = None) -> CsAnswers:
        """A CsAnswer comes for a host name on the SIP queue. The answer's id closes what was handed out."""
        request = RtpRequest(self._session.id(id), destination, to_items(items), server)
        return await self._ask(request, CS, timeout)

    async def request_reverse(self, items: Iterable[Tuple[str, int]], value: int = 0, *, id: Optional[int] = None,
                              timeout: Optional[float] = None) -> ReverseAnswer:
        return await self._ask(ReverseRequest(self._session.id(id), to_items(items), value), REVERSE, timeout)

    async def request_close(self, id: int, *, timeout: Optional[float] = None) -> None:
        """It is not answered."""
        await self.send(CloseRequest(id), timeout)

    async def update(self, type: int, texts: Sequence[str] = (), value: int = 0, *, id: Optional[int] = None,
                     timeout: Optional[float] = None) -> UpdateAnswer:
        """For the CGI party only."""
        return await self._ask(Update(self._session.id(id), type, tuple(texts), value), UPDATE, timeout)

    async def next_notice(self, timeout: Optional[float] = None) -> Notice:
        """The next one that came, or comes in time."""
        if not self._session.notices:
            await self._within(self._wait_for_notice(), timeout)
        return self._session.notices.popleft()

    async def send(self, request: Request, timeout: Optional[float] = None) -> None:
        """Sends a request whose answer nobody waits for, as those of Q113, which are not answered."""
        await self._within(self._send(request), timeout)

    async def _within(self, work: Awaitable[_Result], timeout: Optional[float]) -> _Result:
        try:
            return await asyncio.wait_for(work, self._session.timeout if timeout is None else timeout)
        except asyncio.TimeoutError:
            raise Timeout("the agent did not answer in time") from None

    async def _open(self) -> None:
        while not self._session.connect():  # the backlog is full, which nothing announces the end of
            await asyncio.sleep(BACKLOG_PAUSE)
        loop = asyncio.get_running_loop()
        self._fd = self._session.connected().fileno()
        self._greeting = loop.create_future()
        loop.add_reader(self._fd, self._on_readable)
        self._session.greeted(await self._greeting)

    async def _ask(self, request: Request, kinds: Kinds[_Result], timeout: Optional[float]) -> _Result:
        return await self._within(self._exchange(request, kinds), timeout)

    async def _exchange(self, request: Request, kinds: Kinds[_Result]) -> _Result:
        if request.id in self._requests:
            raise ValueError(f"another request waits under the id {request.id}")
        waiting = self._requests[request.id] = _Waiting(kinds, asyncio.get_running_loop().create_future())
        try:
            await self._send(request)
            answer: _Result = await waiting.answer
            return answer
        finally:
            del self._requests[request.id]
            if waiting.answer.done() and not waiting.answer.cancelled():
                waiting.answer.exception()  # seen, also when the sending failed

    async def _send(self, request: Request) -> None:
        packet = self._session.packet(request)
        self._sending = self._sending or asyncio.Lock()
        async with self._sending:
            while not self._session.send(packet):
                await self._wait_for_room()

    async def _wait_for_room(self) -> None:
        loop = asyncio.get_running_loop()
        fd = self._fd
        room: asyncio.Future[None] = loop.create_future()
        loop.add_writer(fd, self._wake, room)
        try:
            await self._wait(room)
        finally:
            loop.remove_writer(fd)

    async def _wait_for_notice(self) -> None:
        while not self._session.notices:
            self._session.connected()
            await self._wait(asyncio.get_running_loop().create_future())

    async def _wait(self, future: asyncio.Future[None]) -> None:
        self._others.add(future)
        try:
            await future
        finally:
            self._others.discard(future)

    @staticmethod
    def _wake(future: asyncio.Future[None]) -> None:
        if not future.done():
            future.set_result(None)

    def _on_readable(self) -> None:
        try:
            for _ in range(FRAMES_PER_TURN):
                record = self._session.receive()
                if record is None:
                    return
                self._arrived(record)
        except FrameError as fault:
            log.warning("the agent sent a malformed frame: %s", fault)
            self._fail(fault)
        except OSError as error:  # HungUp is one
            self._gone(error)

    def _arrived(self, record: Record) -> None:
        if self._greeting is not None and not self._greeting.done():
            self._greeting.set_result(record)
            return
        record_id = getattr(record, "id", -1)
        waiting = self._requests.get(record_id)
        if waiting is not None and not waiting.answer.done():
            try:
                answer = waiting.kinds.answer(record, record_id)
                if answer is not None:
                    waiting.answer.set_result(answer)
                    return
            except RequestRefused as refused:
                waiting.answer.set_exception(refused)
                return
        self._session.put_aside(record)
        if isinstance(record, Notice):
            for future in self._others:
                self._wake(future)

    def _gone(self, error: Exception) -> None:
        if self._fd >= 0:
            loop = asyncio.get_running_loop()
            loop.remove_reader(self._fd)
            loop.remove_writer(self._fd)
            self._fd = -1
        self._session.disconnect()
        self._fail(error)

    def _fail(self, error: Exception) -> None:
        answers = [waiting.answer for waiting in self._requests.values()]
        for future in [self._greeting, *answers, *self._others]:
            if future is not None and not future.done():
                future.set_exception(error)
