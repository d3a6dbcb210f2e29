"""The QPXClient library for Python: connections, channels, units of work, and asyncio.

    import qpxclient

    with qpxclient.connect("gateway.example", 5770) as gateway:
        payroll = qpxclient.Call("PAYROLL", server="PROD", user=user, password=password)
        reply = gateway.call(payroll, request)

        with gateway.unit_of_work() as unit:      # committed, or backed out by an exception
            unit.call("LEDGER", debit)
            unit.call("LEDGER", credit)

    async with qpxclient.connect_async("gateway.example", 5770) as gateway:
        replies = await asyncio.gather(*(gateway.call("QUOTE", each) for each in requests))

Conventions

1. The module is one file and needs nothing but the standard library and the 64-bit library:
   libqpxclient.so.10 where the loader finds it, or the file that QPX_CLIENT_LIBRARY names.
2. What the library refuses or reports is raised as an Error with its code; what a call cannot even
   be told (a name that is too long, too much data) as a ValueError, and then nothing is sent.
3. Data is bytes. Texts are str: names, users and passwords go as ISO 8859-1.
4. Calls let other Python threads run while they wait, but no signal handler of Python: that runs
   when the call has returned. What bounds a wait, docs/guide.md says for each call.
5. Any number of threads may call on one Connection. A Channel, a UnitOfWork and a Reply serve one
   thread at a time.
"""

from __future__ import annotations

import asyncio
import ctypes
import datetime
import enum
import os
import threading
import warnings
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from types import TracebackType
from typing import Any, Callable, Dict, Iterator, List, NamedTuple, Optional, Type, Union

__all__ = [
    "AbendError", "AsyncConnection", "Call", "Channel", "Code", "Connection", "ConnectionEnded",
    "ContainerInfo", "Error", "PasswordDetails", "Reply", "System", "UnitOfWork", "code_name",
    "connect", "connect_async", "library_version", "set_trace_file", "set_trace_level",
]

MOST_DATA = 32767  # bytes of a COMMAREA
UTF_8 = 1208  # the CCSID

# ---- Return codes --------------------------------------------------------------------------------


class Code(enum.IntEnum):
    """The return codes by their names; of several names for one code, the first is its own."""

    QPX_OK = 0
    QPX_ERR_SYSTEM_ERROR = -9
    QPX_ERR_MORE_SYSTEMS = -25
    QPX_ERR_NO_SYSTEMS = -26
    QPX_ERR_NULLGWTOK = -100
    QPX_ERR_BADGWTOK = -101
    QPX_ERR_LOSTGWCON = -102
    QPX_ERR_NULLPARM = -103
    QPX_ERR_TRACELEVEL = -104
    QPX_ERR_BADPORT = -107
    QPX_ERR_NULLGWTOKPTR = -108
    QPX_ERR_NULLPTR = -109
    QPX_ERR_MALLOCFAIL = -111
    QPX_ERR_CONNECTFAILED = -118
    QPX_ERR_TRACEFILE = -130
    QPX_ERR_BADHOST = -132
    QPX_ERR_NULLADDRESS = -133
    QPX_ERR_CONNECTTIMEOUT = -134
    QPX_ERR_NULLECIPOINTER = -137
    QPX_ERR_INVALIDTIMEOUTPARM = -138
    QPX_ERR_APPLIDTOOLONG = -139
    QPX_ERR_GWTOK_CLOSED = -140
    QPX_ERR_GATEWAY_CLOSED = 61444
    QPX_ERR_WORK_WAS_REFUSED = 61445
    QPX_ERR_GATEWAY_EXCEPTION = 61446
    QPX_ERR_GATEWAY_BACK_LEVEL = 61450
    QPX_ERR_INVALID_REQUEST_TYPE = 61451

    ECI_NO_ERROR = 0
    ECI_ERR_INVALID_DATA_LENGTH = -1
    ECI_ERR_INVALID_EXTEND_MODE = -2
    ECI_ERR_NO_VORN = -3
    ECI_ERR_VORN_DIED = -4
    ECI_ERR_REQUEST_TIMEOUT = -5
    ECI_ERR_RESPONSE_TIMEOUT = -6
    ECI_ERR_TRANSACTION_ABEND = -7
    ECI_ERR_LUW_TOKEN = -8
    ECI_ERR_SYSTEM_ERROR = -9
    ECI_ERR_INVALID_CALL_TYPE = -14
    ECI_ERR_ALREADY_ACTIVE = -15
    ECI_ERR_RESOURCE_SHORTAGE = -16
    ECI_ERR_NO_SESSIONS = -17
    ECI_ERR_INVALID_DATA_AREA = -19
    ECI_ERR_INVALID_VERSION = -21
    ECI_ERR_UNKNOWN_SERVER = -22
    ECI_ERR_SECURITY_ERROR = -27
    ECI_ERR_MAX_SYSTEMS = -28
    ECI_ERR_MAX_SESSIONS = -29
    ECI_ERR_ROLLEDBACK = -30
    ECI_ERR_NO_REPLY = -32
    ECI_ERR_INVALID_MSG_QUAL = -33
    ECI_ERR_INVALID_CHANNEL = -50
    ECI_ERR_INVALID_NAME = -51
    ECI_ERR_NULLCHANNELPTR = -52
    ECI_ERR_CHANNELLOCKFAIL = -53
    ECI_ERR_ENDOFCONTAINERS = -54
    ECI_ERR_NULLINFOPTR = -55
    ECI_ERR_INVALID_TYPE = -56
    ECI_ERR_CONTAINER_NOTFOUND = -58
    ECI_ERR_CONTAINER_EXISTS = -59
    ECI_ERR_COMMAREA_AND_CHANNEL = -60
    ECI_ERR_NULLPTR = -109
    ECI_ERR_MEMORY_SHORTAGE = -111
    ECI_ERR_LOCKFAIL = -121

    ESI_ERR_USERID_INVALID = -300
    ESI_ERR_NULL_USERID = -301
    ESI_ERR_PASSWORD_INVALID = -302
    ESI_ERR_NULL_PASSWORD = -303
    ESI_ERR_PEM_NOT_SUPPORTED = -304
    ESI_ERR_PEM_NOT_ACTIVE = -305
    ESI_ERR_PASSWORD_EXPIRED = -306
    ESI_ERR_SECURITY_ERROR = -307
    ESI_ERR_RESOURCE_SHORTAGE = -308
    ESI_ERR_NO_SESSIONS = -309
    ESI_ERR_NO_VORN = -310
    ESI_ERR_VORN_DIED = -311
    ESI_ERR_UNKNOWN_SERVER = -312
    ESI_ERR_SYSTEM_ERROR = -313
    ESI_ERR_NULL_NEW_PASSWORD = -314
    ESI_ERR_PASSWORD_REJECTED = -315
    ESI_ERR_MAX_SYSTEMS = -316
    ESI_ERR_MAX_SESSIONS = -317


