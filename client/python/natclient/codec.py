"""The frames on the agent's queues: bytes to records and back.

A text is UTF-8; bytes that are not become surrogates, and come out as they were.
"""

from __future__ import annotations

import socket
import struct
from enum import Enum
from typing import Any, Callable, NamedTuple, Optional, Sequence, Tuple, Union

from .errors import FrameError, Reason
from .records import (AnswerItem, CloseRequest, CsAnswer, CsListAnswer, CsListRequest, CsRequest, Flag, Item, Notice,
                      PortType, Record, Refused, ReverseAnswer, ReverseRequest, RtpAnswer, RtpRequest, Update,
                      UpdateAnswer, Welcome)

MAX_ITEMS = 1024
MAX_TEXTS = 64
MAX_TEXT_BYTES = 255
MAX_FRAME_BYTES = 20504


class Way(Enum):
    """Which way a frame travels. Only the kinds of that way are valid."""

    TO_AGENT = 1
    TO_CGI_QUEUE = 2
    TO_PARTY = 3


def decode(packet: bytes, way: Way = Way.TO_PARTY) -> Record:
    """The record in a packet. FrameError when the packet is malformed in any way."""
    if len(packet) < _HEADER.size:
        raise FrameError(Reason.BAD_HEADER, "the frame is shorter than its header")
    magic, version, kind, id, value, count = _HEADER.unpack_from(packet)
    try:
        layout = _check_header(len(packet), magic, version, kind, count, way)
        return _decode_body(layout, _Rest(packet[_HEADER.size:], count), id, value)
    except FrameError as fault:
        fault.id = id
        raise


def encode(record: Record) -> bytes:
    """The packet of a record. ValueError when no frame can carry it."""
    layout = _BY_RECORD[type(record)]
    count = layout.least
    for field, part in layout.body:
        if part.is_counted:
            count = len(getattr(record, field))
    if not layout.least <= count <= layout.most:
        raise ValueError(f"{count} are more than the {layout.most} that a {type(record).__name__} may carry")
    try:
        value = getattr(record, layout.value) if layout.value else 0
        header = _HEADER.pack(_MAGIC, _VERSION, layout.kind, getattr(record, "id", 0), value, count)
        return header + b"".join(part.pack(getattr(record, field)) for field, part in layout.body)
    except struct.error as error:
        raise ValueError(f"{record}: {error}") from None


_MAGIC = 0x3154414E
_VERSION = 1
_HEADER = struct.Struct("=IHHQII")
_NUMBER = struct.Struct("=I")
_LENGTH = struct.Struct("=H")
_ITEM = struct.Struct("=4sHH")
_ANSWER_ITEM = struct.Struct("=4sHH4sHHI")
_NOT_IN_TEXT = b"\0"
_NOT_IN_DESTINATION = bytes(range(0x21)) + b"\x7f"


class _Rest:
    """What has not been taken of a packet yet."""

    def __init__(self, rest: bytes, count: int) -> None:
        self.rest = rest
        self.count = count

    def take(self, length: int) -> bytes:
        if len(self.rest) < length:
            raise FrameError(Reason.BAD_COUNT, f"the frame ends before what its count of {self.count} promises")
        taken, self.rest = self.rest[:length], self.rest[length:]
        return taken


def _pack_ip(ip: str) -> bytes:
    try:
        return socket.inet_pton(socket.AF_INET, ip)
    except OSError:
        raise ValueError(f"{ip!r} is not a dotted IPv4 address") from None


def _pack_item(item: Item) -> bytes:
    ip, port = item
    return _ITEM.pack(_pack_ip(ip), port, 0)


def _item(raw: Tuple[bytes, int, int]) -> Item:
    return Item(socket.inet_ntoa(raw[0]), raw[1])


def _pack_answer_item(item: AnswerItem) -> bytes:
    return _ANSWER_ITEM.pack(_pack_ip(item.ip), item.port, 0, _pack_ip(item.mapped_ip), item.mapped_port, 0,
                             Flag(item.flag))


def _answer_item(raw: Tuple[bytes, int, int, bytes, int, int, int]) -> AnswerItem:
    ip, port, _, mapped_ip, mapped_port, _, flag = raw
    return AnswerItem(socket.inet_ntoa(ip), port, socket.inet_ntoa(mapped_ip), mapped_port, Flag(flag))


def _text_fault(raw: bytes, forbidden: bytes) -> Optional[str]:
    if len(raw) > MAX_TEXT_BYTES:
        return f"a text is longer than {MAX_TEXT_BYTES} bytes"
    if len(raw.translate(None, forbidden)) != len(raw):
        return f"a text has one of the bytes {forbidden!r} inside"
    return None


def _pack_text(text: str, forbidden: bytes = _NOT_IN_TEXT) -> bytes:
    raw = text.encode(errors="surrogateescape")
    fault = _text_fault(raw, forbidden)
    if fault:
        raise ValueError(f"{fault}: {text!r}")
    return raw


def _text(raw: bytes, forbidden: bytes = _NOT_IN_TEXT) -> str:
    fault = _text_fault(raw, forbidden)
    if fault:
        raise FrameError(Reason.BAD_TEXT, fault)
    return raw.decode(errors="surrogateescape")


def _pack_texts(texts: Sequence[str]) -> bytes:
    return b"".join(_LENGTH.pack(len(raw)) + raw for raw in map(_pack_text, texts))


def _take_texts(rest: _Rest) -> Tuple[str, ...]:
    return tuple(_text(rest.take(_LENGTH.unpack(rest.take(_LENGTH.size))[0])) for _ in range(rest.count))


