"""What the agent is asked and what it answers, and the numbers that stand in it.

Addresses are dotted IPv4 texts. Query ids are the caller's own choice and come back in the answer.
"""

from __future__ import annotations

from dataclasses import dataclass
from enum import IntEnum
from typing import NamedTuple, Tuple, Union


class Party(IntEnum):
    """A call agent, by the number of its queue."""

    CGI = 102
    SIP = 112
    Q113 = 113  # its requests are decided and logged, not answered
    CM = 114
    CC = 115


class PortType(IntEnum):
    UDP = 0
    TCP = 1
    TLS = 2


class Flag(IntEnum):
    NO_NEED_NAT = 0  # reached without translation
    MAPPED = 1
    NO_MAPPING = 2  # a translation is needed, and none is known


class CallServer(IntEnum):
    """The protocol of the call server that owns a call."""

    CM = 0
    SIP = 1
    CC = 3


class Item(NamedTuple):
    ip: str
    port: int


class AnswerItem(NamedTuple):
    """The local pair and the public one. In a reverse answer the local pair is the one that was found, or 0."""

    ip: str
    port: int
    mapped_ip: str
    mapped_port: int
    flag: Flag


@dataclass(frozen=True)
class CsRequest:
    """How is this signalling port seen from outside?"""

    id: int
    destination: str  # a dotted address or a host name
    item: Item
    port_type: PortType = PortType.UDP
    value: int = 0


@dataclass(frozen=True)
class CsListRequest:
    """The same for several signalling ports."""

    id: int
    destination: str
    items: Tuple[Item, ...]
    value: int = 0


@dataclass(frozen=True)
class RtpRequest:
    """How are these media ports seen from outside? The agent remembers what it hands out under the id."""

    id: int
    destination: str
    items: Tuple[Item, ...]
    server: int  # a CallServer


@dataclass(frozen=True)
class ReverseRequest:
    """Which local endpoints stand behind these public ones?"""

    id: int
    items: Tuple[Item, ...]
    value: int = 0


@dataclass(frozen=True)
class CloseRequest:
    """Everything handed out under the id is over. It is not answered."""

    id: int


@dataclass(frozen=True)
class Update:
    """A configuration update of the CGI party."""

    id: int
    type: int
    texts: Tuple[str, ...] = ()
    value: int = 0


@dataclass(frozen=True)
class CsAnswer:
    id: int
    mapped: Item
    flag: Flag
    value: int


@dataclass(frozen=True)
class CsListAnswer:
    id: int
    items: Tuple[AnswerItem, ...]
    value: int  # the last item's flag


@dataclass(frozen=True)
class RtpAnswer:
    id: int
    items: Tuple[AnswerItem, ...]
    server: int


@dataclass(frozen=True)
class ReverseAnswer:
    id: int
    items: Tuple[AnswerItem, ...]
    value: int


@dataclass(frozen=True)
class UpdateAnswer:
    id: int
    type: int
    value: int


@dataclass(frozen=True)
class Welcome:
    """The connection is the queue's party now."""

    queue: int


@dataclass(frozen=True)
class Notice:
    """The public side of ports has changed: 92 of the SIP signalling ports, 93 of another call agent's."""

    type: int
    texts: Tuple[str, ...] = ()


@dataclass(frozen=True)
class Refused:
    """A request or the connection was refused. `reason` is a Reason, or a number that is unknown here."""

    id: int
    reason: int
    text: str


Request = Union[CsRequest, CsListRequest, RtpRequest, ReverseRequest, CloseRequest, Update]
Answer = Union[CsAnswer, CsListAnswer, RtpAnswer, ReverseAnswer, UpdateAnswer]
Record = Union[Request, Answer, Welcome, Notice, Refused]