ENDED = frozenset({Code.QPX_ERR_LOSTGWCON, Code.QPX_ERR_GATEWAY_CLOSED, Code.QPX_ERR_GWTOK_CLOSED,
                   Code.QPX_ERR_BADGWTOK, Code.QPX_ERR_NULLGWTOK})


class Error(Exception):
    """A call has failed. code is its return code, call the name of the library's call."""

    def __init__(self, code: int, call: str) -> None:
        super().__init__(f"{call}: {code_name(code)} ({code})")
        self.code = code
        self.call = call


class ConnectionEnded(Error):
    """The connection can serve no call any more: open another. A commit that ends so is in
    doubt: whether the server has done it, only the server knows."""


class AbendError(Error):
    """The server program has failed; abend_code has four characters for its maintainers."""

    def __init__(self, code: int, call: str, abend_code: str) -> None:
        super().__init__(code, call)
        self.abend_code = abend_code
        self.args = (f"{self.args[0]}, abend code {abend_code}",)


# ---- The library ---------------------------------------------------------------------------------


class _Parms(ctypes.Structure):
    _pack_ = 1
    _fields_ = [
        ("eci_call_type", ctypes.c_short),
        ("eci_program_name", ctypes.c_char * 8),
        ("eci_userid", ctypes.c_char * 16),
        ("eci_password", ctypes.c_char * 16),
        ("eci_transid", ctypes.c_char * 4),
        ("eci_abend_code", ctypes.c_char * 4),
        ("eci_commarea", ctypes.c_void_p),
        ("eci_commarea_length", ctypes.c_short),
        ("eci_timeout", ctypes.c_short),
        ("eci_extend_mode", ctypes.c_short),
        ("eci_luw_token", ctypes.c_int),
        ("eci_version", ctypes.c_short),
        ("eci_system_name", ctypes.c_char * 8),
        ("eci_tpn", ctypes.c_char * 4),
        ("commarea_outbound_length", ctypes.c_short),
        ("commarea_inbound_length", ctypes.c_short),
        ("channel", ctypes.c_void_p),
        ("eci_userid_ptr", ctypes.c_void_p),
        ("eci_password_ptr", ctypes.c_void_p),
        ("eci_message_qualifier", ctypes.c_int),
    ]


class _Info(ctypes.Structure):
    _pack_ = 1
    _fields_ = [
        ("name", ctypes.c_char * 17),
        ("type", ctypes.c_int),
        ("ccsid", ctypes.c_int),
        ("dataLength", ctypes.c_size_t),
    ]


class _System(ctypes.Structure):
    _fields_ = [("SystemName", ctypes.c_char * 9), ("Description", ctypes.c_char * 61)]


class _DateTime(ctypes.Structure):
    _fields_ = [(name, ctypes.c_int) for name in
                ("year", "month", "day", "hour", "minute", "second", "hundredths")]


