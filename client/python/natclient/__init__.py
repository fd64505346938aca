"""A call agent's side of the NAT agent's queues, in Python alone.

    from natclient import Client, Party

    with Client(Party.SIP) as client:
        answer = client.request_cs("198.51.100.9", ("10.77.0.2", 5060))
        print(answer.mapped, answer.flag)

AsyncClient has the same methods as coroutines. encode and decode turn records into frames and back.
"""

from ._session import DEFAULT_TIMEOUT
from .aio import AsyncClient
from .blocking import Client
from .codec import MAX_FRAME_BYTES, MAX_ITEMS, MAX_TEXT_BYTES, MAX_TEXTS, Way, decode, encode
from .errors import (Error, FrameError, HungUp, NoAgent, NotAllowed, QueueTaken, Reason, RequestRefused, Timeout)
from .records import (Answer, AnswerItem, CallServer, CloseRequest, CsAnswer, CsListAnswer, CsListRequest, CsRequest,
                      Flag, Item, Notice, Party, PortType, Record, Refused, Request, ReverseAnswer, ReverseRequest,
                      RtpAnswer, RtpRequest, Update, UpdateAnswer, Welcome)

__all__ = [
    "Answer", "AnswerItem", "AsyncClient", "CallServer", "Client", "CloseRequest", "CsAnswer", "CsListAnswer",
    "CsListRequest", "CsRequest", "DEFAULT_TIMEOUT", "Error", "Flag", "FrameError", "HungUp", "Item", "MAX_FRAME_BYTES",
    "MAX_ITEMS", "MAX_TEXTS", "MAX_TEXT_BYTES", "NoAgent", "NotAllowed", "Notice", "Party", "PortType", "QueueTaken",
    "Reason", "Record", "Refused", "Request", "RequestRefused", "ReverseAnswer", "ReverseRequest", "RtpAnswer",
    "RtpRequest", "Timeout", "Update", "UpdateAnswer", "Way", "Welcome", "decode", "encode",
]