class _Part(NamedTuple):
    """A field behind the header. `take` checks the length, `finish` the values, after all fields have been taken."""

    pack: Callable[[Any], bytes]
    take: Callable[[_Rest], Any]
    finish: Callable[[Any], Any] = lambda taken: taken
    is_counted: bool = False  # the header's count is its length


def _number(kind: Callable[[int], int] = int) -> _Part:
    return _Part(lambda number: _NUMBER.pack(kind(number)), lambda rest: _NUMBER.unpack(rest.take(_NUMBER.size))[0],
                 kind)


def _list(element: struct.Struct, pack: Callable[[Any], bytes], finish: Callable[[Any], Any]) -> _Part:
    return _Part(lambda items: b"".join(map(pack, items)), lambda rest: rest.take(rest.count * element.size),
                 lambda raw: tuple(map(finish, element.iter_unpack(raw))), True)


_ONE_ITEM = _Part(_pack_item, lambda rest: _ITEM.unpack(rest.take(_ITEM.size)), _item)
_ITEMS = _list(_ITEM, _pack_item, _item)
_ANSWERS = _list(_ANSWER_ITEM, _pack_answer_item, _answer_item)
_DESTINATION = _Part(lambda text: _pack_text(text, _NOT_IN_DESTINATION),
                     lambda rest: _text(rest.take(len(rest.rest)), _NOT_IN_DESTINATION))
_EXPLANATION = _Part(_pack_text, lambda rest: _text(rest.take(len(rest.rest))))
_TEXTS = _Part(_pack_texts, _take_texts, is_counted=True)


class _Layout(NamedTuple):
    """Of which fields a kind is made. `value` is the record's field in the header, if any."""

    record: Any
    kind: int
    way: Way
    least: int
    most: int
    value: str
    body: Tuple[Tuple[str, _Part], ...]


_SINGLE = (1, 1)
_PLAIN = (0, 0)
_MANY = (0, MAX_ITEMS)
_LAYOUTS = (
    _Layout(CsRequest, 0x01, Way.TO_AGENT, *_SINGLE, "value",
            (("item", _ONE_ITEM), ("port_type", _number(PortType)), ("destination", _DESTINATION))),
    _Layout(CsListRequest, 0x02, Way.TO_AGENT, *_MANY, "value", (("items", _ITEMS), ("destination", _DESTINATION))),
    _Layout(RtpRequest, 0x03, Way.TO_AGENT, *_MANY, "server", (("items", _ITEMS), ("destination", _DESTINATION))),
    _Layout(ReverseRequest, 0x04, Way.TO_AGENT, *_MANY, "value", (("items", _ITEMS),)),
    _Layout(CloseRequest, 0x05, Way.TO_AGENT, *_PLAIN, "", ()),
    _Layout(Update, 0x06, Way.TO_CGI_QUEUE, 0, MAX_TEXTS, "value", (("type", _number()), ("texts", _TEXTS))),
    _Layout(CsAnswer, 0x81, Way.TO_PARTY, *_SINGLE, "value", (("mapped", _ONE_ITEM), ("flag", _number(Flag)))),
    _Layout(CsListAnswer, 0x82, Way.TO_PARTY, *_MANY, "value", (("items", _ANSWERS),)),
    _Layout(RtpAnswer, 0x83, Way.TO_PARTY, *_MANY, "server", (("items", _ANSWERS),)),
    _Layout(ReverseAnswer, 0x84, Way.TO_PARTY, *_MANY, "value", (("items", _ANSWERS),)),
    _Layout(UpdateAnswer, 0x86, Way.TO_PARTY, *_PLAIN, "value", (("type", _number()),)),
    _Layout(Welcome, 0x90, Way.TO_PARTY, *_PLAIN, "queue", ()),
    _Layout(Notice, 0x91, Way.TO_PARTY, 0, MAX_TEXTS, "", (("type", _number()), ("texts", _TEXTS))),
    _Layout(Refused, 0x92, Way.TO_PARTY, *_PLAIN, "reason", (("text", _EXPLANATION),)),
)
_BY_KIND = {layout.kind: layout for layout in _LAYOUTS}
_BY_RECORD = {layout.record: layout for layout in _LAYOUTS}


def _check_header(length: int, magic: int, version: int, kind: int, count: int, way: Way) -> _Layout:
    if length > MAX_FRAME_BYTES:
        raise FrameError(Reason.TOO_LONG, "longer than any frame")
    if magic != _MAGIC:
        raise FrameError(Reason.BAD_HEADER, "the frame does not begin with the magic number")
    if version != _VERSION:
        raise FrameError(Reason.BAD_VERSION, f"version {version} is not spoken here")
    layout = _BY_KIND.get(kind)
    if layout is None or layout.way is not way:
        raise FrameError(Reason.BAD_KIND, f"kind {kind} is unknown, or not for this way")
    if not layout.least <= count <= layout.most:
        raise FrameError(Reason.BAD_COUNT, f"a count of {count} is not allowed for this kind")
    return layout


def _decode_body(layout: _Layout, rest: _Rest, id: int, value: int) -> Record:
    taken = [(field, part, part.take(rest)) for field, part in layout.body]
    if rest.rest:
        raise FrameError(Reason.BAD_COUNT, f"{len(rest.rest)} bytes follow the end of the frame")
    try:
        fields = {field: part.finish(raw) for field, part, raw in taken}
    except ValueError as error:
        raise FrameError(Reason.BAD_VALUE, str(error)) from None
    if layout.value:
        fields[layout.value] = value
    if layout.record not in (Welcome, Notice):
        fields["id"] = id
    record: Record = layout.record(**fields)
    return record