class _Details(ctypes.Structure):
    _fields_ = [("lastVerifiedTime", _DateTime), ("lastAccessedTime", _DateTime),
                ("expiryTime", _DateTime), ("invalidCount", ctypes.c_int)]


_SYNC, _ASYNC, _GET_REPLY_WAIT, _GET_SPECIFIC_REPLY, _GET_SPECIFIC_REPLY_WAIT = 1, 2, 4, 5, 6
_NO_EXTEND, _EXTENDED, _COMMIT, _BACKOUT = 0, 1, 2, 4
_BIT, _CHAR = 1, 2


def _load() -> ctypes.CDLL:
    if ctypes.sizeof(ctypes.c_void_p) != 8:
        raise ImportError("qpxclient needs a 64-bit Python, as the library it uses has 64 bits")
    name = os.environ.get("QPX_CLIENT_LIBRARY", "libqpxclient.so.10")
    try:
        library = ctypes.CDLL(name)
    except OSError as error:
        raise ImportError(
            f"{error}; qpxclient needs the library built with QPX_BITS=64: install it where the "
            "loader finds it, or name its file in QPX_CLIENT_LIBRARY") from error
    pointer, text, whole = ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int
    reference, size = ctypes.c_void_p, ctypes.c_size_t
    for call, arguments in {
        "QPX_openRemoteGatewayConnectionApplid": [text, whole, reference, whole, text, text],
        "QPX_closeGatewayConnection": [reference],
        "QPX_purgeGatewayConnection": [reference, whole],
        "QPX_getApplid": [pointer, reference],
        "QPX_getApplidQualifier": [pointer, reference],
        "QPX_listSystems": [pointer, reference, reference],
        "QPX_getDLLVersion": [reference],
        "QPX_setAPITraceLevel": [whole],
        "QPX_setAPITraceFile": [text],
        "QPX_ECI_Execute": [pointer, reference],
        "QPX_ECI_Execute_Channel": [pointer, reference],
        "QPX_ESI_verifyPassword": [pointer, text, text, text, reference],
        "QPX_ESI_changePassword": [pointer, text, text, text, text, reference],
        "ECI_createChannel": [text, reference],
        "ECI_deleteChannel": [reference],
        "ECI_getChannelName": [pointer, reference],
        "ECI_createContainer": [pointer, text, whole, whole, reference, size],
        "ECI_deleteContainer": [pointer, text],
        "ECI_getFirstContainer": [pointer, reference],
        "ECI_getNextContainer": [pointer, reference],
        "ECI_getContainerInfo": [pointer, text, reference],
        "ECI_getContainerData": [pointer, text, reference, size, size, reference],
        "ECI_setContainerData": [pointer, text, reference, size],
    }.items():
        function = getattr(library, call)
        function.argtypes, function.restype = arguments, whole
    library.QPX_getRcString.argtypes = [whole, reference]
    library.QPX_getRcString.restype = pointer
    return library


_library = _load()


def code_name(code: int) -> str:
    """The name of a return code, such as "ECI_ERR_NO_VORN", or "UNKNOWN"."""
    buffer = ctypes.create_string_buffer(40)
    _library.QPX_getRcString(code, buffer)
    return buffer.value.decode("ascii")


def library_version() -> str:
    """The version of the library, such as "10.1.0.0"."""
    text = ctypes.c_char_p()
    _check(_library.QPX_getDLLVersion(ctypes.byref(text)), "QPX_getDLLVersion")
    return (text.value or b"").decode("ascii")


def set_trace_level(level: int) -> None:
    """Sets the level of the trace, 0 to 5."""
    _check(_library.QPX_setAPITraceLevel(level), "QPX_setAPITraceLevel")


def set_trace_file(path: Optional[str]) -> None:
    """Appends the trace to a file from now on; None is standard error."""
    _check(_library.QPX_setAPITraceFile(None if path is None else os.fsencode(path)),
           "QPX_setAPITraceFile")


def _error(code: int, call: str, parms: Optional[_Parms] = None) -> Error:
    if code == Code.ECI_ERR_TRANSACTION_ABEND and parms is not None:
        return AbendError(code, call, _bytes(parms, _Parms.eci_abend_code).decode("latin-1"))
    return (ConnectionEnded if code in ENDED else Error)(code, call)


def _check(code: int, call: str, parms: Optional[_Parms] = None) -> None:
    if code != 0:
        raise _error(code, call, parms)


def _bytes(record: ctypes.Structure, which: Any) -> bytes:
    """A field of characters with its full width; ctypes itself ends it at a NUL."""
    return ctypes.string_at(ctypes.addressof(record) + which.offset, which.size)


def _text(text: str, what: str) -> bytes:
    data = text.encode("latin-1")
    if b"\0" in data:
        raise ValueError(f"there is a NUL in {what}")
    return data


def _name(text: str, what: str, size: int) -> bytes:
    """A field of fixed width: padded with blanks, or nothing but NULs."""
    data = _text(text, what)
    if len(data) > size:
        raise ValueError(f"{what} {text!r} is longer than {size} characters")
    return data.ljust(size) if data else b""


# ---- What is called ------------------------------------------------------------------------------


@dataclass(frozen=True)
class Call:
    """A server program, and how it is called: made once and used for any number of calls."""

    program: str
    server: str = ""
    user: str = ""
    password: str = field(default="", repr=False)
    transaction: str = ""
    transaction_program: str = ""
    timeout: int = 0  # seconds, for the Gateway; 0 is its default


class _Request:
    """The record of one call, with what it points to."""

    def __init__(self, call: Call, call_type: int = _SYNC) -> None:
        self.parms = parms = _Parms()
        parms.eci_version = 6
        parms.eci_call_type = call_type
        parms.eci_program_name = _name(call.program, "the program", 8)
        parms.eci_system_name = _name(call.server, "the server", 8)
        parms.eci_transid = _name(call.transaction, "the transaction", 4)
        parms.eci_tpn = _name(call.transaction_program, "the transaction program", 4)
        if not 0 <= call.timeout <= MOST_DATA:
            raise ValueError(f"a time-out of {call.timeout} seconds cannot be told")
        parms.eci_timeout = call.timeout
        self.user = ctypes.create_string_buffer(_text(call.user, "the user"))
        self.password = ctypes.create_string_buffer(_text(call.password, "the password"))
        if call.user:
            parms.eci_userid_ptr = ctypes.addressof(self.user)
        if call.password:
            parms.eci_password_ptr = ctypes.addressof(self.password)
        self.area: Optional[ctypes.Array[ctypes.c_char]] = None

    def __del__(self) -> None:
        if hasattr(self, "password"):
            ctypes.memset(self.password, 0, len(self.password))

    def with_area(self, data: bytes, room: int) -> _Request:
        size = max(len(data), room)
        if size > MOST_DATA:
            raise ValueError(f"{size} bytes are more than the {MOST_DATA} of a COMMAREA")
        if size > 0:
            self.area = (ctypes.c_char * size)()
            ctypes.memmove(self.area, data, len(data))
            self.parms.eci_commarea = ctypes.addressof(self.area)
            self.parms.eci_commarea_length = size
            if len(data) < size:
                self.parms.commarea_outbound_length = len(data)
        return self

    def with_channel(self, channel: Channel) -> _Request:
        self.parms.channel = channel._token.value
        return self

    def data(self) -> bytes:
        return b"" if self.area is None else self.area.raw


def _call(call: Union[Call, str]) -> Call:
    return Call(call) if isinstance(call, str) else call


def _collect(token: Optional[int], call_type: int, qualifier: int) -> _Request:
    """Collects a reply; its code is in the attribute rc, its COMMAREA is data()."""
    request = _Request(Call(""), call_type)
    request.with_area(b"", MOST_DATA)  # no reply is longer
    request.parms.commarea_outbound_length = 0
    request.parms.eci_message_qualifier = qualifier
    request.rc = _library.QPX_ECI_Execute(token, ctypes.byref(request.parms))  # type: ignore
    return request


def _reply_of(request: _Request) -> bytes:
    length = max(0, min(request.parms.commarea_inbound_length, MOST_DATA))
    return ctypes.string_at(request.area, length) if request.area is not None else b""


# ---- Channels ------------------------------------------------------------------------------------


class ContainerInfo(NamedTuple):
    name: str
    is_text: bool  # characters in the code page ccsid; else bytes
    ccsid: int
    size: int


_CODECS = {37: "cp037", 273: "cp273", 367: "ascii", 437: "cp437", 500: "cp500", 819: "latin-1",
           850: "cp850", 858: "cp858", 923: "iso8859-15", 1140: "cp1140", 1200: "utf-16-be",
           1208: "utf-8", 1252: "cp1252"}


def _codec(ccsid: int) -> str:
    try:
        return _CODECS[ccsid]
    except KeyError:
        raise LookupError(f"no codec is known for CCSID {ccsid}; take the bytes") from None


class Channel:
    """A channel with its containers, whose names are the keys of a mapping to their bytes.

        with qpxclient.Channel("ORDER") as order:
            order.add_text("CUSTOMER", "4711")
            order["LINES"] = lines                # adds a container of bytes, or replaces its data
            gateway.call_channel("ORDERS", order)
            print(order.text("INVOICE"))

    Leaving the with block deletes it; that waits as long as an asynchronous call has it.
    """

    def __init__(self, name: str) -> None:
        self._token = ctypes.c_void_p()
        _check(_library.ECI_createChannel(_text(name, "the channel"), ctypes.byref(self._token)),
               "ECI_createChannel")

    def __enter__(self) -> Channel:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_token", None):
            warnings.warn("a channel was not closed", ResourceWarning, source=self)
            self.close()

    def close(self) -> None:
        """Deletes the channel; nothing if that is done already."""
        if self._token:
            _check(_library.ECI_deleteChannel(ctypes.byref(self._token)), "ECI_deleteChannel")

    @property
    def name(self) -> str:
        buffer = ctypes.create_string_buffer(17)
        _check(_library.ECI_getChannelName(self._token, buffer), "ECI_getChannelName")
        return buffer.value.decode("latin-1")

    def add_bytes(self, name: str, data: bytes) -> None:
        self._create(name, _BIT, 0, data)

    def add_text(self, name: str, text: str, ccsid: int = UTF_8) -> None:
        self._create(name, _CHAR, ccsid, text.encode(_codec(ccsid)))

    def text(self, name: str) -> str:
        """The characters of a container, by the codec of its code page."""
        return self[name].decode(_codec(self.info(name).ccsid))

    def info(self, name: str) -> ContainerInfo:
        info = _Info()
        rc = _library.ECI_getContainerInfo(self._token, _text(name, "the container"),
                                           ctypes.byref(info))
        if rc == Code.ECI_ERR_CONTAINER_NOTFOUND:
            raise KeyError(name)
        _check(rc, "ECI_getContainerInfo")
        return self._described(info)

    def containers(self) -> List[ContainerInfo]:
        """The containers, the newest first."""
        info, all_of_them = _Info(), []
        rc = _library.ECI_getFirstContainer(self._token, ctypes.byref(info))
        while rc == 0:
            all_of_them.append(self._described(info))
            rc = _library.ECI_getNextContainer(self._token, ctypes.byref(info))
        if rc != Code.ECI_ERR_ENDOFCONTAINERS:
            raise _error(rc, "ECI_getNextContainer")
        return all_of_them

    def __getitem__(self, name: str) -> bytes:
        size = self.info(name).size
        buffer, read = (ctypes.c_char * max(size, 1))(), ctypes.c_size_t()
        _check(_library.ECI_getContainerData(self._token, _text(name, "the container"), buffer,
                                             size, 0, ctypes.byref(read)), "ECI_getContainerData")
        return buffer.raw[:read.value]

    def __setitem__(self, name: str, data: bytes) -> None:
        rc = _library.ECI_setContainerData(self._token, _text(name, "the container"), bytes(data),
                                           len(data))
        if rc == Code.ECI_ERR_CONTAINER_NOTFOUND:
            self.add_bytes(name, data)
        else:
            _check(rc, "ECI_setContainerData")

    def __delitem__(self, name: str) -> None:
        rc = _library.ECI_deleteContainer(self._token, _text(name, "the container"))
        if rc == Code.ECI_ERR_CONTAINER_NOTFOUND:
            raise KeyError(name)
        _check(rc, "ECI_deleteContainer")

    def __contains__(self, name: str) -> bool:
        return any(each.name == name for each in self.containers())

    def __iter__(self) -> Iterator[str]:
        return iter([each.name for each in self.containers()])

    def __len__(self) -> int:
        return len(self.containers())

    def _create(self, name: str, kind: int, ccsid: int, data: bytes) -> None:
        _check(_library.ECI_createContainer(self._token, _text(name, "the container"), kind, ccsid,
                                            bytes(data), len(data)), "ECI_createContainer")

    @staticmethod
    def _described(info: _Info) -> ContainerInfo:
        return ContainerInfo(info.name.decode("latin-1"), info.type == _CHAR, info.ccsid,
                             info.dataLength)


# ---- Connections ---------------------------------------------------------------------------------


class System(NamedTuple):
    name: str
    description: str


@dataclass(frozen=True)
class PasswordDetails:
    """What a server tells of a user whose password it has accepted; times as it has sent them,
    None if it has not set them."""

    last_verified: Optional[datetime.datetime]
    last_accessed: Optional[datetime.datetime]
    expires: Optional[datetime.datetime]
    wrong_attempts: int


def _when(time: _DateTime) -> Optional[datetime.datetime]:
    if time.year == 0:
        return None
    return datetime.datetime(time.year, time.month + 1, time.day, time.hour, time.minute,
                             time.second, time.hundredths * 10000)


class Connection:
    """An open connection; connect() makes it. Leaving its with block closes it in order, which
    waits for calls in progress, or by an exception purges it, which gives up what is to come."""

    def __init__(self, host: str, port: int, timeout: int = 30, *, applid: str = "",
                 qualifier: str = "") -> None:
        self._token = ctypes.c_void_p()
        self._dropped: List[int] = []  # qualifiers of replies that nobody wants any more
        _check(_library.QPX_openRemoteGatewayConnectionApplid(
            _text(host, "the host"), port, ctypes.byref(self._token), timeout,
            _text(applid, "the applid"), _text(qualifier, "the qualifier")),
            "QPX_openRemoteGatewayConnectionApplid")

    def __enter__(self) -> Connection:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], _: Optional[BaseException],
                 __: Optional[TracebackType]) -> None:
        if not self._token:
            return
        if kind is None:
            self.close()
        else:
            self._quietly_purge()

    def __del__(self) -> None:
        if getattr(self, "_token", None):
            warnings.warn("a connection was not closed", ResourceWarning, source=self)
            self._quietly_purge()

    # ---- Calls

    def call(self, call: Union[Call, str], data: bytes = b"", room: int = 0) -> bytes:
        """Calls a program with a COMMAREA and waits for it as the program has left it: of the
        length of data, or of room if that is more, with NULs behind a shorter reply."""
        return self._execute(_Request(_call(call)).with_area(data, room)).data()

    def call_channel(self, call: Union[Call, str], channel: Channel) -> None:
        """Calls a program with a channel, which is as the program has left it afterwards."""
        self._execute_channel(_Request(_call(call)).with_channel(channel))

    def unit_of_work(self) -> UnitOfWork:
        """Calls that take effect together or not at all; the first one opens the unit."""
        return UnitOfWork(self)

    def start(self, call: Union[Call, str], data: bytes = b"", room: int = 0) -> Reply:
        """Sends a call and does not wait; the reply is collected later."""
        request = _Request(_call(call), _ASYNC).with_area(data, room)
        self._collect_dropped(_GET_SPECIFIC_REPLY)
        self._execute(request)
        return Reply(self, request.parms.eci_message_qualifier)

    # ---- Passwords and systems

    def verify_password(self, user: str, password: str, server: str = "") -> PasswordDetails:
        details = _Details()
        _check(_library.QPX_ESI_verifyPassword(
            self._token, _text(user, "the user"), _text(password, "the password"),
            _text(server, "the server") or None, ctypes.byref(details)), "QPX_ESI_verifyPassword")
        return self._told(details)

    def change_password(self, user: str, password: str, new_password: str,
                        server: str = "") -> PasswordDetails:
        details = _Details()
        _check(_library.QPX_ESI_changePassword(
            self._token, _text(user, "the user"), _text(password, "the password"),
            _text(new_password, "the new password"), _text(server, "the server") or None,
            ctypes.byref(details)), "QPX_ESI_changePassword")
        return self._told(details)

    def systems(self) -> List[System]:
        """All servers that the Gateway knows."""
        room = 16
        while True:
            systems, count = (_System * room)(), ctypes.c_ushort(room)
            rc = _library.QPX_listSystems(self._token, ctypes.byref(count), systems)
            if rc == Code.QPX_ERR_NO_SYSTEMS:
                return []
            if rc == Code.QPX_ERR_MORE_SYSTEMS and room < 16384:
                room *= 4
                continue
            _check(rc, "QPX_listSystems")
            return [System(each.SystemName[:8].decode("latin-1"),
                           each.Description[:60].decode("latin-1").rstrip())
                    for each in systems[:min(count.value, room)]]

    # ---- State and end

    @property
    def applid(self) -> str:
        return self._lent("QPX_getApplid")

    @property
    def applid_qualifier(self) -> str:
        return self._lent("QPX_getApplidQualifier")

    def close(self) -> None:
        """Closes in order: waits without limit for calls in progress and uncollected replies."""
        self._collect_dropped(_GET_SPECIFIC_REPLY_WAIT)
        self._ended(_library.QPX_closeGatewayConnection(ctypes.byref(self._token)),
                    "QPX_closeGatewayConnection")

    def purge(self, limit: int = 0) -> None:
        """The same, but calls in progress get so many seconds, and replies are given up."""
        self._ended(_library.QPX_purgeGatewayConnection(ctypes.byref(self._token), limit),
                    "QPX_purgeGatewayConnection")

    # ---- Within

    def _execute(self, request: _Request) -> _Request:
        _check(_library.QPX_ECI_Execute(self._token, ctypes.byref(request.parms)),
               "QPX_ECI_Execute", request.parms)
        return request

    def _execute_channel(self, request: _Request) -> _Request:
        _check(_library.QPX_ECI_Execute_Channel(self._token, ctypes.byref(request.parms)),
               "QPX_ECI_Execute_Channel", request.parms)
        return request

    def _collect_dropped(self, call_type: int) -> None:
        dropped, self._dropped = self._dropped, []
        for qualifier in dropped:
            if _collect(self._token, call_type, qualifier).rc == Code.ECI_ERR_NO_REPLY:
                self._dropped.append(qualifier)

    def _lent(self, call: str) -> str:
        text = ctypes.c_char_p()
        _check(getattr(_library, call)(self._token, ctypes.byref(text)), call)
        return (text.value or b"").decode("latin-1")

    def _ended(self, rc: int, call: str) -> None:
        if rc not in (Code.QPX_ERR_INVALIDTIMEOUTPARM, Code.QPX_ERR_GWTOK_CLOSED):
            self._token = ctypes.c_void_p()
        _check(rc, call)

    def _quietly_purge(self) -> None:
        try:
            self.purge()
        except Error:
            pass  # it has ended, as it was to

    @staticmethod
    def _told(details: _Details) -> PasswordDetails:
        return PasswordDetails(_when(details.lastVerifiedTime), _when(details.lastAccessedTime),
                               _when(details.expiryTime), details.invalidCount)


def connect(host: str, port: int, timeout: int = 30, *, applid: str = "",
            qualifier: str = "") -> Connection:
    """Opens a connection; timeout is for the TCP connect, and again until the Gateway answers."""
    return Connection(host, port, timeout, applid=applid, qualifier=qualifier)


class Reply:
    """A call on its way; Connection.start() makes it. One that is dropped gives its reply up."""

    def __init__(self, connection: Connection, qualifier: int) -> None:
        self._connection: Optional[Connection] = connection
        self._qualifier = qualifier

    def __del__(self) -> None:
        if self._connection is not None and self._connection._token:
            self._connection._dropped.append(self._qualifier)

    def get(self) -> bytes:
        """Waits for the reply. Once."""
        return self._take(_GET_SPECIFIC_REPLY_WAIT)

    def poll(self) -> Optional[bytes]:
        """The reply if it is there already, as get(); else None."""
        try:
            return self._take(_GET_SPECIFIC_REPLY)
        except Error as error:
            if error.code != Code.ECI_ERR_NO_REPLY:
                raise
            return None

    def _take(self, call_type: int) -> bytes:
        if self._connection is None:
            raise ValueError("the reply has been taken")
        collected = _collect(self._connection._token, call_type, self._qualifier)
        rc = collected.rc
        if rc not in (Code.ECI_ERR_NO_REPLY, Code.QPX_ERR_MALLOCFAIL):
            self._connection = None
        _check(rc, "QPX_ECI_Execute", collected.parms)
        return _reply_of(collected)


class UnitOfWork:
    """Calls that take effect together or not at all; Connection.unit_of_work() makes it. Leaving
    its with block commits it, or by an exception backs it out. An object is one unit: when a call
    has failed, or it is committed or backed out, further calls fail with ECI_ERR_LUW_TOKEN."""

    def __init__(self, connection: Connection) -> None:
        self._connection = connection
        self._token = 0
        self._over = False
        self._last = Call("")

    def __enter__(self) -> UnitOfWork:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], _: Optional[BaseException],
                 __: Optional[TracebackType]) -> None:
        if kind is None:
            if self.is_open:
                self.commit()
        else:
            try:
                self.back_out()
            except Error:
                pass  # the exception that leaves says more, and the server undoes it

    @property
    def is_open(self) -> bool:
        return self._token != 0

    def call(self, call: Union[Call, str], data: bytes = b"", room: int = 0) -> bytes:
        request = _Request(_call(call)).with_area(data, room)
        self._run(request, _EXTENDED, self._connection._execute)
        self._last = _call(call)
        return request.data()

    def call_channel(self, call: Union[Call, str], channel: Channel) -> None:
        self._run(_Request(_call(call)).with_channel(channel), _EXTENDED,
                  self._connection._execute_channel)
        self._last = _call(call)

    def commit(self) -> None:
        """Makes what the unit has done permanent. A ConnectionEnded leaves it in doubt."""
        if not self.is_open:
            raise Error(Code.ECI_ERR_LUW_TOKEN, "QPX_ECI_Execute")
        self._run(_Request(self._last), _COMMIT, self._connection._execute)

    def back_out(self) -> None:
        """Undoes it; nothing if it is not open."""
        if self.is_open:
            self._run(_Request(self._last), _BACKOUT, self._connection._execute)

    def _run(self, request: _Request, mode: int, execute: Callable[[_Request], Any]) -> None:
        if self._over:
            raise Error(Code.ECI_ERR_LUW_TOKEN, "QPX_ECI_Execute")
        request.parms.eci_extend_mode = mode
        request.parms.eci_luw_token = self._token
        try:
            execute(request)
        except Error as error:
            if error.code != Code.ECI_ERR_ALREADY_ACTIVE:
                self._token, self._over = 0, True
            raise
        self._token = request.parms.eci_luw_token if mode == _EXTENDED else 0
        self._over = self._token == 0


# ---- asyncio -------------------------------------------------------------------------------------


class _Waiter(NamedTuple):
    future: asyncio.Future[bytes]
    channel: Optional[Channel]  # kept until the reply is there


class AsyncConnection:
    """A connection whose calls are awaited; connect_async() makes it.

    Calls are asynchronous calls of the library: any number are on their way at once, one thread of
    the object's own sends them, and another collects their replies as they come. The event loop
    never waits for the Gateway. Cancelling an await gives up its reply; a channel stays the call's
    until the reply is there nevertheless.

    Leaving the async with block waits for the replies that are still to come and closes in order,
    or by an exception purges.
    """

    def __init__(self, host: str, port: int, timeout: int = 30, *, applid: str = "",
                 qualifier: str = "") -> None:
        self._open: Callable[[], Connection] = lambda: Connection(
            host, port, timeout, applid=applid, qualifier=qualifier)
        self._connection: Optional[Connection] = None
        self._executor = ThreadPoolExecutor(1, "qpx-send")
        self._lock = threading.Condition()  # guards the following; held while a call is sent
        # By qualifier, oldest first: the library gives that of a collected reply to the next call,
        # which may be entered before the collecting thread has come to the former one.
        self._waiters: Dict[int, List[_Waiter]] = {}
        self._ending = False

    async def __aenter__(self) -> AsyncConnection:
        self._loop = asyncio.get_running_loop()
        try:
            self._connection = await self._in_thread(self._open)
        except BaseException:
            self._executor.shutdown(wait=False)
            raise
        self._collector = threading.Thread(target=self._collect_all, name="qpx-collect",
                                           daemon=True)
        self._collector.start()
        return self

    async def __aexit__(self, kind: Optional[Type[BaseException]], _: Optional[BaseException],
                        __: Optional[TracebackType]) -> None:
        connection = self._connection
        self._connection = None
        if connection is None:
            return
        # A send that waits for the Gateway has the executor; the end comes beside it.
        end = asyncio.ensure_future(self._loop.run_in_executor(
            None, self._end, connection, kind is None))
        await asyncio.shield(end)

    async def call(self, call: Union[Call, str], data: bytes = b"", room: int = 0) -> bytes:
        """As Connection.call(), with the reply as long as the program has made it."""
        request = _Request(_call(call), _ASYNC).with_area(data, room)
        return await self._run(request, Connection._execute, None)

    async def call_channel(self, call: Union[Call, str], channel: Channel) -> None:
        """As Connection.call_channel()."""
        request = _Request(_call(call), _ASYNC).with_channel(channel)
        await self._run(request, Connection._execute_channel, channel)

    @property
    def outstanding(self) -> int:
        """How many replies are still to come."""
        return sum(len(each) for each in list(self._waiters.values()))

    def _in_thread(self, function: Callable[..., Any], *arguments: Any) -> Any:
        return self._loop.run_in_executor(self._executor, function, *arguments)

    async def _run(self, request: _Request, execute: Callable[..., Any],
                   channel: Optional[Channel]) -> bytes:
        if self._connection is None:
            raise ConnectionEnded(Code.QPX_ERR_NULLGWTOK, "QPX_ECI_Execute")
        waiter = _Waiter(self._loop.create_future(), channel)
        await self._in_thread(self._send, self._connection, request, execute, waiter)
        return await waiter.future

    def _send(self, connection: Connection, request: _Request, execute: Callable[..., Any],
              waiter: _Waiter) -> None:
        with self._lock:
            execute(connection, request)
            self._waiters.setdefault(request.parms.eci_message_qualifier, []).append(waiter)
            self._lock.notify_all()

    def _collect_all(self) -> None:
        connection = self._connection
        while True:
            with self._lock:
                self._lock.wait_for(lambda: self._waiters or self._ending)
                if not self._waiters:
                    return
            assert connection is not None
            collected = _collect(connection._token, _GET_REPLY_WAIT, 0)
            # Who sends has the lock until the call is entered, so it is there by now.
            with self._lock:
                qualifier = collected.parms.eci_message_qualifier
                if qualifier != 0:
                    known = self._waiters.get(qualifier, [])
                    answered = known[:1]
                    del known[:1]
                    if not known:
                        self._waiters.pop(qualifier, None)
                else:  # there is no reply, and none will come
                    answered = [each for known in self._waiters.values() for each in known]
                    self._waiters = {}
                self._lock.notify_all()
            self._deliver(answered, collected)

    def _deliver(self, answered: List[_Waiter], collected: _Request) -> None:
        rc = collected.rc
        error = _error(rc, "QPX_ECI_Execute", collected.parms) if rc != 0 else None
        data = _reply_of(collected) if rc == 0 else b""

        def finish() -> None:
            for waiter in answered:
                if waiter.future.done():
                    continue  # cancelled meanwhile
                if error is not None:
                    waiter.future.set_exception(error)
                else:
                    waiter.future.set_result(data)

        try:
            self._loop.call_soon_threadsafe(finish)
        except RuntimeError:
            pass  # the loop is closed, and nobody waits any more

    def _end(self, connection: Connection, in_order: bool) -> None:
        try:
            if in_order:
                self._executor.shutdown(wait=True)  # what is to be sent, is
                with self._lock:
                    self._lock.wait_for(lambda: not self._waiters)
                connection.close()
            else:
                connection._quietly_purge()
        finally:
            with self._lock:
                self._ending = True
                self._lock.notify_all()
            self._collector.join()
            self._executor.shutdown(wait=True)


def connect_async(host: str, port: int, timeout: int = 30, *, applid: str = "",
                  qualifier: str = "") -> AsyncConnection:
    """A connection for asyncio, opened by entering its async with block."""
    return AsyncConnection(host, port, timeout, applid=applid, qualifier=qualifier)
